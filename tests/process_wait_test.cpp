// Waiting for children and decoding how they ended, signalling and releasing
// them, and the list of released children that later sweeps reap.
#include "unix/unix_internal.h"

#include "child.h"
#include "fault.h"
#include "scratch.h"

#include <stdexcept>
#include <tuple>

namespace {

constexpr vexo_t_bits kNonblocking = VEXO_PROCESS_WAIT_OPTION_NONBLOCKING,
                      kExit = VEXO_PROCESS_WAIT_OPTION_EXIT,
                      kInterruptible = VEXO_PROCESS_WAIT_OPTION_INTERRUPTIBLE,
                      kNoSweep = VEXO_PROCESS_WAIT_OPTION_NO_SWEEP,
                      kReapLater = VEXO_PROCESS_RELEASE_OPTION_REAP_LATER;
constexpr vexo_t_bits kNullStreams = VEXO_PROCESS_CREATE_OPTION_STDIN_NULL |
                                     VEXO_PROCESS_CREATE_OPTION_STDOUT_NULL |
                                     VEXO_PROCESS_CREATE_OPTION_STDERR_NULL;

using outcome = std::tuple<vexo_t_error_code, vexo_t_bits, vexo_t_int32>;

class Wait : public fault::FdTest {
 protected:
  void TearDown() override {
    for (const pid_t pid : kids_)
      if (!reaped(pid) && kill(pid, SIGKILL) == 0)  // still ours, so the id cannot have been reused
        waitpid(pid, nullptr, 0);
    vexo::release_zombies(1);
    fault::FdTest::TearDown();
    EXPECT_TRUE(child::children().empty()) << "child left behind";
  }

  // /bin/sh -c `script`, streams on the null device; by default it runs until killed.
  pid_t spawn(const std::string &script = "exec sleep 20") {
    vexo_t_os_process_handle pid = -1;
    if (vexo_unix_process_create("/bin/sh", child::sh(script).get(), "/", nullptr, nullptr, nullptr, nullptr,
                                 &pid, kNullStreams) != VEXO_S_NOERR ||
        pid <= 0)
      throw std::runtime_error("could not start " + script);  // a bad id must not reach a kill()
    return kids_.emplace_back(pid);
  }
  // Sends `sig` (0: none) and waits for the child's end without reaping it.
  static void end(pid_t pid, int sig = SIGKILL) {
    siginfo_t info{};
    kill(pid, sig);
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  }
  pid_t ended(int code = 0) {
    const pid_t pid = spawn("exit " + std::to_string(code));
    end(pid, 0);
    return pid;
  }
  // No longer a child of ours (a zombie still is one).
  static bool reaped(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
  }

