// OS file handles: the kind and size of every handle that can be made here,
// position, open with close-on-exec, descriptor flags, and close with its
// hand-over of sockets to the core; failures through the harness.
#include "unix/unix_internal.h"

#include "fault.h"
#include "scratch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

// The test binary wraps the core's socket close (-Wl,--wrap) to see whether
// and how the back end hands a handle to it.
extern "C" vexo_t_error_code __real_vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options);

namespace {
int g_socket_closes = 0;
vexo_t_bits g_socket_options = 0;
std::optional<vexo_t_error_code> g_socket_answer;  // replaces the real result when set
}  // namespace

extern "C" vexo_t_error_code __wrap_vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options) {
  ++g_socket_closes;
  g_socket_options = options;
  const vexo_t_error_code rc = __real_vexo_socket_close(fd, options);
  return g_socket_answer.value_or(rc);
}

namespace {

constexpr vexo_t_offset kUntouched = -77;

// Every test ends with as many descriptors open as it began with.
class Handles : public fault::Test {
 protected:
  void SetUp() override {
    fds_ = fault::open_fds();
    fault::Test::SetUp();
    g_socket_closes = 0;
    g_socket_options = 0xFF;
    g_socket_answer.reset();
  }
  void TearDown() override {
    keep_.clear();
    fault::Test::TearDown();
    EXPECT_EQ(fault::open_fds(), fds_) << "descriptor leaked";
  }

  int open_file(const std::string &path, int oflag = O_CREAT | O_RDWR) {
    vexo_t_os_file_handle fd = -1;
    EXPECT_EQ(vexo_unix_open_file(path.c_str(), oflag, 0600, &fd), VEXO_S_NOERR) << path;
    return fd;
  }
  // Both ends of a pipe or socket pair; the first is probed, the second kept.
  int pair(int kind) {
    int fds[2] = {-1, -1};
    EXPECT_EQ(kind == 0 ? pipe(fds) : socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    keep_.emplace_back(fds[1]);
    return fds[0];
  }

  scratch::dir dir_;
  std::vector<vexo::unique_fd> keep_;
  int fds_ = 0;
};

TEST_F(Handles, KindAndSizeOfEveryHandleThatCanBeMadeHere) {
  struct row {
    const char *name;
    std::function<int()> make;  // -2: cannot be made on this machine
    vexo_t_device_type type;
    vexo_t_error_code size_rc;
  };
  const vexo_t_error_code ebadf = vexo_map_unix_error(EBADF, VEXO_E_OS_ERROR);
  const row rows[] = {
      {"empty file", [&] { return open_file(dir_.at("f")); }, VEXO_DEVICE_TYPE_FILE, VEXO_S_NOERR},
      {"directory", [&] { return open_file(dir_.path(), O_RDONLY | O_DIRECTORY); },
       VEXO_DEVICE_TYPE_DIRECTORY, VEXO_E_NOT_SUPPORTED},
      {"pipe", [&] { return pair(0); }, VEXO_DEVICE_TYPE_FIFO, VEXO_E_NOT_SUPPORTED},
      {"socket pair", [&] { return pair(1); }, VEXO_DEVICE_TYPE_SOCKET, VEXO_E_NOT_SUPPORTED},
      {"null device", [&] { return open_file("/dev/null", O_RDWR); }, VEXO_DEVICE_TYPE_CHARACTER,
       VEXO_E_NOT_SUPPORTED},
      {"terminal",
       [] {
         const int fd = posix_openpt(O_RDWR | O_NOCTTY);
         return fd >= 0 ? fd : -2;
       },
       VEXO_DEVICE_TYPE_TTY, VEXO_E_NOT_SUPPORTED},
      {"closed handle",
       [&] {
         const int fd = open_file("/dev/null", O_RDONLY);
         close(fd);
         return fd;
       },
       VEXO_DEVICE_TYPE_ILLEGAL, ebadf},
      {"-1", [] { return -1; }, VEXO_DEVICE_TYPE_ILLEGAL, ebadf},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.name);
    const int fd = r.make();
    if (fd == -2) {
      RecordProperty("terminal", "posix_openpt unavailable, not checked");
      continue;
    }
    vexo::unique_fd owner(r.type == VEXO_DEVICE_TYPE_ILLEGAL ? -1 : fd);
    fault::reset();
    EXPECT_EQ(vexo_unix_device_type(fd), r.type);
    // A terminal is known before fstat, and -1 without any call.
    EXPECT_EQ(fault::calls(fault::call::fstat), fd == -1 || r.type == VEXO_DEVICE_TYPE_TTY ? 0 : 1);

    vexo_t_offset size = kUntouched;
    EXPECT_EQ(vexo_unix_file_size(fd, &size, 0), r.size_rc);
    EXPECT_EQ(size, r.size_rc == VEXO_S_NOERR ? 0 : kUntouched);
  }
}

TEST_F(Handles, FstatFailuresAndInterruptions) {
  vexo::unique_fd fd(open_file(dir_.at("f")));
  ASSERT_EQ(write(fd.get(), "abc", 3), 3);
  vexo_t_offset size = kUntouched;

  fault::fail(fault::call::fstat, EINTR, 3);
  EXPECT_EQ(vexo_unix_file_size(fd.get(), &size, 0), VEXO_S_NOERR);
  EXPECT_EQ(size, 3);
  EXPECT_EQ(fault::calls(fault::call::fstat), 4);

  size = kUntouched;
  fault::fail(fault::call::fstat, EIO);
  EXPECT_EQ(vexo_unix_file_size(fd.get(), &size, 0), vexo_map_unix_error(EIO, VEXO_E_OS_ERROR));
  EXPECT_EQ(size, kUntouched);

  fault::fail(fault::call::fstat, EIO);
  EXPECT_EQ(vexo_unix_device_type(fd.get()), VEXO_DEVICE_TYPE_ILLEGAL);
  fault::fail(fault::call::fstat, EINTR, 2);
  EXPECT_EQ(vexo_unix_device_type(fd.get()), VEXO_DEVICE_TYPE_FILE);
}

TEST_F(Handles, PositionFollowsWritesAndFailsOnAPipe) {
  vexo::unique_fd fd(open_file(dir_.at("f")));
  vexo_t_offset pos = kUntouched;
  EXPECT_EQ(vexo_unix_file_pos(fd.get(), &pos, 0), VEXO_S_NOERR);
  EXPECT_EQ(pos, 0);

  ASSERT_EQ(write(fd.get(), "hello", 5), 5);
  fault::reset();
  fault::fail(fault::call::lseek, EINTR, 2);
  EXPECT_EQ(vexo_unix_file_pos(fd.get(), &pos, 0), VEXO_S_NOERR);
  EXPECT_EQ(pos, 5);
  EXPECT_EQ(fault::calls(fault::call::lseek), 3);
  EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 5) << "position moved";

