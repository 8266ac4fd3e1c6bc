// vexo run: starts a program through vexo_unix_process_create, relays the
// streams it was given as pipes, waits for it and says how it ended.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>
#include <system_error>
#include <utility>

namespace vexo_cli {

// ---- Shared with the tour ----------------------------------------------------

argument_lists::argument_lists(std::vector<std::string> texts) : texts_(std::move(texts)) {
  // `texts_` no longer grows, so the entries may point into it.
  lists_.reserve(texts_.size());
  for (const std::string &text : texts_) {
    std::array<vexo_t_property, 2> list = {};
    list[0].key = "string";
    list[0].v.u.string = text.c_str();
    lists_.push_back(list);
  }
  for (const auto &list : lists_)
    pointers_.push_back(list.data());
  pointers_.push_back(nullptr);
}

namespace {

// "SIGKILL"; the number when the C library has no name for it.
std::string signal_text(int sig) {
  if (const char *abbrev = sigabbrev_np(sig))
    return std::string("SIG") + abbrev;
  return std::to_string(sig);
}

}  // namespace

std::string exit_status_text(const vexo_t_process_exit_status &status) {
  const vexo_t_bits flags = status.flags;
  if ((flags & VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED) != 0)
    return "exited with " + std::to_string(status.value);
  if ((flags & VEXO_PROCESS_EXIT_STATUS_FLAG_SIGNALED) != 0)
    return "killed by signal " + signal_text(status.value) +
           ((flags & VEXO_PROCESS_EXIT_STATUS_FLAG_CORE_DUMPED) != 0 ? " (core dumped)" : "");
  if ((flags & VEXO_PROCESS_EXIT_STATUS_FLAG_STOPPED) != 0)
    return "stopped by signal " + signal_text(status.value);
  if ((flags & VEXO_PROCESS_EXIT_STATUS_FLAG_CONTINUED) != 0)
    return "continued";
  char text[64];
  std::snprintf(text, sizeof text, "ended with flags 0x%x", static_cast<unsigned>(flags));
  return text;
}

namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr const char *kModeNames[] = {"inherit", "null", "pipe"};
constexpr vexo_t_bits kModeBits[3][3] = {
    {VEXO_PROCESS_CREATE_OPTION_STDIN_INHERIT, VEXO_PROCESS_CREATE_OPTION_STDIN_NULL,
     VEXO_PROCESS_CREATE_OPTION_STDIN_PIPE},
    {VEXO_PROCESS_CREATE_OPTION_STDOUT_INHERIT, VEXO_PROCESS_CREATE_OPTION_STDOUT_NULL,
     VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE},
    {VEXO_PROCESS_CREATE_OPTION_STDERR_INHERIT, VEXO_PROCESS_CREATE_OPTION_STDERR_NULL,
     VEXO_PROCESS_CREATE_OPTION_STDERR_PIPE},
};

struct run_options {
  bool shell = false;
  std::string cwd;
  std::vector<std::string> env;
  bool clean_env = false;
  std::string modes[3] = {"inherit", "inherit", "inherit"};
  bool new_session = false;
  bool fork = false;                 // the fork path instead of posix_spawn
  std::vector<std::string> command;  // PROGRAM, then its arguments
};

vexo_t_bits stream_bits(const std::string &mode, int stream) {
  for (size_t i = 0; i < std::size(kModeNames); ++i)
    if (mode == kModeNames[i])
      return kModeBits[stream][i];
  return 0;  // CLI11 has already refused anything else
}

// ---- Signals -------------------------------------------------------------------

volatile std::sig_atomic_t g_pending_signal = 0;

void note_signal(int sig) {
  g_pending_signal = sig;
}

// While the child runs, signals that would end the tool are held so that it
// can still reap the child and report; they are passed on to the child.
class relayed_signals {
 public:
  relayed_signals() {
    struct sigaction sa = {};
    sa.sa_handler = note_signal;
    sigemptyset(&sa.sa_mask);
    // A signal ignored from the start (a background job) stays ignored.
    for (size_t i = 0; i < std::size(kSignals); ++i)
      if (sigaction(kSignals[i], nullptr, &saved_[i]) == 0 && saved_[i].sa_handler != SIG_IGN)
        sigaction(kSignals[i], &sa, nullptr);
  }
  ~relayed_signals() {
    for (size_t i = 0; i < std::size(kSignals); ++i)
      sigaction(kSignals[i], &saved_[i], nullptr);
  }
  relayed_signals(const relayed_signals &) = delete;
  relayed_signals &operator=(const relayed_signals &) = delete;

