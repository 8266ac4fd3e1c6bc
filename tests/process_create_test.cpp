// Process creation: the three streams, argument vectors, shell starts, the
// child's environment, failures before and after the fork. Every child is
// reaped within a bound and every descriptor accounted for.
#include "unix/unix_internal.h"

#include "fault.h"
#include "scratch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <set>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using fault::call;
constexpr vexo_t_bits kInherit = VEXO_PROCESS_FILE_OPTION_INHERIT;
constexpr vexo_t_bits kNull = VEXO_PROCESS_FILE_OPTION_NULL;
constexpr vexo_t_bits kPipe = VEXO_PROCESS_FILE_OPTION_PIPE;
constexpr vexo_t_bits kEnv = VEXO_PROCESS_CREATE_OPTION_ENV;
constexpr vexo_t_bits kNoInherit = VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT;
constexpr vexo_t_bits kCompact = VEXO_PROCESS_CREATE_OPTION_ENV_COMPACT_FLAG;
constexpr vexo_t_bits kShell = VEXO_PROCESS_CREATE_OPTION_SHELL;
constexpr int kUntouched = -77;
vexo_t_error_code os_error(int err) {
  return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
}

// Inherited streams need our own to be open; a runner may start us without them.
[[maybe_unused]] const bool kStreamsOpen = [] {
  for (int fd = 0; fd < 3; ++fd) {
    if (fcntl(fd, F_GETFD) == -1)
      open("/dev/null", O_RDWR);  // the lowest free number: fd itself
  }
  return true;
}();

// Modes of standard input, output and error in one options word.
constexpr vexo_t_bits streams(vexo_t_bits in, vexo_t_bits out, vexo_t_bits err) {
  return in | out << 3 | err << 6;
}
constexpr vexo_t_bits kOut = streams(kNull, kPipe, kPipe);

// Parameters as property lists, one list of (key, value) entries per argument.
using entries = std::vector<std::pair<const char *, std::string>>;
class args {
 public:
  explicit args(const std::vector<entries> &list) {
    for (const entries &arg : list) {
      std::vector<vexo_t_property> &props = lists_.emplace_back(arg.size() + 1, vexo_t_property{});
      for (size_t i = 0; i < arg.size(); ++i)
        props[i] = {arg[i].first, {0, {values_.emplace_back(arg[i].second).c_str()}}};
      ptrs_.push_back(props.data());
    }
    ptrs_.push_back(nullptr);
  }
  args(const args &) = delete;
  const vexo_t_property **get() { return ptrs_.data(); }

 private:
  std::deque<std::string> values_;
  std::deque<std::vector<vexo_t_property>> lists_;
  std::vector<const vexo_t_property *> ptrs_;
};
args plain(const std::vector<std::string> &list) {
  std::vector<entries> e;
  for (const std::string &s : list)
    e.push_back({{"string", s}});
  return args(e);
}
args sh(const std::string &script) {
  return plain({"-c", script});
}

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

// Writes `input` to fd[0] while reading fd[1] and fd[2] to their ends, so
// that no side waits on a full pipe; closes all three (-1 is skipped). False
// when that took more than 10 s.
bool pump(int fd[3], const std::string &input, std::string sink[3]) {
  size_t sent = 0;
  if (fd[0] >= 0)
    fcntl(fd[0], F_SETFL, O_NONBLOCK);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    if (fd[0] >= 0 && sent == input.size()) {
      close(fd[0]);
      fd[0] = -1;
    }
    if ((fd[0] < 0 && fd[1] < 0 && fd[2] < 0) || std::chrono::steady_clock::now() > deadline)
      break;
    pollfd p[3] = {{fd[0], POLLOUT, 0}, {fd[1], POLLIN, 0}, {fd[2], POLLIN, 0}};
    poll(p, 3, 100);
    if (p[0].revents != 0) {
      const ssize_t n = write(fd[0], input.data() + sent, input.size() - sent);
      sent = n > 0 ? sent + static_cast<size_t>(n) : errno == EAGAIN ? sent : input.size();  // reader gone
    }
    for (int i = 1; i < 3; ++i) {
      char buf[65536];
      const ssize_t n = p[i].revents != 0 ? read(fd[i], buf, sizeof buf) : -1;
      if (n > 0) {
        sink[i].append(buf, static_cast<size_t>(n));
      } else if (p[i].revents != 0) {
        close(fd[i]);
        fd[i] = -1;
      }
    }
  }
  bool done = true;
  for (int i = 0; i < 3; ++i) {
    if (fd[i] >= 0) {
      close(fd[i]);
      done = false;
    }
  }
  return done;
}

