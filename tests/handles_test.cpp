// OS file handles: kind, size, position, open, descriptor flags, and close
// with its hand-over of sockets to the core; failures through the harness.
#include "unix/unix_internal.h"

#include "fault.h"
#include "scratch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <functional>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

// Wrapped (-Wl,--wrap) to see whether and how the back end hands a handle to the core.
extern "C" vexo_t_error_code __real_vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options);
namespace {
std::vector<vexo_t_bits> g_socket_closes;          // the options of each
std::optional<vexo_t_error_code> g_socket_answer;  // replaces the real result when set
}  // namespace
extern "C" vexo_t_error_code __wrap_vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options) {
  g_socket_closes.push_back(options);
  return g_socket_answer.value_or(__real_vexo_socket_close(fd, options));
}

namespace {

using fault::call;
constexpr vexo_t_offset kUntouched = -77;
constexpr vexo_t_bits kIgnore = VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS;
const auto os_error = [](int err, vexo_t_error_code base = VEXO_E_OS_ERROR) {
  return vexo_map_unix_error(err, base);
};

// FD_CLOEXEC when `fd` has it, else 0; -1 when closed. Read from /proc, with no call the harness counts.
int cloexec(int fd) {
  std::string line;
  for (std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd)); std::getline(info, line);) {
    if (line.rfind("flags:", 0) == 0)
      return std::stoi(line.substr(6), nullptr, 8) & O_CLOEXEC ? FD_CLOEXEC : 0;
  }
  return -1;
}

class Handles : public fault::FdTest {
 protected:
  Handles() { g_socket_closes.clear(), g_socket_answer.reset(); }
  void TearDown() override {
    keep_.clear();
    fault::FdTest::TearDown();
  }
  int open_file(const std::string &path, int oflag = O_CREAT | O_RDWR) {
    vexo_t_os_file_handle fd = -1;
    EXPECT_EQ(vexo_unix_open_file(path.c_str(), oflag, 0600, &fd), VEXO_S_NOERR) << path;
    return fd;
  }
  // A pipe (0) or socket pair (1) whose first end is returned; `owned`: both are closed after the test.
  int pair(int kind, bool owned = true) {
    int fds[2] = {-1, -1};
    EXPECT_EQ(kind == 0 ? pipe(fds) : socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    keep_.emplace_back(fds[1]);
    if (owned)
      keep_.emplace_back(fds[0]);
    return fds[0];
  }
  // A descriptor number that is not open.
  int closed() {
    const int fd = open_file("/dev/null", O_RDONLY);
    close(fd);
    return fd;
  }

  scratch::dir dir_;
  std::vector<vexo::unique_fd> keep_;
};

TEST_F(Handles, KindAndSizeOfEveryHandleThatCanBeMadeHere) {
  vexo::unique_fd file(open_file(dir_.at("f"))), dir(open_file(dir_.path(), O_RDONLY | O_DIRECTORY)),
      null(open_file("/dev/null", O_RDWR)), tty(posix_openpt(O_RDWR | O_NOCTTY));
  const struct {
    const char *name;
    int fd;
    vexo_t_device_type type;
    vexo_t_error_code size_rc;
  } rows[] = {
      {"empty file", file.get(), VEXO_DEVICE_TYPE_FILE, VEXO_S_NOERR},
      {"directory", dir.get(), VEXO_DEVICE_TYPE_DIRECTORY, VEXO_E_NOT_SUPPORTED},
      {"pipe", pair(0), VEXO_DEVICE_TYPE_FIFO, VEXO_E_NOT_SUPPORTED},
      {"socket pair", pair(1), VEXO_DEVICE_TYPE_SOCKET, VEXO_E_NOT_SUPPORTED},
      {"null device", null.get(), VEXO_DEVICE_TYPE_CHARACTER, VEXO_E_NOT_SUPPORTED},
      {"terminal", tty.get(), VEXO_DEVICE_TYPE_TTY, VEXO_E_NOT_SUPPORTED},  // where there is one
      {"closed handle", closed(), VEXO_DEVICE_TYPE_ILLEGAL, os_error(EBADF)},
      {"-1", -1, VEXO_DEVICE_TYPE_ILLEGAL, os_error(EBADF)},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.name);
    if (r.fd < 0 && r.type == VEXO_DEVICE_TYPE_TTY)
      continue;
    fault::reset();
    EXPECT_EQ(vexo_unix_device_type(r.fd), r.type);
    // A terminal is known before fstat, and -1 without any call.
    EXPECT_EQ(fault::calls(call::fstat), r.fd == -1 || r.type == VEXO_DEVICE_TYPE_TTY ? 0 : 1);
    vexo_t_offset size = kUntouched;
    EXPECT_EQ(vexo_unix_file_size(r.fd, &size, 0), r.size_rc);
    EXPECT_EQ(size, r.size_rc == VEXO_S_NOERR ? 0 : kUntouched);
  }
}

enum op { kPos, kSize, kType, kOpen, kSetfd, kClose };

