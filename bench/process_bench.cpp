// Child processes beside the system calls underneath: starting /bin/true
// with three pipes and reaping it through vexo_unix_process_create (fork) or
// vexo_unix_process_spawn (posix_spawn) and vexo_unix_process_wait, beside
// the same work done with fork/execv/waitpid and with posix_spawn, first from
// a small parent and then from one that holds 1 GiB of touched memory; four
// threads spawning at once; and one sweep of 1,000 released children that
// have ended, beside 1,000 waitpid(WNOHANG) calls.
#include "ratio.h"

#include <vexo/vexo_unix.h>

#include "unix/unix_internal.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace {

constexpr char kProgram[] = "/bin/true";
constexpr size_t kBallastBytes = size_t{1} << 30;
constexpr int kZombies = 1000;
// Each iteration of the sweep starts 1,000 children with the timer paused,
// so the count is fixed instead of left to the time it takes.
constexpr benchmark::IterationCount kSweepIterations = 10;
constexpr int kRepetitions = 3;
// Per repetition of a start benchmark; a start takes milliseconds.
constexpr double kStartSeconds = 0.3;

char g_cwd[PATH_MAX];
char *g_ballast = nullptr;

// ---- Starting /bin/true ----------------------------------------------------

// Reaps `pid` and tells whether it exited with 0.
bool reaped_clean(pid_t pid) {
  int status = 0;
  pid_t got;
  do
    got = ::waitpid(pid, &status, 0);
  while (got == -1 && errno == EINTR);
  return got == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

long minor_faults() {
  rusage usage = {};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

// The parent's page faults per start, shown beside the times: after a fork
// each page the parent writes faults once, and on some virtual machines
// such a fault costs more than all the system calls of a start.
class fault_counter {
 public:
  explicit fault_counter(benchmark::State &state) : state_(state), start_(minor_faults()) {}
  ~fault_counter() {
    state_.counters["faults"] =
        benchmark::Counter(static_cast<double>(minor_faults() - start_), benchmark::Counter::kAvgIterations);
  }
  fault_counter(const fault_counter &) = delete;
  fault_counter &operator=(const fault_counter &) = delete;

 private:
  benchmark::State &state_;
  long start_;
};

using start_fn = decltype(&vexo_unix_process_create);

template <start_fn Start>
void BM_vexo_start(benchmark::State &state) {
  const fault_counter faults(state);
  const vexo_t_property *params[] = {nullptr};
  for (auto _ : state) {
    vexo_t_os_file_handle in = -1, out = -1, err = -1;
    vexo_t_os_process_handle child = 0;
    const vexo_t_error_code rc =
        Start(kProgram, params, g_cwd, nullptr, &in, &out, &err, &child,
              VEXO_PROCESS_CREATE_OPTION_STDIN_PIPE | VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE |
                  VEXO_PROCESS_CREATE_OPTION_STDERR_PIPE);
    if (rc < 0) {
      state.SkipWithError("the start failed");
      break;
    }
    ::close(in);
    ::close(out);
    ::close(err);
    vexo_t_process_exit_status status = {};
    if (vexo_unix_process_wait(child, nullptr, &status, VEXO_PROCESS_WAIT_OPTION_EXIT) != VEXO_S_NOERR ||
        status.flags != VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED || status.value != 0) {
      state.SkipWithError("the child did not exit with 0");
      break;
    }
  }
}

// Three pipes, the parent ends close-on-exec; [i][0] is the parent's end,
// [i][1] the child's. False, with nothing left open, on failure.
bool open_pipes(int ends[3][2]) {
  for (int i = 0; i < 3; ++i) {
    int p[2];
    if (::pipe(p) != 0) {
      for (int j = 0; j < i; ++j) {
        ::close(ends[j][0]);
        ::close(ends[j][1]);
      }
      return false;
    }
    ends[i][0] = i == 0 ? p[1] : p[0];
    ends[i][1] = i == 0 ? p[0] : p[1];
    ::fcntl(ends[i][0], F_SETFD, FD_CLOEXEC);
  }
  return true;
}

void close_pipes(int ends[3][2]) {
  for (int i = 0; i < 3; ++i) {
    ::close(ends[i][0]);
    ::close(ends[i][1]);
  }
}

// The same work by hand: pipes, fork, in the child dup2 and close of each
// end, chdir and execv; in the parent the closes and one blocking waitpid.
void BM_fork_start(benchmark::State &state) {
  const fault_counter faults(state);
  char *argv[] = {const_cast<char *>(kProgram), nullptr};
  for (auto _ : state) {
    int ends[3][2];
    if (!open_pipes(ends)) {
      state.SkipWithError("pipe failed");
      break;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
      for (int i = 0; i < 3; ++i) {
        if (::dup2(ends[i][1], i) == -1)
          _exit(1);
        ::close(ends[i][1]);
      }
      if (::chdir(g_cwd) != 0)
        _exit(1);
      ::execv(kProgram, argv);
      _exit(1);
    }
    close_pipes(ends);
    if (pid == -1 || !reaped_clean(pid)) {
      state.SkipWithError("fork failed or the child did not exit with 0");
      break;
    }
  }
}

// One start and reap through posix_spawn; false when either failed.
bool posix_spawn_once() {
  char *argv[] = {const_cast<char *>(kProgram), nullptr};
  int ends[3][2];
  if (!open_pipes(ends))
    return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int i = 0; i < 3; ++i) {
    posix_spawn_file_actions_adddup2(&actions, ends[i][1], i);
    posix_spawn_file_actions_addclose(&actions, ends[i][1]);
  }
  posix_spawn_file_actions_addchdir_np(&actions, g_cwd);
  pid_t pid = 0;
  const int rc = ::posix_spawn(&pid, kProgram, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close_pipes(ends);
  return rc == 0 && reaped_clean(pid);
}

void BM_posix_spawn_start(benchmark::State &state) {
  const fault_counter faults(state);
  for (auto _ : state) {
    if (!posix_spawn_once()) {
      state.SkipWithError("posix_spawn failed or the child did not exit with 0");
      break;
    }
  }
}

// One start and reap through vexo_unix_process_spawn, without touching the
// list of released children, so that threads may run it at once.
bool vexo_spawn_once() {
  vexo_t_os_file_handle in = -1, out = -1, err = -1;
  vexo_t_os_process_handle child = 0;
  if (vexo_unix_process_spawn(kProgram, nullptr, g_cwd, nullptr, &in, &out, &err, &child,
                              VEXO_PROCESS_CREATE_OPTION_STDIN_PIPE | VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE |
                                  VEXO_PROCESS_CREATE_OPTION_STDERR_PIPE) < 0)
    return false;
  ::close(in);
  ::close(out);
  ::close(err);
  vexo_t_process_exit_status status = {};
  return vexo_unix_process_wait(child, nullptr, &status,
                                VEXO_PROCESS_WAIT_OPTION_EXIT | VEXO_PROCESS_WAIT_OPTION_NO_SWEEP) ==
             VEXO_S_NOERR &&
         status.value == 0;
}

// Four threads, each starting and reaping kThreadStarts children; one
// iteration is all of them.
constexpr int kThreads = 4;
constexpr int kThreadStarts = 25;
template <bool (*Once)()>
void BM_four_threads(benchmark::State &state) {
  for (auto _ : state) {
    std::atomic<bool> ok{true};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < kThreadStarts; ++i)
          ok = Once() && ok;
      });
    }
    for (std::thread &t : threads)
      t.join();
    if (!ok) {
      state.SkipWithError("a start failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kThreads * kThreadStarts);
}

// ---- A parent holding 1 GiB --------------------------------------------------

// Allocated and touched page by page before the first benchmark that wants
// it, freed before the sweeps, so that only these measurements carry it.
bool hold_ballast() {
  if (g_ballast != nullptr)
    return true;
  g_ballast = static_cast<char *>(std::malloc(kBallastBytes));
  if (g_ballast == nullptr)
    return false;
  const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  for (size_t i = 0; i < kBallastBytes; i += page)
    g_ballast[i] = static_cast<char>(i / page);
  benchmark::DoNotOptimize(g_ballast);
  return true;
}

void drop_ballast() {
  std::free(g_ballast);
  g_ballast = nullptr;
}

template <void (*Start)(benchmark::State &)>
void BM_with_ballast(benchmark::State &state) {
  if (!hold_ballast()) {
    state.SkipWithError("cannot allocate 1 GiB");
    return;
  }
  Start(state);
}

// ---- Sweeping 1,000 ended children -----------------------------------------------

// A child that exits at once. vfork: such a child needs no copy of the
// parent, and the sweeps start 1,000 of them per iteration.
pid_t start_exiting_child() {
  const pid_t pid = ::vfork();
  if (pid == 0)
    _exit(0);
  return pid;
}

// Starts `kZombies` children that exit at once and returns when every one
// of them has ended, still unreaped.
bool make_zombies(std::vector<pid_t> &pids) {
  pids.clear();
  for (int i = 0; i < kZombies; ++i) {
    const pid_t pid = start_exiting_child();
    if (pid == -1)
      return false;
    pids.push_back(pid);
  }
  for (const pid_t pid : pids) {
    siginfo_t info;
    int rc;
    do
      rc = ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    while (rc == -1 && errno == EINTR);
    if (rc != 0)
      return false;
  }
  return true;
}

// Reaps whatever of `pids` is left, so that a failed run leaves no zombie.
void reap_all(const std::vector<pid_t> &pids) {
  for (const pid_t pid : pids)
    ::waitpid(pid, nullptr, WNOHANG);
}

void BM_vexo_sweep(benchmark::State &state) {
  drop_ballast();
  std::vector<pid_t> pids;
  for (auto _ : state) {
    state.PauseTiming();
    bool ok = make_zombies(pids);
    for (size_t i = 0; ok && i < pids.size(); ++i)
      ok = vexo::record_zombie(pids[i]) == VEXO_S_NOERR;
    if (!ok) {
      vexo::release_zombies(1);
      reap_all(pids);
      state.SkipWithError("cannot fork or record the children");
      break;
    }
    state.ResumeTiming();
    const vexo_t_error_code rc = vexo::release_zombies(0);
    state.PauseTiming();
    // Every child must have been reaped by the sweep itself.
    const bool all_reaped =
        rc == VEXO_S_DEALLOCATED && vexo::nzombies == 0 && ::waitpid(-1, nullptr, WNOHANG) == -1;
    state.ResumeTiming();
    if (!all_reaped) {
      reap_all(pids);
      state.SkipWithError("the sweep left children unreaped");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kZombies);
}

void BM_waitpid_sweep(benchmark::State &state) {
  drop_ballast();
  std::vector<pid_t> pids;
  for (auto _ : state) {
    state.PauseTiming();
    if (!make_zombies(pids)) {
      reap_all(pids);
      state.SkipWithError("cannot fork the children");
      break;
    }
    state.ResumeTiming();
    int reaped = 0;
    for (const pid_t pid : pids)
      reaped += ::waitpid(pid, nullptr, WNOHANG) == pid;
    state.PauseTiming();
    const bool all_reaped = reaped == kZombies;
    state.ResumeTiming();
    if (!all_reaped) {
      reap_all(pids);
      state.SkipWithError("waitpid left children unreaped");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kZombies);
}

// ---- Wall-clock table ----------------------------------------------------------

// The parent's CPU time misses what a start costs in the child and in
// waiting for it, so the starts are also compared by elapsed time.
class wall_reporter : public bench::capture_reporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &r : runs) {
      if (r.error_occurred || r.run_type != Run::RT_Iteration)
        continue;
      std::string name = r.run_name.function_name;
      if (!r.run_name.args.empty())
        name += "/" + r.run_name.args;
      wall_[name].push_back(r.GetAdjustedRealTime() * scale(r.time_unit));
    }
    capture_reporter::ReportRuns(runs);
  }

  // The median repetition, in ns; negative when it did not run.
  double wall_ns(const std::string &name) const {
    auto it = wall_.find(name);
    if (it == wall_.end() || it->second.empty())
      return -1;
    std::vector<double> sorted = it->second;
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
  }

 private:
  static double scale(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond:
        return 1e9;
      case benchmark::kMillisecond:
        return 1e6;
      case benchmark::kMicrosecond:
        return 1e3;
      default:
        return 1;
    }
  }

  std::map<std::string, std::vector<double>> wall_;
};

