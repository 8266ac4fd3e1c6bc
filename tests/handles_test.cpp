// OS file handles: kind, size, position, open, descriptor flags, and close with its hand-over of sockets to
// the core; failures through the harness.
#include "unix/unix_internal.h"

#include "fault.h"
#include "scratch.h"

#include <fcntl.h>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

// Wrapped (-Wl,--wrap) to see whether and how the back end hands a handle to the core.
extern "C" vexo_t_error_code __real_vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options);
extern "C" int __real_fcntl(int fd, int cmd, ...);  // reads flags without a call the harness counts
long g_socket_close = -1;                           // the options of the last, -1: none
std::optional<vexo_t_error_code> g_socket_answer;   // replaces the real result when set
extern "C" vexo_t_error_code __wrap_vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options) {
  g_socket_close = options;
  return g_socket_answer.value_or(__real_vexo_socket_close(fd, options));
}

namespace {

using fault::call;
constexpr vexo_t_offset kUntouched = -77;
constexpr vexo_t_bits kIgnore = VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS,
                      kNoCheck = VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK;
const auto os_error = [](int err, vexo_t_error_code base = VEXO_E_OS_ERROR) {
  return vexo_map_unix_error(err, base);
};

class Handles : public fault::FdTest {
 protected:
  int open_file(const std::string &path, int oflag = O_CREAT | O_RDWR) {
    vexo_t_os_file_handle fd = -1;
    EXPECT_EQ(vexo_unix_open_file(path.c_str(), oflag, 0600, &fd), VEXO_S_NOERR) << path;
    return keep_.emplace_back(fd).get();
  }
  // A pipe (0) or socket pair (1) whose first end is returned; `owned`: both are closed after the test.
  int pair(int kind, bool owned = true) {
    int fds[2] = {-1, -1};
    EXPECT_EQ(kind == 0 ? pipe(fds) : socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    keep_.emplace_back(fds[1]);
    return owned ? keep_.emplace_back(fds[0]).get() : fds[0];
  }

  scratch::dir dir_;
  std::vector<vexo::unique_fd> keep_;
};

enum op { kPos, kSize, kKind, kOpen, kSetfd, kClose };

// Each operation on each kind of handle, and under injected failures: size, position and open repeat an
// interruption, the descriptor-flag update and close never do; everything else is mapped, and out-values stay
// untouched on failure. No allocation. A socket is closed by the core, with the caller's choice on errors,
// and the core's answer (a positive status or a failure alike) is the result.
TEST_F(Handles, EveryOperationOnEveryKindOfHandleAndUnderInjectedFailures) {
  const int fd = open_file(dir_.at("f")), dir = open_file(dir_.path(), O_RDONLY | O_DIRECTORY),
            null = open_file("/dev/null", O_RDONLY), pipe_end = pair(0), gone = fcntl(null, F_DUPFD, 0);
  const int tty = keep_.emplace_back(posix_openpt(O_RDWR | O_NOCTTY)).get();
  ASSERT_EQ(write(fd, "abc", 3), 3);
  // An operation's code and what it gave: the value, the close-on-exec flag afterwards, what close handed to
  // the core, or for a kind the size's code.
  auto apply = [this](op o, int h, int a, int b) -> std::pair<long, long> {
    vexo_t_offset v = kUntouched;
    switch (o) {
      case kPos:
        return {vexo_unix_file_pos(h, &v, 0), v};
      case kSize:
        return {vexo_unix_file_size(h, &v, 0), v};
      case kKind:
        return {vexo_unix_device_type(h), vexo_unix_file_size(h, &v, 0)};
      case kSetfd:
        return {vexo::vexo_unix_SETFD(h, a, b), __real_fcntl(h, F_GETFD)};
      case kClose:
        g_socket_answer = b != 0 ? std::optional(static_cast<vexo_t_error_code>(b)) : std::nullopt;
        return {vexo_os_file_handle_close_unix(h, static_cast<vexo_t_bits>(a)), g_socket_close};
      case kOpen:  // the file, or with `a` one that is missing; the new handle is closed
        const vexo_t_error_code rc =
            vexo_unix_open_file(dir_.at(a ? "missing" : "f").c_str(), O_RDONLY, 0, &h);
        vexo::unique_fd owner(rc == VEXO_S_NOERR ? h : -1);
        return {rc, rc == VEXO_S_NOERR ? __real_fcntl(h, F_GETFD) : h};
    }
    return {};
  };
  const long kNS = VEXO_E_NOT_SUPPORTED;
  const struct {
    op o;
    int h, a, b;
    call c;  // failing `times` times with err
    int err, times;
    long rc, value;
    int calls;  // of c
  } rows[] = {
      // A terminal is known before fstat, and -1 without any call.
      {kKind, fd, 0, 0, call::fstat, 0, 0, VEXO_DEVICE_TYPE_FILE, VEXO_S_NOERR, 2},
      {kKind, dir, 0, 0, call::fstat, 0, 0, VEXO_DEVICE_TYPE_DIRECTORY, kNS, 2},
      {kKind, pipe_end, 0, 0, call::fstat, 0, 0, VEXO_DEVICE_TYPE_FIFO, kNS, 2},
      {kKind, pair(1), 0, 0, call::fstat, 0, 0, VEXO_DEVICE_TYPE_SOCKET, kNS, 2},
      {kKind, null, 0, 0, call::fstat, 0, 0, VEXO_DEVICE_TYPE_CHARACTER, kNS, 2},
      {kKind, tty, 0, 0, call::fstat, 0, 0, VEXO_DEVICE_TYPE_TTY, kNS, 1},  // where there is one
      {kKind, gone, 0, 0, call::fstat, 0, 0, VEXO_DEVICE_TYPE_ILLEGAL, os_error(EBADF), 2},
      {kKind, -1, 0, 0, call::fstat, 0, 0, VEXO_DEVICE_TYPE_ILLEGAL, os_error(EBADF), 1},
      {kKind, fd, 0, 0, call::fstat, EIO, 1, VEXO_DEVICE_TYPE_ILLEGAL, VEXO_S_NOERR, 2},
      {kPos, fd, 0, 0, call::lseek, EINTR, 2, VEXO_S_NOERR, 3, 3},
      {kPos, pipe_end, 0, 0, call::lseek, 0, 0, os_error(ESPIPE), kUntouched, 1},
      {kSize, fd, 0, 0, call::fstat, EINTR, 3, VEXO_S_NOERR, 3, 4},
      {kSize, fd, 0, 0, call::fstat, EIO, 1, os_error(EIO), kUntouched, 1},
      {kOpen, -7, 0, 0, call::open, EINTR, 2, VEXO_S_NOERR, FD_CLOEXEC, 3},
      {kOpen, -7, 1, 0, call::open, 0, 0, os_error(ENOENT, VEXO_E_OPEN_ERROR), -7, 1},
      {kOpen, -7, 0, 0, call::fcntl, EINTR, 1, VEXO_S_NOERR, 0, 1},  // close-on-exec is best effort
      {kSetfd, fd, FD_CLOEXEC, 0, call::fcntl, 0, 0, VEXO_S_NOERR, 0, 2},
      {kSetfd, fd, 0, FD_CLOEXEC, call::fcntl, 0, 0, VEXO_S_NOERR, 0, 2},  // masked out
      {kSetfd, fd, FD_CLOEXEC, ~0, call::fcntl, 0, 0, VEXO_S_NOERR, FD_CLOEXEC, 2},
      {kSetfd, fd, 0, 0, call::fcntl, 0, 0, VEXO_S_NOERR, FD_CLOEXEC, 2},
      {kSetfd, fd, FD_CLOEXEC, 0, call::fcntl, EINTR, 1, os_error(EINTR), FD_CLOEXEC, 1},
      {kSetfd, -1, FD_CLOEXEC, 0, call::fcntl, 0, 0, os_error(EBADF), -1, 1},
      {kClose, gone, 0, 0, call::close, 0, 0, os_error(EBADF, VEXO_E_CLOSE_ERROR), -1, 1},
      {kClose, gone, kIgnore, 0, call::close, 0, 0, VEXO_S_NOERR, -1, 1},
      {kClose, null, 0, 0, call::close, EINTR, 1, os_error(EINTR, VEXO_E_CLOSE_ERROR), -1, 1},
      {kClose, null, kIgnore, 0, call::close, EIO, 1, VEXO_S_NOERR, -1, 1},
      {kClose, pair(1, false), 0, 0, call::fstat, 0, 0, VEXO_S_NOERR, 0, 1},
      {kClose, pair(1, false), kIgnore, 0, call::fstat, 0, 0, VEXO_S_NOERR,
       VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS, 1},
      {kClose, pair(1, false), kNoCheck, 0, call::fstat, 0, 0, VEXO_S_NOERR, -1, 0},
      {kClose, pair(1, false), kNoCheck | kIgnore, 0, call::close, 0, 0, VEXO_S_NOERR, -1, 1},
      {kClose, pair(1, false), 0, VEXO_S_DONE, call::fstat, 0, 0, VEXO_S_DONE, 0, 1},
      {kClose, pair(1, false), 0, VEXO_E_NET_ERROR, call::fstat, 0, 0, VEXO_E_NET_ERROR, 0, 1},
  };
  close(gone);  // only now, so that no handle above takes its number
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    const auto &r = rows[i];
    if (r.h < 0 && r.rc == VEXO_DEVICE_TYPE_TTY)
      continue;
    fault::reset();
    fault::fail(r.c, r.err, r.times);
    g_socket_close = -1;
    fault::alloc_scope scope;
    EXPECT_EQ(apply(r.o, r.h, r.a, r.b), std::make_pair(r.rc, r.value));
    EXPECT_EQ(fault::calls(r.c), r.calls);
    EXPECT_EQ(scope.allocations(), 0);
  }
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 3) << "position moved";
  keep_.clear();  // before the descriptor count
}

}  // namespace
