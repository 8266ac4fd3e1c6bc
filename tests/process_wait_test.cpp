// Waiting for children and decoding how they ended, signalling and releasing
// them, and the list of released children that later sweeps reap.
#include "unix/unix_internal.h"

#include "fault.h"
#include "scratch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/time.h>
#include <tuple>

namespace {

constexpr vexo_t_bits kNonblocking = VEXO_PROCESS_WAIT_OPTION_NONBLOCKING;
constexpr vexo_t_bits kExit = VEXO_PROCESS_WAIT_OPTION_EXIT;
constexpr vexo_t_bits kInterruptible = VEXO_PROCESS_WAIT_OPTION_INTERRUPTIBLE;
constexpr vexo_t_bits kNoSweep = VEXO_PROCESS_WAIT_OPTION_NO_SWEEP;
constexpr vexo_t_bits kReapLater = VEXO_PROCESS_RELEASE_OPTION_REAP_LATER;
constexpr vexo_t_bits kForget = VEXO_PROCESS_RELEASE_OPTION_FORGET;

using outcome = std::tuple<vexo_t_error_code, vexo_t_bits, vexo_t_int32>;

class Children : public fault::Test {
 protected:
  void SetUp() override {
    fds_ = fault::open_fds();
    fault::Test::SetUp();
    ASSERT_TRUE(children().empty()) << "a child of an earlier test is left";
    release_zombies(1);
  }
  void TearDown() override {
    fault::Test::TearDown();
    vexo_replace_allocator(nullptr, nullptr, nullptr);
    for (const pid_t pid : kids_) {
      if (!reaped(pid)) {  // still ours, so the id cannot have been reused
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
    release_zombies(1);
    EXPECT_EQ(fault::open_fds(), fds_) << "descriptor leaked";
    EXPECT_TRUE(children().empty()) << "child left behind";
  }

  // A child that exits with `code` after `ms`, unless killed first.
  pid_t spawn(int code, int ms = 20000) {
    const pid_t pid = fork();
    if (pid == 0) {
      poll(nullptr, 0, ms);
      _exit(code);
    }
    kids_.push_back(pid);
    return pid;
  }
  pid_t ended(int code = 0) {
    const pid_t pid = spawn(code, 0);
    await_end(pid);
    return pid;
  }
  static void finish(pid_t pid) {
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    await_end(pid);
  }
  // Blocks until the child has ended, without reaping it.
  static void await_end(pid_t pid) {
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  }
  // No longer a child of ours (a zombie still is one).
  static bool reaped(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
  }
  // Processes whose parent is this one, in any state, zombies included.
  static std::vector<pid_t> children() {
    std::vector<pid_t> out;
    for (const auto &e : std::filesystem::directory_iterator("/proc")) {
      std::string stat;
      std::getline(std::ifstream(e.path() / "stat"), stat);
      const size_t end = stat.rfind(')');  // "pid (name) state ppid ...", the name may hold anything
      if (end != std::string::npos && end + 4 < stat.size() && std::atoi(stat.c_str() + end + 4) == getpid())
        out.push_back(std::atoi(e.path().filename().c_str()));
    }
    return out;
  }

  // A wait's result with the status record, which starts out as {0xdead, -77}.
  static outcome waited(pid_t pid, vexo_t_bits options, vexo_t_timespec *timeout = nullptr) {
    vexo_t_process_exit_status st{0xdeadu, -77};
    const vexo_t_error_code rc = vexo_unix_process_wait(pid, timeout, &st, options);
    return {rc, st.flags, st.value};
  }
  static outcome failed(vexo_t_error_code rc) { return {rc, 0xdeadu, -77}; }
  static outcome exited(int value) { return {VEXO_S_NOERR, VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED, value}; }
  static outcome signaled(int sig, vexo_t_bits core = 0) {
    return {VEXO_S_NOERR, VEXO_PROCESS_EXIT_STATUS_FLAG_SIGNALED | core, sig};
  }
  static int waitpids() { return fault::calls(fault::call::waitpid); }
  static std::vector<pid_t> list() { return {vexo::zombies, vexo::zombies + vexo::nzombies}; }
  static bool list_freed() { return vexo::zombies == nullptr && vexo::nzombies == 0; }

  std::vector<pid_t> kids_;
  int fds_ = 0;
};
using Wait = Children;
using Release = Children;
using ZombieList = Children;
using Kill = Children;

TEST(ProcessIds, HandlesAndIdsAreTheSameNumberAboveZero) {
  for (const pid_t id : {0, -1, INT_MIN, 1, 4242, INT_MAX}) {
    vexo_t_pid pid = 77;
    vexo_t_os_process_handle h = 77;
    const vexo_t_error_code rc = id > 0 ? VEXO_S_NOERR : VEXO_E_PARAMETER_ERROR;
    EXPECT_EQ(vexo_unix_process_id(id, &pid), rc);
    EXPECT_EQ(vexo_unix_process_from_id(id, &h), rc);
    EXPECT_EQ(pid, id > 0 ? id : 77);
    EXPECT_EQ(h, id > 0 ? id : 77);
  }
  vexo_t_pid self = 0;
  EXPECT_EQ(vexo_unix_process_self_id(&self), VEXO_S_NOERR);
  EXPECT_EQ(self, getpid());
}

TEST_F(Wait, DecodesExitsAndSignals) {
  for (const int code : {0, 1, 3, 42, 254, 255})
    EXPECT_EQ(waited(spawn(code, 0), kExit), exited(code));
  for (const int sig : {SIGKILL, SIGTERM, SIGUSR1}) {
    const pid_t pid = spawn(0);
    ASSERT_EQ(kill(pid, sig), 0);
    EXPECT_EQ(waited(pid, kExit), signaled(sig));
  }
}

TEST_F(Wait, CoreDumpIsReportedExactlyWhenACoreWasWritten) {
  std::string pattern;
  std::getline(std::ifstream("/proc/sys/kernel/core_pattern"), pattern);
  if (pattern.empty() || pattern[0] == '|')
    GTEST_SKIP() << "cores go to a program, not to a file: '" << pattern << "'";
  if (pattern.find('/') != std::string::npos)
    GTEST_SKIP() << "cores go to a fixed place this test does not watch: " << pattern;
  scratch::dir dir;  // where the core lands, removed with it
  const pid_t pid = fork();
  if (pid == 0) {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (chdir(dir.path().c_str()) != 0 || setrlimit(RLIMIT_CORE, &unlimited) != 0)
      _exit(99);
    signal(SIGABRT, SIG_DFL);
    abort();
  }
  kids_.push_back(pid);
  const outcome got = waited(pid, kExit);
  const bool core = !std::filesystem::is_empty(dir.path());
  EXPECT_EQ(got, signaled(SIGABRT, core ? VEXO_PROCESS_EXIT_STATUS_FLAG_CORE_DUMPED : 0));
  if (!core)
    GTEST_SKIP() << "the system wrote no core (pattern '" << pattern << "')";
}

TEST_F(Wait, StoppedOrContinuedChildStillRuns) {
  const pid_t pid = spawn(0);
  siginfo_t info{};
  ASSERT_EQ(kill(pid, SIGSTOP), 0);
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT), 0);
  EXPECT_EQ(waited(pid, kNonblocking | kExit), failed(VEXO_E_WOULD_BLOCK));
  ASSERT_EQ(kill(pid, SIGCONT), 0);
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WCONTINUED | WNOWAIT), 0);
  EXPECT_EQ(waited(pid, kNonblocking | kExit), failed(VEXO_E_WOULD_BLOCK));
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  EXPECT_EQ(waited(pid, kExit), signaled(SIGKILL));
}

