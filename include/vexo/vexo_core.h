/** @file vexo_core.h
 * @brief The I/O core services the back end relies on: memory, Unix-error
 * mapping, UTF-8 validation, path roots, system properties, compact
 * environments and socket close. Embedders use them too.
 *
 * None of these needs start-up. Apart from vexo_replace_allocator() they keep
 * no state of their own; those that read the live environment race with a
 * thread that changes it (setenv, putenv), which the caller must serialise. */
#ifndef VEXO_CORE_H
#define VEXO_CORE_H

#include "vexo_buf.h"
#include "vexo_errors.h"
#include "vexo_types.h"

VEXO_BEGIN_DECLS

/* ---- Memory --------------------------------------------------------------
 * Every block that crosses the interface comes from these and is released
 * with vexo_free. They are as thread-safe as the functions behind them
 * (malloc by default). */
/** @brief Allocates a block from the core allocator.
 * @param[in] size bytes wanted; 0 still gives a distinct block.
 * @return a new block the caller frees with vexo_free(), or null when
 *         memory runs out. */
VEXO_API void *vexo_alloc(size_t size);
/** @brief Resizes a block from the core allocator.
 * @param[in] p a block from vexo_alloc() or vexo_realloc(), or null (then
 *        this is vexo_alloc()).
 * @param[in] size the new size; 0 keeps a one-byte block.
 * @return the block, perhaps moved; null when it cannot grow, and `p` is
 *         then still valid and still the caller's. */
VEXO_API void *vexo_realloc(void *p, size_t size);
/** @brief Copies a string into a new block.
 * @param[in] s a NUL-terminated string, or null.
 * @return a copy the caller frees with vexo_free(); null when `s` is null or
 *         memory runs out. */
VEXO_API char *vexo_alloc_string(const char *s);
/** @brief Releases a block that the library or the core allocator handed out.
 * @param[in] p the block, or null (ignored). Never pass a block that is lent
 *        (a listed name, the initial environment). */
VEXO_API void vexo_free(void *p);

/** The allocation function of a replacement allocator (like malloc). */
typedef void *(*vexo_t_malloc_fn)(size_t size);
/** The resizing function of a replacement allocator (like realloc). */
typedef void *(*vexo_t_realloc_fn)(void *p, size_t size);
/** The release function of a replacement allocator (like free). */
typedef void (*vexo_t_free_fn)(void *p);

/** @brief Routes the core allocator through the caller's three functions.
 *
 * Process-wide and not thread-safe: call it before any other library call
 * (or while no block is outstanding and no other thread uses the library),
 * since a block must be freed by the allocator that made it. Start-up takes
 * a block for the initial environment, so replace the allocator before
 * vexo_init_process_unix() or after its shutdown.
 *
 * @param[in] malloc_fn allocation; null together with the other two
 *        restores malloc, realloc and free.
 * @param[in] realloc_fn resizing.
 * @param[in] free_fn release.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when only some of the three
 *         are null (the allocator is then unchanged). */
VEXO_API vexo_t_error_code vexo_replace_allocator(vexo_t_malloc_fn malloc_fn, vexo_t_realloc_fn realloc_fn,
                                                  vexo_t_free_fn free_fn);

/* ---- Errors and text ---------------------------------------------------- */

/** @brief The result code for a Unix error number.
 *
 * Always a failure: where the table has no entry, `fallback`, and
 * #VEXO_E_ERROR when `fallback` is not below zero (err 0 included). Pure;
 * safe from any thread. The table:
 * @verbatim
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
 * @endverbatim
 * @param[in] err an errno value.
 * @param[in] fallback the code for a value the table does not hold.
 * @return a result code below zero. */
VEXO_API vexo_t_error_code vexo_map_unix_error(int err, vexo_t_error_code fallback);

/** @brief Tells whether bytes are legal UTF-8.
 *
 * Legal means shortest forms only, no surrogates, nothing above U+10FFFF;
 * NUL is legal. Pure; safe from any thread.
 *
 * @param[in] s the bytes; may be null when `size` is 0.
 * @param[in] size how many bytes to test.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR when legal (always for `size` 0);
 *         #VEXO_E_ENCODING_INVALID when not;
 *         #VEXO_E_PARAMETER_ERROR when `s` is null and `size` is not 0. */
VEXO_API vexo_t_error_code vexo_is_legal_utf8_string(const void *s, size_t size, vexo_t_bits options);

/** @brief The length of the root prefix of a path.
 * @param[in] path a NUL-terminated path.
 * @return 1 when it begins with '/', else 0; #VEXO_E_PARAMETER_ERROR when
 *         `path` is null. */
VEXO_API vexo_t_error_code vexo_path_root_len(const char *path);

/* ---- Properties and environments ---------------------------------------- */