  // A wait's result with the status record, which starts out as {0xdead, -77}.
  static outcome waited(pid_t pid, vexo_t_bits options, vexo_t_timespec *timeout = nullptr) {
    vexo_t_process_exit_status st{0xdeadu, -77};
    return {vexo_unix_process_wait(pid, timeout, &st, options), st.flags, st.value};
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
};
using Release = Wait;
using Kill = Wait;

TEST(ProcessIds, HandlesAndIdsAreTheSameNumberAboveZero) {
  vexo_t_pid pid = 77, self = 0;
  vexo_t_os_process_handle h = 77;
  for (const pid_t id : {0, -1, INT_MIN, 1, INT_MAX}) {  // the rejected first: both stay 77
    const vexo_t_error_code rc = id > 0 ? VEXO_S_NOERR : VEXO_E_PARAMETER_ERROR;
    EXPECT_TRUE(vexo_unix_process_id(id, &pid) == rc && vexo_unix_process_from_id(id, &h) == rc) << id;
    EXPECT_TRUE(pid == h && h == (id > 0 ? id : 77)) << id;
  }
  EXPECT_TRUE(vexo_unix_process_self_id(&self) == VEXO_S_NOERR && self == getpid());
}

// A core dump is reported exactly when a core was written.
TEST_F(Wait, DecodesExitsSignalsAndCoreDumps) {
  for (const int code : {0, 1, 3, 255})
    EXPECT_EQ(waited(spawn("exit " + std::to_string(code)), kExit), exited(code));
  for (const int sig : {SIGKILL, SIGTERM}) {
    const pid_t pid = spawn();
    ASSERT_EQ(kill(pid, sig), 0);
    EXPECT_EQ(waited(pid, kExit), signaled(sig));
  }
  const pid_t pid = ended(9);  // a null record: reaped all the same, and only once
  EXPECT_EQ(vexo_unix_process_wait(pid, nullptr, nullptr, kExit), VEXO_S_NOERR);
  EXPECT_EQ(waited(pid, kExit), failed(VEXO_E_NOT_FOUND));
  std::string pattern;
  std::getline(std::ifstream("/proc/sys/kernel/core_pattern"), pattern);
  if (pattern.empty() || pattern[0] == '|' || pattern.find('/') != std::string::npos)
    GTEST_SKIP() << "cores do not go to the dumping process's directory: " << pattern;
  scratch::dir dir;  // where the core lands, removed with it
  const outcome o = waited(spawn("cd " + dir.path() + " || exit; ulimit -c unlimited; kill -ABRT $$"), kExit);
  const bool core = !std::filesystem::is_empty(dir.path());
  EXPECT_EQ(o, signaled(SIGABRT, core ? VEXO_PROCESS_EXIT_STATUS_FLAG_CORE_DUMPED : 0)) << pattern;
}

// Early answers come after the sweep (unless NO_SWEEP); only a poll calls waitpid.
TEST_F(Wait, EarlyAnswersFollowTheSweep) {
  const pid_t running = spawn();
  vexo_t_timespec zero{0, 0};
  for (const auto &[handle, timeout, options, rc] :
       std::initializer_list<std::tuple<pid_t, vexo_t_timespec *, vexo_t_bits, vexo_t_error_code>>{
           {0, nullptr, kExit, VEXO_E_PARAMETER_ERROR},
           {-1, nullptr, kNonblocking | kExit | kNoSweep, VEXO_E_PARAMETER_ERROR},
           {running, &zero, kNonblocking | kExit, VEXO_E_NOT_SUPPORTED},
           {running, nullptr, kNonblocking | kInterruptible | kNoSweep, VEXO_E_NOT_SUPPORTED},
           {running, nullptr, kNonblocking | kExit, VEXO_E_WOULD_BLOCK},
           {running, nullptr, kNonblocking | kExit | kInterruptible | kNoSweep, VEXO_E_WOULD_BLOCK}}) {
    const pid_t zombie = ended();
    ASSERT_EQ(vexo::record_zombie(zombie), VEXO_S_NOERR);
    const int calls = waitpids();
    const bool sweep = (options & kNoSweep) == 0;
    EXPECT_EQ(waited(handle, options, timeout), failed(rc)) << handle << " " << options;
    EXPECT_EQ(waitpids() - calls, int{sweep} + int{rc == VEXO_E_WOULD_BLOCK}) << options;
    EXPECT_TRUE(reaped(zombie) == sweep && list_freed() == sweep) << options;
    vexo::release_zombies(1);
  }
}

TEST_F(Wait, ASignalEndsOnlyAnInterruptibleWait) {
  const pid_t pid = spawn(), late = spawn("sleep 1; exit 7");  // ends on its own, after the signal
  struct sigaction old {};
  struct sigaction sa {};
  sa.sa_handler = [](int) {};  // a real handler, and no SA_RESTART
  ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
  ualarm(100000, 0);
  ASSERT_EQ(waited(pid, kExit | kInterruptible), failed(VEXO_E_INTERRUPTED));
  siginfo_t info{};
  ASSERT_EQ(kill(pid, SIGSTOP), 0);  // a stop is not an end (nor asked for)
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT), 0);
  ualarm(100000, 0);  // ends the poll too, should it block
  EXPECT_EQ(waited(pid, kNonblocking | kExit | kInterruptible), failed(VEXO_E_WOULD_BLOCK));
  const int calls = waitpids();
  ualarm(100000, 0);
  EXPECT_EQ(waited(late, kExit), exited(7));
  EXPECT_GE(waitpids() - calls, 3) << "poll, interrupted wait, wait again";
  ualarm(0, 0);
  sigaction(SIGALRM, &old, nullptr);
}