// Every early answer comes after the sweep (unless told not to sweep), which
// a recorded child that has ended shows.
TEST_F(Wait, EarlyAnswersFollowTheSweep) {
  const pid_t running = spawn(0);
  vexo_t_timespec zero{0, 0}, five{5, 0};
  const struct {
    pid_t handle;
    vexo_t_timespec *timeout;
    vexo_t_bits options;
    vexo_t_error_code rc;
  } cases[] = {
      {0, nullptr, kExit, VEXO_E_PARAMETER_ERROR},
      {-1, nullptr, kNonblocking | kExit, VEXO_E_PARAMETER_ERROR},
      {0, nullptr, kExit | kNoSweep, VEXO_E_PARAMETER_ERROR},
      {-1, nullptr, kNonblocking | kExit | kNoSweep, VEXO_E_PARAMETER_ERROR},
      {running, &zero, kExit, VEXO_E_NOT_SUPPORTED},
      {running, &five, kNonblocking | kExit | kNoSweep, VEXO_E_NOT_SUPPORTED},
      {running, nullptr, 0, VEXO_E_NOT_SUPPORTED},
      {running, nullptr, kNonblocking, VEXO_E_NOT_SUPPORTED},
      {running, nullptr, kNonblocking | kInterruptible | kNoSweep, VEXO_E_NOT_SUPPORTED},
      {running, nullptr, kNonblocking | kExit, VEXO_E_WOULD_BLOCK},
      {running, nullptr, kNonblocking | kExit | kInterruptible | kNoSweep, VEXO_E_WOULD_BLOCK},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::Message() << "handle " << c.handle << " options " << c.options);
    const pid_t zombie = ended();
    ASSERT_EQ(record_zombie(zombie), VEXO_S_NOERR);
    const int calls = waitpids();
    const bool sweep = (c.options & kNoSweep) == 0;
    EXPECT_EQ(waited(c.handle, c.options, c.timeout), failed(c.rc));
    EXPECT_EQ(waitpids() - calls, int{sweep} + int{c.rc == VEXO_E_WOULD_BLOCK});
    EXPECT_EQ(list_freed(), sweep);
    EXPECT_EQ(reaped(zombie), sweep);
    EXPECT_FALSE(reaped(running));
    release_zombies(1);
  }
}

