// Process creation, by fork and by posix_spawn: the three streams, argument vectors, shell starts, the
// child's environment, failures before and after the start. Every case runs through both start functions;
// every child is reaped within a bound and every descriptor accounted for.
#include "unix/unix_internal.h"

#include "child.h"
#include "env_fixture.h"
#include "scratch.h"

#include <atomic>
#include <thread>

namespace {

using namespace child;
using fault::call;
constexpr vexo_t_bits kInherit = VEXO_PROCESS_FILE_OPTION_INHERIT, kNull = VEXO_PROCESS_FILE_OPTION_NULL,
                      kPipe = VEXO_PROCESS_FILE_OPTION_PIPE, kEnv = VEXO_PROCESS_CREATE_OPTION_ENV,
                      kNoInherit = VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT,
                      kShell = VEXO_PROCESS_CREATE_OPTION_SHELL;
constexpr int kUntouched = -77;
const char *const empty[] = {nullptr};

using start_fn = decltype(&vexo_unix_process_create);
start_fn start_child = vexo_unix_process_create;  // the suite's parameter
const auto spawning = [] { return start_child == vexo_unix_process_spawn; };
const auto os = [](int err) { return vexo_map_unix_error(err, VEXO_E_OS_ERROR); };

// A write that nobody reads fails instead of killing the writer.
[[maybe_unused]] const auto kNoSigpipe = signal(SIGPIPE, SIG_IGN);

// Modes of standard input, output and error in one options word.
constexpr vexo_t_bits streams(vexo_t_bits in, vexo_t_bits out, vexo_t_bits err) {
  return in | out << 3 | err << 6;
}
constexpr vexo_t_bits kOut = streams(kNull, kPipe, kPipe);

// What `fd` gives up to its end, then closes it; a pause of 10 s ends the read with "[stalled]".
std::string drain(int fd) {
  std::string out;
  char buf[4096];
  pollfd p{fd, POLLIN, 0};
  ssize_t n = 1;
  while (poll(&p, 1, 10000) == 1 && (n = read(fd, buf, sizeof buf)) > 0)
    out.append(buf, static_cast<size_t>(n));
  close(fd);
  return n > 0 ? out + "[stalled]" : out;
}

// One start with a pointer for every stream; then standard input closed, output and error read to their ends,
// and the child reaped, in this order: "output|how it ended" and its error output. A failed start gives ""
// and must leave every out-parameter as it was.
fault::result run(const char *cmd, const vexo_t_property **params, vexo_t_bits options,
                  const char *const *env = nullptr, const char *cwd = "/") {
  int fd[3] = {kUntouched, kUntouched, kUntouched}, pid = kUntouched;
  const vexo_t_error_code rc = start_child(cmd, params, cwd, env, &fd[0], &fd[1], &fd[2], &pid, options);
  if (rc == VEXO_S_NOERR && (fd[0] < 0 || close(fd[0]) == 0)) {
    const std::string out = drain(fd[1]), err = drain(fd[2]);
    return {rc, out + "|" + reap(pid) + err};
  }
  EXPECT_TRUE(fd[0] == kUntouched && fd[1] == kUntouched && fd[2] == kUntouched && pid == kUntouched);
  return {rc, ""};
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

// Waits (10 s at most) for the child to sleep in /bin/sleep, its exec and start-up behind it; false once it
// has ended.
bool asleep(pid_t pid) {
  std::string stat;
  for (int i = 0; i < 10000 && stat.find(") Z") == std::string::npos; ++i, usleep(1000)) {
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), stat);
    if (stat.find("(sleep) S") != std::string::npos)
      return true;
  }
  return false;
}

class ProcessCreate : public EnvFixture, public ::testing::WithParamInterface<start_fn> {
 protected:
  ProcessCreate() { start_child = GetParam(); }
  void TearDown() override {
    EnvFixture::TearDown();
    EXPECT_TRUE(children().empty()) << "a child was started or left";
  }
};