TEST_F(Wait, InjectedFailuresAreRepeatedOrMapped) {
  const pid_t pid = ended(5);
  for (const auto &[err, options, rc] :
       std::initializer_list<std::tuple<int, vexo_t_bits, vexo_t_error_code>>{
           {EINTR, kExit | kInterruptible, VEXO_E_INTERRUPTED},
           {ECHILD, kExit, VEXO_E_NOT_FOUND},
           {EINVAL, kExit, VEXO_E_IMPOSSIBLE_ERROR},
           {ENOTSUP, kExit | kInterruptible, VEXO_E_NOT_SUPPORTED},
           {EIO, kNonblocking | kExit, vexo_map_unix_error(EIO, VEXO_E_OS_ERROR)}}) {
    const int calls = waitpids();
    fault::fail(fault::call::waitpid, err, 3);
    EXPECT_EQ(waited(pid, options), failed(rc)) << err;
    EXPECT_EQ(waitpids() - calls, 1) << err;
  }
  const int calls = waitpids();
  fault::fail(fault::call::waitpid, EINTR, 3);  // without the interruptible bit: made again
  EXPECT_EQ(waited(pid, kExit), exited(5));
  EXPECT_EQ(waitpids() - calls, 4);
}

TEST_F(Release, ReapsAnEndedChildAndKeepsARunningOneOnlyWhenAsked) {
  const pid_t done = ended(4), zombie = ended();
  ASSERT_EQ(vexo::record_zombie(zombie), VEXO_S_NOERR);
  const int calls = waitpids();
  for (const vexo_t_bits options : {VEXO_PROCESS_RELEASE_OPTION_FORGET, 0xFFFFFFFFu})  // nothing at all
    EXPECT_EQ(vexo_unix_process_release(done, options), VEXO_S_NOERR);
  EXPECT_TRUE(waitpids() == calls && !reaped(done) && !reaped(zombie));
  EXPECT_EQ(vexo_unix_process_release(done, 0), VEXO_S_NOERR);
  EXPECT_TRUE(reaped(done) && reaped(zombie) && list_freed());
  EXPECT_TRUE(vexo_unix_process_release(done, kReapLater) == VEXO_E_NOT_FOUND &&
              vexo_unix_process_release(0, kReapLater) == VEXO_E_PARAMETER_ERROR);
  const pid_t first = spawn(), second = spawn();
  EXPECT_TRUE(vexo_unix_process_release(first, 0) == VEXO_E_WOULD_BLOCK && list_freed());
  for (const bool fails : {true, false}) {
    fault::alloc_scope scope(fails ? 1 : 0);  // no room: not recorded, and still ours
    EXPECT_EQ(vexo_unix_process_release(first, kReapLater), fails ? VEXO_E_OUT_OF_MEMORY : VEXO_S_NOERR);
    EXPECT_EQ(list(), fails ? std::vector<pid_t>{} : std::vector<pid_t>{first});
  }
  {
    fault::alloc_scope scope(1);  // the list cannot grow: it stays as it was
    EXPECT_TRUE(vexo::record_zombie(second) == VEXO_E_OUT_OF_MEMORY && list() == std::vector<pid_t>{first});
  }
  end(first);  // once ended, it goes with the next release (or wait) of any handle
  EXPECT_EQ(vexo_unix_process_release(second, kReapLater), VEXO_S_NOERR);
  EXPECT_TRUE(reaped(first) && list() == std::vector<pid_t>{second});
}