// How a child ended, polled for 10 s; one still running then is killed.
std::string reap(vexo_t_os_process_handle pid) {
  vexo_t_process_exit_status st{};
  for (int i = 0; i < 1000; ++i) {
    const vexo_t_error_code rc = vexo_unix_process_wait(
        pid, nullptr, &st, VEXO_PROCESS_WAIT_OPTION_NONBLOCKING | VEXO_PROCESS_WAIT_OPTION_EXIT);
    if (rc != VEXO_E_WOULD_BLOCK)
      return rc != VEXO_S_NOERR                                 ? "wait failed: " + std::to_string(rc)
             : st.flags == VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED ? "exit " + std::to_string(st.value)
                                                                : "signal " + std::to_string(st.value);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  vexo_unix_process_kill(pid, SIGKILL, 0);
  vexo_unix_process_wait(pid, nullptr, &st, VEXO_PROCESS_WAIT_OPTION_EXIT);
  return "still running after 10 s";
}

struct outcome {
  vexo_t_error_code rc = VEXO_E_INTERNAL_ERROR;
  std::string out, err, end;
};

// One start with a pointer for every stream; feeds `input`, collects the
// output and reaps. A failed start must leave every out-parameter as it was.
outcome run(const char *cmd, const vexo_t_property **params, vexo_t_bits options,
            const char *const *env = nullptr, const char *cwd = "/", const std::string &input = {}) {
  outcome r;
  int fd[3] = {kUntouched, kUntouched, kUntouched};
  vexo_t_os_process_handle pid = kUntouched;
  r.rc = vexo_unix_process_create(cmd, params, cwd, env, &fd[0], &fd[1], &fd[2], &pid, options);
  if (r.rc != VEXO_S_NOERR) {
    EXPECT_TRUE(fd[0] == kUntouched && fd[1] == kUntouched && fd[2] == kUntouched && pid == kUntouched);
    return r;
  }
  std::string sink[3];
  const bool pumped = pump(fd, input, sink);
  r.out = sink[1];
  r.err = sink[2];
  r.end = reap(pid) + (pumped ? "" : " (streams stalled)");
  return r;
}

std::string link_of(const std::string &path) {
  char buf[PATH_MAX];
  const ssize_t n = readlink(path.c_str(), buf, sizeof buf);
  return n < 0 ? "(none)" : std::string(buf, static_cast<size_t>(n));
}
// What descriptor `fd` of `pid` refers to, and " r" or " w" for its access mode.
std::string proc_fd(pid_t pid, int fd) {
  const std::string at = "/proc/" + std::to_string(pid) + "/fd";
  std::ifstream info(at + "info/" + std::to_string(fd));
  std::string word;
  while (info >> word && word != "flags:") {
  }
  info >> word;
  const long mode = std::strtol(word.c_str(), nullptr, 8) & O_ACCMODE;
  return link_of(at + "/" + std::to_string(fd)) + (mode == O_RDONLY ? " r" : " w");
}
std::string pipe_name(int fd) {
  struct stat st {};
  fstat(fd, &st);
  return "pipe:[" + std::to_string(st.st_ino) + "]";
}
// Descriptors of `pid` above 2 that are pipes or the null device; with `inheritable`, ours without
// close-on-exec.
std::set<std::string> pipes_and_nulls(pid_t pid, bool inheritable) {
  std::set<std::string> out;
  DIR *d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  while (dirent *e = d != nullptr ? readdir(d) : nullptr) {
    const int fd = std::atoi(e->d_name);
    const std::string name = proc_fd(pid, fd);
    if (fd > 2 && fd != dirfd(d) && (!inheritable || (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) &&
        (name.rfind("pipe:", 0) == 0 || name.rfind("/dev/null", 0) == 0))
      out.insert(std::to_string(fd) + " " + name);
  }
  if (d != nullptr)
    closedir(d);
  return out;
}

class ProcessCreate : public fault::Test {
 protected:
  void SetUp() override {
    fault::Test::SetUp();
    fds_ = fault::open_fds();
    old_sigpipe_ = std::signal(SIGPIPE, SIG_IGN);  // a child that stops reading must not end the test
  }
  void TearDown() override {
    std::signal(SIGPIPE, old_sigpipe_);
    fault::Test::TearDown();
    EXPECT_EQ(fault::open_fds(), fds_) << "descriptor leaked";
    no_child_left();
  }
  static void no_child_left() {
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD) << "a child was started or left";
  }
  // A script that prints its argument count and arguments, each in brackets.
  std::string recorder() {
    std::ofstream(dir_.at("rec")) << "#!/bin/sh\nprintf '[%s]' \"$#\" \"$@\"\n";
    chmod(dir_.at("rec").c_str(), 0755);
    return dir_.at("rec");
  }

  scratch::dir dir_;
  int fds_ = 0;
  void (*old_sigpipe_)(int) = nullptr;
};

TEST_F(ProcessCreate, EachStreamTakesItsFirstModeBitAndNothingElseReachesTheChild) {
  char *exe = realpath("/bin/sleep", nullptr);
  const std::string sleep_exe = exe != nullptr ? exe : "?";
  std::free(exe);
  args p = plain({"20"});
  // 0x7, 0x6, 0x5 and 0x3 show the order inherit, null device, pipe.
  const struct {
    vexo_t_bits bits;
    char kind;
  } modes[] = {{1, 'i'}, {2, 'n'}, {4, 'p'}, {7, 'i'}, {6, 'n'}, {5, 'i'}, {3, 'i'}};
  for (int s = 0; s < 3; ++s) {
    for (const auto &m : modes) {
      for (const bool ptr : {true, false}) {
        SCOPED_TRACE("stream " + std::to_string(s) + " bits " + std::to_string(m.bits) + " pointer " +
                     std::to_string(ptr));
        const int before = fault::open_fds();
        // Our own stream is briefly a pipe, so that an inherited stream can be told from the null device.
        int sub[2];
        ASSERT_EQ(pipe2(sub, O_CLOEXEC), 0);
        const int saved = fcntl(s, F_DUPFD_CLOEXEC, 3);
        dup2(sub[s == 0 ? 0 : 1], s);
        const std::set<std::string> ours = pipes_and_nulls(getpid(), true);
        vexo_t_bits options = 0;
        for (int t = 0; t < 3; ++t)
          options |= (t == s ? m.bits : kNull) << (3 * t);
        int fd[3] = {kUntouched, kUntouched, kUntouched};
        vexo_t_os_process_handle pid = kUntouched;
        const vexo_t_error_code rc =
            vexo_unix_process_create("/bin/sleep", p.get(), "/", nullptr, ptr ? &fd[0] : nullptr,
                                     ptr ? &fd[1] : nullptr, ptr ? &fd[2] : nullptr, &pid, options);
        dup2(saved, s);
        close(saved);
        const std::string sub_name = pipe_name(sub[0]);
        close(sub[0]);
        close(sub[1]);
        ASSERT_EQ(rc, VEXO_S_NOERR);
        for (int i = 0; i < 1000 && link_of("/proc/" + std::to_string(pid) + "/exe") != sleep_exe; ++i)
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (int t = 0; t < 3; ++t) {
          const char kind = t == s ? m.kind : 'n';
          const std::string mode = t == 0 ? " r" : " w";
          const std::string got = proc_fd(pid, t);
          if (kind != 'p') {
            EXPECT_EQ(got, (kind == 'i' ? sub_name : "/dev/null") + mode);
            EXPECT_EQ(fd[t], ptr ? -1 : kUntouched);
          } else if (ptr) {  // the other end of the child's pipe, close-on-exec
            EXPECT_EQ(got, pipe_name(fd[t]) + mode);
            EXPECT_EQ(fcntl(fd[t], F_GETFL) & O_ACCMODE, t == 0 ? O_WRONLY : O_RDONLY);
            EXPECT_NE(fcntl(fd[t], F_GETFD) & FD_CLOEXEC, 0);
          } else {
            EXPECT_TRUE(got.rfind("pipe:[", 0) == 0 && got != sub_name + mode &&
                        got.substr(got.size() - 2) == mode)
                << got;
          }
        }
        // Pipes and null devices above 2 in the child are only those our process passes on itself.
        for (const std::string &extra : pipes_and_nulls(pid, false))
          EXPECT_EQ(ours.count(extra), 1u) << extra;
        vexo_unix_process_kill(pid, SIGKILL, 0);
        EXPECT_EQ(reap(pid), "signal 9");
        for (const int f : fd) {
          if (f >= 0)
            close(f);
        }
        EXPECT_EQ(fault::open_fds(), before);
      }
    }
  }
}

TEST_F(ProcessCreate, AllThreePipesCarryMoreThanAPipeBufferAtOnce) {
  std::string input(1 << 20, '\0');
  for (size_t i = 0; i < input.size(); ++i)
    input[i] = static_cast<char>((i * 2654435761u) >> 13);
  // tee copies every block to standard output and to standard error.
  const outcome r =
      run("/bin/sh", sh("tee /dev/fd/2").get(), streams(kPipe, kPipe, kPipe), nullptr, "/", input);
  ASSERT_EQ(r.rc, VEXO_S_NOERR);
  EXPECT_EQ(r.end, "exit 0");
  EXPECT_TRUE(r.out == input && r.err == input) << r.out.size() << " and " << r.err.size() << " bytes";
}

TEST_F(ProcessCreate, ChildStreamsHoldWhenOurFirstStreamsAreClosed) {
  for (int closed = 1; closed <= 3; ++closed) {
    SCOPED_TRACE(std::to_string(closed) + " of our streams closed");
    const pid_t helper = fork();
    ASSERT_GE(helper, 0);
    if (helper == 0) {
      for (int fd = 0; fd < closed; ++fd)
        close(fd);
      int fd[3];
      vexo_t_os_process_handle pid = 0;
      if (vexo_unix_process_create("/bin/sh", sh("cat; printf err >&2").get(), "/", nullptr, &fd[0], &fd[1],
                                   &fd[2], &pid, streams(kPipe, kPipe, kPipe)) != VEXO_S_NOERR)
        _exit(2);
      std::string sink[3];
      const bool pumped = pump(fd, "through", sink);
      const std::string end = reap(pid);
      _exit(!pumped ? 3 : sink[1] != "through" || sink[2] != "err" ? 4 : end != "exit 0" ? 5 : 0);
    }
    EXPECT_EQ(reap(helper), "exit 0") << "2: start failed, 3: streams stalled, 4: wrong data, 5: bad end";
  }
}

TEST_F(ProcessCreate, FailuresBeforeTheForkReleaseEverythingAndStartNoChild) {
  const char *const empty[] = {nullptr};
  const char *t = "/bin/true";
  const struct {
    const char *cmd, *cwd;
    const char *const *env;
    vexo_t_bits options;
    call c;  // failing with err, unless err is 0
    int err;
    vexo_t_error_code rc;
    int prepared, closes;  // pipe, open and dup calls; closes of what they gave
  } rows[] = {
      {nullptr, "/", nullptr, kOut | kShell | kEnv, call::fork, 0, VEXO_E_PARAMETER_ERROR, 0, 0},
      {t, nullptr, nullptr, kOut | kShell | kEnv, call::fork, 0, VEXO_E_PARAMETER_ERROR, 0, 0},
      {t, "/", nullptr, kOut | kEnv | kNoInherit, call::fork, 0, VEXO_E_PARAMETER_ERROR, 0, 0},
      {t, "/", empty, kOut | kEnv | kNoInherit, call::fork, 0, VEXO_E_PARAMETER_ERROR, 0, 0},
      {t, "/", nullptr, 0, call::fork, 0, VEXO_E_INTERNAL_ERROR, 0, 0},
      {t, "/", nullptr, streams(kInherit, kInherit, 0), call::fork, 0, VEXO_E_INTERNAL_ERROR, 2, 2},
      {t, "/", nullptr, streams(kPipe, kPipe, 0), call::fork, 0, VEXO_E_INTERNAL_ERROR, 2, 4},
      {t, "/", nullptr, streams(kNull, 0, kPipe), call::fork, 0, VEXO_E_INTERNAL_ERROR, 1, 1},
      {t, "/", nullptr, streams(kPipe, kPipe, kPipe), call::pipe, EMFILE, os_error(EMFILE), 1, 0},
      {t, "/", nullptr, streams(kNull, kPipe, kPipe), call::pipe, ENFILE, os_error(ENFILE), 2, 1},
      {t, "/", nullptr, streams(kInherit, kNull, kPipe), call::pipe, EMFILE, os_error(EMFILE), 3, 2},
      {t, "/", nullptr, streams(kInherit, kInherit, kInherit), call::dup, EBADF, os_error(EBADF), 1, 0},
      // An interrupted dup is not repeated.
      {t, "/", nullptr, streams(kPipe, kInherit, kNull), call::dup, EINTR, os_error(EINTR), 2, 2},
      {t, "/", nullptr, streams(kNull, kNull, kNull), call::open, EACCES, os_error(EACCES), 1, 0},
      {t, "/", nullptr, streams(kPipe, kInherit, kNull), call::open, ENFILE, os_error(ENFILE), 3, 3},
      // Marking the parent's end fails: both ends are closed.
      {t, "/", nullptr, streams(kPipe, kNull, kNull), call::fcntl, EBADF, os_error(EBADF), 1, 2},
      {t, "/", nullptr, streams(kPipe, kPipe, kPipe), call::fork, EAGAIN, os_error(EAGAIN), 3, 6},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    const auto &r = rows[i];
    SCOPED_TRACE(i);
    fault::reset();
    if (r.err != 0)
      fault::fail(r.c, r.err);
    fault::alloc_scope scope;
    EXPECT_EQ(run(r.cmd, nullptr, r.options, r.env, r.cwd).rc, r.rc);
    EXPECT_EQ(scope.live(), 0);
    EXPECT_TRUE(r.rc != VEXO_E_PARAMETER_ERROR || scope.allocations() == 0)
        << "rejected only after allocating";
    EXPECT_EQ(fault::calls(call::pipe) + fault::calls(call::open) + fault::calls(call::dup), r.prepared);
    EXPECT_EQ(fault::calls(call::close), r.closes);
    EXPECT_EQ(fault::calls(call::fork), r.err != 0 && r.c == call::fork ? 1 : 0);
    EXPECT_EQ(fault::open_fds(), fds_);
    no_child_left();
  }
}

TEST_F(ProcessCreate, FailuresAfterTheForkEndTheChildWithStatusOne) {
  const std::string rec = recorder();
  const int old_cwd = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  const struct {
    const char *cmd;
    std::vector<std::string> params;
    std::string cwd, out, end;
    call c;  // failing once with err, unless err is 0
    int err;
  } rows[] = {
      {"/nonexistent/prog", {}, "/", "", "exit 1", call::fork, 0},
      {"/bin/sh", {"-c", "exit 0"}, "/nonexistent-dir", "", "exit 1", call::fork, 0},
      {"rec", {}, "/", "", "exit 1", call::fork, 0},  // valid from our directory, not from the child's
      {"rec", {}, dir_.path(), "[0]", "exit 0", call::fork, 0},
      {"/bin/sh", {"-c", "pwd -P"}, dir_.path(), dir_.path() + "\n", "exit 0", call::fork, 0},
      // The fork copies the armed plan: the child's first dup2 fails.
      {"/bin/sh", {"-c", "echo ok"}, "/", "", "exit 1", call::dup2, EBADF},
      // An interrupted open of the null device is repeated.
      {"/bin/sh", {"-c", "echo ok"}, "/", "ok\n", "exit 0", call::open, EINTR},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(std::string(r.cmd) + " in " + r.cwd);
    fault::reset();
    if (r.err != 0)
      fault::fail(r.c, r.err);
    const outcome o = run(r.cmd, plain(r.params).get(), kOut, nullptr, r.cwd.c_str());
    EXPECT_EQ(o.rc, VEXO_S_NOERR);
    EXPECT_EQ(o.out, r.out);
    EXPECT_EQ(o.end, r.end);
    EXPECT_EQ(fault::calls(call::dup2), 0);
  }
  EXPECT_EQ(fchdir(old_cwd), 0);
  close(old_cwd);
}

TEST_F(ProcessCreate, ArgumentVectorOfADirectStart) {
  const std::string rec = recorder();
  args none({});
  args mixed(
      {{{"string", "ab"}, {"file", "/tmp/x"}}, {}, {{"string", "c d"}}, {{"file", ""}, {"string", "é"}}});
  const struct {
    const vexo_t_property **params;
    const char *out;
  } rows[] = {{nullptr, "[0]"}, {none.get(), "[0]"}, {mixed.get(), "[4][ab/tmp/x][][c d][é]"}};
  for (const auto &r : rows) {
    const outcome o = run(rec.c_str(), r.params, kOut);
    EXPECT_EQ(o.rc, VEXO_S_NOERR);
    EXPECT_EQ(o.out + " " + o.end, std::string(r.out) + " exit 0") << o.err;
  }
  // Slot 0 is the program path.
  const std::string cmdline = "tr '\\0' '|' </proc/$$/cmdline";
  EXPECT_EQ(run("/bin/sh", sh(cmdline).get(), kOut).out, "/bin/sh|-c|" + cmdline + "|");

  // An unknown key gives no string: out of memory, everything released, no child.
  for (const entries &bad : {entries{{"other", "x"}}, entries{{"string", "a"}, {"String", "b"}}}) {
    args params({{{"string", "first"}}, bad, {{"string", "never built"}}});
    fault::reset();
    fault::alloc_scope scope;
    EXPECT_EQ(run(rec.c_str(), params.get(), kOut).rc, VEXO_E_OUT_OF_MEMORY);
    EXPECT_EQ(scope.live(), 0);
    EXPECT_EQ(fault::calls(call::fork), 0);
  }
  const struct {
    entries e;
    const char *want;  // null: no string
  } strings[] = {
      {{}, ""},
      {{{"string", "ab"}, {"file", "/tmp/x"}}, "ab/tmp/x"},
      {{{"file", ""}, {"string", "x"}, {"string", "y"}}, "xy"},
      {{{"string", "a"}, {"name", "b"}}, nullptr},
      {{{"File", "x"}}, nullptr},
  };
  for (const auto &r : strings) {
    args a({r.e});
    char *got = vexo_unix_alloc_argv_entry_string(a.get()[0]);
    EXPECT_EQ(got != nullptr ? got : "(null)", std::string(r.want != nullptr ? r.want : "(null)"));
    vexo_free(got);
  }
}

TEST_F(ProcessCreate, ShellStartRunsTheShellWithDashCTheCommandAndTheParameters) {
  const std::string rec = recorder();
  const std::string cmdline = "tr '\\0' '|' </proc/$$/cmdline";
  const struct {
    const char *shell;  // null: unset
    std::string cmd;
    std::vector<std::string> params;
    std::string out, end;
  } rows[] = {
      {nullptr, cmdline, {}, "/bin/sh|-c|" + cmdline + "|", "exit 0"},
      {nullptr, "printf '[%s]' \"$0\" \"$@\"", {"zero", "one"}, "[zero][one]", "exit 0"},
      {rec.c_str(), "any command", {}, "[2][-c][any command]", "exit 0"},
      {rec.c_str(), "any command", {"p1", ""}, "[4][-c][any command][p1][]", "exit 0"},
      {"", "exit 0", {}, "", "exit 1"},  // used as the path all the same
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.shell != nullptr ? r.shell : "SHELL unset");
    scoped_env shell("SHELL", r.shell);
    const outcome o = run(r.cmd.c_str(), plain(r.params).get(), kOut | kShell);
    EXPECT_EQ(o.rc, VEXO_S_NOERR);
    EXPECT_EQ(o.out, r.out);
    EXPECT_EQ(o.end, r.end) << o.err;
  }
}