// Every pattern of closed 0/1/2, each in a child of ours, against every mode of every stream: an inherited
// stream is our own descriptor or the start fails with EBADF's code before making anything, and every child
// stream is what its mode says, with the right direction; the child holds nothing else of ours, and has a
// session of its own when asked (every other start). Our end of a pipe is close-on-exec, and no end is handed
// out for the other modes. A mode is its bit alone or with the bits it takes precedence over.
TEST_P(ProcessCreate, StreamsAndSessionAreAsAskedAndAClosedInheritedStreamFailsTheStart) {
  const vexo_t_bits kBits[2][3] = {{kInherit, kNull, kPipe},
                                   {kInherit | kNull | kPipe, kNull | kPipe, kPipe}};
  args wait = plain({"20"});
  for (int closed = 0; closed < 8; ++closed) {
    int report[2], helper = -1;  // a start gone wrong in the helper cannot take the test process with it
    ASSERT_TRUE(pipe2(report, O_CLOEXEC) == 0 && (helper = fork()) >= 0);
    if (helper != 0) {
      close(report[1]);
      EXPECT_EQ(drain(report[0]) + reap(helper), "exit 0") << "closed pattern " << closed;
      continue;
    }
    std::string bad;
    for (int i = 0; i < 3; ++i)
      if ((closed >> i & 1) != 0)
        close(i);
    const int fds = fault::open_fds(), alone = inheritable();
    for (int modes = 0; modes < 27; ++modes) {
      const int mode[3] = {modes % 3, modes / 3 % 3, modes / 9};  // 0 inherit, 1 null, 2 pipe
      const vexo_t_bits *bits = kBits[(closed + modes) % 2];
      const vexo_t_bits session = modes % 2 != 0 ? VEXO_PROCESS_CREATE_OPTION_NEW_SESSION : 0;
      const int inherited = (mode[0] == 0) | (mode[1] == 0) << 1 | (mode[2] == 0) << 2;
      int fd[3] = {kUntouched, kUntouched, kUntouched}, pid = kUntouched;
      const vexo_t_error_code rc =
          start_child("/bin/sleep", wait.get(), "/", nullptr, &fd[0], &fd[1], &fd[2], &pid,
                      streams(bits[mode[0]], bits[mode[1]], bits[mode[2]]) | session);
      std::string got = std::to_string(rc), want;
      if (rc == VEXO_S_NOERR) {
        got = asleep(pid) ? "" : "never slept; ";
        got += held(pid) == alone ? "" : "holds more; ";
        got += getsid(pid) == (session != 0 ? pid : getsid(0)) ? "" : "session wrong; ";
        for (int i = 0; i < 3; ++i) {
          const bool end_ok = mode[i] == 2 ? fcntl(fd[i], F_GETFD) == FD_CLOEXEC : fd[i] == -1;
          got += what_is(pid, i) + (end_ok ? "; " : " (our end wrong); ");
          const std::string ours = what_is(getpid(), mode[i] == 2 ? fd[i] : i), dir = i == 0 ? " r" : " w";
          want +=
              (mode[i] == 0 ? ours : (mode[i] == 1 ? "/dev/null" : ours.substr(0, ours.size() - 2)) + dir) +
              "; ";
          if (fd[i] >= 0)
            close(fd[i]);
        }
        kill(pid, SIGKILL);
        got += reap(pid);
        want += "signal 9";
      } else if (std::count(fd, fd + 3, kUntouched) + (pid == kUntouched) != 4) {
        got += " out-parameters written";
      }
      if ((inherited & closed) != 0)
        want = std::to_string(os(EBADF));
      if (got != want || fault::open_fds() != fds)
        bad += "closed " + std::to_string(closed) + ", modes " + std::to_string(modes) + ": " + got +
               (got != want ? " instead of " + want : ", descriptors leaked") + "\n";
    }
    _exit(write(report[1], bad.data(), bad.size()) == static_cast<ssize_t>(bad.size()) ? 0 : 8);
  }
}

