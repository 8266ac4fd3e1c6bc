// Closing a socket descriptor on the core's behalf.
#include <vexo/vexo_core.h>

#include <cerrno>
#include <unistd.h>

extern "C" vexo_t_error_code vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options) {
  // Never repeated on EINTR: Linux has released the descriptor by then, and a
  // second close could hit one that another thread has just been given.
  if (::close(fd) == 0 || (options & VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS) != 0)
    return VEXO_S_NOERR;
  return vexo_map_unix_error(errno, VEXO_E_CLOSE_ERROR);
}
