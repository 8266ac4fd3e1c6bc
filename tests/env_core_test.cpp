// System properties and the compact environments the core builds.
#include "env_fixture.h"

#include <functional>

using CompactEnv = EnvFixture;

using producer = std::function<vexo_t_error_code(char ***, size_t *)>;
// What a producer made, read back (when `read`) and freed. Under every allocation failure it must fail
// cleanly, writing nothing; `allocations`, when not 0, is how many a success takes.
pairs take(const producer &produce, long allocations = 0, bool read = true) {
  pairs out;
  const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
    char **env = kUnwrittenEnv;
    size_t size = 7;
    const vexo_t_error_code rc = produce(&env, &size);
    EXPECT_TRUE(scope.injected() ? rc == VEXO_E_OUT_OF_MEMORY && env == kUnwrittenEnv && size == 7u
                                 : rc == VEXO_S_NOERR)
        << rc;
    if (rc == VEXO_S_NOERR)
      out = read ? read_block(env, size, true) : pairs{}, vexo_free(env);
  });
  EXPECT_TRUE(allocations == 0 || made == allocations) << made << " allocations";
  return out;
}
pairs merge(char **one, size_t size1, char **two, size_t size2, long allocations = 0) {
  return take([&](char ***e, size_t *s) { return vexo_merge_compact_envs(one, size1, two, size2, e, s, 0); },
              allocations);
}
vexo_t_error_code environ_form(char ***e, size_t *) {
  return vexo_get_system_properties(e, nullptr, VEXO_SYSTEM_PROPERTIES_ENVIRON);
}
// Selector 12 gives the live strings unchanged, empty ones too, packed behind their pointers.
void expect_environ_form(const std::vector<std::string> &live) {
  char **block = nullptr;
  ASSERT_EQ(environ_form(&block, nullptr), VEXO_S_NOERR);
  const char *next = reinterpret_cast<const char *>(block + live.size() + 1);
  size_t i = 0;
  for (; block[i] != nullptr && i < live.size(); next = block[i] + std::strlen(block[i]) + 1, ++i)
    EXPECT_TRUE(block[i] == next && block[i] == live[i]) << i;
  EXPECT_TRUE(i == live.size() && block[i] == nullptr);
  vexo_free(block);
}

TEST_F(CompactEnv, SystemPropertyCopiesTheLiveValue) {
  ASSERT_EQ(setenv("VEXO_TEST_PROPERTY", "/tmp/a=b", 1), 0);
  fault::alloc_sweep([](fault::alloc_scope &scope) {
    char *v = vexo_get_system_property_allocate("VEXO_TEST_PROPERTY", 0);
    ASSERT_EQ(v == nullptr, scope.injected());
    EXPECT_TRUE(!v || (std::strcmp(v, "/tmp/a=b") == 0 && v != getenv("VEXO_TEST_PROPERTY")));
    vexo_free(v);
  });
  ASSERT_EQ(unsetenv("VEXO_TEST_PROPERTY"), 0);
  EXPECT_EQ(vexo_get_system_property_allocate("VEXO_TEST_PROPERTY", 0), nullptr);
}

TEST_F(CompactEnv, SystemPropertiesInBothFormsOfTheLiveEnvironment) {
  const std::vector<std::string> live = {"A=1", "B", "=x", "", "D=a=b", "A=2", "E=", "\xE9=\xFF"};
  use(live);
  EXPECT_EQ(take([](char ***e, size_t *s) { return vexo_get_system_properties(e, s, 4); }, 1),
            (pairs{{"A", "1"}, {"B", ""}, {"D", "a=b"}, {"A", "2"}, {"E", ""}, {"\xE9", "\xFF"}}));
  expect_environ_form(live);
  take(environ_form, 1, false);
}