TEST_P(ProcessCreate, FailuresBeforeTheForkReleaseEverythingAndStartNoChild) {
  // An unknown key, in any place, gives no string: out of memory.
  args unknown({{{"string", "first"}}, {{"string", "a"}, {"String", "b"}}, {{"other", "x"}}});
  const struct {
    const vexo_t_property **params;
    const char *const *env;
    vexo_t_bits options;
    call c;  // failing with err, unless err is 0; pipe and fork stand for pipe2 and posix_spawn too
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
  for (const auto &r : rows) {
    if (spawning() && r.prepared_spawn < 0)
      continue;
    SCOPED_TRACE(&r - rows);
    fault::reset();
    for (const call c : {r.c, r.c == call::pipe ? call::pipe2 : r.c == call::fork ? call::posix_spawn : r.c})
      fault::fail(c, r.err, r.err != 0);  // each start makes only one of the two calls
    fault::alloc_scope scope;
    EXPECT_EQ(run("/bin/true", r.params, r.options, r.env).rc, r.rc);
    EXPECT_TRUE(scope.live() == 0 && (r.rc != VEXO_E_PARAMETER_ERROR || scope.allocations() == 0))
        << "leaked, or allocated before the check";
    EXPECT_EQ(fault::calls(call::pipe) + fault::calls(call::pipe2) + fault::calls(call::open) +
                  fault::calls(call::dup),
              spawning() ? r.prepared_spawn : r.prepared);
    EXPECT_EQ(fault::calls(call::fork) + fault::calls(call::posix_spawn), r.c == call::fork && r.err != 0);
  }
  EXPECT_EQ(run(nullptr, nullptr, kOut | kShell).rc, VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(run("/bin/true", nullptr, kOut, nullptr, nullptr).rc, VEXO_E_PARAMETER_ERROR);
}

// In an environment of two variables, and "SHELL" where a row sets it.
TEST_P(ProcessCreate, ChildRunsTheProgramOrShellWithItsArgumentsAndEnvironmentOrEndsWithStatusOne) {
  scratch::dir dir;
  const std::string rec = dir.make("rec", 'f'), text = dir.make("text", 'f'),
                    argv = "tr '\\0' '|' </proc/$$/cmdline";
  std::ofstream(rec) << "#!/bin/sh\nprintf '[%s]' \"$#\" \"$@\"\n";  // argument count, then each
  std::ofstream(text) << "neither a script nor a program\n";
  std::ofstream(dir.at("plain")) << "#!/bin/sh\n";  // not executable
  const char *const kv[] = {"VEXO_A\0over", "VEXO_NEW\0v", nullptr},
                    *const eq[] = {"VEXO_A=t=o", "VEXO_C", nullptr},  // the compact builder's other form
                        *const *unread = reinterpret_cast<const char *const *>(uintptr_t{1});
  const vexo_t_bits eq_form = kEnv | VEXO_PROCESS_CREATE_OPTION_ENV_COMPACT_FLAG;
  const std::string inherited = "VEXO_A=inherited\nVEXO_KEEP=kept\n|exit 0";
  const struct {
    const char *shell;  // the "SHELL" variable, null: unset
    vexo_t_bits options;
    std::string cmd;
    std::vector<std::string> params;
    std::string cwd, want;                      // standard output | how the child ended
    vexo_t_error_code spawn_rc = VEXO_S_NOERR;  // when spawning: the start fails instead
    const char *const *env = nullptr;
  } rows[] = {
      {nullptr, 0, "/nonexistent/prog", {}, "/", "|exit 1", VEXO_E_FILE_NOT_FOUND},
      {nullptr, 0, "/bin/sh", {"-c", "exit 0"}, "/nonexistent-dir", "|exit 1", VEXO_E_FILE_NOT_FOUND},
      {nullptr, 0, "/bin/sh", {"-c", "exit 0"}, text, "|exit 1", os(ENOTDIR)},
      {nullptr, 0, text, {}, "/", "|exit 1", os(ENOEXEC)},
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
      {nullptr, 0, "/usr/bin/env", {}, "/", inherited, VEXO_S_NOERR, unread},  // not read without ENV
      {nullptr, kEnv, "/usr/bin/env", {}, "/", inherited},
      {nullptr, kEnv, "/usr/bin/env", {}, "/", inherited, VEXO_S_NOERR, empty},
      {nullptr, kEnv, "/usr/bin/env", {}, "/", "VEXO_A=over\nVEXO_NEW=v\nVEXO_KEEP=kept\n|exit 0", {}, kv},
      {nullptr, kEnv | kNoInherit, "/usr/bin/env", {}, "/", "VEXO_A=over\nVEXO_NEW=v\n|exit 0", {}, kv},
      {nullptr, eq_form, "/usr/bin/env", {}, "/", "VEXO_A=t=o\nVEXO_C=\nVEXO_KEEP=kept\n|exit 0", {}, eq},
      {nullptr, eq_form | kNoInherit, "/usr/bin/env", {}, "/", "VEXO_A=t=o\nVEXO_C=\n|exit 0", {}, eq},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.cmd + " in " + r.cwd + ", options " + std::to_string(r.options));
    use({"VEXO_A=inherited", "VEXO_KEEP=kept"});
    if (r.shell != nullptr)
      use({"VEXO_A=inherited", "VEXO_KEEP=kept", "SHELL=" + std::string(r.shell)});
    args p = plain(r.params);
    const bool fails = spawning() && r.spawn_rc != VEXO_S_NOERR;
    const auto start = [&] { return run(r.cmd.c_str(), p.get(), kOut | r.options, r.env, r.cwd.c_str()); };
    const fault::result want{fails ? r.spawn_rc : VEXO_S_NOERR, fails ? "" : r.want};
    if (r.shell != nullptr)  // SHELL unread for want of memory is taken as unset
      EXPECT_EQ(start(), want);
    else
      fault::oom_sweep(start, want);
  }
  fault::fail(call::open, EINTR);  // an interrupted open of the null device is repeated
  fault::fail(call::dup2, EBADF);  // a fork copies the armed plan: its child's first dup2 fails
  EXPECT_EQ(run("/bin/sh", plain({"-c", "echo ok"}).get(), kOut).text,
            spawning() ? "ok\n|exit 0" : "|exit 1");
  fault::reset();
  args mixed({{{"string", "ab"}, {"file", "/tmp/x"}}, {}, {{"file", ""}, {"string", "é"}}});
  EXPECT_EQ(run(rec.c_str(), nullptr, kOut).text + run(rec.c_str(), mixed.get(), kOut).text,
            "[0]|exit 0[3][ab/tmp/x][][é]|exit 0");
}

// Four threads starting cat children at once: each sees the end of its input as soon as we close our end,
// which no other child holds. (The fork path leaves that to the caller to serialise.)
TEST_P(ProcessCreate, ConcurrentSpawnsKeepTheirDescriptorsApart) {
  if (!spawning())
    GTEST_SKIP() << "the fork path's child ends are inheritable until its child has them";
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        int fd[3] = {-1, -1, -1}, pid = 0;
        bad += vexo_unix_process_spawn("/bin/cat", nullptr, "/", nullptr, &fd[0], &fd[1], nullptr, &pid,
                                       streams(kPipe, kPipe, kNull)) == VEXO_S_NOERR &&
                       write(fd[0], "x", 1) == 1 && close(fd[0]) == 0 && drain(fd[1]) == "x" &&
                       reap(pid) == "exit 0"
                   ? 0
                   : 1;
      }
    });
  for (std::thread &t : threads)
    t.join();
  EXPECT_EQ(bad, 0) << "children that stalled or failed";
}

INSTANTIATE_TEST_SUITE_P(Start, ProcessCreate,
                         ::testing::Values(vexo_unix_process_create, vexo_unix_process_spawn),
                         [](const auto &p) { return p.param == vexo_unix_process_spawn ? "spawn" : "fork"; });

}  // namespace
