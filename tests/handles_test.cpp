// OS file handles: kind, size, position, open, descriptor flags, and close
// with its hand-over of sockets to the core; failures through the harness.
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

// Wrapped (-Wl,--wrap) to see whether and how the back end hands a handle to the core.
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
vexo_t_error_code os_error(int err, vexo_t_error_code base = VEXO_E_OS_ERROR) {
  return vexo_map_unix_error(err, base);
}

class Handles : public fault::FdTest {
 protected:
  void SetUp() override {
    fault::FdTest::SetUp();
    g_socket_closes = 0;
    g_socket_answer.reset();
  }
  void TearDown() override {
    keep_.clear();
    fault::FdTest::TearDown();
  }
  int open_file(const std::string &path, int oflag = O_CREAT | O_RDWR) {
    vexo_t_os_file_handle fd = -1;
    EXPECT_EQ(vexo_unix_open_file(path.c_str(), oflag, 0600, &fd), VEXO_S_NOERR) << path;
    return fd;
  }
  // Both ends of a pipe (0) or socket pair (1); the first is returned, the second kept.
  int pair(int kind) {
    int fds[2] = {-1, -1};
    EXPECT_EQ(kind == 0 ? pipe(fds) : socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    keep_.emplace_back(fds[1]);
    return fds[0];
  }

  scratch::dir dir_;
  std::vector<vexo::unique_fd> keep_;
};

TEST_F(Handles, KindAndSizeOfEveryHandleThatCanBeMadeHere) {
  const int closed = open_file("/dev/null", O_RDONLY);
  close(closed);
  const struct {
    const char *name;
    std::function<int()> make;
    vexo_t_device_type type;
    vexo_t_error_code size_rc;
  } rows[] = {
      {"empty file", [&] { return open_file(dir_.at("f")); }, VEXO_DEVICE_TYPE_FILE, VEXO_S_NOERR},
      {"directory", [&] { return open_file(dir_.path(), O_RDONLY | O_DIRECTORY); },
       VEXO_DEVICE_TYPE_DIRECTORY, VEXO_E_NOT_SUPPORTED},
      {"pipe", [&] { return pair(0); }, VEXO_DEVICE_TYPE_FIFO, VEXO_E_NOT_SUPPORTED},
      {"socket pair", [&] { return pair(1); }, VEXO_DEVICE_TYPE_SOCKET, VEXO_E_NOT_SUPPORTED},
      {"null device", [&] { return open_file("/dev/null", O_RDWR); }, VEXO_DEVICE_TYPE_CHARACTER,
       VEXO_E_NOT_SUPPORTED},
      {"terminal", [] { return posix_openpt(O_RDWR | O_NOCTTY); }, VEXO_DEVICE_TYPE_TTY,
       VEXO_E_NOT_SUPPORTED},
      {"closed handle", [=] { return closed; }, VEXO_DEVICE_TYPE_ILLEGAL, os_error(EBADF)},
      {"-1", [] { return -1; }, VEXO_DEVICE_TYPE_ILLEGAL, os_error(EBADF)},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.name);
    const int fd = r.make();
    if (fd < 0 && r.type == VEXO_DEVICE_TYPE_TTY)
      continue;  // no terminals here
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

TEST_F(Handles, SizeAndPositionRepeatInterruptionsAndMapFailures) {
  vexo::unique_fd fd(open_file(dir_.at("f")));
  vexo_t_offset v = kUntouched;
  EXPECT_EQ(vexo_unix_file_pos(fd.get(), &v, 0), VEXO_S_NOERR);
  EXPECT_EQ(v, 0);
  ASSERT_EQ(write(fd.get(), "abc", 3), 3);
  fault::reset();
  fault::fail(fault::call::fstat, EINTR, 3);
  EXPECT_EQ(vexo_unix_file_size(fd.get(), &v, 0), VEXO_S_NOERR);
  EXPECT_EQ(v, 3);
  EXPECT_EQ(fault::calls(fault::call::fstat), 4);
  fault::fail(fault::call::lseek, EINTR, 2);
  v = kUntouched;
  EXPECT_EQ(vexo_unix_file_pos(fd.get(), &v, 0), VEXO_S_NOERR);
  EXPECT_EQ(v, 3);
  EXPECT_EQ(fault::calls(fault::call::lseek), 3);
  EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 3) << "position moved";

  v = kUntouched;
  fault::fail(fault::call::fstat, EIO);
  EXPECT_EQ(vexo_unix_file_size(fd.get(), &v, 0), os_error(EIO));
  fault::fail(fault::call::fstat, EIO);
  EXPECT_EQ(vexo_unix_device_type(fd.get()), VEXO_DEVICE_TYPE_ILLEGAL);
  vexo::unique_fd p(pair(0));
  EXPECT_EQ(vexo_unix_file_pos(p.get(), &v, 0), os_error(ESPIPE));
  EXPECT_EQ(v, kUntouched);
}

TEST_F(Handles, OpenMarksCloseOnExecAndMapsFailures) {
  vexo_t_os_file_handle fd = -7;
  EXPECT_EQ(vexo_unix_open_file(dir_.at("missing").c_str(), O_RDONLY, 0, &fd),
            os_error(ENOENT, VEXO_E_OPEN_ERROR));
  EXPECT_EQ(fd, -7);
  fault::reset();
  fault::fail(fault::call::open, EINTR, 2);
  vexo::unique_fd h(open_file(dir_.at("f")));
  EXPECT_EQ(fault::calls(fault::call::open), 3);
  EXPECT_EQ(fault::calls(fault::call::fcntl), 2);  // F_GETFD, F_SETFD
  EXPECT_EQ(fcntl(h.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  // Close-on-exec is best effort: the handle comes back without it. No allocation either.
  EXPECT_EQ(fault::alloc_sweep([&](fault::alloc_scope &) {
              fault::reset();
              fault::fail(fault::call::fcntl, EINTR);
              vexo::unique_fd g(open_file(dir_.at("f"), O_RDONLY));
              EXPECT_GE(g.get(), 0);
              EXPECT_EQ(fault::calls(fault::call::fcntl), 1);
              EXPECT_EQ(fcntl(g.get(), F_GETFD) & FD_CLOEXEC, 0);
            }),
            0);
}

TEST_F(Handles, SetfdChangesOnlyTheMaskedBitsAndIsNotRepeated) {
  vexo::unique_fd fd(open_file(dir_.at("f")));
  const struct {
    int mask, bits, after;
  } steps[] = {{FD_CLOEXEC, 0, 0}, {0, FD_CLOEXEC, 0}, {FD_CLOEXEC, ~0, FD_CLOEXEC}, {0, 0, FD_CLOEXEC}};
  for (const auto &s : steps) {
    EXPECT_EQ(vexo::vexo_unix_SETFD(fd.get(), s.mask, s.bits), VEXO_S_NOERR);
    EXPECT_EQ(fcntl(fd.get(), F_GETFD), s.after) << s.mask << " " << s.bits;
  }
  fault::reset();
  fault::fail(fault::call::fcntl, EINTR);
  EXPECT_EQ(vexo::vexo_unix_SETFD(fd.get(), FD_CLOEXEC, 0), os_error(EINTR));
  EXPECT_EQ(fault::calls(fault::call::fcntl), 1);
  EXPECT_EQ(fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(vexo::vexo_unix_SETFD(-1, FD_CLOEXEC, 0), os_error(EBADF));
}

TEST_F(Handles, CloseHandsSocketsToTheCoreAndMapsFailuresOnce) {
  constexpr vexo_t_bits kIgnore = VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS,
                        kNoCheck = VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK;
  for (const vexo_t_bits options : {0u, kIgnore, kNoCheck, kNoCheck | kIgnore}) {
    SCOPED_TRACE(options);
    const int fd = pair(1);
    const int core = (options & kNoCheck) != 0 ? 0 : 1;
    fault::reset();
    g_socket_closes = 0;
    g_socket_options = 0xFF;
    EXPECT_EQ(vexo_os_file_handle_close_unix(fd, options), VEXO_S_NOERR);
    EXPECT_EQ(g_socket_closes, core);
    EXPECT_EQ(fault::calls(fault::call::fstat), core);
    EXPECT_EQ(fault::calls(fault::call::close), 1);
    EXPECT_EQ(g_socket_options,
              core != 0 ? (options & kIgnore ? VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS : 0u) : 0xFFu);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "still open";
  }
  // The core's answer is the result, a positive status or a failure alike.
  for (const vexo_t_error_code answer : {VEXO_S_DONE, VEXO_E_NET_ERROR}) {
    g_socket_answer = answer;
    EXPECT_EQ(vexo_os_file_handle_close_unix(pair(1), 0), answer);
  }
  g_socket_closes = 0;
  EXPECT_EQ(vexo_os_file_handle_close_unix(pair(0), 0), VEXO_S_NOERR);
  EXPECT_EQ(g_socket_closes, 0) << "a pipe is not a socket";
  const int fd = open_file("/dev/null", O_RDONLY);
  close(fd);
  fault::reset();
  EXPECT_EQ(vexo_os_file_handle_close_unix(fd, 0), os_error(EBADF, VEXO_E_CLOSE_ERROR));
  EXPECT_EQ(fault::calls(fault::call::close), 1);
  EXPECT_EQ(vexo_os_file_handle_close_unix(fd, VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS), VEXO_S_NOERR);
  vexo::unique_fd h(open_file("/dev/null", O_RDONLY));
  fault::reset();
  fault::fail(fault::call::close, EINTR);
  EXPECT_EQ(vexo_os_file_handle_close_unix(h.get(), 0), os_error(EINTR, VEXO_E_CLOSE_ERROR));
  EXPECT_EQ(fault::calls(fault::call::close), 1);
  fault::fail(fault::call::close, EIO);
  EXPECT_EQ(vexo_os_file_handle_close_unix(h.get(), VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS), VEXO_S_NOERR);
}

}  // namespace