// [P1, P2, P3] with only P1 ended leaves [P3, P2]; an array that cannot shrink stays in use. What is
// not our child stays; a forced sweep forgets what runs. Per handle: 1 ended, 0 running, s not ours.
TEST_F(Release, SweepMovesTheLastHandleIntoTheGap) {
  for (const auto &[kind, force, left] :
       std::initializer_list<std::tuple<const char *, int, std::vector<int>>>{
           {"100", 0, {2, 1}}, {"s10", 0, {0, 2}}, {"000", 0, {0, 1, 2}}, {"111", 0, {}}, {"010", 1, {}}}) {
    SCOPED_TRACE(::testing::Message() << kind << " force " << force);
    pid_t p[3];
    std::vector<pid_t> want;
    for (int i = 0; i < 3; ++i) {
      p[i] = kind[i] == 's' ? getpid() : kind[i] == '1' ? ended() : spawn();
      ASSERT_EQ(vexo::record_zombie(p[i]), VEXO_S_NOERR);
    }
    for (const int i : left)
      want.push_back(p[i]);
    vexo_t_os_process_handle *const array = vexo::zombies;
    fault::alloc_scope scope(1);
    EXPECT_EQ(vexo::release_zombies(force), want.empty() ? VEXO_S_DEALLOCATED : VEXO_S_NOERR);
    EXPECT_TRUE(list() == want && list_freed() == want.empty() && scope.injected() == !want.empty());
    EXPECT_TRUE(want.empty() || vexo::zombies == array);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(reaped(p[i]), kind[i] != '0') << i;  // the forgotten are still ours to wait for
    vexo::release_zombies(1);
  }
  EXPECT_EQ(vexo::release_zombies(0), VEXO_S_DEALLOCATED);  // the empty sweep
}

// Start-up forgets what the list held, which is not valid before it;
// shutdown reaps what has ended and forgets what runs, still ours to wait for.
TEST_F(Release, StartUpEmptiesTheListAndShutdownSweepsIt) {
  static vexo_t_os_process_handle stale[2] = {1, 2};  // not ours to free
  vexo::zombies = stale;
  vexo::nzombies = 2;
  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  EXPECT_TRUE(list_freed());
  const pid_t done = ended(), running = spawn();
  EXPECT_TRUE(vexo::record_zombie(done) == VEXO_S_NOERR && vexo::record_zombie(running) == VEXO_S_NOERR);
  EXPECT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
  EXPECT_TRUE(list_freed() && reaped(done) && !reaped(running));
}

TEST_F(Release, AThousandReleasedChildrenAreAllReaped) {
  const vexo_t_bits pipes = VEXO_PROCESS_CREATE_OPTION_STDIN_PIPE | VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE |
                            VEXO_PROCESS_CREATE_OPTION_STDERR_PIPE;
  for (int i = 0; i < 1000; ++i)  // no parent ends asked for, and no handle
    ASSERT_EQ(vexo_unix_process_create("/bin/true", {}, "/", {}, {}, {}, {}, {}, pipes), VEXO_S_NOERR);
  for (int i = 0; i < 4000 && vexo::nzombies != 0; ++i, usleep(5000))  // 20 s at most
    vexo::release_zombies(0);
  EXPECT_TRUE(list_freed()) << vexo::nzombies << " not reaped";
  EXPECT_TRUE(child::children().empty()) << "zombies left in /proc";
}

// Failures come from the system: refused and unknown ones mapped, an
// interrupted call not repeated.
TEST_F(Kill, SignalsAndItsFailures) {
  const pid_t pid = spawn();
  EXPECT_EQ(vexo_unix_process_kill(pid, 0, 0xFFFFFFFFu), VEXO_S_NOERR);
  EXPECT_EQ(vexo_unix_process_kill(pid, 12345, 0), VEXO_E_PARAMETER_ERROR);
  for (const pid_t bad : {0, -1, INT_MIN})  // never a process group, never everyone
    EXPECT_EQ(vexo_unix_process_kill(bad, 0, 0), VEXO_E_PARAMETER_ERROR);
  fault::fail(fault::call::kill, EPERM);  // another user's process
  EXPECT_EQ(vexo_unix_process_kill(pid, SIGTERM, 0), VEXO_E_PERMISSION_ERROR);
  fault::fail(fault::call::kill, EINTR, 2);  // each call meets one failure
  EXPECT_EQ(vexo_unix_process_kill(pid, 0, 0), vexo_map_unix_error(EINTR, VEXO_E_OS_ERROR));
  EXPECT_EQ(vexo_unix_process_kill(pid, SIGTERM, 0), vexo_map_unix_error(EINTR, VEXO_E_OS_ERROR));
  EXPECT_EQ(vexo_unix_process_kill(pid, SIGTERM, 0), VEXO_S_NOERR);
  EXPECT_EQ(waited(pid, kExit), signaled(SIGTERM));
  EXPECT_EQ(vexo_unix_process_kill(pid, 0, 0), VEXO_E_NOT_FOUND);
}

}  // namespace
