// Start-up and shutdown, the initial environment and the copies of the
// current one: layout, the UTF-8 rebuild, changes between the two passes.
#include "unix/unix_internal.h"

#include "fault.h"

#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;
using copier = vexo_t_error_code (*)(char ***, size_t *, vexo_t_bits);
constexpr vexo_t_bits kInitial = VEXO_GET_ENVIRON_OPTION_INITIAL;
constexpr vexo_t_bits kCurrent = VEXO_GET_ENVIRON_OPTION_CURRENT;
constexpr vexo_t_bits kRefresh = VEXO_GET_ENVIRON_OPTION_REFRESH;
constexpr vexo_t_bits kNul = VEXO_COPY_ENVIRON_OPTION_NUL_SEPARATED;
char **const kUntouched = reinterpret_cast<char **>(0x1);

// The entries of a compact block. Every pointer must lie inside the block behind the pointer array,
// after the previous entry, and every entry be key NUL value NUL, legal UTF-8, within the block.
pairs read(char **env, size_t size) {
  pairs out;
  size_t n = 0;
  while (env[n] != nullptr)
    ++n;
  const char *low = reinterpret_cast<const char *>(env + n + 1);
  const char *end = reinterpret_cast<const char *>(env) + size;
  auto nul = [&](const char *p) {
    return p >= low && p < end ? static_cast<const char *>(std::memchr(p, 0, static_cast<size_t>(end - p)))
                               : nullptr;
  };
  for (size_t i = 0; i < n; ++i) {
    const char *key = env[i];
    const char *key_end = nul(key);
    const char *value_end = key_end != nullptr ? nul(key_end + 1) : nullptr;
    if (value_end == nullptr) {
      ADD_FAILURE() << "entry " << i << " outside the block, out of order or unterminated";
      break;
    }
    EXPECT_GE(vexo_is_legal_utf8_string(key, static_cast<size_t>(value_end + 1 - key), 0), 0) << i;
    out.emplace_back(std::string(key, key_end), std::string(key_end + 1, value_end));
    low = value_end + 1;
  }
  return out;
}

// What vexo_unix_get_environ gave; kUntouched and 7 where it wrote nothing.
struct got {
  vexo_t_error_code rc;
  char **env = kUntouched;
  size_t size = 7;
  bool untouched() const { return env == kUntouched && size == 7u; }
};
got get(vexo_t_bits options) {
  got g{};
  g.rc = vexo_unix_get_environ(&g.env, &g.size, options);
  return g;
}
pairs initial() {
  const got g = get(kInitial);
  EXPECT_EQ(g.rc, VEXO_S_NOERR);
  return g.rc != VEXO_S_NOERR || g.env == nullptr ? pairs{} : read(g.env, g.size);
}
// Arrays of our own in place of the process environment.
class Environ : public fault::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
    environ = saved_;
    fault::Test::TearDown();
  }
  void use(std::vector<std::string> entries) {
    auto &[text, ptrs] = envs_.emplace_back(std::move(entries), std::vector<char *>{});
    for (std::string &s : text)
      ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
    environ = ptrs.data();
  }

 private:
  char **saved_ = environ;
  std::list<std::pair<std::vector<std::string>, std::vector<char *>>> envs_;
};

TEST_F(Environ, KeepsEntriesWithAKeyAndSizesForAll) {
  const struct {
    std::vector<std::string> os;
    size_t size;
    pairs want;
  } cases[] = {
      {{"A=1", "B", "=x", "", "D=a=b"},
       6 * sizeof(char *) + 4 + 3 + 3 + 2 + 6,
       {{"A", "1"}, {"B", ""}, {"D", "a=b"}}},
      {{}, sizeof(char *), {}},
  };
  for (const auto &c : cases) {
    use(c.os);
    for (copier copy : {copy_current_os_environ_raw, copy_current_os_environ}) {
      fault::alloc_scope scope;
      char **env = nullptr;
      size_t size = 0;
      ASSERT_EQ(copy(&env, &size, kNul), VEXO_S_NOERR);
      EXPECT_EQ(scope.allocations(), 1);  // all UTF-8: the two-pass block itself
      EXPECT_EQ(size, c.size);
      EXPECT_EQ(env[0], c.want.empty() ? nullptr : reinterpret_cast<char *>(env + c.os.size() + 1));
      EXPECT_EQ(read(env, size), c.want);
      vexo_free(env);
      EXPECT_EQ(scope.live(), 0);
    }
  }
}