void print_wall_table(const wall_reporter &rep, const char *title, const std::vector<bench::row> &rows) {
  std::printf("\nvexo / peer: %s\n(elapsed time per iteration)\n", title);
  std::printf("%-28s %13s %13s %10s   %-18s %s\n", "case", "vexo ns", "peer ns", "vexo/peer", "goal", "met");
  for (const bench::row &r : rows) {
    const double vexo = rep.wall_ns(r.vexo);
    const double peer = rep.wall_ns(r.peer);
    if (vexo < 0 || peer < 0) {
      std::printf("%-28s %13s %13s %10s\n", r.label.c_str(), "-", "-", "-");
      continue;
    }
    const double ratio = vexo / peer;
    const bool judged = r.target.kind == bench::goal_kind::ratio_at_most;
    std::printf("%-28s %13.0f %13.0f %10.2f   %-18s %s\n", r.label.c_str(), vexo, peer, ratio,
                bench::goal_text(r.target).c_str(), judged ? (ratio <= r.target.value ? "yes" : "NO") : "");
  }
}

void print_growth(const wall_reporter &rep) {
  std::printf("\nelapsed time per start, small parent -> parent holding 1 GiB of touched memory\n");
  for (const char *name : {"BM_vexo_start", "BM_vexo_spawn", "BM_fork_start", "BM_posix_spawn_start"}) {
    const double small = rep.wall_ns(std::string(name) + "/small");
    const double big = rep.wall_ns(std::string(name) + "/1GiB");
    if (small < 0 || big < 0)
      continue;
    std::printf("%-28s %10.0f ns -> %10.0f ns  (x%.2f)\n", name, small, big, big / small);
  }
}