 private:
  static constexpr int kSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
  struct sigaction saved_[std::size(kSignals)] = {};
};

// ---- The child and its pipe ends ----------------------------------------------

// A parent pipe end from the library, closed through the library.
class pipe_end {
 public:
  pipe_end() = default;
  ~pipe_end() { close(); }
  pipe_end(const pipe_end &) = delete;
  pipe_end &operator=(const pipe_end &) = delete;

  int get() const { return fd_; }
  vexo_t_os_file_handle *out() { return &fd_; }
  bool is_open() const { return fd_ != -1; }
  void close() {
    if (fd_ != -1)
      static_cast<void>(vexo_os_file_handle_close_unix(fd_, VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS));
    fd_ = -1;
  }

 private:
  vexo_t_os_file_handle fd_ = -1;
};

// The started child; whatever way the run ends, it is reaped. Declared
// before the pipe ends, so that they are closed first and the child sees
// the end of its input and its output going nowhere.
class child {
 public:
  explicit child(bool new_session) : new_session_(new_session) {}
  ~child() {
    vexo_t_process_exit_status ignored;
    if (handle_ > 0)
      static_cast<void>(wait(ignored));
  }
  child(const child &) = delete;
  child &operator=(const child &) = delete;

  vexo_t_os_process_handle *out() { return &handle_; }
  vexo_t_os_process_handle handle() const { return handle_; }

  // Passes a held signal on. Without a new session the child is in the
  // tool's process group, so a Ctrl-C or Ctrl-\ from the terminal has reached
  // it already.
  void forward_signal() const {
    const int sig = g_pending_signal;
    if (sig == 0)
      return;
    g_pending_signal = 0;
    if (!new_session_ && (sig == SIGINT || sig == SIGQUIT))
      return;
    static_cast<void>(vexo_unix_process_kill(handle_, sig, 0));
  }

  vexo_t_error_code wait(vexo_t_process_exit_status &status) {
    vexo_t_error_code rc;
    do {
      forward_signal();
      rc = vexo_unix_process_wait(handle_, nullptr, &status,
                                  VEXO_PROCESS_WAIT_OPTION_EXIT | VEXO_PROCESS_WAIT_OPTION_INTERRUPTIBLE);
    } while (rc == VEXO_E_INTERRUPTED);
    handle_ = 0;  // reaped, or not this process's child to reap
    return rc;
  }

 private:
  vexo_t_os_process_handle handle_ = 0;
  bool new_session_;
};

// ---- Relaying the piped streams -------------------------------------------------

// Writes all of `size` bytes to one of the tool's own streams; false when it
// takes no more (closed pipe, closed descriptor).
bool write_all(int fd, const char *data, size_t size, const child &c) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n >= 0) {
      data += n;
      size -= static_cast<size_t>(n);
    } else if (errno == EINTR) {
      c.forward_signal();
    } else if (errno == EAGAIN) {
      // Someone else made the stream non-blocking.
      pollfd p = {fd, POLLOUT, 0};
      static_cast<void>(::poll(&p, 1, -1));
    } else {
      return false;
    }
  }
  return true;
}

class relay {
 public:
  relay(const child &c, pipe_end &to_child, pipe_end &from_out, pipe_end &from_err)
      : c_(c), to_child_(to_child), from_out_(from_out), from_err_(from_err), buffer_(kChunk) {
    stdin_open_ = to_child_.is_open();
    // Never block on a child that does not read: its output must keep flowing.
    if (to_child_.is_open()) {
      const int flags = ::fcntl(to_child_.get(), F_GETFL);
      if (flags == -1 || ::fcntl(to_child_.get(), F_SETFL, flags | O_NONBLOCK) == -1)
        throw std::system_error(errno, std::generic_category(), "fcntl on the child's standard input");
    }
  }

  void run() {
    enum { kIn, kToChild, kOut, kErr };
    while (to_child_.is_open() || from_out_.is_open() || from_err_.is_open()) {
      // A negative descriptor is passed over by poll; a closed write end
      // still reports POLLERR once the child's read end is gone.
      pollfd fds[4] = {
          {stdin_open_ && pending_.empty() ? STDIN_FILENO : -1, POLLIN, 0},
          {to_child_.get(), static_cast<short>(pending_.empty() ? 0 : POLLOUT), 0},
          {from_out_.get(), POLLIN, 0},
          {from_err_.get(), POLLIN, 0},
      };
      if (::poll(fds, std::size(fds), -1) == -1) {
        if (errno != EINTR)
          throw std::system_error(errno, std::generic_category(), "poll");
        c_.forward_signal();
        continue;
      }
      if (fds[kIn].revents != 0)
        read_input();
      if (fds[kToChild].revents != 0)
        feed_child(fds[kToChild].revents);
      if (!stdin_open_ && pending_.empty())
        to_child_.close();
      if (fds[kOut].revents != 0)
        copy_output(from_out_, STDOUT_FILENO);
      if (fds[kErr].revents != 0)
        copy_output(from_err_, STDERR_FILENO);
    }
  }

