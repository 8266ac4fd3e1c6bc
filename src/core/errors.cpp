// Unix error numbers to result codes, and the names and sentences of the
// result codes themselves.
#include <vexo/vexo_core.h>
#include <vexo/vexo_errors.h>

#include <cerrno>
#include <cstddef>
#include <iterator>

extern "C" vexo_t_error_code vexo_map_unix_error(int err, vexo_t_error_code fallback) {
  switch (err) {
    case ENOENT:
    case ENXIO:
    case ENODEV:
      return VEXO_E_FILE_NOT_FOUND;
    case ENOTDIR:
      return VEXO_E_FILE_NOT_DIRECTORY;
    case EISDIR:
      return VEXO_E_FILE_IS_DIRECTORY;
    case EEXIST:
      return VEXO_E_FILE_EXISTS;
    case ENOTEMPTY:
      return VEXO_E_DIR_NOT_EMPTY;
    case EPERM:
      return VEXO_E_PERMISSION_ERROR;
    case EACCES:
    case EROFS:
    case ETXTBSY:
    case EBUSY:
      return VEXO_E_FILE_ACCESS;
    case ENAMETOOLONG:
    case ELOOP:
    case EILSEQ:
      return VEXO_E_INVALID_NAME;
    case EXDEV:
    case EMLINK:
      return VEXO_E_NOT_SUPPORTED;
    case ENOSPC:
#ifdef EDQUOT
    case EDQUOT:
#endif
    case EFBIG:
      return VEXO_E_NOSPACE;
    case ENOMEM:
    case ENOBUFS:
      return VEXO_E_OUT_OF_MEMORY;
    case EMFILE:
    case ENFILE:
      return VEXO_E_TOO_MANY_OPEN_FILES;
    case EBADF:
      return VEXO_E_INVALID_STATE;
    case EINVAL:
    case EFAULT:
    case E2BIG:
    case EDOM:
    case ENOTTY:
      return VEXO_E_PARAMETER_ERROR;
    case ERANGE:
    case EOVERFLOW:
      return VEXO_E_OVERFLOW;
    case EAGAIN:
#if defined(EWOULDBLOCK) && EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
      return VEXO_E_WOULD_BLOCK;
    case EINPROGRESS:
    case EALREADY:
      return VEXO_E_INPROGRESS;
    case EINTR:
      return VEXO_E_INTERRUPTED;
#ifdef ECANCELED
    case ECANCELED:
      return VEXO_E_CANCELED;
#endif
    case ESPIPE:
      return VEXO_E_SEEK_ERROR;
    case EPIPE:
      return VEXO_E_WRITE_ERROR;
    case EIO:
      return VEXO_E_IO_ERROR;
    case ENOSYS:
      return VEXO_E_NOT_IMPLEMENTED;
    case EOPNOTSUPP:
#if defined(ENOTSUP) && ENOTSUP != EOPNOTSUPP
    case ENOTSUP:
#endif
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
#ifdef ESOCKTNOSUPPORT
    case ESOCKTNOSUPPORT:
#endif
#ifdef EPFNOSUPPORT
    case EPFNOSUPPORT:
#endif
    case ENOPROTOOPT:
      return VEXO_E_NOT_SUPPORTED;
    case ECHILD:
    case ESRCH:
      return VEXO_E_NOT_FOUND;
    case ETIMEDOUT:
      return VEXO_E_NET_TIMEDOUT;
    case ECONNREFUSED:
      return VEXO_E_NET_CONNREFUSED;
    case EADDRINUSE:
    case EADDRNOTAVAIL:
      return VEXO_E_NET_ADDRINUSE;
    case ECONNRESET:
    case ECONNABORTED:
    case ENOTCONN:
#ifdef ESHUTDOWN
    case ESHUTDOWN:
#endif
      return VEXO_E_NET_CONNRESET;
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ENETDOWN:
#ifdef EHOSTDOWN
    case EHOSTDOWN:
#endif
      return VEXO_E_NET_HOST_NOT_FOUND;
    case ENOTSOCK:
    case EDESTADDRREQ:
    case EMSGSIZE:
    case EPROTOTYPE:
    case EISCONN:
    case ENETRESET:
      return VEXO_E_NET_ERROR;
    default:
      // Callers return the mapping as a failure without testing it.
      return fallback < 0 ? fallback : VEXO_E_ERROR;
  }
}