void register_benchmarks() {
  const auto start = [](const char *name, void (*fn)(benchmark::State &)) {
    benchmark::RegisterBenchmark(name, fn)
        ->UseRealTime()
        ->MinTime(kStartSeconds)
        ->Unit(benchmark::kMicrosecond)
        ->Repetitions(kRepetitions);
  };
  start("BM_vexo_start/small", BM_vexo_start<vexo_unix_process_create>);
  start("BM_vexo_spawn/small", BM_vexo_start<vexo_unix_process_spawn>);
  start("BM_fork_start/small", BM_fork_start);
  start("BM_posix_spawn_start/small", BM_posix_spawn_start);
  for (const char *name : {"BM_vexo_threads/4", "BM_posix_spawn_threads/4"}) {
    benchmark::RegisterBenchmark(
        name, name[3] == 'v' ? BM_four_threads<vexo_spawn_once> : BM_four_threads<posix_spawn_once>)
        ->UseRealTime()
        ->MinTime(kStartSeconds)
        ->Unit(benchmark::kMillisecond)
        ->Repetitions(kRepetitions);
  }
  start("BM_vexo_start/1GiB", BM_with_ballast<BM_vexo_start<vexo_unix_process_create>>);
  start("BM_vexo_spawn/1GiB", BM_with_ballast<BM_vexo_start<vexo_unix_process_spawn>>);
  start("BM_fork_start/1GiB", BM_with_ballast<BM_fork_start>);
  start("BM_posix_spawn_start/1GiB", BM_with_ballast<BM_posix_spawn_start>);
  const auto sweep = [](const char *name, void (*fn)(benchmark::State &)) {
    benchmark::RegisterBenchmark(name, fn)
        ->Unit(benchmark::kMicrosecond)
        ->Iterations(kSweepIterations)
        ->Repetitions(kRepetitions);
  };
  sweep("BM_vexo_sweep/1000", BM_vexo_sweep);
  sweep("BM_waitpid_sweep/1000", BM_waitpid_sweep);
}

}  // namespace