TEST_F(ProcessCreate, ChildEnvironmentIsInheritedOrBuiltFromTheCallersEntries) {
  scoped_env a("VEXO_CT_A", "inherited");
  const auto *const bogus = reinterpret_cast<const char *const *>(uintptr_t{1});
  const char *const empty[] = {nullptr};
  const char *const kv[] = {"VEXO_CT_A\0over", "VEXO_CT_NEW\0v", nullptr};
  const char *const whole_key[] = {"VEXO_CT_B=two\0", nullptr};
  const char *const eq[] = {"VEXO_CT_B=t=o", "VEXO_CT_C", nullptr};
  const char *const eq_over[] = {"VEXO_CT_A=eq", nullptr};
  const struct {
    vexo_t_bits options;
    const char *const *env;
    std::vector<std::string> own;  // the caller's entries as the child sees them
    bool inherit;
  } rows[] = {
      {0, bogus, {}, true},  // not read at all without ENV
      {kEnv, nullptr, {}, true},
      {kEnv, empty, {}, true},
      {kEnv, kv, {"VEXO_CT_A=over", "VEXO_CT_NEW=v"}, true},
      {kEnv | kNoInherit, kv, {"VEXO_CT_A=over", "VEXO_CT_NEW=v"}, false},
      {kEnv | kNoInherit, whole_key, {"VEXO_CT_B=two="}, false},  // key NUL value: '=' is in the key
      {kEnv | kNoInherit | kCompact, eq, {"VEXO_CT_B=t=o", "VEXO_CT_C="}, false},
      {kEnv | kCompact, eq_over, {"VEXO_CT_A=eq"}, true},
  };
  args dash0 = plain({"-0"});
  for (size_t i = 0; i < std::size(rows); ++i) {
    const auto &r = rows[i];
    SCOPED_TRACE(i);
    std::vector<std::string> want = r.own;
    std::set<std::string> own_keys;
    for (const std::string &e : r.own)
      own_keys.insert(e.substr(0, e.find('=')));
    for (char **e = environ; r.inherit && *e != nullptr; ++e) {
      if (own_keys.count(std::string(*e).substr(0, std::string(*e).find('='))) == 0)
        want.push_back(*e);
    }
    const outcome o = run("/usr/bin/env", dash0.get(), kOut | r.options, r.env);
    ASSERT_EQ(o.rc, VEXO_S_NOERR);
    std::vector<std::string> got;
    for (size_t at = 0, nul; (nul = o.out.find('\0', at)) != std::string::npos; at = nul + 1)
      got.push_back(o.out.substr(at, nul - at));
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(got, want);
    EXPECT_EQ(o.end, "exit 0");
  }
}