TEST_F(Wait, NullRecordReapsOnce) {
  const pid_t pid = ended(9);
  EXPECT_EQ(vexo_unix_process_wait(pid, nullptr, nullptr, kExit), VEXO_S_NOERR);
  EXPECT_TRUE(reaped(pid));
  EXPECT_EQ(waited(pid, kExit), failed(VEXO_E_NOT_FOUND));
  EXPECT_EQ(waited(pid, kNonblocking | kExit), failed(VEXO_E_NOT_FOUND));
}

volatile sig_atomic_t g_alarms = 0;

// SIGALRM every `ms`, handled without SA_RESTART; all put back afterwards.
class alarm_in {
 public:
  explicit alarm_in(long ms) {
    g_alarms = 0;
    struct sigaction sa {};
    sa.sa_handler = [](int) { g_alarms = g_alarms + 1; };
    sigemptyset(&sa.sa_mask);
    sigaction(SIGALRM, &sa, &old_);
    const itimerval t{{0, ms * 1000}, {0, ms * 1000}};
    setitimer(ITIMER_REAL, &t, nullptr);
  }
  ~alarm_in() {
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old_, nullptr);
  }

 private:
  struct sigaction old_ {};
};

TEST_F(Wait, ASignalEndsOnlyAnInterruptibleWait) {
  const pid_t pid = spawn(0), late = spawn(7, 600);  // the latter ends on its own, after several signals
  outcome got;
  {
    alarm_in a(100);
    got = waited(pid, kExit | kInterruptible);
  }
  EXPECT_EQ(got, failed(VEXO_E_INTERRUPTED));
  EXPECT_GE(g_alarms, 1);
  EXPECT_FALSE(reaped(pid));
  const int calls = waitpids();
  {
    alarm_in a(100);
    got = waited(late, kExit);
  }
  EXPECT_EQ(got, exited(7));
  EXPECT_GE(g_alarms, 1);
  EXPECT_GE(waitpids() - calls, 3) << "poll, interrupted wait, wait again";
}