 private:
  void read_input() {
    const ssize_t n = ::read(STDIN_FILENO, buffer_.data(), buffer_.size());
    if (n > 0) {
      pending_.assign(buffer_.data(), static_cast<size_t>(n));
      pending_pos_ = 0;
    } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
      stdin_open_ = false;
    }
  }

  // The child's input ends as its read end goes; what it did not take is
  // dropped.
  void stop_feeding() {
    stdin_open_ = false;
    pending_.clear();
    to_child_.close();
  }

  void feed_child(short revents) {
    if ((revents & POLLOUT) == 0) {
      stop_feeding();
      return;
    }
    const ssize_t n =
        ::write(to_child_.get(), pending_.data() + pending_pos_, pending_.size() - pending_pos_);
    if (n >= 0) {
      pending_pos_ += static_cast<size_t>(n);
      if (pending_pos_ == pending_.size())
        pending_.clear();
    } else if (errno != EINTR && errno != EAGAIN) {
      stop_feeding();
    }
  }

  // When the tool's own stream takes no more, the child's end is closed, so
  // that the child meets the closed pipe itself, as it would in a pipeline.
  void copy_output(pipe_end &from, int to) {
    const ssize_t n = ::read(from.get(), buffer_.data(), buffer_.size());
    if (n > 0) {
      if (!write_all(to, buffer_.data(), static_cast<size_t>(n), c_))
        from.close();
    } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
      from.close();
    }
  }

  const child &c_;
  pipe_end &to_child_;
  pipe_end &from_out_;
  pipe_end &from_err_;
  std::vector<char> buffer_;
  std::string pending_;  // read from the tool's input, not yet taken by the child
  size_t pending_pos_ = 0;
  bool stdin_open_ = false;
};

// ---- The command ---------------------------------------------------------------

int exit_code(const vexo_t_process_exit_status &status) {
  if ((status.flags & VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED) != 0)
    return status.value;
  if ((status.flags & VEXO_PROCESS_EXIT_STATUS_FLAG_SIGNALED) != 0)
    return 128 + status.value;
  return 1;
}

// The library's start of a child; every start goes through the one chosen
// here.
using start_function = decltype(&vexo_unix_process_create);

start_function choose_start(const run_options &opts) {
  return opts.fork ? vexo_unix_process_create : vexo_unix_process_spawn;
}

constexpr const char *kStreamWords[] = {"standard input", "standard output", "standard error"};
constexpr const char *kStreamOptions[] = {"--stdin", "--stdout", "--stderr"};

// A stream to hand on that is closed cannot be inherited; checked before
// anything is opened, which could take its number.
bool streams_to_inherit_are_open(const run_options &opts) {
  for (int stream = 0; stream < 3; ++stream)
    if (opts.modes[stream] == "inherit" && ::fcntl(stream, F_GETFD) == -1 && errno == EBADF) {
      std::cerr << "vexo: " << kStreamWords[stream] << " is closed; use " << kStreamOptions[stream]
                << " null\n";
      return false;
    }
  return true;
}

// One entry per key, in the order the keys first came, each with the last
// value given.
std::vector<std::string> merged_entries(const std::vector<std::string> &entries) {
  std::vector<std::string> merged;
  for (const std::string &entry : entries) {
    const std::string_view key(entry.data(), entry.find('='));
    auto same_key = [&](const std::string &e) { return std::string_view(e.data(), e.find('=')) == key; };
    if (auto it = std::find_if(merged.begin(), merged.end(), same_key); it != merged.end())
      *it = entry;
    else
      merged.push_back(entry);
  }
  return merged;
}

