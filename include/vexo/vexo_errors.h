/** @file vexo_errors.h
 * @brief The result codes of every operation, their names and sentences.
 *
 * Below zero is a failure, zero or above a success; some operations return
 * a positive status (1 when a name was read as ISO 8859-1). Test with
 * `rc < 0`, never `rc != VEXO_S_NOERR`. Values are part of the ABI and never
 * change; several names share a value. */
#ifndef VEXO_ERRORS_H
#define VEXO_ERRORS_H

#include "vexo_types.h"

VEXO_BEGIN_DECLS

/** A result code: below zero a failure, zero or above a success. */
typedef enum vexo_t_error_code_ {
  /* Success and statuses. */
  VEXO_S_NOERR = 0, /**< The operation succeeded. */
  VEXO_E_NOERR = 0, /**< Same value as #VEXO_S_NOERR. */
  VEXO_S_TRUE =
      1, /**< Success with the answer yes; also the status 1 of a name or text read as ISO 8859-1. */
  VEXO_S_FALSE = 0,                /**< Success with the answer no (same value as #VEXO_S_NOERR). */
  VEXO_S_OPERATION_FAILED = 1,     /**< Success with a part not done (same value as #VEXO_S_TRUE). */
  VEXO_S_DEALLOCATED = 2,          /**< The operation succeeded and released the resource. */
  VEXO_S_NOT_SUPPORTED = 3,        /**< The operation succeeded without the unsupported part. */
  VEXO_S_DONE = 4,                 /**< The operation succeeded and there is nothing more to do. */
  VEXO_S_SUPPRESSED_INTERRUPT = 5, /**< The operation succeeded after an interruption was ignored. */
  VEXO_S_PRIVATE_ERROR_0 = 30000,  /**< The operation succeeded with private status 0. */
  VEXO_S_PRIVATE_ERROR_1 = 30001,  /**< The operation succeeded with private status 1. */
  VEXO_S_PRIVATE_ERROR_2 = 30002,  /**< The operation succeeded with private status 2. */
  VEXO_S_PRIVATE_ERROR_3 = 30003,  /**< The operation succeeded with private status 3. */
  VEXO_S_PRIVATE_ERROR_4 = 30004,  /**< The operation succeeded with private status 4. */
  VEXO_S_PRIVATE_ERROR_5 = 30005,  /**< The operation succeeded with private status 5. */
  VEXO_S_PRIVATE_ERROR_6 = 30006,  /**< The operation succeeded with private status 6. */

  /* General failures. -10002 is deliberately unused. */
  VEXO_E_ERROR = -10001,               /**< The operation failed. */
  VEXO_E_END_OF_FILE = -1,             /**< The end of the file was reached (-1, outside the other ranges). */
  VEXO_E_OUT_OF_MEMORY = -10003,       /**< There is not enough memory, or the buffer is too small. */
  VEXO_E_INSUFFICIENT_BUFFER = -10003, /**< Same value as #VEXO_E_OUT_OF_MEMORY. */
  VEXO_E_PARAMETER_ERROR = -10004,     /**< An argument is not valid. */
  VEXO_E_VERSION_ERROR = -10005,       /**< The version does not match. */
  VEXO_E_NOT_IMPLEMENTED = -10006,     /**< The operation is not implemented. */
  VEXO_E_NOT_SUPPORTED = -10007,       /**< The operation is not supported. */
  VEXO_E_NOT_FOUND = -10008,           /**< The item was not found. */
  VEXO_E_FOUND = -10009,               /**< The item already exists. */
  VEXO_E_NOT_READ = -10010,            /**< Nothing could be read. */
  VEXO_E_NOT_WRITE = -10011,           /**< Nothing could be written. */
  VEXO_E_NOT_OPEN_READ = -10012,       /**< The stream is not open for reading. */
  VEXO_E_NOT_OPEN_WRITE = -10013,      /**< The stream is not open for writing. */
  VEXO_E_INTERRUPTED = -10014,         /**< The operation was interrupted. */
  VEXO_E_IMPOSSIBLE_ERROR = -10015,    /**< Something that cannot happen has happened. */
  VEXO_E_INTERNAL_ERROR = -10016,      /**< An internal error occurred. */
  VEXO_E_OS_ERROR = -10017,            /**< The operating system reported an error. */
  VEXO_E_TIMEOUT = -10018,             /**< The operation timed out. */
  VEXO_E_WOULD_BLOCK = -10019,         /**< The operation would block; try again later. */
  VEXO_E_TRY_AGAIN = -10019,           /**< Same value as #VEXO_E_WOULD_BLOCK. */
  VEXO_E_PERMISSION_ERROR = -10020,    /**< The operation is not permitted. */
  VEXO_E_NO_MORE_ENTRIES = -10021,     /**< There are no more entries. */
  VEXO_E_IO_ERROR = -10022,            /**< An input/output error occurred. */
  VEXO_E_INVALID_STATE = -10023,       /**< The object is not in a state that allows the operation. */
  VEXO_E_SHUTDOWN = -10024,            /**< The service has been shut down. */

  /* Stream layers. */
  VEXO_E_LAYER_ = -10100,              /**< A stream layer failed. */
  VEXO_E_OPEN_ERROR = -10101,          /**< The stream could not be opened. */
  VEXO_E_READ_ERROR = -10102,          /**< Reading failed. */
  VEXO_E_WRITE_ERROR = -10103,         /**< Writing failed. */
  VEXO_E_SEEK_ERROR = -10104,          /**< The position could not be changed. */
  VEXO_E_CLOSE_ERROR = -10105,         /**< Closing failed. */
  VEXO_E_SYNC_ERROR = -10106,          /**< Flushing to the device failed. */
  VEXO_E_PUSH_ERROR = -10107,          /**< A stream layer could not be added. */
  VEXO_E_TOO_MANY_OPEN_FILES = -10108, /**< Too many files are open. */
  VEXO_E_OVERFLOW = -10109,            /**< A value is too large. */

  /* Character coding. */
  VEXO_E_CHAR_CODER_ = -10200,         /**< Character coding failed. */
  VEXO_E_GRANULARITY_ERROR = -10201,   /**< The data does not end on a character boundary. */
  VEXO_E_NOT_ENOUGH_DATA = -10202,     /**< There is not enough data to decode a character. */
  VEXO_E_SYNTAX_ERROR = -10203,        /**< The text is malformed. */
  VEXO_E_ENCODING_ERROR_ = -10203,     /**< Same value as #VEXO_E_SYNTAX_ERROR. */
  VEXO_E_ENCODING_UNMAPPABLE = -10204, /**< A character cannot be represented in the target encoding. */
  VEXO_E_ENCODING_UNASSIGNED = -10204, /**< Same value as #VEXO_E_ENCODING_UNMAPPABLE. */
  VEXO_E_ENCODING_INVALID = -10205,    /**< The text is not valid in its encoding. */
  VEXO_E_CHARSET_NOT_FOUND = -10206,   /**< The character set is not known. */

  /* Threads. */
  VEXO_E_THREAD_ = -10300,        /**< A thread operation failed. */
  VEXO_E_THREAD_ERROR = -10301,   /**< The thread failed. */
  VEXO_E_THREAD_RUNNING = -10302, /**< The thread is still running. */

  /* Asynchronous I/O. */
  VEXO_E_AIO_ = -10400,             /**< Asynchronous input/output failed. */
  VEXO_E_AIO_ERROR = -10401,        /**< An asynchronous operation failed. */
  VEXO_E_ASYNC_ERROR = -10401,      /**< Same value as #VEXO_E_AIO_ERROR. */
  VEXO_E_AIO_INPROGRESS = -10402,   /**< The operation is in progress. */
  VEXO_E_ASYNC_INPROGRESS = -10402, /**< Same value as #VEXO_E_AIO_INPROGRESS. */
  VEXO_E_INPROGRESS = -10402,       /**< Same value as #VEXO_E_AIO_INPROGRESS. */
  VEXO_E_CANCELED = -10403,         /**< The operation was canceled. */
  VEXO_E_AIO_CANCELED = -10403,     /**< Same value as #VEXO_E_CANCELED. */
  VEXO_E_AIO_EROFS = -10404,        /**< The asynchronous operation met a read-only file system. */
  VEXO_E_AIO_EINVAL = -10405,       /**< The asynchronous operation was given an invalid argument. */

  /* Files. */
  VEXO_E_FILE_ = -10500,              /**< A file operation failed. */
  VEXO_E_FILE_NOT_FOUND = -10501,     /**< The file or directory does not exist. */
  VEXO_E_FILE_ACCESS = -10502,        /**< Access was denied. */
  VEXO_E_FILE_IS_DIRECTORY = -10503,  /**< The path is a directory. */
  VEXO_E_FILE_NOT_DIRECTORY = -10504, /**< The path is not a directory. */
  VEXO_E_FILE_NOT_ABSOLUTE = -10505,  /**< The path is not absolute. */
  VEXO_E_FILE_EXISTS = -10506,        /**< The file already exists. */
  VEXO_E_DIR_NOT_EMPTY = -10507,      /**< The directory is not empty. */
  VEXO_E_INVALID_NAME = -10508,       /**< The name is not valid. */
  VEXO_E_NOSPACE = -10509,            /**< There is no space left. */

  /* Network. VEXO_E_NET_ACCESS shares the value of VEXO_E_FILE_ACCESS. */
  VEXO_E_NET_ = -10600,               /**< A network operation failed. */
  VEXO_E_NET_ERROR = -10600,          /**< A network operation failed (same value as #VEXO_E_NET_). */
  VEXO_E_NET_CONNREFUSED = -10601,    /**< The connection was refused. */
  VEXO_E_NET_ADDRINUSE = -10602,      /**< The address is in use or not available. */
  VEXO_E_NET_CONNRESET = -10603,      /**< The connection was reset or is not connected. */
  VEXO_E_NET_TIMEDOUT = -10604,       /**< The connection timed out. */
  VEXO_E_NET_HOST_NOT_FOUND = -10605, /**< The host cannot be reached. */
  VEXO_E_NET_ACCESS = -10502,         /**< Network access was denied (same value as #VEXO_E_FILE_ACCESS). */

  VEXO_E_MISC_ERROR_0 = -20000, /**< Miscellaneous error 0. */
  VEXO_E_MISC_ERROR_1 = -20001, /**< Miscellaneous error 1. */
  VEXO_E_MISC_ERROR_2 = -20002, /**< Miscellaneous error 2. */
  VEXO_E_MISC_ERROR_3 = -20003, /**< Miscellaneous error 3. */
  VEXO_E_MISC_ERROR_4 = -20004, /**< Miscellaneous error 4. */
  VEXO_E_MISC_ERROR_5 = -20005, /**< Miscellaneous error 5. */
  VEXO_E_MISC_ERROR_6 = -20006, /**< Miscellaneous error 6. */

  VEXO_E_PRIVATE_ERROR_0 = -30000, /**< Private error 0. */
  VEXO_E_PRIVATE_ERROR_1 = -30001, /**< Private error 1. */
  VEXO_E_PRIVATE_ERROR_2 = -30002, /**< Private error 2. */
  VEXO_E_PRIVATE_ERROR_3 = -30003, /**< Private error 3. */
  VEXO_E_PRIVATE_ERROR_4 = -30004, /**< Private error 4. */
  VEXO_E_PRIVATE_ERROR_5 = -30005, /**< Private error 5. */
  VEXO_E_PRIVATE_ERROR_6 = -30006, /**< Private error 6. */

  /* Historically the last code handed out, not the lowest value. */
  VEXO_E_LAST_ERROR_CODE = -30005 /**< The last code handed out historically (same value as
                                     #VEXO_E_PRIVATE_ERROR_5); not the lowest value. */
} vexo_t_error_code;

/** @brief The symbolic name of a result code, for messages and logs.
 *
 * Needs no start-up; touches no state; safe from any thread.
 *
 * @param[in] code any value.
 * @return "VEXO_E_FILE_NOT_FOUND" and the like, a static string the caller
 *         must not free; where several names share a value, the first one
 *         listed in #vexo_t_error_code. Null for a value that has no name. */
VEXO_API const char *vexo_error_name(vexo_t_error_code code);

/** @brief A one-sentence English description of a result code.
 *
 * Needs no start-up; touches no state; safe from any thread.
 *
 * @param[in] code any value.
 * @return a static sentence the caller must not free, never null; a value
 *         without a name gets a general sentence for a failure (below zero)
 *         or a success. */
VEXO_API const char *vexo_error_message(vexo_t_error_code code);

VEXO_END_DECLS

#endif /* VEXO_ERRORS_H */