/** @brief The value of a variable of the live environment, as a new string.
 *
 * Reads the live environment (getenv): serialise with threads that change it.
 *
 * @param[in] key the variable's name ("TMPDIR", "SHELL", any other).
 * @param[in] options none are defined; pass 0.
 * @return a copy of the value (bytes as they are, not necessarily UTF-8)
 *         that the caller frees with vexo_free(); null when `key` is null,
 *         the variable is unset, or memory runs out. */
VEXO_API char *vexo_get_system_property_allocate(const char *key, vexo_t_bits options);

/** Selector: the live environment as a compact environment, with its size. */
#define VEXO_SYSTEM_PROPERTIES_COMPACT_ENV 4
/** Selector: the live environment as a null-terminated array of its
 * KEY=VALUE strings, unchanged, in one block; no size is given. */
#define VEXO_SYSTEM_PROPERTIES_ENVIRON 12

/** @brief A copy of the live environment in one block.
 *
 * Reads the live environment: serialise with threads that change it.
 *
 * @param[out] penv receives one block (pointer array and strings) that the
 *        caller frees with one vexo_free(); on success only.
 * @param[out] psize receives the block's size in bytes for
 *        #VEXO_SYSTEM_PROPERTIES_COMPACT_ENV; may be null; not written for
 *        #VEXO_SYSTEM_PROPERTIES_ENVIRON.
 * @param[in] selector #VEXO_SYSTEM_PROPERTIES_COMPACT_ENV or
 *        #VEXO_SYSTEM_PROPERTIES_ENVIRON.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `penv` is null;
 *         #VEXO_E_NOT_SUPPORTED for another selector;
 *         #VEXO_E_OUT_OF_MEMORY; #VEXO_E_TRY_AGAIN when the environment
 *         changed while it was being copied. */
VEXO_API vexo_t_error_code vexo_get_system_properties(char ***penv, size_t *psize, int selector);

/** vexo_make_compact_env() flag: entries of the form key NUL value NUL. */
#define VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE 0
/** vexo_make_compact_env() flag: entries of the form "KEY=VALUE"; an entry
 * without '=' has an empty value. */
#define VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE 1

/** @brief Builds a compact environment from a list of entries.
 *
 * A compact environment is one block holding the null-terminated pointer
 * array followed by the entries, each key NUL value NUL. The list's order
 * is kept, duplicates too; entries with an empty key, and empty entries,
 * are left out. Pure; safe from any thread.
 *
 * @param[in] entries a null-terminated list, the caller's (copied, not
 *        taken over); null gives an empty environment.
 * @param[out] penv receives the new block, which the caller frees with one
 *        vexo_free(); on success only.
 * @param[out] psize receives the block's size in bytes; may be null.
 * @param[in] flag #VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE or
 *        #VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `penv` is null or
 *         `flag` is another value; #VEXO_E_OUT_OF_MEMORY. */
VEXO_API vexo_t_error_code vexo_make_compact_env(const char *const *entries, char ***penv, size_t *psize,
                                                 vexo_t_bits flag);

/** @brief Merges two compact environments into a new one.
 *
 * The result holds env1's entries, then each entry of env2 whose key env1
 * does not hold, both in their own orders; it is writable. Pure; safe from
 * any thread.
 *
 * @param[in] env1 a compact environment, the caller's; null counts as empty.
 * @param[in] size1 its size; not needed, may be 0.
 * @param[in] env2 a compact environment, the caller's; null counts as empty.
 * @param[in] size2 its size; not needed, may be 0.
 * @param[out] penv receives the new block, which the caller frees with one
 *        vexo_free(); on success only.
 * @param[out] psize receives the new block's size; may be null.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `penv` is null;
 *         #VEXO_E_OUT_OF_MEMORY. */
VEXO_API vexo_t_error_code vexo_merge_compact_envs(char **env1, size_t size1, char **env2, size_t size2,
                                                   char ***penv, size_t *psize, vexo_t_bits options);

/* ---- Sockets ------------------------------------------------------------ */

/** vexo_socket_close() reports success even when close fails. */
#define VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS 0x1u

/** @brief Closes a socket descriptor.
 *
 * close is called once, never repeated: a close interrupted by a signal has
 * still released the descriptor, and repeating it could close one that
 * another thread has just been given.
 *
 * @param[in] fd the descriptor; it is released whatever the result.
 * @param[in] options #VEXO_SOCKET_CLOSE_OPTION_IGNORE_ERRORS or 0.
 * @return #VEXO_S_NOERR; otherwise vexo_map_unix_error() of errno with the
 *         fallback #VEXO_E_CLOSE_ERROR (#VEXO_E_INVALID_STATE for a bad
 *         descriptor, #VEXO_E_INTERRUPTED, #VEXO_E_IO_ERROR, ...). */
VEXO_API vexo_t_error_code vexo_socket_close(vexo_t_os_file_handle fd, vexo_t_bits options);

VEXO_END_DECLS

#endif /* VEXO_CORE_H */
