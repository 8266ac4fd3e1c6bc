// Waiting for children and decoding how they ended, signalling and releasing them, and the list of released
// children that later sweeps reap.
#include "unix/unix_internal.h"

#include "child.h"
#include "fault.h"
#include "scratch.h"

#include <cstdlib>
#include <stdexcept>
#include <tuple>

constexpr vexo_t_bits kNonblocking = VEXO_PROCESS_WAIT_OPTION_NONBLOCKING,
                      kExit = VEXO_PROCESS_WAIT_OPTION_EXIT,
                      kInterruptible = VEXO_PROCESS_WAIT_OPTION_INTERRUPTIBLE,
                      kNoSweep = VEXO_PROCESS_WAIT_OPTION_NO_SWEEP,
                      kReapLater = VEXO_PROCESS_RELEASE_OPTION_REAP_LATER,
                      kForget = VEXO_PROCESS_RELEASE_OPTION_FORGET;

using outcome = std::tuple<vexo_t_error_code, vexo_t_bits, vexo_t_int32>;

class Wait : public fault::FdTest {
 protected:
  void TearDown() override {
    fault::reset();  // our own kill and waitpid calls below must go through
    for (const pid_t pid : kids_)
      if (!reaped(pid) && kill(pid, SIGKILL) == 0)  // still ours, so the id cannot have been reused
        waitpid(pid, nullptr, 0);
    vexo::release_zombies(1);
    fault::FdTest::TearDown();
    EXPECT_TRUE(child::children().empty()) << "child left behind";
  }

