/* The I/O core services the back end relies on: memory, buffers, Unix-error
 * mapping, UTF-8 validation, path roots, system properties, compact
 * environments and socket close. Embedders use them too. */
#ifndef VEXO_CORE_H
#define VEXO_CORE_H

#include "vexo_buf.h"
#include "vexo_errors.h"
#include "vexo_types.h"

VEXO_BEGIN_DECLS

/* ---- Memory --------------------------------------------------------------
 * Every block that crosses the interface comes from these and is released
 * with vexo_free. vexo_alloc(0) gives a valid, freeable block. */
VEXO_API void *vexo_alloc(size_t size);
/* Null with `p` still valid when the block cannot grow. */
VEXO_API void *vexo_realloc(void *p, size_t size);
VEXO_API char *vexo_alloc_string(const char *s);
VEXO_API void vexo_free(void *p);

typedef void *(*vexo_t_malloc_fn)(size_t size);
typedef void *(*vexo_t_realloc_fn)(void *p, size_t size);
typedef void (*vexo_t_free_fn)(void *p);

/* Routes the four memory operations through the given functions; all three
 * null restores malloc/realloc/free. Only while no block is outstanding:
 * a block must be freed by the allocator that made it. Not thread-safe.
 * VEXO_E_PARAMETER_ERROR when only some of the three are null. */
VEXO_API vexo_t_error_code vexo_replace_allocator(vexo_t_malloc_fn malloc_fn, vexo_t_realloc_fn realloc_fn,
                                                  vexo_t_free_fn free_fn);

/* ---- Errors and text ---------------------------------------------------- */

/* The result code for a Unix error number, `fallback` where the table has
 * none. Always a failure: a non-negative fallback becomes VEXO_E_ERROR, and
 * so does err 0 with such a fallback. The table:
 *   ENOENT ENXIO ENODEV              VEXO_E_FILE_NOT_FOUND
 *   ENOTDIR                          VEXO_E_FILE_NOT_DIRECTORY
 *   EISDIR                           VEXO_E_FILE_IS_DIRECTORY
 *   EEXIST                           VEXO_E_FILE_EXISTS
 *   ENOTEMPTY                        VEXO_E_DIR_NOT_EMPTY
 *   EACCES                           VEXO_E_FILE_ACCESS
 *   EPERM                            VEXO_E_PERMISSION_ERROR
 *   EROFS ETXTBSY EBUSY              VEXO_E_FILE_ACCESS
 *   ENAMETOOLONG ELOOP EILSEQ        VEXO_E_INVALID_NAME
 *   EXDEV EMLINK                     VEXO_E_NOT_SUPPORTED
 *   ENOSPC EDQUOT EFBIG              VEXO_E_NOSPACE
 *   ENOMEM ENOBUFS                   VEXO_E_OUT_OF_MEMORY
 *   EMFILE ENFILE                    VEXO_E_TOO_MANY_OPEN_FILES
 *   EBADF                            VEXO_E_INVALID_STATE
 *   EINVAL EFAULT E2BIG EDOM ENOTTY  VEXO_E_PARAMETER_ERROR
 *   ERANGE EOVERFLOW                 VEXO_E_OVERFLOW
 *   EAGAIN EWOULDBLOCK               VEXO_E_WOULD_BLOCK
 *   EINPROGRESS EALREADY             VEXO_E_INPROGRESS
 *   EINTR                            VEXO_E_INTERRUPTED
 *   ECANCELED                        VEXO_E_CANCELED
 *   ESPIPE                           VEXO_E_SEEK_ERROR
 *   EPIPE                            VEXO_E_WRITE_ERROR
 *   EIO                              VEXO_E_IO_ERROR
 *   ENOSYS                           VEXO_E_NOT_IMPLEMENTED
 *   ENOTSUP EOPNOTSUPP EAFNOSUPPORT
 *   EPROTONOSUPPORT ESOCKTNOSUPPORT
 *   EPFNOSUPPORT ENOPROTOOPT         VEXO_E_NOT_SUPPORTED
 *   ECHILD ESRCH                     VEXO_E_NOT_FOUND
 *   ETIMEDOUT                        VEXO_E_NET_TIMEDOUT
 *   ECONNREFUSED                     VEXO_E_NET_CONNREFUSED
 *   EADDRINUSE EADDRNOTAVAIL         VEXO_E_NET_ADDRINUSE
 *   ECONNRESET ECONNABORTED ENOTCONN
 *   ESHUTDOWN                        VEXO_E_NET_CONNRESET
 *   EHOSTUNREACH ENETUNREACH
 *   ENETDOWN EHOSTDOWN               VEXO_E_NET_HOST_NOT_FOUND
 *   ENOTSOCK EDESTADDRREQ EMSGSIZE
 *   EPROTOTYPE EISCONN ENETRESET     VEXO_E_NET_ERROR
 * Every other value gives `fallback`. */
