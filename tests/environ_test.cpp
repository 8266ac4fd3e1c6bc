// Start-up and shutdown, the initial environment and copies of the current one.
#include "env_fixture.h"

#include <tuple>

constexpr vexo_t_bits kInitial = VEXO_GET_ENVIRON_OPTION_INITIAL;
constexpr vexo_t_bits kCurrent = VEXO_GET_ENVIRON_OPTION_CURRENT;

// What vexo_unix_get_environ gives; kUnwrittenEnv and 7 where it writes nothing.
struct got {
  char **env = kUnwrittenEnv;
  size_t size = 7;
  vexo_t_error_code rc;
  explicit got(vexo_t_bits options) : rc(vexo_unix_get_environ(&env, &size, options)) {}
  bool untouched() const { return env == kUnwrittenEnv && size == 7u; }
  pairs entries() const { return env == nullptr ? pairs{} : read_block(env, size, false); }
};

using Environ = EnvFixture;

TEST_F(Environ, KeepsEntriesWithAKeyAndMakesThemUtf8) {
  // Size 0: not all UTF-8, so rebuilt, each such entry read as Latin-1 as a whole, key and value.
  const std::tuple<std::vector<std::string>, size_t, pairs> cases[] = {
      {{"A=1", "B", "=x", "", "D=a=b"}, 6 * sizeof(char *) + 18, {{"A", "1"}, {"B", ""}, {"D", "a=b"}}},
      {{}, sizeof(char *), pairs{}},
      {{"A=1", "V=caf\xE9", "N\xFF", "B=x"},
       0,
       {{"A", "1"}, {"V", "caf\xC3\xA9"}, {"N\xC3\xBF", ""}, {"B", "x"}}},
      {{"A=1", "V=caf\xE9"}, 0, {{"A", "1"}, {"V", "caf\xC3\xA9"}}},
      {{"\xE9=\xC3\xA9", "A=1"}, 0, {{"\xC3\xA9", "\xC3\x83\xC2\xA9"}, {"A", "1"}}}};
  for (const auto &[os, size, want] : cases) {
    use(os);
    fault::alloc_scope scope;
    const got g(kCurrent);
    ASSERT_EQ(g.rc, VEXO_S_NOERR);
    EXPECT_EQ(scope.allocations() == 1, size != 0);  // all UTF-8: the one block
    EXPECT_EQ(size != 0 ? g.size : 0u, size);
    EXPECT_EQ(read_block(g.env, g.size, size == 0), want);  // a rebuilt block is packed
    vexo_free(g.env);
  }
}

TEST_F(Environ, ChangesBetweenThePasses) {
  // Empty: environ becomes null; nothing copied: VEXO_E_TRY_AGAIN.
  const std::pair<std::vector<std::string>, pairs> cases[] = {
      {{"LONG=value", "A=1", "B=2"}, {}},
      {{"A=1", "B=234"}, {}},
      {{"A=1", "B23"}, {}},
      {{}, {}},
      {{"A=1", "B=2", "C=3"}, {{"A", "1"}, {"B", "2"}}},  // later entries are not copied
      {{"B=2"}, {{"B", "2"}}}};
  for (const auto &[after, copied] : cases) {
    SCOPED_TRACE(testing::PrintToString(after));
    use({"A=1", "B=2"});
    fault::alloc_scope scope;
    scope.on_allocation([this, &a = after](long) { a.empty() ? void(environ = nullptr) : use(a); });
    const got g(kCurrent);
    EXPECT_EQ(g.rc, copied.empty() ? VEXO_E_TRY_AGAIN : VEXO_S_NOERR);
    EXPECT_EQ(g.size, copied.empty() ? 7u : 3 * sizeof(char *) + 8);  // as sized before the change
    EXPECT_EQ(g.env == kUnwrittenEnv ? pairs{} : read_block(g.env, g.size, false), copied);
    vexo_free(g.env == kUnwrittenEnv ? nullptr : g.env);
    EXPECT_EQ(scope.live(), 0);
  }
}