  // /bin/sh -c `script`, streams on the null device (0222); by default it runs until killed.
  pid_t spawn(const std::string &script = "exec sleep 20") {
    vexo_t_os_process_handle pid = -1;
    if (vexo_unix_process_create("/bin/sh", child::plain({"-c", script}).get(), "/", nullptr, nullptr,
                                 nullptr, nullptr, &pid, 0222) != VEXO_S_NOERR ||
        pid <= 0)
      throw std::runtime_error("could not start " + script);  // a bad id must not reach a kill()
    return kids_.emplace_back(pid);
  }
  // A child that has run `script` to its end, not reaped.
  pid_t ended(const std::string &script = "exit 0") {
    const pid_t pid = spawn(script);
    siginfo_t info{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
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
  static outcome only(vexo_t_error_code rc) { return {rc, 0xdeadu, -77}; }
  static outcome exited(int value) { return {VEXO_S_NOERR, VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED, value}; }
  static outcome signaled(int sig, vexo_t_bits core = 0) {
    return {VEXO_S_NOERR, VEXO_PROCESS_EXIT_STATUS_FLAG_SIGNALED | core, sig};
  }
  static int waitpids() { return fault::calls(fault::call::waitpid); }
  static std::vector<pid_t> list() { return {vexo::zombies, vexo::zombies + vexo::nzombies}; }
  static bool list_freed() { return vexo::zombies == nullptr && vexo::nzombies == 0; }

  std::vector<pid_t> kids_;
};

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

// Each row waits for, releases or kills one child while an ended one waits in the list of released children:
// a wait or release answers, early or not, after the sweep that reaps it (none with NO_SWEEP or FORGET, nor
// for a kill), and the waitpid calls made count the sweep's. Ops: w wait, t wait with a zero timeout, r
// release, m release with no room in the list, k kill with `options` as the signal (an interrupted kill is
// not repeated). Child: a script that has ended, "" one that runs, or #number as the handle. A running child
// released for later is listed; a refused one stays ours.
TEST_F(Wait, WaitReleaseAndKillResultsAndTheSweepsTheyMake) {
  vexo_t_timespec zero{0, 0};
  const struct {
    char op;
    const char *child;
    vexo_t_bits options;
    int err, times;  // waitpid fails `times` times with err
    outcome want;
    int calls;  // of waitpid
  } rows[] = {
      {'w', "exit 0", kExit, 0, 0, exited(0), 2},
      {'w', "exit 255", kExit, 0, 0, exited(255), 2},
      {'w', "kill -TERM $$", kNonblocking | kExit, 0, 0, signaled(SIGTERM), 2},
      {'w', "#0", kExit, 0, 0, only(VEXO_E_PARAMETER_ERROR), 1},
      {'w', "#-1", kNonblocking | kExit | kNoSweep, 0, 0, only(VEXO_E_PARAMETER_ERROR), 0},
      {'t', "", kNonblocking | kExit, 0, 0, only(VEXO_E_NOT_SUPPORTED), 1},
      {'w', "", kNonblocking | kInterruptible | kNoSweep, 0, 0, only(VEXO_E_NOT_SUPPORTED), 0},
      {'w', "", kNonblocking | kExit, 0, 0, only(VEXO_E_WOULD_BLOCK), 2},
      {'w', "", kNonblocking | kExit | kInterruptible | kNoSweep, 0, 0, only(VEXO_E_WOULD_BLOCK), 1},
      {'w', "exit 5", kExit | kInterruptible | kNoSweep, EINTR, 3, only(VEXO_E_INTERRUPTED), 1},
      {'w', "exit 5", kExit | kNoSweep, EINTR, 3, exited(5), 4},  // without the interruptible bit: made again
      {'w', "exit 5", kExit | kNoSweep, ECHILD, 3, only(VEXO_E_NOT_FOUND), 1},
      {'w', "exit 5", kExit | kNoSweep, EINVAL, 3, only(VEXO_E_IMPOSSIBLE_ERROR), 1},
      {'w', "exit 5", kExit | kInterruptible | kNoSweep, ENOTSUP, 3, only(VEXO_E_NOT_SUPPORTED), 1},
      {'w', "exit 5", kNonblocking | kExit | kNoSweep, EIO, 3,
       only(vexo_map_unix_error(EIO, VEXO_E_OS_ERROR)), 1},
      {'r', "exit 4", kForget, 0, 0, only(VEXO_S_NOERR), 0},
      {'r', "exit 4", 0xFFFFFFFFu, 0, 0, only(VEXO_S_NOERR), 0},  // forgets, nothing else
      {'r', "exit 4", 0, 0, 0, only(VEXO_S_NOERR), 2},
      {'r', "#1", kReapLater, 0, 0, only(VEXO_E_NOT_FOUND), 2},  // not ours
      {'r', "#0", kReapLater, 0, 0, only(VEXO_E_PARAMETER_ERROR), 1},
      {'r', "", 0, 0, 0, only(VEXO_E_WOULD_BLOCK), 2},
      {'r', "", kReapLater, 0, 0, only(VEXO_S_NOERR), 2},
      {'m', "", kReapLater, 0, 0, only(VEXO_E_OUT_OF_MEMORY), 2},
      {'k', "", SIGTERM, 0, 0, only(VEXO_S_NOERR), 0},
      {'k', "", 12345, 0, 0, only(VEXO_E_PARAMETER_ERROR), 0},
      {'k', "#0", 0, 0, 0, only(VEXO_E_PARAMETER_ERROR), 0},  // never a process group, never everyone
      {'k', "#-1", 0, 0, 0, only(VEXO_E_PARAMETER_ERROR), 0},
      {'k', "#2147483647", 0, 0, 0, only(VEXO_E_NOT_FOUND), 0},
      {'k', "", SIGTERM, EPERM, 1, only(VEXO_E_PERMISSION_ERROR), 0},  // another user's process
      {'k', "", 0, EINTR, 2, only(vexo_map_unix_error(EINTR, VEXO_E_OS_ERROR)), 0},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(::testing::Message() << r.op << " " << r.child << ", options " << r.options);
    const bool release = r.op == 'r' || r.op == 'm';
    const pid_t zombie = ended(), pid = *r.child == '#' ? std::atoi(r.child + 1)
                                        : *r.child      ? ended(r.child)
                                                        : spawn();
    ASSERT_EQ(vexo::record_zombie(zombie), VEXO_S_NOERR);
    fault::reset();
    fault::fail(r.op == 'k' ? fault::call::kill : fault::call::waitpid, r.err, r.times);
    fault::alloc_scope scope(r.op == 'm' ? 1 : 0);
    EXPECT_EQ(r.op == 'k' ? only(vexo_unix_process_kill(pid, static_cast<int>(r.options), 0))
              : release   ? only(vexo_unix_process_release(pid, r.options))
                          : waited(pid, r.options, r.op == 't' ? &zero : nullptr),
              r.want);
    EXPECT_EQ(waitpids(), r.calls);
    const bool sweep = r.op != 'k' && (r.options & (release ? kForget : kNoSweep)) == 0;
    std::vector<pid_t> left;
    if (!sweep)
      left.push_back(zombie);
    if (release && *r.child == 0 && std::get<0>(r.want) == VEXO_S_NOERR)
      left.push_back(pid);  // listed
    EXPECT_TRUE(list() == left && list_freed() == left.empty() && reaped(zombie) == sweep);
    vexo::release_zombies(1);
  }
}

// A core dump is reported exactly when a core was written.
TEST_F(Wait, ReportsACoreDump) {
  std::string pattern;
  std::getline(std::ifstream("/proc/sys/kernel/core_pattern"), pattern);
  if (pattern.empty() || pattern[0] == '|' || pattern.find('/') != std::string::npos)
    GTEST_SKIP() << "cores do not go to the dumping process's directory: " << pattern;
  scratch::dir dir;  // where the core lands, removed with it
  const outcome o = waited(spawn("cd " + dir.path() + " || exit; ulimit -c unlimited; kill -ABRT $$"), kExit);
  const bool core = !std::filesystem::is_empty(dir.path());
  EXPECT_EQ(o, signaled(SIGABRT, core ? VEXO_PROCESS_EXIT_STATUS_FLAG_CORE_DUMPED : 0)) << pattern;
}

TEST_F(Wait, ASignalEndsOnlyAnInterruptibleWait) {
  const pid_t pid = spawn(), late = spawn("sleep 1; exit 7");  // ends on its own, after the signal
  struct sigaction old {};
  struct sigaction sa {};
  sa.sa_handler = [](int) {};  // a real handler, and no SA_RESTART
  ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
  ualarm(100000, 0);
  ASSERT_EQ(waited(pid, kExit | kInterruptible), only(VEXO_E_INTERRUPTED));
  siginfo_t info{};
  ASSERT_EQ(kill(pid, SIGSTOP), 0);  // a stop is not an end (nor asked for)
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT), 0);
  ualarm(100000, 0);  // ends the poll too, should it block
  EXPECT_EQ(waited(pid, kNonblocking | kExit | kInterruptible), only(VEXO_E_WOULD_BLOCK));
  const int calls = waitpids();
  ualarm(100000, 0);
  EXPECT_EQ(waited(late, kExit), exited(7));
  EXPECT_GE(waitpids() - calls, 3) << "poll, interrupted wait, wait again";
  ualarm(0, 0);
  sigaction(SIGALRM, &old, nullptr);
}