  pos = kUntouched;
  vexo::unique_fd p(pair(0));
  EXPECT_EQ(vexo_unix_file_pos(p.get(), &pos, 0), vexo_map_unix_error(ESPIPE, VEXO_E_OS_ERROR));
  EXPECT_EQ(pos, kUntouched);
}

TEST_F(Handles, OpenMarksCloseOnExecAndMapsFailures) {
  vexo_t_os_file_handle fd = -7;
  EXPECT_EQ(vexo_unix_open_file(dir_.at("missing").c_str(), O_RDONLY, 0, &fd),
            vexo_map_unix_error(ENOENT, VEXO_E_OPEN_ERROR));
  EXPECT_EQ(fd, -7);

  fault::reset();
  fault::fail(fault::call::open, EINTR, 2);
  {
    vexo::unique_fd h(open_file(dir_.at("f")));
    EXPECT_EQ(fault::calls(fault::call::open), 3);
    EXPECT_EQ(fault::calls(fault::call::fcntl), 2);  // F_GETFD, F_SETFD
    EXPECT_EQ(fcntl(h.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }

  // Close-on-exec is best effort: the handle comes back without it.
  fault::reset();
  fault::fail(fault::call::fcntl, EINTR);
  vexo::unique_fd h(open_file(dir_.at("f"), O_RDONLY));
  EXPECT_GE(h.get(), 0);
  EXPECT_EQ(fault::calls(fault::call::fcntl), 1);
  EXPECT_EQ(fcntl(h.get(), F_GETFD) & FD_CLOEXEC, 0);

  // The name is the caller's own string: no allocation at all.
  EXPECT_EQ(fault::alloc_sweep([&](fault::alloc_scope &) {
              vexo::unique_fd g(open_file(dir_.at("f"), O_RDONLY));
              EXPECT_GE(g.get(), 0);
            }),
            0);
}

TEST_F(Handles, SetfdChangesOnlyTheMaskedBits) {
  vexo::unique_fd fd(open_file(dir_.at("f")));
  const auto flags = [&] { return fcntl(fd.get(), F_GETFD); };
  EXPECT_EQ(vexo_unix_SETFD(fd.get(), FD_CLOEXEC, 0), VEXO_S_NOERR);
  EXPECT_EQ(flags(), 0);
  EXPECT_EQ(vexo_unix_SETFD(fd.get(), 0, FD_CLOEXEC), VEXO_S_NOERR);  // nothing masked, nothing set
  EXPECT_EQ(flags(), 0);
  EXPECT_EQ(vexo_unix_SETFD(fd.get(), FD_CLOEXEC, ~0), VEXO_S_NOERR);
  EXPECT_EQ(flags(), FD_CLOEXEC);
  EXPECT_EQ(vexo_unix_SETFD(fd.get(), 0, 0), VEXO_S_NOERR);
  EXPECT_EQ(flags(), FD_CLOEXEC);

  // Never repeated, whatever the errno.
  fault::reset();
  fault::fail(fault::call::fcntl, EINTR);
  EXPECT_EQ(vexo_unix_SETFD(fd.get(), FD_CLOEXEC, 0), vexo_map_unix_error(EINTR, VEXO_E_OS_ERROR));
  EXPECT_EQ(fault::calls(fault::call::fcntl), 1);
  EXPECT_EQ(flags(), FD_CLOEXEC);
  EXPECT_EQ(vexo_unix_SETFD(-1, FD_CLOEXEC, 0), vexo_map_unix_error(EBADF, VEXO_E_OS_ERROR));
}

TEST_F(Handles, CloseHandsSocketsToTheCore) {
  struct row {
    vexo_t_bits options;
    int socket_closes;
    int fstats;
  };
  const row rows[] = {
      {0, 1, 1},
      {VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS, 1, 1},
      {VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK, 0, 0},
      {VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK | VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS, 0, 0},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.options);
    const int fd = pair(1);
    fault::reset();
    g_socket_closes = 0;
    EXPECT_EQ(vexo_os_file_handle_close_unix(fd, r.options), VEXO_S_NOERR);
    EXPECT_EQ(g_socket_closes, r.socket_closes);
    EXPECT_EQ(fault::calls(fault::call::fstat), r.fstats);
    EXPECT_EQ(fault::calls(fault::call::close), 1);
    if (r.socket_closes != 0) {
      EXPECT_EQ(g_socket_options, r.options & VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS);
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "still open";
  }

  // The core's answer is the result, a positive status or a failure alike.
  for (const vexo_t_error_code answer : {VEXO_S_DONE, VEXO_E_NET_ERROR}) {
    g_socket_answer = answer;
    EXPECT_EQ(vexo_os_file_handle_close_unix(pair(1), 0), answer);
  }
  g_socket_answer.reset();

  g_socket_closes = 0;
  EXPECT_EQ(vexo_os_file_handle_close_unix(pair(0), 0), VEXO_S_NOERR);
  EXPECT_EQ(g_socket_closes, 0) << "a pipe is not a socket";
}

TEST_F(Handles, CloseFailures) {
  const int fd = open_file("/dev/null", O_RDONLY);
  close(fd);
  fault::reset();
  // A handle that is not open is classified illegal and so still reaches close.
  EXPECT_EQ(vexo_os_file_handle_close_unix(fd, 0), vexo_map_unix_error(EBADF, VEXO_E_CLOSE_ERROR));
  EXPECT_EQ(fault::calls(fault::call::close), 1);
  EXPECT_EQ(vexo_os_file_handle_close_unix(fd, VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS), VEXO_S_NOERR);

  // An interrupted close is not repeated.
  vexo::unique_fd h(open_file("/dev/null", O_RDONLY));
  fault::reset();
  fault::fail(fault::call::close, EINTR);
  EXPECT_EQ(vexo_os_file_handle_close_unix(h.get(), 0), vexo_map_unix_error(EINTR, VEXO_E_CLOSE_ERROR));
  EXPECT_EQ(fault::calls(fault::call::close), 1);
  fault::fail(fault::call::close, EIO);
  EXPECT_EQ(vexo_os_file_handle_close_unix(h.get(), VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS), VEXO_S_NOERR);
}

}  // namespace