int main(int argc, char **argv) {
  if (::getcwd(g_cwd, sizeof g_cwd) == nullptr) {
    std::fprintf(stderr, "process_bench: getcwd: %s\n", std::strerror(errno));
    return 1;
  }
  register_benchmarks();
  wall_reporter rep;
  const bool ran = bench::run_benchmarks(argc, argv, rep);
  drop_ballast();
  if (!ran)
    return 1;

  const std::vector<bench::row> starts = {
      {"start /bin/true, fork",
       "BM_vexo_start/small",
       "BM_fork_start/small",
       {bench::goal_kind::ratio_at_most, 1.10}},
      {"start, posix_spawn", "BM_vexo_start/small", "BM_posix_spawn_start/small", {}},
      {"1 GiB parent, fork", "BM_vexo_start/1GiB", "BM_fork_start/1GiB", {}},
      {"1 GiB parent, posix_spawn", "BM_vexo_start/1GiB", "BM_posix_spawn_start/1GiB", {}},
      {"spawn path, posix_spawn",
       "BM_vexo_spawn/small",
       "BM_posix_spawn_start/small",
       {bench::goal_kind::ratio_at_most, 1.10}},
      {"1 GiB, spawn, posix_spawn",
       "BM_vexo_spawn/1GiB",
       "BM_posix_spawn_start/1GiB",
       {bench::goal_kind::ratio_at_most, 1.10}},
      {"spawn path, fork path", "BM_vexo_spawn/small", "BM_vexo_start/small", {}},
      {"1 GiB, spawn, fork path", "BM_vexo_spawn/1GiB", "BM_vexo_start/1GiB", {}},
      {"4 threads, posix_spawn", "BM_vexo_threads/4", "BM_posix_spawn_threads/4", {}},
  };
  print_wall_table(rep, "start and reap a child with three pipes", starts);
  print_growth(rep);
  for (const char *name : {"BM_vexo_threads/4", "BM_posix_spawn_threads/4"}) {
    const double ns = rep.wall_ns(name);
    if (ns > 0)
      std::printf("%-28s %10.0f starts per second (%d threads)\n", name, kThreads * kThreadStarts * 1e9 / ns,
                  kThreads);
  }
  std::printf(
      "The faults column above counts the parent's page faults per start: after a fork each page the parent "
      "writes faults once, however little it writes.\n");
  bench::print_ratio_table(rep, "the same starts, the parent's own CPU time", starts);
  bench::print_ratio_table(
      rep, "reaping 1,000 ended children",
      {{"sweep beside 1,000 waitpid", "BM_vexo_sweep/1000", "BM_waitpid_sweep/1000", {}}});
  return 0;
}