// [P1, P2, P3] with only P1 ended leaves [P3, P2]; an array that cannot shrink stays in use, and one that
// cannot grow stays as it was. What is not our child stays; shutdown's forced sweep forgets what runs, still
// ours to wait for. Per handle: 1 ended, 0 running, s not ours. Start-up forgets what the list held, which is
// not valid before it.
TEST_F(Wait, ReleaseSweepMovesTheLastHandleIntoTheGap) {
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
    EXPECT_TRUE(vexo::record_zombie(getpid()) == VEXO_E_OUT_OF_MEMORY &&
                list() == std::vector<pid_t>(p, p + 3));
    fault::alloc_scope shrink(1);  // in place of the one above
    EXPECT_EQ(force ? vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT) : vexo::release_zombies(0),
              want.empty() && !force ? VEXO_S_DEALLOCATED : VEXO_S_NOERR);
    EXPECT_TRUE(list() == want && list_freed() == want.empty() && shrink.injected() == !want.empty());
    EXPECT_TRUE(want.empty() || vexo::zombies == array);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(reaped(p[i]), kind[i] != '0') << i;  // the forgotten are still ours to wait for
    vexo::release_zombies(1);
  }
  EXPECT_EQ(vexo::release_zombies(0), VEXO_S_DEALLOCATED);  // the empty sweep
  static vexo_t_os_process_handle stale[2] = {1, 2};        // not ours to free
  vexo::zombies = stale;
  vexo::nzombies = 2;
  EXPECT_TRUE(vexo_init_process_unix(0) == VEXO_S_NOERR && list_freed());
}

TEST_F(Wait, AThousandReleasedChildrenAreAllReaped) {
  for (int i = 0; i < 1000; ++i)  // 0444: a pipe for each stream, but no parent end asked for, and no handle
    ASSERT_EQ(vexo_unix_process_create("/bin/true", {}, "/", {}, {}, {}, {}, {}, 0444), VEXO_S_NOERR);
  for (int i = 0; i < 4000 && vexo::nzombies != 0; ++i, usleep(5000))  // 20 s at most
    vexo::release_zombies(0);
  EXPECT_TRUE(list_freed()) << vexo::nzombies << " not reaped";
  EXPECT_TRUE(child::children().empty()) << "zombies left in /proc";
}