TEST_F(Wait, InjectedFailuresAreRepeatedOrMapped) {
  const pid_t pid = ended(5);
  const struct {
    int err;
    vexo_t_bits options;
    vexo_t_error_code rc;
  } cases[] = {
      {EINTR, kExit | kInterruptible, VEXO_E_INTERRUPTED},
      {ECHILD, kExit, VEXO_E_NOT_FOUND},
      {EINVAL, kExit, VEXO_E_IMPOSSIBLE_ERROR},
      {ENOTSUP, kExit | kInterruptible, VEXO_E_NOT_SUPPORTED},
      {EPERM, kExit, VEXO_E_PERMISSION_ERROR},
      {EIO, kNonblocking | kExit, vexo_map_unix_error(EIO, VEXO_E_OS_ERROR)},
      {ENOMEM, kExit, vexo_map_unix_error(ENOMEM, VEXO_E_OS_ERROR)},
  };
  for (const auto &c : cases) {
    const int calls = waitpids();
    fault::fail(fault::call::waitpid, c.err, 3);
    EXPECT_EQ(waited(pid, c.options), failed(c.rc)) << c.err;
    EXPECT_EQ(waitpids() - calls, 1) << c.err;
    EXPECT_FALSE(reaped(pid));
  }
  const int calls = waitpids();
  fault::fail(fault::call::waitpid, EINTR, 3);
  EXPECT_EQ(waited(pid, kExit), exited(5));
  EXPECT_EQ(waitpids() - calls, 4);
}

TEST_F(Release, ForgetMakesNoCallAtAll) {
  const pid_t running = spawn(0), done = ended(), zombie = ended();
  ASSERT_EQ(record_zombie(zombie), VEXO_S_NOERR);
  const int calls = waitpids();
  for (const vexo_t_bits options : {kForget, kForget | kReapLater, 0xFFFFFFFFu}) {
    EXPECT_EQ(vexo_unix_process_release(running, options), VEXO_S_NOERR);
    EXPECT_EQ(vexo_unix_process_release(done, options), VEXO_S_NOERR);
  }
  EXPECT_EQ(waitpids(), calls);
  EXPECT_EQ(list(), std::vector<pid_t>{zombie});
  EXPECT_FALSE(reaped(done));
  EXPECT_FALSE(reaped(zombie));
}

TEST_F(Release, ReapsAnEndedChildAndKeepsARunningOneOnlyWhenAsked) {
  const pid_t done = ended(4);
  EXPECT_EQ(vexo_unix_process_release(done, 0), VEXO_S_NOERR);
  EXPECT_TRUE(reaped(done));
  EXPECT_EQ(vexo_unix_process_release(done, kReapLater), VEXO_E_NOT_FOUND);
  EXPECT_EQ(vexo_unix_process_release(0, kReapLater), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_unix_process_release(-1, 0), VEXO_E_PARAMETER_ERROR);
  const pid_t first = spawn(0), second = spawn(0);
  EXPECT_EQ(vexo_unix_process_release(first, 0), VEXO_E_WOULD_BLOCK);
  EXPECT_TRUE(list_freed());
  EXPECT_EQ(vexo_unix_process_release(first, kReapLater), VEXO_S_NOERR);
  EXPECT_EQ(list(), std::vector<pid_t>{first});
  EXPECT_FALSE(reaped(first));
  // Once ended, it goes with the next release or wait of any handle.
  finish(first);
  EXPECT_EQ(vexo_unix_process_release(second, kReapLater), VEXO_S_NOERR);
  EXPECT_TRUE(reaped(first));
  EXPECT_EQ(list(), std::vector<pid_t>{second});
  finish(second);
  EXPECT_EQ(waited(ended(2), kExit), exited(2));
  EXPECT_TRUE(reaped(second));
  EXPECT_TRUE(list_freed());
}