VEXO_API vexo_t_error_code vexo_map_unix_error(int err, vexo_t_error_code fallback);

/* VEXO_S_NOERR when the `size` bytes at `s` are legal UTF-8 (shortest forms
 * only, no surrogates, nothing above U+10FFFF; NUL is legal), else
 * VEXO_E_ENCODING_INVALID. No option bits are defined. */
VEXO_API vexo_t_error_code vexo_is_legal_utf8_string(const void *s, size_t size, vexo_t_bits options);

/* Length of the root prefix of `path`: 1 when it begins with '/', else 0. */
VEXO_API vexo_t_error_code vexo_path_root_len(const char *path);

/* ---- Properties and environments ---------------------------------------- */

/* A new string with the value of the environment variable `key` ("TMPDIR",
 * "SHELL", any other), or null when it is unset or memory runs out. */
VEXO_API char *vexo_get_system_property_allocate(const char *key, vexo_t_bits options);

/* The live environment as a compact environment with its size. */
#define VEXO_SYSTEM_PROPERTIES_COMPACT_ENV 4
/* The live environment as a null-terminated array of its KEY=VALUE strings,
 * unchanged, in one block; no size is given (`psize` may be null). */
#define VEXO_SYSTEM_PROPERTIES_ENVIRON 12

/* `*penv` receives one block freed with one vexo_free. Other selectors give
 * VEXO_E_NOT_SUPPORTED. */
VEXO_API vexo_t_error_code vexo_get_system_properties(char ***penv, size_t *psize, int selector);

/* Entries of the form key NUL value NUL. */
#define VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE 0
/* Entries of the form "KEY=VALUE"; an entry without '=' has an empty value. */
#define VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE 1

/* A compact environment of the null-terminated list `entries`, which is not
 * taken over: one block holding the null-terminated pointer array followed
 * by the entries (key NUL value NUL), in the list's order, duplicates kept.
 * Entries with an empty key, and empty entries, are left out. `*psize` is the
 * size of the block in bytes. A null list gives an empty environment. */
VEXO_API vexo_t_error_code vexo_make_compact_env(const char *const *entries, char ***penv, size_t *psize,
                                                 vexo_t_bits flag);

/* One new, writable compact environment: env1's entries, then each entry of
 * env2 whose key env1 does not hold; both in their own orders. A null
 * environment counts as empty; the sizes are not needed and may be 0.
 * `psize` may be null. */
VEXO_API vexo_t_error_code vexo_merge_compact_envs(char **env1, size_t size1, char **env2, size_t size2,
                                                   char ***penv, size_t *psize, vexo_t_bits options);

/* ---- Sockets ------------------------------------------------------------ */

/* close() reports success even when it fails. */
#define VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS 0x1u

/* Closes a socket descriptor, once: a close interrupted by a signal has
 * still released the descriptor. Failure: the mapping of errno with the
 * fallback VEXO_E_CLOSE_ERROR. */
VEXO_API vexo_t_error_code vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options);

VEXO_END_DECLS

#endif /* VEXO_CORE_H */