TEST_F(Environ, EveryOptionBeforeDuringAndAfter) {
  use({"X=old"});
  EXPECT_EQ(vexo_unix_get_environ(nullptr, nullptr, kInitial), VEXO_E_PARAMETER_ERROR);
  for (int phase = 0; phase < 3; ++phase) {  // before start-up, started, after shutdown
    const vexo_t_bits step = phase == 1 ? 0 : VEXO_INIT_PROCESS_OPTION_DEINIT;
    ASSERT_EQ(phase == 0 ? VEXO_S_NOERR : vexo_init_process_unix(step), VEXO_S_NOERR);
    if (phase == 1)
      use({"X=new", "Y=1"});
    const pairs now = phase == 0 ? pairs{{"X", "old"}} : pairs{{"X", "new"}, {"Y", "1"}};
    const got lent(kInitial);
    EXPECT_TRUE(lent.rc == VEXO_S_NOERR && lent.size == (phase == 1 ? 2 * sizeof(char *) + 6 : 0u));
    EXPECT_EQ(lent.entries(), (phase == 1 ? pairs{{"X", "old"}} : pairs{}));  // kept from start-up
    for (vexo_t_bits o = 0; o < 8; ++o) {
      SCOPED_TRACE(testing::Message() << "phase " << phase << ", options " << o);
      const got g(o);
      if (o != kInitial && o != kCurrent && o != (kInitial | VEXO_GET_ENVIRON_OPTION_REFRESH)) {
        EXPECT_TRUE(g.rc == VEXO_E_PARAMETER_ERROR && g.untouched());
        continue;
      }
      ASSERT_EQ(g.rc, VEXO_S_NOERR);
      EXPECT_EQ(g.entries(), o == kInitial ? lent.entries() : now);
      EXPECT_EQ(g.env == lent.env, o == kInitial);  // else a copy, or a new block installed
      EXPECT_TRUE(o == kCurrent || (g.env == got(kInitial).env && g.size == got(kInitial).size));
      vexo_free(o == kCurrent ? g.env : nullptr);
    }
  }
  environ = nullptr;
  const got g(kCurrent);
  EXPECT_TRUE(g.rc == VEXO_E_IMPOSSIBLE_ERROR && g.untouched());
  EXPECT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);  // even with nothing to copy
}

TEST_F(Environ, AllocationFailures) {
  use({"A=1", "V=caf\xE9", "B"});  // not UTF-8, so the rebuild allocates too
  const pairs want{{"A", "1"}, {"V", "caf\xC3\xA9"}, {"B", ""}};
  fault::alloc_sweep([&](fault::alloc_scope &scope) {
    ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);  // with or without a copy
    EXPECT_EQ(got(kInitial).entries(), scope.injected() ? pairs{} : want);
    EXPECT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
  });
  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  char **const installed = got(kInitial).env;
  for (vexo_t_bits options : {kCurrent, kInitial | VEXO_GET_ENVIRON_OPTION_REFRESH}) {
    fault::alloc_sweep([&](fault::alloc_scope &scope) {
      const got g(options);
      EXPECT_EQ(g.rc, scope.injected() ? VEXO_E_OUT_OF_MEMORY : VEXO_S_NOERR);
      EXPECT_TRUE(g.rc == VEXO_S_NOERR || g.untouched());
      EXPECT_EQ(g.rc == VEXO_S_NOERR ? g.entries() : got(kInitial).entries(), want);
      EXPECT_EQ(got(kInitial).env == installed, options == kCurrent || g.rc != VEXO_S_NOERR);
      if (g.rc == VEXO_S_NOERR && options == kCurrent)
        vexo_free(g.env);
      else if (g.rc == VEXO_S_NOERR)  // a new block made in this scope, freed before the leak check
        vexo::release_env();
    });
  }
}