TEST_F(Release, RecordingFailureLeavesTheListAsItWas) {
  const pid_t first = spawn(0), second = spawn(0);
  {
    fault::alloc_scope scope(1);
    EXPECT_EQ(vexo_unix_process_release(first, kReapLater), VEXO_E_OUT_OF_MEMORY);
  }
  EXPECT_TRUE(list_freed());
  ASSERT_EQ(vexo_unix_process_release(first, kReapLater), VEXO_S_NOERR);
  vexo_t_os_process_handle *const array = vexo::zombies;
  {
    fault::alloc_scope scope(1);  // now the growth of a list in use
    EXPECT_EQ(record_zombie(second), VEXO_E_OUT_OF_MEMORY);
  }
  EXPECT_EQ(vexo::zombies, array);
  EXPECT_EQ(list(), std::vector<pid_t>{first});
  EXPECT_FALSE(reaped(first));
  EXPECT_FALSE(reaped(second));
}

// A forced sweep reaps the same but forgets what still runs.
TEST_F(ZombieList, SweepMovesTheLastHandleIntoTheGap) {
  const struct {
    const char *ended;  // which of P1, P2, P3 have ended
    int force;
    std::vector<int> left;
  } cases[] = {{"100", 0, {2, 1}}, {"101", 0, {1}}, {"011", 0, {0}}, {"000", 0, {0, 1, 2}},
               {"111", 0, {}},     {"010", 1, {}},  {"000", 1, {}}};
  for (const auto &c : cases) {
    SCOPED_TRACE(::testing::Message() << c.ended << " force " << c.force);
    pid_t p[3];
    for (int i = 0; i < 3; ++i)
      p[i] = c.ended[i] == '1' ? ended() : spawn(0);
    for (const pid_t pid : p)
      ASSERT_EQ(record_zombie(pid), VEXO_S_NOERR);
    std::vector<pid_t> want;
    for (const int i : c.left)
      want.push_back(p[i]);
    EXPECT_EQ(release_zombies(c.force), want.empty() ? VEXO_S_DEALLOCATED : VEXO_S_NOERR);
    EXPECT_EQ(list(), want);
    EXPECT_EQ(list_freed(), want.empty());
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(reaped(p[i]), c.ended[i] == '1') << i;  // the forgotten are still ours to wait for
    for (const pid_t pid : want)
      finish(pid);
    EXPECT_EQ(release_zombies(0), VEXO_S_DEALLOCATED);
    EXPECT_TRUE(list_freed());
  }
  EXPECT_EQ(release_zombies(0), VEXO_S_DEALLOCATED);  // the empty sweep
  EXPECT_TRUE(list_freed());
}

using requests = std::vector<std::pair<char, size_t>>;
requests g_requests;  // 'a'llocations and 'r'eallocations, in handles

TEST_F(ZombieList, GrowsAndShrinksToFitAndKeepsWhatItCannotReap) {
  ASSERT_EQ(vexo_replace_allocator(
                [](size_t n) {
                  g_requests.emplace_back('a', n / sizeof(pid_t));
                  return std::malloc(n);
                },
                [](void *p, size_t n) {
                  g_requests.emplace_back('r', n / sizeof(pid_t));
                  return std::realloc(p, n);
                },
                [](void *p) { std::free(p); }),
            VEXO_S_NOERR);
  g_requests.clear();
  const std::vector<pid_t> strangers{1, getpid(), getppid(), INT_MAX};  // no children of ours
  for (const pid_t pid : strangers)
    ASSERT_EQ(record_zombie(pid), VEXO_S_NOERR);
  ASSERT_EQ(record_zombie(ended()), VEXO_S_NOERR);
  EXPECT_EQ(g_requests, (requests{{'a', 1}, {'r', 2}, {'r', 3}, {'r', 4}, {'r', 5}}));
  g_requests.clear();
  EXPECT_EQ(release_zombies(0), VEXO_S_NOERR);
  EXPECT_EQ(g_requests, (requests{{'r', 4}}));
  EXPECT_EQ(list(), strangers);
  EXPECT_EQ(release_zombies(1), VEXO_S_DEALLOCATED);
  EXPECT_TRUE(list_freed());
}

