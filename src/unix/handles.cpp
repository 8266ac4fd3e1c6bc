// OS file handles: open, position, size, kind and close, and the descriptor
// flags that process creation shares. No state is kept between calls.
#include "unix_internal.h"

#include <fcntl.h>
#include <unistd.h>

int vexo::os_fstat(int fd, struct stat *pstat_buf) {
  return vexo::retry_on_eintr([=] { return fstat(fd, pstat_buf); });
}

vexo_t_error_code vexo::vexo_unix_SETFD(vexo_t_os_file_handle fd, int mask, int value) {
  vexo_t_error_code result = VEXO_S_NOERR;
  // Neither call is repeated: fcntl on these commands does not block, so an
  // EINTR is reported like any other failure.
  const int flags = fcntl(fd, F_GETFD);
  VEXO_POSIX_CHECK(flags, VEXO_E_OS_ERROR);
  VEXO_POSIX_CHECK(fcntl(fd, F_SETFD, (flags & ~mask) | (value & mask)), VEXO_E_OS_ERROR);
  return result;
}

extern "C" vexo_t_error_code vexo_unix_open_file(const char *utf8_pathname, int oflag, mode_t mode,
                                                 vexo_t_os_file_handle *pfd) {
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo::maybe_owned os_pathname(utf8_pathname);
  VEXO_CHECK(vexo_file_name_for_os_unix(utf8_pathname, os_pathname.out(), VEXO_FILE_NAME_OPTION_NO_COPY));

  int fd = -1;
  const int err = vexo::retry_on_eintr([&] {
    fd = open(os_pathname.get(), oflag, mode);
    return fd;
  });
  if (err != 0)
    return vexo_map_unix_error(err, VEXO_E_OPEN_ERROR);

  // Close-on-exec is best effort: a handle without it is still a usable
  // handle, and the caller has no better way to recover.
  static_cast<void>(vexo::vexo_unix_SETFD(fd, FD_CLOEXEC, FD_CLOEXEC));
  *pfd = fd;
  return result;
}

extern "C" vexo_t_error_code vexo_unix_file_pos(vexo_t_os_file_handle hFile, vexo_t_offset *ppos,
                                                vexo_t_bits /*options*/) {
  off_t pos = -1;
  const int err = vexo::retry_on_eintr([&] {
    pos = lseek(hFile, 0, SEEK_CUR);
    return pos;
  });
  if (err != 0)
    return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
  *ppos = static_cast<vexo_t_offset>(pos);
  return VEXO_S_NOERR;
}

extern "C" vexo_t_error_code vexo_unix_file_size(vexo_t_os_file_handle hFile, vexo_t_offset *psize,
                                                 vexo_t_bits /*options*/) {
  struct stat st {};
  const int err = vexo::os_fstat(hFile, &st);
  if (err != 0)
    return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
  // Only a regular file has a size that says how much can be read.
  if (!S_ISREG(st.st_mode))
    return VEXO_E_NOT_SUPPORTED;
  *psize = static_cast<vexo_t_offset>(st.st_size);
  return VEXO_S_NOERR;
}

extern "C" vexo_t_device_type vexo_unix_device_type(vexo_t_os_file_handle hFile) {
  if (hFile == -1)
    return VEXO_DEVICE_TYPE_ILLEGAL;
  // A terminal is a character device too; callers care that it is a terminal.
  if (isatty(hFile) != 0)
    return VEXO_DEVICE_TYPE_TTY;
  struct stat st {};
  if (vexo::os_fstat(hFile, &st) != 0)
    return VEXO_DEVICE_TYPE_ILLEGAL;
  switch (st.st_mode & S_IFMT) {
    case S_IFREG:
      return VEXO_DEVICE_TYPE_FILE;
    case S_IFDIR:
      return VEXO_DEVICE_TYPE_DIRECTORY;
    case S_IFCHR:
      return VEXO_DEVICE_TYPE_CHARACTER;
    case S_IFBLK:
      return VEXO_DEVICE_TYPE_BLOCK;
    case S_IFIFO:
      return VEXO_DEVICE_TYPE_FIFO;
    case S_IFLNK:
      return VEXO_DEVICE_TYPE_LINK;
    case S_IFSOCK:
      return VEXO_DEVICE_TYPE_SOCKET;
    default:
      return VEXO_DEVICE_TYPE_UNKNOWN;
  }
}

extern "C" vexo_t_error_code vexo_os_file_handle_close_unix(vexo_t_os_file_handle hFile,
                                                            vexo_t_bits options) {
  const bool ignore_errors = (options & VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS) != 0;
  // Sockets belong to the core, which closes them its own way.
  if ((options & VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK) == 0 &&
      vexo_unix_device_type(hFile) == VEXO_DEVICE_TYPE_SOCKET)
    return vexo_socket_close(hFile, ignore_errors ? VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS : 0);

  // Once only: after an interrupted close the descriptor is already gone on
  // Linux, and a second close could hit one that another thread just opened.
  if (close(hFile) == -1 && !ignore_errors)
    return vexo_map_unix_error(errno, VEXO_E_CLOSE_ERROR);
  return VEXO_S_NOERR;
}