TEST_F(Environ, MissingArray) {
  environ = nullptr;
  for (copier copy : {copy_current_os_environ_raw, copy_current_os_environ, vexo_unix_get_environ}) {
    got g{};
    EXPECT_EQ(copy(&g.env, &g.size, kCurrent), VEXO_E_IMPOSSIBLE_ERROR);
    EXPECT_TRUE(g.untouched());
  }
}

TEST_F(Environ, EntriesThatAreNotUtf8AreReadAsLatin1) {
  const std::pair<std::vector<std::string>, pairs> cases[] = {
      {{"A=1", "V=caf\xE9", "=\xE9", "N\xFF", "B=x"},
       {{"A", "1"}, {"V", "caf\xC3\xA9"}, {"N\xC3\xBF", ""}, {"B", "x"}}},
      {{"A=1", "V=caf\xE9"}, {{"A", "1"}, {"V", "caf\xC3\xA9"}}},  // the very last byte
      // The key decides for the whole entry: its UTF-8 value is re-read too.
      {{"\xE9=\xC3\xA9", "A=1"}, {{"\xC3\xA9", "\xC3\x83\xC2\xA9"}, {"A", "1"}}},
  };
  for (const auto &[os, want] : cases) {
    use(os);
    char **env = nullptr;
    size_t size = 0;
    ASSERT_EQ(copy_current_os_environ(&env, &size, kNul), VEXO_S_NOERR);
    EXPECT_EQ(read(env, size), want);
    vexo_free(env);
  }
}