TEST_F(ProcessCreate, NewSessionMakesTheChildASessionLeader) {
  args p = sh("echo ready; read x; exit 0");
  for (const vexo_t_bits session : {0u, VEXO_PROCESS_CREATE_OPTION_NEW_SESSION}) {
    int fd[3] = {-1, -1, -1};
    vexo_t_os_process_handle pid = 0;
    ASSERT_EQ(vexo_unix_process_create("/bin/sh", p.get(), "/", nullptr, &fd[0], &fd[1], nullptr, &pid,
                                       streams(kPipe, kPipe, kNull) | session),
              VEXO_S_NOERR);
    // Once the shell has written, any setsid is behind it.
    pollfd pf{fd[1], POLLIN, 0};
    EXPECT_EQ(poll(&pf, 1, 10000), 1);
    EXPECT_EQ(getsid(pid), session != 0 ? pid : getsid(0));
    std::string sink[3];
    EXPECT_TRUE(pump(fd, "", sink));
    EXPECT_EQ(sink[1] + reap(pid), "ready\nexit 0");
  }
}

TEST_F(ProcessCreate, EveryFailingAllocationIsReportedAndReleasedWithoutAChild) {
  scoped_env shell("SHELL", nullptr);
  scoped_env a("VEXO_CT_A", "inherited");
  scoped_env keep("VEXO_CT_KEEP", "kept");
  const char *const env[] = {"VEXO_CT_A\0swept", "VEXO_CT_NEW\0x", nullptr};
  args p = plain({"one", "two"});
  const char *cmd = "printf '%s|%s|%s|%s' \"$VEXO_CT_A\" \"$0\" \"$1\" \"$VEXO_CT_KEEP\"";
  for (const vexo_t_bits no_inherit : {0u, kNoInherit}) {
    SCOPED_TRACE(no_inherit);
    const long n = fault::alloc_sweep([&](fault::alloc_scope &scope) {
      fault::reset();
      const outcome o = run(cmd, p.get(), kShell | kEnv | no_inherit | kOut, env);
      if (scope.injected()) {
        EXPECT_EQ(o.rc, VEXO_E_OUT_OF_MEMORY);
        EXPECT_EQ(fault::calls(call::fork), 0);
      } else {
        EXPECT_EQ(o.rc, VEXO_S_NOERR);
        EXPECT_EQ(o.out, no_inherit != 0 ? "swept|one|two|" : "swept|one|two|kept");
        EXPECT_EQ(o.end, "exit 0");
      }
      EXPECT_EQ(fault::open_fds(), fds_);
    });
    EXPECT_GT(n, 6);
  }
}

}  // namespace