// Each operation under injected failures: size, position and open repeat an
// interruption, the descriptor-flag update and close never do; everything
// else is mapped, and out-values stay untouched on failure. No allocation.
TEST_F(Handles, InterruptionsAreRepeatedOrReportedAndFailuresMapped) {
  vexo::unique_fd file(open_file(dir_.at("f"))), open_one(open_file("/dev/null", O_RDONLY));
  ASSERT_EQ(write(file.get(), "abc", 3), 3);
  const int fd = file.get(), opened = open_one.get(), pipe_end = pair(0), gone = closed();
  // An operation's code and what it gave: the value, or the close-on-exec flag afterwards.
  auto apply = [this](op o, int h, int a, int b) -> std::pair<long, long> {
    vexo_t_offset v = kUntouched;
    switch (o) {
      case kPos:
        return {vexo_unix_file_pos(h, &v, 0), v};
      case kSize:
        return {vexo_unix_file_size(h, &v, 0), v};
      case kType:
        return {vexo_unix_device_type(h), 0};
      case kSetfd:
        return {vexo::vexo_unix_SETFD(h, a, b), cloexec(h)};
      case kClose:
        return {vexo_os_file_handle_close_unix(h, static_cast<vexo_t_bits>(a)), 0};
      case kOpen:  // the file, or with `a` one that is missing; the new handle is closed
        const vexo_t_error_code rc =
            vexo_unix_open_file(dir_.at(a ? "missing" : "f").c_str(), O_RDONLY, 0, &h);
        vexo::unique_fd owner(rc == VEXO_S_NOERR ? h : -1);
        return {rc, rc == VEXO_S_NOERR ? cloexec(h) : h};
    }
    return {};
  };
  const struct {
    op o;
    int h, a, b;
    call c;  // failing `times` times with err
    int err, times;
    long rc, value;
    int calls;  // of c
  } rows[] = {
      {kPos, fd, 0, 0, call::lseek, EINTR, 2, VEXO_S_NOERR, 3, 3},
      {kPos, pipe_end, 0, 0, call::lseek, 0, 0, os_error(ESPIPE), kUntouched, 1},
      {kSize, fd, 0, 0, call::fstat, EINTR, 3, VEXO_S_NOERR, 3, 4},
      {kSize, fd, 0, 0, call::fstat, EIO, 1, os_error(EIO), kUntouched, 1},
      {kType, fd, 0, 0, call::fstat, EIO, 1, VEXO_DEVICE_TYPE_ILLEGAL, 0, 1},
      {kOpen, -7, 0, 0, call::open, EINTR, 2, VEXO_S_NOERR, FD_CLOEXEC, 3},
      {kOpen, -7, 1, 0, call::open, 0, 0, os_error(ENOENT, VEXO_E_OPEN_ERROR), -7, 1},
      {kOpen, -7, 0, 0, call::fcntl, EINTR, 1, VEXO_S_NOERR, 0, 1},  // close-on-exec is best effort
      {kSetfd, fd, FD_CLOEXEC, 0, call::fcntl, 0, 0, VEXO_S_NOERR, 0, 2},
      {kSetfd, fd, 0, FD_CLOEXEC, call::fcntl, 0, 0, VEXO_S_NOERR, 0, 2},  // masked out
      {kSetfd, fd, FD_CLOEXEC, ~0, call::fcntl, 0, 0, VEXO_S_NOERR, FD_CLOEXEC, 2},
      {kSetfd, fd, 0, 0, call::fcntl, 0, 0, VEXO_S_NOERR, FD_CLOEXEC, 2},
      {kSetfd, fd, FD_CLOEXEC, 0, call::fcntl, EINTR, 1, os_error(EINTR), FD_CLOEXEC, 1},
      {kSetfd, -1, FD_CLOEXEC, 0, call::fcntl, 0, 0, os_error(EBADF), -1, 1},
      {kClose, gone, 0, 0, call::close, 0, 0, os_error(EBADF, VEXO_E_CLOSE_ERROR), 0, 1},
      {kClose, gone, kIgnore, 0, call::close, 0, 0, VEXO_S_NOERR, 0, 1},
      {kClose, opened, 0, 0, call::close, EINTR, 1, os_error(EINTR, VEXO_E_CLOSE_ERROR), 0, 1},
      {kClose, opened, kIgnore, 0, call::close, EIO, 1, VEXO_S_NOERR, 0, 1},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    const auto &r = rows[i];
    fault::reset();
    fault::fail(r.c, r.err, r.times);
    fault::alloc_scope scope;
    EXPECT_EQ(apply(r.o, r.h, r.a, r.b), std::make_pair(r.rc, r.value));
    EXPECT_EQ(fault::calls(r.c), r.calls);
    EXPECT_EQ(scope.allocations(), 0);
  }
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 3) << "position moved";
}

TEST_F(Handles, CloseHandsSocketsToTheCore) {
  constexpr vexo_t_bits kNoCheck = VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK;
  for (const vexo_t_bits options : {0u, kIgnore, kNoCheck, kNoCheck | kIgnore}) {
    SCOPED_TRACE(options);
    const int fd = pair(1, false), core = (options & kNoCheck) != 0 ? 0 : 1;
    fault::reset();
    g_socket_closes.clear();
    EXPECT_EQ(vexo_os_file_handle_close_unix(fd, options), VEXO_S_NOERR);
    const vexo_t_bits passed = options & kIgnore ? VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS : 0u;
    EXPECT_EQ(g_socket_closes, core != 0 ? std::vector<vexo_t_bits>{passed} : std::vector<vexo_t_bits>{});
    EXPECT_EQ(fault::calls(call::fstat), core);
    EXPECT_EQ(fault::calls(call::close), 1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "still open";
  }
  // The core's answer is the result, a positive status or a failure alike.
  for (const vexo_t_error_code answer : {VEXO_S_DONE, VEXO_E_NET_ERROR}) {
    g_socket_answer = answer;
    EXPECT_EQ(vexo_os_file_handle_close_unix(pair(1, false), 0), answer);
  }
  g_socket_closes.clear();
  EXPECT_EQ(vexo_os_file_handle_close_unix(pair(0, false), 0), VEXO_S_NOERR);
  EXPECT_TRUE(g_socket_closes.empty()) << "a pipe is not a socket";
}

}  // namespace