TEST_F(ZombieList, FailedShrinkKeepsTheLargerArray) {
  const pid_t done = ended(), running = spawn(0);
  ASSERT_EQ(record_zombie(done), VEXO_S_NOERR);
  ASSERT_EQ(record_zombie(running), VEXO_S_NOERR);
  vexo_t_os_process_handle *const array = vexo::zombies;
  {
    fault::alloc_scope scope(1);
    EXPECT_EQ(release_zombies(0), VEXO_S_NOERR);
    EXPECT_TRUE(scope.injected());
  }
  EXPECT_EQ(vexo::zombies, array);
  EXPECT_EQ(list(), std::vector<pid_t>{running});
  EXPECT_TRUE(reaped(done));
}

TEST_F(ZombieList, AThousandReleasedChildrenAreAllReaped) {
  const int fds = fault::open_fds(), forks = fault::calls(fault::call::fork);
  constexpr vexo_t_bits kPipes = VEXO_PROCESS_CREATE_OPTION_STDIN_PIPE |
                                 VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE |
                                 VEXO_PROCESS_CREATE_OPTION_STDERR_PIPE;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(vexo_unix_process_create("/bin/true", nullptr, "/", nullptr, nullptr, nullptr, nullptr, nullptr,
                                       kPipes),
              VEXO_S_NOERR)
        << i;
  }
  EXPECT_EQ(fault::calls(fault::call::fork) - forks, 1000);
  for (int i = 0; i < 4000 && vexo::nzombies != 0; ++i) {  // 20 s at most
    release_zombies(0);
    usleep(5000);
  }
  EXPECT_TRUE(list_freed()) << vexo::nzombies << " not reaped";
  EXPECT_TRUE(children().empty()) << children().size() << " children left";
  EXPECT_EQ(fault::open_fds(), fds);
}

TEST_F(Kill, SignalsAndItsFailures) {
  const pid_t pid = spawn(0);
  EXPECT_EQ(vexo_unix_process_kill(pid, 0, 0), VEXO_S_NOERR);
  EXPECT_EQ(vexo_unix_process_kill(pid, 0, 0xFFFFFFFFu), VEXO_S_NOERR);
  EXPECT_EQ(vexo_unix_process_kill(pid, 12345, 0), VEXO_E_PARAMETER_ERROR);
  for (const pid_t bad : {0, -1, INT_MIN})  // never a process group, never everyone
    EXPECT_EQ(vexo_unix_process_kill(bad, 0, 0), VEXO_E_PARAMETER_ERROR);
  const int calls = fault::calls(fault::call::kill);
  fault::fail(fault::call::kill, EINTR, 2);  // not repeated
  EXPECT_EQ(vexo_unix_process_kill(pid, 0, 0), vexo_map_unix_error(EINTR, VEXO_E_OS_ERROR));
  EXPECT_EQ(fault::calls(fault::call::kill) - calls, 1);
  fault::reset();
  EXPECT_EQ(vexo_unix_process_kill(pid, SIGTERM, 0), VEXO_S_NOERR);
  EXPECT_EQ(waited(pid, kExit), signaled(SIGTERM));
  EXPECT_EQ(vexo_unix_process_kill(pid, 0, 0), VEXO_E_NOT_FOUND);
}

TEST_F(Kill, AnotherUsersProcessIsRefused) {
  NEEDS_ROOT();
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {  // every id changed: neither privilege nor a matching id is left
    if (setgid(scratch::kGid) != 0 || setuid(scratch::kUid) != 0)
      _exit(3);
    const vexo_t_error_code rc = vexo_unix_process_kill(parent, 0, 0);
    _exit(rc == VEXO_E_PERMISSION_ERROR ? 0 : rc == VEXO_S_NOERR ? 1 : 2);
  }
  kids_.push_back(pid);
  EXPECT_EQ(waited(pid, kExit), exited(0)) << "1: allowed, 2: another code, 3: ids not taken";
}

}  // namespace