int run_program(const run_options &opts) {
  if (!streams_to_inherit_are_open(opts))
    return 1;
  // By its relative name, the working directory need not have a name: it
  // may have been removed, be too long for PATH_MAX, or not be UTF-8.
  const std::string cwd = opts.cwd.empty() ? "." : opts.cwd;

  const std::string &program = opts.command.front();
  argument_lists params(std::vector<std::string>(opts.command.begin() + 1, opts.command.end()));
  const std::vector<std::string> entries = merged_entries(opts.env);
  std::vector<const char *> env;
  for (const std::string &entry : entries)
    env.push_back(entry.c_str());
  env.push_back(nullptr);

  vexo_t_bits options = 0;
  for (int stream = 0; stream < 3; ++stream)
    options |= stream_bits(opts.modes[stream], stream);
  if (opts.shell)
    options |= VEXO_PROCESS_CREATE_OPTION_SHELL;
  if (opts.new_session)
    options |= VEXO_PROCESS_CREATE_OPTION_NEW_SESSION;
  if (!opts.env.empty() || opts.clean_env)
    options |= VEXO_PROCESS_CREATE_OPTION_ENV | VEXO_PROCESS_CREATE_OPTION_ENV_COMPACT_FLAG;
  if (opts.clean_env)
    options |= VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT;

  // Whatever the tool has buffered comes before the child's output.
  std::cout.flush();
  child c(opts.new_session);
  pipe_end to_child, from_out, from_err;
  vexo_t_error_code rc;
  {
    const inherited_sigpipe as_inherited;
    rc = choose_start(opts)(program.c_str(), params.get(), cwd.c_str(), env.data(), to_child.out(),
                            from_out.out(), from_err.out(), c.out(), options);
  }
  if (rc < 0) {
    report_failure("cannot run " + printable(program), rc);
    if (rc == vexo_map_unix_error(EBADF, VEXO_E_OS_ERROR))
      std::cerr << "vexo: a standard stream to inherit is closed; --stdin, --stdout or --stderr null "
                   "gives the child the null device instead\n";
    if (rc == VEXO_E_PARAMETER_ERROR && opts.clean_env && opts.env.empty())
      std::cerr << "vexo: an empty environment cannot be built; --clean-env needs at least one --env\n";
    // As the shells do: 127 when the program is not there, 126 when it is
    // but could not be run.
    return rc == VEXO_E_FILE_NOT_FOUND ? 127 : 126;
  }
  const vexo_t_os_process_handle pid = c.handle();
  relayed_signals held;
  relay(c, to_child, from_out, from_err).run();

  vexo_t_process_exit_status status = {};
  if (const vexo_t_error_code wrc = c.wait(status); wrc < 0) {
    report_failure("vexo_unix_process_wait " + std::to_string(pid), wrc);
    return 1;
  }
  std::cerr << "vexo: child " << pid << ' ' << exit_status_text(status) << '\n';
  return exit_code(status);
}

// PROGRAM and its arguments: where the command's own options end (CLI11
// leaves the rest to the command), or everything after `--` (which CLI11
// hands to the top level).
std::vector<std::string> command_words(const CLI::App &cmd) {
  std::vector<std::string> words = cmd.remaining();
  if (!words.empty()) {
    const std::string &first = words.front();
    if (first.size() > 1 && first[0] == '-')
      throw CLI::ValidationError("unknown option '" + first + "'");
    return words;
  }
  words = cmd.get_parent()->remaining();
  if (words.empty())
    throw CLI::ValidationError("PROGRAM is required");
  return words;
}

}  // namespace

void add_run_command(CLI::App &app, int &status) {
  auto opts = std::make_shared<run_options>();
  CLI::App *cmd = app.add_subcommand(
      "run",
      "Start PROGRAM with vexo_unix_process_spawn (--fork: vexo_unix_process_create), relay the streams "
      "given to it as pipes, wait for it and say how it ended. Exits with its status, or 128 + the signal "
      "that ended it; 127 when PROGRAM was not found, 126 when it could not be started. Options end at "
      "PROGRAM: everything after it is PROGRAM's.");
  cmd->add_flag("--shell", opts->shell,
                "PROGRAM is a command line for $SHELL -c (else /bin/sh); ARGS follow it as $0, $1 ...");
  cmd->add_option("--cwd", opts->cwd, "Directory the child starts in (default: the working directory)");
  cmd->add_option("--env", opts->env,
                  "K=V over the inherited environment; may be repeated, the last V of a K wins")
      ->allow_extra_args(false)
      ->check([](const std::string &entry) {
        return entry.find('=') == std::string::npos || entry[0] == '=' ? "'" + entry + "' is not KEY=VALUE"
                                                                       : std::string();
      });
  cmd->add_flag(
      "--clean-env", opts->clean_env,
      "Only the --env entries, over an empty environment (VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT)");
  for (int stream = 0; stream < 3; ++stream)
    cmd->add_option(kStreamOptions[stream], opts->modes[stream],
                    "inherit (default), null (/dev/null) or pipe (relayed by the tool)")
        ->check(CLI::IsMember({"inherit", "null", "pipe"}));
  cmd->add_flag("--new-session", opts->new_session, "The child calls setsid first");
  cmd->add_flag("--fork", opts->fork,
                "Start through fork and exec (vexo_unix_process_create): a failure to start then shows as an "
                "exit with status 1");
  cmd->prefix_command();
  cmd->callback([opts, cmd, &status] {
    opts->command = command_words(*cmd);
    status = run_program(*opts);
  });
}

}  // namespace vexo_cli