namespace {

struct code_text {
  vexo_t_error_code code;
  const char *name;
  const char *message;  // null for an alias: its value's first entry speaks for it
};

#define VEXO_CODE(name, message) \
  { name, #name, message }

// In the order of the enumeration, so that a shared value finds its first name.
constexpr code_text kCodes[] = {
    VEXO_CODE(VEXO_S_NOERR, "The operation succeeded."),
    VEXO_CODE(VEXO_E_NOERR, nullptr),
    VEXO_CODE(VEXO_S_TRUE, "The operation succeeded with the answer yes, or with a part of it not done."),
    VEXO_CODE(VEXO_S_FALSE, nullptr),
    VEXO_CODE(VEXO_S_OPERATION_FAILED, nullptr),
    VEXO_CODE(VEXO_S_DEALLOCATED, "The operation succeeded and released the resource."),
    VEXO_CODE(VEXO_S_NOT_SUPPORTED, "The operation succeeded without the unsupported part."),
    VEXO_CODE(VEXO_S_DONE, "The operation succeeded and there is nothing more to do."),
    VEXO_CODE(VEXO_S_SUPPRESSED_INTERRUPT, "The operation succeeded after an interruption was ignored."),
    VEXO_CODE(VEXO_S_PRIVATE_ERROR_0, "The operation succeeded with private status 0."),
    VEXO_CODE(VEXO_S_PRIVATE_ERROR_1, "The operation succeeded with private status 1."),
    VEXO_CODE(VEXO_S_PRIVATE_ERROR_2, "The operation succeeded with private status 2."),
    VEXO_CODE(VEXO_S_PRIVATE_ERROR_3, "The operation succeeded with private status 3."),
    VEXO_CODE(VEXO_S_PRIVATE_ERROR_4, "The operation succeeded with private status 4."),
    VEXO_CODE(VEXO_S_PRIVATE_ERROR_5, "The operation succeeded with private status 5."),
    VEXO_CODE(VEXO_S_PRIVATE_ERROR_6, "The operation succeeded with private status 6."),

    VEXO_CODE(VEXO_E_ERROR, "The operation failed."),
    VEXO_CODE(VEXO_E_END_OF_FILE, "The end of the file was reached."),
    VEXO_CODE(VEXO_E_OUT_OF_MEMORY, "There is not enough memory, or the buffer is too small."),
    VEXO_CODE(VEXO_E_INSUFFICIENT_BUFFER, nullptr),
    VEXO_CODE(VEXO_E_PARAMETER_ERROR, "An argument is not valid."),
    VEXO_CODE(VEXO_E_VERSION_ERROR, "The version does not match."),
    VEXO_CODE(VEXO_E_NOT_IMPLEMENTED, "The operation is not implemented."),
    VEXO_CODE(VEXO_E_NOT_SUPPORTED, "The operation is not supported."),
    VEXO_CODE(VEXO_E_NOT_FOUND, "The item was not found."),
    VEXO_CODE(VEXO_E_FOUND, "The item already exists."),
    VEXO_CODE(VEXO_E_NOT_READ, "Nothing could be read."),
    VEXO_CODE(VEXO_E_NOT_WRITE, "Nothing could be written."),
    VEXO_CODE(VEXO_E_NOT_OPEN_READ, "The stream is not open for reading."),
    VEXO_CODE(VEXO_E_NOT_OPEN_WRITE, "The stream is not open for writing."),
    VEXO_CODE(VEXO_E_INTERRUPTED, "The operation was interrupted."),
    VEXO_CODE(VEXO_E_IMPOSSIBLE_ERROR, "Something that cannot happen has happened."),
    VEXO_CODE(VEXO_E_INTERNAL_ERROR, "An internal error occurred."),
    VEXO_CODE(VEXO_E_OS_ERROR, "The operating system reported an error."),
    VEXO_CODE(VEXO_E_TIMEOUT, "The operation timed out."),
    VEXO_CODE(VEXO_E_WOULD_BLOCK, "The operation would block; try again later."),
    VEXO_CODE(VEXO_E_TRY_AGAIN, nullptr),
    VEXO_CODE(VEXO_E_PERMISSION_ERROR, "The operation is not permitted."),
    VEXO_CODE(VEXO_E_NO_MORE_ENTRIES, "There are no more entries."),
    VEXO_CODE(VEXO_E_IO_ERROR, "An input/output error occurred."),
    VEXO_CODE(VEXO_E_INVALID_STATE, "The object is not in a state that allows the operation."),
    VEXO_CODE(VEXO_E_SHUTDOWN, "The service has been shut down."),

    VEXO_CODE(VEXO_E_LAYER_, "A stream layer failed."),
    VEXO_CODE(VEXO_E_OPEN_ERROR, "The stream could not be opened."),
    VEXO_CODE(VEXO_E_READ_ERROR, "Reading failed."),
    VEXO_CODE(VEXO_E_WRITE_ERROR, "Writing failed."),
    VEXO_CODE(VEXO_E_SEEK_ERROR, "The position could not be changed."),
    VEXO_CODE(VEXO_E_CLOSE_ERROR, "Closing failed."),
    VEXO_CODE(VEXO_E_SYNC_ERROR, "Flushing to the device failed."),
    VEXO_CODE(VEXO_E_PUSH_ERROR, "A stream layer could not be added."),
    VEXO_CODE(VEXO_E_TOO_MANY_OPEN_FILES, "Too many files are open."),
    VEXO_CODE(VEXO_E_OVERFLOW, "A value is too large."),

    VEXO_CODE(VEXO_E_CHAR_CODER_, "Character coding failed."),
    VEXO_CODE(VEXO_E_GRANULARITY_ERROR, "The data does not end on a character boundary."),
    VEXO_CODE(VEXO_E_NOT_ENOUGH_DATA, "There is not enough data to decode a character."),
    VEXO_CODE(VEXO_E_SYNTAX_ERROR, "The text is malformed."),
    VEXO_CODE(VEXO_E_ENCODING_ERROR_, nullptr),
    VEXO_CODE(VEXO_E_ENCODING_UNMAPPABLE, "A character cannot be represented in the target encoding."),
    VEXO_CODE(VEXO_E_ENCODING_UNASSIGNED, nullptr),
    VEXO_CODE(VEXO_E_ENCODING_INVALID, "The text is not valid in its encoding."),
    VEXO_CODE(VEXO_E_CHARSET_NOT_FOUND, "The character set is not known."),

    VEXO_CODE(VEXO_E_THREAD_, "A thread operation failed."),
    VEXO_CODE(VEXO_E_THREAD_ERROR, "The thread failed."),
    VEXO_CODE(VEXO_E_THREAD_RUNNING, "The thread is still running."),

    VEXO_CODE(VEXO_E_AIO_, "Asynchronous input/output failed."),
    VEXO_CODE(VEXO_E_AIO_ERROR, "An asynchronous operation failed."),
    VEXO_CODE(VEXO_E_ASYNC_ERROR, nullptr),
    VEXO_CODE(VEXO_E_AIO_INPROGRESS, "The operation is in progress."),
    VEXO_CODE(VEXO_E_ASYNC_INPROGRESS, nullptr),
    VEXO_CODE(VEXO_E_INPROGRESS, nullptr),
    VEXO_CODE(VEXO_E_CANCELED, "The operation was canceled."),
    VEXO_CODE(VEXO_E_AIO_CANCELED, nullptr),
    VEXO_CODE(VEXO_E_AIO_EROFS, "The asynchronous operation met a read-only file system."),
    VEXO_CODE(VEXO_E_AIO_EINVAL, "The asynchronous operation was given an invalid argument."),

    VEXO_CODE(VEXO_E_FILE_, "A file operation failed."),
    VEXO_CODE(VEXO_E_FILE_NOT_FOUND, "The file or directory does not exist."),
    VEXO_CODE(VEXO_E_FILE_ACCESS, "Access was denied."),
    VEXO_CODE(VEXO_E_FILE_IS_DIRECTORY, "The path is a directory."),
    VEXO_CODE(VEXO_E_FILE_NOT_DIRECTORY, "The path is not a directory."),
    VEXO_CODE(VEXO_E_FILE_NOT_ABSOLUTE, "The path is not absolute."),
    VEXO_CODE(VEXO_E_FILE_EXISTS, "The file already exists."),
    VEXO_CODE(VEXO_E_DIR_NOT_EMPTY, "The directory is not empty."),
    VEXO_CODE(VEXO_E_INVALID_NAME, "The name is not valid."),
    VEXO_CODE(VEXO_E_NOSPACE, "There is no space left."),

    VEXO_CODE(VEXO_E_NET_, "A network operation failed."),
    VEXO_CODE(VEXO_E_NET_ERROR, nullptr),
    VEXO_CODE(VEXO_E_NET_CONNREFUSED, "The connection was refused."),
    VEXO_CODE(VEXO_E_NET_ADDRINUSE, "The address is in use or not available."),
    VEXO_CODE(VEXO_E_NET_CONNRESET, "The connection was reset or is not connected."),
    VEXO_CODE(VEXO_E_NET_TIMEDOUT, "The connection timed out."),
    VEXO_CODE(VEXO_E_NET_HOST_NOT_FOUND, "The host cannot be reached."),
    VEXO_CODE(VEXO_E_NET_ACCESS, nullptr),

    VEXO_CODE(VEXO_E_MISC_ERROR_0, "Miscellaneous error 0."),
    VEXO_CODE(VEXO_E_MISC_ERROR_1, "Miscellaneous error 1."),
    VEXO_CODE(VEXO_E_MISC_ERROR_2, "Miscellaneous error 2."),
    VEXO_CODE(VEXO_E_MISC_ERROR_3, "Miscellaneous error 3."),
    VEXO_CODE(VEXO_E_MISC_ERROR_4, "Miscellaneous error 4."),
    VEXO_CODE(VEXO_E_MISC_ERROR_5, "Miscellaneous error 5."),
    VEXO_CODE(VEXO_E_MISC_ERROR_6, "Miscellaneous error 6."),

    VEXO_CODE(VEXO_E_PRIVATE_ERROR_0, "Private error 0."),
    VEXO_CODE(VEXO_E_PRIVATE_ERROR_1, "Private error 1."),
    VEXO_CODE(VEXO_E_PRIVATE_ERROR_2, "Private error 2."),
    VEXO_CODE(VEXO_E_PRIVATE_ERROR_3, "Private error 3."),
    VEXO_CODE(VEXO_E_PRIVATE_ERROR_4, "Private error 4."),
    VEXO_CODE(VEXO_E_PRIVATE_ERROR_5, "Private error 5."),
    VEXO_CODE(VEXO_E_PRIVATE_ERROR_6, "Private error 6."),
    VEXO_CODE(VEXO_E_LAST_ERROR_CODE, nullptr),
};

#undef VEXO_CODE

// Exactly the first entry of each value carries its sentence.
constexpr bool messages_on_first_entries() {
  for (size_t i = 0; i < std::size(kCodes); ++i) {
    bool first = true;
    for (size_t j = 0; j < i; ++j)
      first = first && kCodes[j].code != kCodes[i].code;
    if (first != (kCodes[i].message != nullptr))
      return false;
  }
  return true;
}
static_assert(messages_on_first_entries());

const code_text *find(vexo_t_error_code code) {
  for (const code_text &c : kCodes) {
    if (c.code == code)
      return &c;
  }
  return nullptr;
}

}  // namespace

extern "C" {

const char *vexo_error_name(vexo_t_error_code code) {
  const code_text *c = find(code);
  return c != nullptr ? c->name : nullptr;
}

const char *vexo_error_message(vexo_t_error_code code) {
  const code_text *c = find(code);
  if (c != nullptr)
    return c->message;
  return code < 0 ? "The operation failed with an unknown error code."
                  : "The operation succeeded with an unknown status.";
}

}  // extern "C"