TEST_F(Environ, ChangesBetweenThePasses) {
  const struct {
    const char *what;
    std::vector<std::string> after;  // empty: environ becomes null
    pairs copied;                    // empty: VEXO_E_TRY_AGAIN
  } cases[] = {
      {"grown in front", {"LONG=value", "A=1", "B=2"}, {}},
      {"entry lengthened", {"A=1", "B=234"}, {}},
      {"entry lost its '='", {"A=1", "B23"}, {}},
      {"shrunk, one entry longer", {"AB=12345"}, {}},
      {"nulled", {}, {}},
      {"appended to", {"A=1", "B=2", "C=3"}, {{"A", "1"}, {"B", "2"}}},  // what came later is not copied
      {"shrunk", {"B=2"}, {{"B", "2"}}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    use({"A=1", "B=2"});
    fault::alloc_scope scope;
    scope.on_allocation([&](long k) {
      if (k == 1 && c.after.empty())
        environ = nullptr;
      else if (k == 1)
        use(c.after);
    });
    const got g = get(kCurrent);
    if (c.copied.empty()) {
      EXPECT_EQ(g.rc, VEXO_E_TRY_AGAIN);
      EXPECT_TRUE(g.untouched());
    } else {
      ASSERT_EQ(g.rc, VEXO_S_NOERR);
      EXPECT_EQ(g.size, 3 * sizeof(char *) + 8);  // as sized before the change
      EXPECT_EQ(read(g.env, g.size), c.copied);
      vexo_free(g.env);
    }
    EXPECT_EQ(scope.live(), 0);
  }
}

TEST_F(Environ, GetEnvironOptions) {
  use({"X=old"});
  auto bad_options_fail = [] {
    for (vexo_t_bits options : {0u, 3u, 4u, 6u, 7u}) {
      const got g = get(options);
      EXPECT_TRUE(g.rc == VEXO_E_PARAMETER_ERROR && g.untouched()) << options;
    }
  };
  got g = get(kInitial);  // before start-up
  EXPECT_TRUE(g.rc == VEXO_S_NOERR && g.env == nullptr && g.size == 0u);
  bad_options_fail();
  EXPECT_EQ(vexo_unix_get_environ(nullptr, &g.size, kInitial), VEXO_E_PARAMETER_ERROR);

  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  bad_options_fail();
  char **lent = get(kInitial).env;
  EXPECT_EQ(get(kInitial).env, lent);
  use({"X=new", "Y=1"});  // the initial environment keeps the start-up value
  EXPECT_EQ(initial(), (pairs{{"X", "old"}}));
  const got copy = get(kCurrent);
  ASSERT_EQ(copy.rc, VEXO_S_NOERR);
  EXPECT_EQ(read(copy.env, copy.size), (pairs{{"X", "new"}, {"Y", "1"}}));
  vexo_free(copy.env);

  g = get(kInitial | kRefresh);
  ASSERT_EQ(g.rc, VEXO_S_NOERR);
  EXPECT_NE(g.env, lent);
  EXPECT_EQ(get(kInitial).env, g.env);
  EXPECT_EQ(initial(), (pairs{{"X", "new"}, {"Y", "1"}}));

  {
    fault::alloc_scope scope;
    const got one = get(kCurrent);
    char **two = nullptr;
    ASSERT_EQ(vexo_unix_get_environ(&two, nullptr, kCurrent), VEXO_S_NOERR);
    EXPECT_TRUE(one.env != two && one.env != g.env && two != g.env);
    EXPECT_EQ(scope.live(), 2);  // both the caller's to free
    vexo_free(one.env);
    vexo_free(two);
  }

  ASSERT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
  g = get(kInitial);
  EXPECT_TRUE(g.rc == VEXO_S_NOERR && g.env == nullptr && g.size == 0u);
}

TEST_F(Environ, StartUpSucceedsWithoutACopy) {
  use({"A=1"});
  static vexo_t_os_process_handle stale[2] = {1, 2};  // not ours to free
  vexo::zombies = stale;
  vexo::nzombies = 2;
  {
    fault::alloc_scope scope(1);
    EXPECT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
    EXPECT_TRUE(scope.injected());
  }
  EXPECT_TRUE(vexo::zombies == nullptr && vexo::nzombies == 0u);
  const got g = get(kInitial);
  EXPECT_TRUE(g.rc == VEXO_S_NOERR && g.env == nullptr && g.size == 0u);
  environ = nullptr;
  EXPECT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  EXPECT_EQ(get(kInitial).env, nullptr);
}

TEST_F(Environ, ShutdownReapsTheEndedAndForgetsTheRunning) {
  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  const pid_t ended = fork();
  if (ended == 0)
    _exit(0);
  ASSERT_GT(ended, 0);
  const pid_t running = fork();
  if (running == 0) {
    sleep(20);
    _exit(0);
  }
  ASSERT_GT(running, 0);
  siginfo_t info{};
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(ended), &info, WEXITED | WNOWAIT), 0);  // ended, not reaped
  EXPECT_EQ(record_zombie(ended), VEXO_S_NOERR);
  EXPECT_EQ(record_zombie(running), VEXO_S_NOERR);
  EXPECT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
  EXPECT_TRUE(vexo::zombies == nullptr && vexo::nzombies == 0u);
  errno = 0;
  EXPECT_EQ(waitpid(ended, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(kill(running, SIGKILL), 0);
  int status = 0;
  EXPECT_EQ(waitpid(running, &status, 0), running);  // forgotten, so still ours to reap
  EXPECT_TRUE(WIFSIGNALED(status));
}

TEST_F(Environ, FailedRefreshKeepsTheInstalledBlock) {
  use({"A=1", "B=2"});
  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  const got installed = get(kInitial);
  {
    fault::alloc_scope scope;
    scope.on_allocation([&](long) { use({"A=1", "B=2345"}); });
    const got g = get(kInitial | kRefresh);
    EXPECT_TRUE(g.rc == VEXO_E_TRY_AGAIN && g.untouched());
    EXPECT_EQ(scope.live(), 0);
  }
  const got g = get(kInitial);
  EXPECT_TRUE(g.env == installed.env && g.size == installed.size);
  EXPECT_EQ(initial(), (pairs{{"A", "1"}, {"B", "2"}}));
}

TEST_F(Environ, AllocationFailures) {
  // The entry that is not UTF-8 brings the rebuild's allocations into the sweeps.
  use({"A=1", "V=caf\xE9", "B"});
  const pairs want{{"A", "1"}, {"V", "caf\xC3\xA9"}, {"B", ""}};
  const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
    ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
    EXPECT_EQ(initial(), scope.injected() ? pairs{} : want);
    EXPECT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
  });
  EXPECT_GE(made, 6);  // two-pass block, list, one string per entry, the rebuilt block

  fault::alloc_sweep([&](fault::alloc_scope &scope) {
    const got g = get(kCurrent);
    if (scope.injected()) {
      EXPECT_TRUE(g.rc == VEXO_E_OUT_OF_MEMORY && g.untouched());
      return;
    }
    ASSERT_EQ(g.rc, VEXO_S_NOERR);
    EXPECT_EQ(read(g.env, g.size), want);
    vexo_free(g.env);
  });

  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  char **installed = get(kInitial).env;
  fault::alloc_sweep([&](fault::alloc_scope &scope) {
    const got g = get(kInitial | kRefresh);
    EXPECT_EQ(initial(), want);
    if (scope.injected()) {
      EXPECT_TRUE(g.rc == VEXO_E_OUT_OF_MEMORY && g.untouched() && get(kInitial).env == installed);
      return;
    }
    EXPECT_TRUE(g.rc == VEXO_S_NOERR && g.env == get(kInitial).env && g.env != installed);
    // The new block was made in this scope: shutdown frees it before the leak check.
    EXPECT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
  });
}

}  // namespace