TEST_F(CompactEnv, MakeFromEitherEntryForm) {
  const char *nul_form[] = {"A\0001", "B\0", "\0x", "", "D\0a=b", "A\0002", "K=V\0w", nullptr};
  const char *eq_form[] = {"A=1", "B", "=x", "", "D=a=b", "A=2", "K=V=w", nullptr};
  EXPECT_EQ(take([&](char ***e, size_t *s) { return vexo_make_compact_env(nul_form, e, s, 0); }, 1),
            (pairs{{"A", "1"}, {"B", ""}, {"D", "a=b"}, {"A", "2"}, {"K=V", "w"}}));
  EXPECT_EQ(take([&](char ***e, size_t *s) { return vexo_make_compact_env(eq_form, e, s, 1); }, 1),
            (pairs{{"A", "1"}, {"B", ""}, {"D", "a=b"}, {"A", "2"}, {"K", "V=w"}}));
}

// The merge also allocates its key index.
TEST_F(CompactEnv, MergeKeepsTheFirstEnvironmentsEntriesAndEachOneOrder) {
  compact_env env1({"PATH=/bin", "A=1", "A=1b", "HOME=/root"}), none{std::vector<std::string>{}},
      env2({"Z=26", "A=2", "HOME=/home", "B=2", "Z=27", "PATH2=x"});
  const pairs only1 = {{"PATH", "/bin"}, {"A", "1"}, {"A", "1b"}, {"HOME", "/root"}};
  pairs want = only1;
  want.insert(want.end(), {{"Z", "26"}, {"B", "2"}, {"Z", "27"}, {"PATH2", "x"}});
  EXPECT_EQ(merge(env1.env, env1.size, env2.env, env2.size, 2), want);
  for (auto [one, two] : std::vector<std::pair<char **, char **>>{
           {env1.env, nullptr}, {nullptr, env1.env}, {none.env, env1.env}, {env1.env, env1.env}})
    EXPECT_EQ(merge(one, 0, two, 0), only1);
  // Thousands of keys out of order, many prefixes of others: the look-up must find only equal keys.
  std::vector<std::string> text1, text2;
  for (int i = 0; i < 5000; ++i) {
    const std::string key = "K" + std::to_string((i * 7919) % 5000 + 1);
    text1.push_back(key + "=1");
    text2.insert(text2.end(), {key + "0=2", key + "=2"});  // K<k>0 is in env1 exactly when k <= 500
  }
  compact_env big1(text1), big2(text2);
  const pairs got = merge(big1.env, big1.size, big2.env, big2.size);
  ASSERT_EQ(got.size(), 5000u + 4500u);
  for (size_t i = 0; i < got.size(); ++i)
    EXPECT_TRUE(got[i].second == (i < 5000 ? "1" : "2") &&
                (i < 5000 || std::stoi(got[i].first.substr(1)) > 5000));
}

TEST_F(CompactEnv, EmptyInputsGiveAnEmptyBlockBadArgumentsChangeNothing) {
  for (bool cleared : {false, true}) {
    use({});
    if (cleared)
      environ = nullptr;  // as clearenv leaves it
    EXPECT_EQ(take([](char ***e, size_t *s) { return vexo_get_system_properties(e, s, 4); }), pairs{});
    expect_environ_form({});
  }
  const char *none[] = {nullptr}, *all_left_out[] = {"", "=x", nullptr};
  for (const char *const *list : std::initializer_list<const char *const *>{nullptr, none, all_left_out})
    EXPECT_EQ(take([&](char ***e, size_t *s) { return vexo_make_compact_env(list, e, s, 1); }), pairs{});
  EXPECT_EQ(merge(nullptr, 0, nullptr, 0), pairs{});
  char **block = kUnwrittenEnv;
  size_t size = 7;
  for (int selector : {0, 3, 5, 11, 13, -4})
    EXPECT_EQ(vexo_get_system_properties(&block, &size, selector), VEXO_E_NOT_SUPPORTED) << selector;
  EXPECT_EQ(vexo_make_compact_env(none, &block, &size, 2), VEXO_E_PARAMETER_ERROR);
  EXPECT_TRUE(block == kUnwrittenEnv && size == 7u);
}
