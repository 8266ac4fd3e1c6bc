// Process creation, by fork and by posix_spawn: the three streams, argument
// vectors, shell starts, the child's environment, failures before and after
// the start. Every case runs through both start functions; every child is
// reaped within a bound and every descriptor accounted for.
#include "unix/unix_internal.h"

#include "child.h"
#include "fault.h"
#include "scratch.h"

#include <atomic>
#include <chrono>
#include <set>
#include <sys/wait.h>
#include <thread>

namespace {

using namespace child;
using fault::call;
constexpr vexo_t_bits kInherit = VEXO_PROCESS_FILE_OPTION_INHERIT, kNull = VEXO_PROCESS_FILE_OPTION_NULL,
                      kPipe = VEXO_PROCESS_FILE_OPTION_PIPE, kEnv = VEXO_PROCESS_CREATE_OPTION_ENV,
                      kNoInherit = VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT,
                      kShell = VEXO_PROCESS_CREATE_OPTION_SHELL;
constexpr int kUntouched = -77;

using start_fn = decltype(&vexo_unix_process_create);
start_fn start_child = vexo_unix_process_create;  // the suite's parameter
bool spawning() {
  return start_child == vexo_unix_process_spawn;
}
vexo_t_error_code os(int err) {
  return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
}
int launches() {
  return fault::calls(call::fork) + fault::calls(call::posix_spawn);
}

// A write that nobody reads fails instead of killing the writer.
[[maybe_unused]] const auto kNoSigpipe = signal(SIGPIPE, SIG_IGN);

// Modes of standard input, output and error in one options word.
constexpr vexo_t_bits streams(vexo_t_bits in, vexo_t_bits out, vexo_t_bits err) {
  return in | out << 3 | err << 6;
}
constexpr vexo_t_bits kOut = streams(kNull, kPipe, kPipe);

// A variable set (or, with null, unset) for one scope.
struct scoped_env {
  const char *name;
  std::optional<std::string> old;
  scoped_env(const char *n, const char *value) : name(n) {
    if (const char *v = std::getenv(n))
      old = v;
    set(value);
  }
  ~scoped_env() { set(old ? old->c_str() : nullptr); }
  void set(const char *v) const { v != nullptr ? setenv(name, v, 1) : unsetenv(name); }
};

struct outcome {
  vexo_t_error_code rc = VEXO_S_NOERR;
  std::string sink[3], end;  // sink[1] and [2]: standard output and error; end: how the child ended
};
// Closes fd[0], reads fd[1] and fd[2] to their ends (-1 is skipped), then reaps the child.
outcome finish(int fd[3], vexo_t_os_process_handle pid) {
  outcome r;
  if (fd[0] >= 0)
    close(fd[0]);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while ((fd[1] >= 0 || fd[2] >= 0) && std::chrono::steady_clock::now() < end) {
    pollfd p[2] = {{fd[1], POLLIN, 0}, {fd[2], POLLIN, 0}};
    poll(p, 2, 100);
    for (int i = 1; i < 3; ++i) {
      char buf[65536];
      ssize_t n = 0;
      if (p[i - 1].revents != 0 && (n = read(fd[i], buf, sizeof buf)) > 0)
        r.sink[i].append(buf, static_cast<size_t>(n));
      else if (p[i - 1].revents != 0)
        close(std::exchange(fd[i], -1));
    }
  }
  r.end = fd[1] < 0 && fd[2] < 0 ? "" : "streams stalled, ";
  for (int i = 1; i < 3; ++i) {
    if (fd[i] >= 0)
      close(fd[i]);
  }
  r.end += reap(pid);  // only once the streams are done
  return r;
}

// One start with a pointer for every stream, then finish(). A failed start
// must leave every out-parameter as it was.
outcome run(const char *cmd, const vexo_t_property **params, vexo_t_bits options,
            const char *const *env = nullptr, const char *cwd = "/") {
  int fd[3] = {kUntouched, kUntouched, kUntouched}, pid = kUntouched;
  const vexo_t_error_code rc = start_child(cmd, params, cwd, env, &fd[0], &fd[1], &fd[2], &pid, options);
  if (rc == VEXO_S_NOERR)
    return finish(fd, pid);
  EXPECT_TRUE(fd[0] == kUntouched && fd[1] == kUntouched && fd[2] == kUntouched && pid == kUntouched);
  return {rc, {}, {}};
}

// Descriptors a child of ours may hold: the three streams, and ours that are not close-on-exec.
int inheritable() {
  int n = 3;
  for (int fd = 3; fd < 1024; ++fd)
    n += fcntl(fd, F_GETFD) == 0 ? 1 : 0;
  return n;
}
long held(pid_t pid) {
  const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
  return std::distance(begin(fds), end(fds));
}

class ProcessCreate : public fault::Test, public ::testing::WithParamInterface<start_fn> {
 protected:
  void SetUp() override {
    fault::Test::SetUp();
    start_child = GetParam();
  }
  void TearDown() override {
    fault::Test::TearDown();
    EXPECT_EQ(fault::open_fds(), fds_) << "descriptor leaked";
    EXPECT_TRUE(children().empty()) << "a child was started or left";
  }
  int fds_ = fault::open_fds();
};

// What descriptor `fd` of process `pid` is: its target and access mode.
std::string what_is(pid_t pid, int fd) {
  const std::string at = "/proc/" + std::to_string(pid), n = std::to_string(fd);
  std::error_code ec;
  const std::string link = std::filesystem::read_symlink(at + "/fd/" + n, ec).string();
  std::string line;
  for (std::ifstream info(at + "/fdinfo/" + n); std::getline(info, line);) {
    if (line.rfind("flags:", 0) == 0)
      return link + (std::stoi(line.substr(6), nullptr, 8) & O_ACCMODE ? " w" : " r");
  }
  return "closed";
}

// Every pattern of closed 0/1/2 against every mode of every stream, each
// pattern in a child of ours: an inherited stream is our own descriptor or
// the start fails with EBADF's code before making anything, and every child
// stream is what its mode says, with the right direction; our end of a pipe
// is close-on-exec, and no end is handed out for the other modes. A mode is
// its bit alone or with the bits it takes precedence over.
TEST_P(ProcessCreate, InheritedStreamsAreOursAndAClosedOneFailsTheStart) {
  const vexo_t_bits kBits[2][3] = {{kInherit, kNull, kPipe},
                                   {kInherit | kNull | kPipe, kNull | kPipe, kPipe}};
  for (int closed = 0; closed < 8; ++closed) {
    int report[2];
    ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
    const pid_t helper = fork();
    ASSERT_GE(helper, 0);
    if (helper == 0) {
      std::string bad;
      for (int fd = 0; fd < 3; ++fd) {
        if ((closed >> fd & 1) != 0)
          close(fd);
      }
      const int fds = fault::open_fds();
      args wait = plain({"20"});
      for (int modes = 0; modes < 27; ++modes) {
        const int mode[3] = {modes % 3, modes / 3 % 3, modes / 9};  // 0 inherit, 1 null, 2 pipe
        const vexo_t_bits *bits = kBits[(closed + modes) % 2];
        int sync[2], fd[3] = {kUntouched, kUntouched, kUntouched}, pid = kUntouched;
        bool inherits_closed = false;
        for (int i = 0; i < 3; ++i)
          inherits_closed |= mode[i] == 0 && (closed >> i & 1) != 0;
        // The child holds a copy of our end until its exec, which closes it:
        // then its streams are in place. Ours stay above the standard ones.
        if (pipe2(sync, O_CLOEXEC) != 0)
          _exit(9);
        const int ready_fd = fcntl(sync[0], F_DUPFD_CLOEXEC, 3), kept = fcntl(sync[1], F_DUPFD_CLOEXEC, 3);
        close(sync[0]);
        close(sync[1]);
        const vexo_t_error_code rc =
            start_child("/bin/sleep", wait.get(), "/", nullptr, &fd[0], &fd[1], &fd[2], &pid,
                        streams(bits[mode[0]], bits[mode[1]], bits[mode[2]]));
        close(kept);
        std::string got, want;
        if (rc == VEXO_S_NOERR) {
          pollfd p{ready_fd, POLLIN, 0};
          got = poll(&p, 1, 10000) == 1 ? "" : "never ran; ";
          for (int i = 0; i < 3; ++i) {
            const bool end_ok = mode[i] == 2 ? fcntl(fd[i], F_GETFD) == FD_CLOEXEC : fd[i] == -1;
            got += what_is(pid, i) + (end_ok ? "; " : " (our end wrong); ");
            const std::string ours = what_is(getpid(), mode[i] == 2 ? fd[i] : i);
            want += (mode[i] == 0   ? ours
                     : mode[i] == 1 ? std::string("/dev/null ") + (i == 0 ? "r" : "w")
                                    : ours.substr(0, ours.size() - 1) + (i == 0 ? "r" : "w")) +
                    "; ";
            if (fd[i] >= 0)
              close(fd[i]);
          }
          kill(pid, SIGKILL);
          got += reap(pid);
          want += "signal 9";
        } else {
          got = std::to_string(rc) +
                (fd[0] == kUntouched && fd[1] == kUntouched && fd[2] == kUntouched && pid == kUntouched
                     ? ""
                     : " out-parameters written");
        }
        if (inherits_closed)
          want = std::to_string(os(EBADF));
        close(ready_fd);
        if (got != want || fault::open_fds() != fds)
          bad += "closed " + std::to_string(closed) + ", modes " + std::to_string(modes) + ": " + got +
                 (got != want ? " instead of " + want : ", descriptors leaked") + "\n";
      }
      _exit(write(report[1], bad.data(), bad.size()) == static_cast<ssize_t>(bad.size()) ? 0 : 8);
    }
    close(report[1]);
    EXPECT_EQ(reap(helper), "exit 0") << "pattern " << closed;
    char buf[65536];
    const ssize_t n = read(report[0], buf, sizeof buf);
    close(report[0]);
    EXPECT_EQ(std::string(buf, n > 0 ? static_cast<size_t>(n) : 0), "") << "closed pattern " << closed;
  }
}

TEST_P(ProcessCreate, FailuresBeforeTheForkReleaseEverythingAndStartNoChild) {
  const char *const empty[] = {nullptr};
  // An unknown key, in any place, gives no string: out of memory.
  args unknown({{{"string", "first"}}, {{"string", "a"}, {"String", "b"}}, {{"other", "x"}}});
  const struct {
    const vexo_t_property **params;
    const char *const *env;
    vexo_t_bits options;
    call c;  // failing with err, unless err is 0; pipe and fork stand for pipe2 and posix_spawn when spawning
    int err;
    vexo_t_error_code rc;
    int prepared, prepared_spawn;  // pipe, open and dup calls; -1: the spawn path makes no such call
  } rows[] = {
      {nullptr, nullptr, kOut | kEnv | kNoInherit, call::fork, 0, VEXO_E_PARAMETER_ERROR, 0, 0},
      {nullptr, empty, kOut | kEnv | kNoInherit, call::fork, 0, VEXO_E_PARAMETER_ERROR, 0, 0},
      {unknown.get(), nullptr, kOut, call::fork, 0, VEXO_E_OUT_OF_MEMORY, 0, 0},
      {nullptr, nullptr, 0, call::fork, 0, VEXO_E_INTERNAL_ERROR, 0, 0},
      {nullptr, nullptr, streams(kPipe, kNull, 0), call::fork, 0, VEXO_E_INTERNAL_ERROR, 2, 2},
      {nullptr, nullptr, streams(kInherit, kNull, kPipe), call::pipe, EMFILE, os(EMFILE), 3, 2},
      {nullptr, nullptr, streams(kPipe, kInherit, kNull), call::dup, EINTR, os(EINTR), 2, -1},  // once
      {nullptr, nullptr, streams(kPipe, kInherit, kNull), call::open, ENFILE, os(ENFILE), 3, 2},
      {nullptr, nullptr, streams(kPipe, kNull, kNull), call::fcntl, EBADF, os(EBADF), 1, -1},  // marking
      {nullptr, nullptr, streams(kPipe, kPipe, kPipe), call::fork, EAGAIN, os(EAGAIN), 3, 3},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    const auto &r = rows[i];
    if (spawning() && r.prepared_spawn < 0)
      continue;
    SCOPED_TRACE(i);
    fault::reset();
    const call c = !spawning()         ? r.c
                   : r.c == call::pipe ? call::pipe2
                   : r.c == call::fork ? call::posix_spawn
                                       : r.c;
    if (r.err != 0)
      fault::fail(c, r.err);
    fault::alloc_scope scope;
    EXPECT_EQ(run("/bin/true", r.params, r.options, r.env).rc, r.rc);
    EXPECT_EQ(scope.live(), 0);
    EXPECT_TRUE(r.rc != VEXO_E_PARAMETER_ERROR || scope.allocations() == 0) << "allocated first";
    EXPECT_EQ(fault::calls(call::pipe) + fault::calls(call::pipe2) + fault::calls(call::open) +
                  fault::calls(call::dup),
              spawning() ? r.prepared_spawn : r.prepared);
    EXPECT_EQ(launches(), r.c == call::fork && r.err != 0 ? 1 : 0);
  }
  EXPECT_EQ(run(nullptr, nullptr, kOut | kShell).rc, VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(run("/bin/true", nullptr, kOut, nullptr, nullptr).rc, VEXO_E_PARAMETER_ERROR);
}

TEST_P(ProcessCreate, ChildRunsTheProgramOrShellWithItsArgumentsOrEndsWithStatusOne) {
  scratch::dir dir;
  std::ofstream(dir.at("rec")) << "#!/bin/sh\nprintf '[%s]' \"$#\" \"$@\"\n";  // argument count, then each
  chmod(dir.at("rec").c_str(), 0755);
  const std::string rec = dir.at("rec"), argv = "tr '\\0' '|' </proc/$$/cmdline";
  std::ofstream(dir.at("text")) << "neither a script nor a program\n";
  chmod(dir.at("text").c_str(), 0755);
  std::ofstream(dir.at("plain")) << "#!/bin/sh\n";
  const struct {
    const char *shell;  // the "SHELL" variable, null: unset
    vexo_t_bits options;
    std::string cmd;
    std::vector<std::string> params;
    std::string cwd, want;                      // standard output | how the child ended
    vexo_t_error_code spawn_rc = VEXO_S_NOERR;  // when spawning: the start fails instead
  } rows[] = {
      {nullptr, 0, "/nonexistent/prog", {}, "/", "|exit 1", VEXO_E_FILE_NOT_FOUND},
      {nullptr, 0, "/bin/sh", {"-c", "exit 0"}, "/nonexistent-dir", "|exit 1", VEXO_E_FILE_NOT_FOUND},
      {nullptr, 0, "/bin/sh", {"-c", "exit 0"}, dir.at("text"), "|exit 1", os(ENOTDIR)},
      {nullptr, 0, dir.at("text"), {}, "/", "|exit 1", os(ENOEXEC)},
      {nullptr, 0, dir.at("plain"), {}, "/", "|exit 1", os(EACCES)},
      {nullptr, 0, "bin/sh", {"-c", "exit 0"}, "/", "|exit 0"},  // relative to the child's directory
      {nullptr, 0, "bin/sh", {"-c", "exit 0"}, dir.path(), "|exit 1", VEXO_E_FILE_NOT_FOUND},
      {nullptr, 0, rec, {"a b", ""}, "/", "[2][a b][]|exit 0"},
      {nullptr, 0, "/bin/sh", {"-c", "pwd -P"}, dir.path(), dir.path() + "\n|exit 0"},
      {nullptr, 0, "/bin/sh", {"-c", argv}, "/", "/bin/sh|-c|" + argv + "||exit 0"},
      {nullptr, kShell, argv, {}, "/", "/bin/sh|-c|" + argv + "||exit 0"},
      {nullptr, kShell, "printf '[%s]' \"$0\" \"$@\"", {"zero", "one"}, "/", "[zero][one]|exit 0"},
      {rec.c_str(), kShell, "any command", {}, "/", "[2][-c][any command]|exit 0"},
      {rec.c_str(), kShell, "any command", {"p1", ""}, "/", "[4][-c][any command][p1][]|exit 0"},
      {"", kShell, "exit 0", {}, "/", "|exit 1", VEXO_E_FILE_NOT_FOUND},  // used as the path all the same
  };
  for (const auto &r : rows) {
    scoped_env shell("SHELL", r.shell);
    const outcome o = run(r.cmd.c_str(), plain(r.params).get(), kOut | r.options, nullptr, r.cwd.c_str());
    if (spawning() && r.spawn_rc != VEXO_S_NOERR)
      EXPECT_EQ(o.rc, r.spawn_rc) << r.cmd << " in " << r.cwd;
    else
      EXPECT_EQ(o.sink[1] + "|" + o.end, r.want) << r.cmd << " in " << r.cwd << ": " << o.sink[2];
  }
  if (!spawning()) {
    fault::fail(call::dup2, EBADF);  // the fork copies the armed plan: the child's first dup2 fails
    EXPECT_EQ(run("/bin/sh", sh("echo ok").get(), kOut).end, "exit 1");
    fault::reset();
  }
  fault::fail(call::open, EINTR);  // an interrupted open of the null device is repeated
  EXPECT_EQ(run("/bin/sh", sh("echo ok").get(), kOut).sink[1], "ok\n");
  args none({}), mixed({{{"string", "ab"}, {"file", "/tmp/x"}}, {}, {{"file", ""}, {"string", "é"}}});
  EXPECT_EQ(run(rec.c_str(), nullptr, kOut).sink[1] + run(rec.c_str(), none.get(), kOut).sink[1], "[0][0]");
  EXPECT_EQ(run(rec.c_str(), mixed.get(), kOut).sink[1], "[3][ab/tmp/x][][é]");
}

TEST_P(ProcessCreate, ChildEnvironmentIsInheritedOrBuiltFromTheCallersEntries) {
  scoped_env a("VEXO_CT_A", "inherited");
  const char *const empty[] = {nullptr}, *const kv[] = {"VEXO_CT_A\0over", "VEXO_CT_NEW\0v", nullptr};
  const char *const eq[] = {"VEXO_CT_A=t=o", "VEXO_CT_C", nullptr};  // the compact builder's other form
  const vexo_t_bits eq_form = kEnv | VEXO_PROCESS_CREATE_OPTION_ENV_COMPACT_FLAG;
  const struct {
    vexo_t_bits options;
    const char *const *env;
    std::vector<std::string> own;  // the caller's entries as the child sees them, over VEXO_CT_A
  } rows[] = {
      {0, reinterpret_cast<const char *const *>(uintptr_t{1}), {}},  // not read at all without ENV
      {kEnv, nullptr, {}},
      {kEnv, empty, {}},
      {kEnv, kv, {"VEXO_CT_A=over", "VEXO_CT_NEW=v"}},
      {kEnv | kNoInherit, kv, {"VEXO_CT_A=over", "VEXO_CT_NEW=v"}},
      {eq_form, eq, {"VEXO_CT_A=t=o", "VEXO_CT_C="}},
      {eq_form | kNoInherit, eq, {"VEXO_CT_A=t=o", "VEXO_CT_C="}},
  };
  args dash0 = plain({"-0"});
  for (const auto &r : rows) {
    std::multiset<std::string> want(r.own.begin(), r.own.end()), got;
    for (char **e = environ; (r.options & kNoInherit) == 0 && *e != nullptr; ++e) {
      if (r.own.empty() || std::string(*e) != "VEXO_CT_A=inherited")
        want.insert(*e);
    }
    const outcome o = run("/usr/bin/env", dash0.get(), kOut | r.options, r.env);
    for (size_t at = 0, nul; (nul = o.sink[1].find('\0', at)) != std::string::npos; at = nul + 1)
      got.insert(o.sink[1].substr(at, nul - at));
    EXPECT_EQ(got, want) << r.options;
    EXPECT_EQ(o.end, "exit 0");
  }
}

TEST_P(ProcessCreate, NewSessionAndOnlyItsStreamsReachTheChild) {
  const int alone = inheritable();
  args p = sh("echo ready; read x; exit 0");
  for (const vexo_t_bits session : {0u, VEXO_PROCESS_CREATE_OPTION_NEW_SESSION}) {
    int fd[3] = {-1, -1, -1}, pid = 0;
    ASSERT_EQ(start_child("/bin/sh", p.get(), "/", nullptr, &fd[0], &fd[1], nullptr, &pid,
                          streams(kPipe, kPipe, kNull) | session),
              VEXO_S_NOERR);
    pollfd pf{fd[1], POLLIN, 0};  // once the shell has written, the exec and any setsid are behind it
    EXPECT_EQ(poll(&pf, 1, 10000), 1);
    EXPECT_EQ(getsid(pid), session != 0 ? pid : getsid(0));
    EXPECT_EQ(held(pid), alone);
    const outcome o = finish(fd, pid);
    EXPECT_EQ(o.sink[1] + o.end, "ready\nexit 0");
  }
}

TEST_P(ProcessCreate, EveryFailingAllocationIsReportedAndReleasedWithoutAChild) {
  scoped_env shell("SHELL", nullptr), a("VEXO_CT_A", "inherited"), keep("VEXO_CT_KEEP", "kept");
  const char *const env[] = {"VEXO_CT_A\0swept", "VEXO_CT_NEW\0x", nullptr};
  args p = plain({"one", "two"});
  for (const vexo_t_bits no_inherit : {0u, kNoInherit}) {
    const long n = fault::alloc_sweep([&](fault::alloc_scope &scope) {
      fault::reset();
      const outcome o = run("printf '%s|%s|%s|%s' \"$VEXO_CT_A\" \"$0\" \"$1\" \"$VEXO_CT_KEEP\"", p.get(),
                            kShell | kEnv | no_inherit | kOut, env);
      EXPECT_EQ(o.rc, scope.injected() ? VEXO_E_OUT_OF_MEMORY : VEXO_S_NOERR);
      EXPECT_EQ(launches(), scope.injected() ? 0 : 1);
      EXPECT_EQ(o.sink[1] + o.end, scope.injected()  ? ""
                                   : no_inherit != 0 ? "swept|one|two|exit 0"
                                                     : "swept|one|two|keptexit 0");
      EXPECT_EQ(fault::open_fds(), fds_);
    });
    EXPECT_GT(n, 6) << no_inherit;
  }
}

// Four threads starting cat children at once: each child holds its own
// streams and nothing else of ours, and sees the end of its input at once.
// (The fork path leaves that to the caller to serialise.)
TEST_P(ProcessCreate, ConcurrentSpawnsKeepTheirDescriptorsApart) {
  if (!spawning())
    GTEST_SKIP() << "the fork path's child ends are inheritable until its child has them";
  const int alone = inheritable();
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const std::string input = "thread " + std::to_string(t);
      for (int i = 0; i < 50; ++i) {
        int fd[3] = {-1, -1, -1}, pid = 0;
        if (vexo_unix_process_spawn("/bin/cat", nullptr, "/", nullptr, &fd[0], &fd[1], nullptr, &pid,
                                    streams(kPipe, kPipe, kNull)) != VEXO_S_NOERR) {
          ++bad;
          continue;
        }
        // Once cat echoes, its exec has closed what was close-on-exec.
        std::string echo(input.size(), '\0');
        pollfd p{fd[1], POLLIN, 0};
        const bool echoed = write(fd[0], input.data(), input.size()) == static_cast<ssize_t>(input.size()) &&
                            poll(&p, 1, 10000) == 1 && read(fd[1], echo.data(), echo.size()) > 0;
        const bool apart = held(pid) == alone;
        bad += echoed && apart && finish(fd, pid).end == "exit 0" ? 0 : 1;  // cat sees the end at once
      }
    });
  }
  for (std::thread &t : threads)
    t.join();
  EXPECT_EQ(bad, 0) << "children that held another's descriptors, stalled or failed";
}

INSTANTIATE_TEST_SUITE_P(Start, ProcessCreate,
                         ::testing::Values(vexo_unix_process_create, vexo_unix_process_spawn),
                         [](const auto &p) { return p.param == vexo_unix_process_spawn ? "spawn" : "fork"; });

}  // namespace
