/** @file vexo_unix.h
 * @brief The Unix back end: every exported operation and its option bits.
 *
 * Includes the other public headers. Every operation returns a
 * #vexo_t_error_code (below zero a failure) and writes its out-parameters on
 * success only. Strings and blocks handed out are new blocks the caller frees
 * with vexo_free(), except what is lent: a listed name
 * (vexo_dirent_name_unix()), the initial environment
 * (vexo_unix_get_environ() with #VEXO_GET_ENVIRON_OPTION_INITIAL) and the
 * caller's own pointer under a no-copy option.
 *
 * Call vexo_init_process_unix() once before anything else and once with
 * #VEXO_INIT_PROCESS_OPTION_DEINIT at the end. File names are UTF-8. */
#ifndef VEXO_UNIX_H
#define VEXO_UNIX_H

#include "vexo_buf.h"
#include "vexo_core.h"
#include "vexo_errors.h"
#include "vexo_file.h"
#include "vexo_process.h"
#include "vexo_types.h"
#include <vexo/vexo_version.h> /* generated into the build tree */

VEXO_BEGIN_DECLS

/* ---- Text and file names ------------------------------------------------ */

/** vexo_file_name_for_os_unix(): the OS name is the caller's pointer itself.
 * vexo_file_name_from_os_unix(): an ASCII name, or a UTF-8 name that is not
 * normalised, comes back as the caller's pointer itself (nothing to free). */
#define VEXO_FILE_NAME_OPTION_NO_COPY 0x1u
/** A name that is not legal UTF-8 is read as ISO 8859-1 (status 1). */
#define VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK 0x4u
/** No NFC normalisation: the name keeps its bytes (use it to find the file again). */
#define VEXO_FILE_NAME_OPTION_NO_NFC 0x8u

/** Legal UTF-8 input is handed back as the caller's pointer. */
#define VEXO_FROM_OS_OPTION_NO_COPY 0x1u
/** Input that is not legal UTF-8 is read as ISO 8859-1 (status 1). */
#define VEXO_FROM_OS_OPTION_LATIN1_FALLBACK 0x4u

/** @brief A UTF-8 file name as the system's name.
 *
 * The system takes UTF-8 bytes as they are: the text is neither checked nor
 * changed. Pure; safe from any thread.
 *
 * @param[in] utf8_name the name, NUL-terminated.
 * @param[out] pos_name receives a copy the caller frees with vexo_free(), or
 *        under #VEXO_FILE_NAME_OPTION_NO_COPY `utf8_name` itself (not to be
 *        freed); on success only.
 * @param[in] options #VEXO_FILE_NAME_OPTION_NO_COPY or 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when a pointer is null;
 *         #VEXO_E_OUT_OF_MEMORY. */
VEXO_API vexo_t_error_code vexo_file_name_for_os_unix(const char *utf8_name, char **pos_name,
                                                      vexo_t_bits options);

/** @brief A name from the system as NFC UTF-8.
 *
 * ASCII names come back unchanged. Other legal UTF-8 is normalised to NFC
 * (unless #VEXO_FILE_NAME_OPTION_NO_NFC); a name that cannot be normalised
 * comes back as it is. With #VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK a name
 * that is not UTF-8 is read as ISO 8859-1, every byte from 0x80 up becoming
 * two bytes. Either way the result can differ from the bytes on disk: keep
 * the OS name to reach the file again. Safe from any thread.
 *
 * @param[in] senc_path the system's name, NUL-terminated.
 * @param[out] putf8_path receives a new string the caller frees with
 *        vexo_free(); under #VEXO_FILE_NAME_OPTION_NO_COPY it may be
 *        `senc_path` itself (compare the pointers; not to be freed then). On
 *        success only.
 * @param[in] options VEXO_FILE_NAME_OPTION_* bits.
 * @return #VEXO_S_NOERR; 1 (#VEXO_S_TRUE) when the name was read as
 *         ISO 8859-1 (it is then not normalised);
 *         #VEXO_E_ENCODING_INVALID when it is not UTF-8 and there is no
 *         fallback; #VEXO_E_PARAMETER_ERROR when a pointer is null;
 *         #VEXO_E_OUT_OF_MEMORY. */
VEXO_API vexo_t_error_code vexo_file_name_from_os_unix(const char *senc_path, char **putf8_path,
                                                       vexo_t_bits options);

/** @brief The character set of the process's locale.
 *
 * Read from nl_langinfo(CODESET), else from the name of the LC_CTYPE
 * locale; the locale is never changed. Set the locale first
 * (setlocale(LC_ALL, "")) to get the user's.
 *
 * @param[out] pcharset receives a new string ("UTF-8", "ANSI_X3.4-1968",
 *        ...) the caller frees with vexo_free(); on success only.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `pcharset` is null;
 *         #VEXO_E_NOT_FOUND when neither source names one;
 *         #VEXO_E_NOT_SUPPORTED when the locale's name is empty or a path;
 *         #VEXO_E_OUT_OF_MEMORY. */
VEXO_API vexo_t_error_code vexo_unix_default_charset(char **pcharset, vexo_t_bits options);

/** @brief The length of the root of an absolute path.
 * @param[in] utf8_path the path, NUL-terminated.
 * @return 1 for a path beginning with '/'; #VEXO_E_FILE_NOT_ABSOLUTE for
 *         any other; #VEXO_E_PARAMETER_ERROR when `utf8_path` is null. */
VEXO_API vexo_t_error_code vexo_unix_path_root_len(const char *utf8_path);

/* ---- Paths and well-known directories ------------------------------------ */

/** vexo_unix_delete_file(): remove a directory (rmdir) instead of a file (unlink). */
#define VEXO_DELETE_OPTION_DIRECTORY 0x1u
/** With #VEXO_DELETE_OPTION_DIRECTORY: refuse with #VEXO_E_NOT_IMPLEMENTED, touching nothing. */
#define VEXO_DELETE_OPTION_NOT_IMPLEMENTED 0x4u
/** vexo_get_working_directory_unix(): a directory name that is not UTF-8 is read as ISO 8859-1 (status 1). */
#define VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK 0x4u

/** @brief Deletes a file, or an empty directory.
 *
 * Repeated while interrupted by a signal.
 *
 * @param[in] utf8_file the path.
 * @param[in] options #VEXO_DELETE_OPTION_DIRECTORY,
 *        #VEXO_DELETE_OPTION_NOT_IMPLEMENTED or 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `utf8_file` is null;
 *         for a file: #VEXO_E_FILE_IS_DIRECTORY, #VEXO_E_FILE_NOT_FOUND;
 *         for a directory: #VEXO_E_DIR_NOT_EMPTY,
 *         #VEXO_E_FILE_NOT_DIRECTORY, #VEXO_E_NOT_IMPLEMENTED (see the
 *         option); otherwise vexo_map_unix_error() with the fallback
 *         #VEXO_E_FILE_ACCESS (#VEXO_E_FILE_ACCESS, #VEXO_E_PERMISSION_ERROR,
 *         #VEXO_E_FILE_NOT_FOUND, #VEXO_E_INVALID_NAME, ...). */
VEXO_API vexo_t_error_code vexo_unix_delete_file(const char *utf8_file, vexo_t_bits options);
/** @brief Renames a file or directory with one rename(2).
 *
 * An existing target is replaced as rename(2) does. Repeated while
 * interrupted by a signal.
 *
 * @param[in] utf8_oldfile the existing path.
 * @param[in] utf8_newfile the new path.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when a path is null;
 *         otherwise vexo_map_unix_error() with the fallback
 *         #VEXO_E_FILE_ACCESS (#VEXO_E_FILE_NOT_FOUND,
 *         #VEXO_E_NOT_SUPPORTED across file systems, #VEXO_E_DIR_NOT_EMPTY,
 *         ...). */
VEXO_API vexo_t_error_code vexo_unix_rename_file(const char *utf8_oldfile, const char *utf8_newfile,
                                                 vexo_t_bits options);
/** @brief Creates one directory, mode 0777 less the process's umask.
 *
 * Parents are not created. Repeated while interrupted by a signal.
 *
 * @param[in] utf8_dir the path.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `utf8_dir` is null;
 *         otherwise vexo_map_unix_error() with the fallback
 *         #VEXO_E_OS_ERROR (#VEXO_E_FILE_EXISTS, #VEXO_E_FILE_NOT_FOUND for a
 *         missing parent, #VEXO_E_FILE_ACCESS, #VEXO_E_NOSPACE, ...). */
VEXO_API vexo_t_error_code vexo_unix_create_directory(const char *utf8_dir, vexo_t_bits options);
/** @brief Changes the working directory of the process.
 *
 * Process-wide: every thread's relative paths change with it, so the caller
 * serialises it with everything that uses relative paths. chdir is called
 * once; an interruption is reported.
 *
 * @param[in] utf8_dir the new working directory.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `utf8_dir` is null;
 *         otherwise vexo_map_unix_error() with the fallback
 *         #VEXO_E_OS_ERROR (#VEXO_E_FILE_NOT_FOUND,
 *         #VEXO_E_FILE_NOT_DIRECTORY, #VEXO_E_FILE_ACCESS,
 *         #VEXO_E_INTERRUPTED, ...). */
VEXO_API vexo_t_error_code vexo_set_working_directory_unix(const char *utf8_dir, vexo_t_bits options);
/** @brief The working directory of the process, as NFC UTF-8.
 *
 * Names up to 65536 bytes are read.
 *
 * @param[out] putf8_dir receives a new string the caller frees with
 *        vexo_free(); on success only.
 * @param[in] options #VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK or 0.
 * @return #VEXO_S_NOERR; 1 when the name was read as ISO 8859-1;
 *         #VEXO_E_PARAMETER_ERROR when `putf8_dir` is null;
 *         #VEXO_E_ENCODING_INVALID when it is not UTF-8 and there is no
 *         fallback; #VEXO_E_OUT_OF_MEMORY; otherwise vexo_map_unix_error()
 *         with the fallback #VEXO_E_OS_ERROR (#VEXO_E_OVERFLOW when the name
 *         is longer than 65536 bytes, #VEXO_E_FILE_NOT_FOUND when the
 *         directory was removed, #VEXO_E_FILE_ACCESS, ...). */
VEXO_API vexo_t_error_code vexo_get_working_directory_unix(char **putf8_dir, vexo_t_bits options);
/** @brief The directory for temporary files: "TMPDIR" when set and not
 * empty, else "/tmp"; always ending in '/'.
 *
 * Reads the live environment: serialise with threads that change it. The
 * value is taken as it stands (not checked for existence or encoding).
 *
 * @param[out] putf8_dir receives a new string the caller frees with
 *        vexo_free(); on success only.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `putf8_dir` is null;
 *         #VEXO_E_OUT_OF_MEMORY. */
VEXO_API vexo_t_error_code vexo_unix_temp_directory(char **putf8_dir, vexo_t_bits options);

/* ---- File status and access ------------------------------------------------- */

/** @brief The status of a file (links followed).
 *
 * Access bits are judged from the permission bits and the effective user
 * and group ids, so root gets no exception. Repeated while interrupted.
 *
 * @param[in] utf8_path the path.
 * @param[out] info the record to fill (fields not asked for are set to 0,
 *        the caller's fields are untouched); null for an existence and type
 *        test. Written on success only.
 * @param[in] options VEXO_STAT_OPTION_* bits (vexo_file.h).
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `utf8_path` is null;
 *         #VEXO_E_FILE_NOT_DIRECTORY or #VEXO_E_FILE_IS_DIRECTORY when a
 *         REQUIRE option is not met; #VEXO_E_OUT_OF_MEMORY or
 *         #VEXO_E_OS_ERROR while finding the caller's groups (with
 *         #VEXO_STAT_OPTION_ACCESS); otherwise vexo_map_unix_error() with the
 *         fallback #VEXO_E_FILE_NOT_FOUND (#VEXO_E_FILE_NOT_FOUND,
 *         #VEXO_E_FILE_ACCESS, #VEXO_E_FILE_NOT_DIRECTORY for a path
 *         through a file, #VEXO_E_INVALID_NAME, #VEXO_E_OVERFLOW, ...). */
VEXO_API vexo_t_error_code vexo_stat_unix(const char *utf8_path, vexo_t_stat *info, vexo_t_bits options);

/** The file must be executable (ignored for a directory). */
#define VEXO_ACCESS_OPTION_EXECUTE 0x1u
/** The path must be writable. */
#define VEXO_ACCESS_OPTION_WRITE 0x2u
/** The path must be readable. */
#define VEXO_ACCESS_OPTION_READ 0x4u
/** An existing path must be writable; a missing one, its parent directory
 * (found in the name alone, so a relative name has none). */
#define VEXO_ACCESS_OPTION_CREATE 0x8u
/** The directory must be searchable (ignored for a file). */
#define VEXO_ACCESS_OPTION_SEARCH 0x10u
/** The path must be a directory; without it, it must not be one. */
#define VEXO_ACCESS_OPTION_DIRECTORY 0x20u
/** The path must exist and be a regular file. */
#define VEXO_ACCESS_OPTION_REGULAR 0x40u

/** @brief Whether the calling process may use a path as the options ask.
 *
 * Judged from the permission bits of the caller's class (owner, group or
 * others, by the effective ids), like vexo_stat_unix(); nothing is opened or
 * created, and root gets no exception.
 *
 * @param[in] utf8_path the path.
 * @param[in] options VEXO_ACCESS_OPTION_* bits.
 * @return #VEXO_S_NOERR when it may; #VEXO_E_FILE_ACCESS when a bit is
 *         missing or #VEXO_ACCESS_OPTION_REGULAR meets another kind of file;
 *         #VEXO_E_FILE_IS_DIRECTORY or #VEXO_E_FILE_NOT_DIRECTORY against
 *         #VEXO_ACCESS_OPTION_DIRECTORY; #VEXO_E_FILE_NOT_FOUND when the path
 *         (or, to create, its parent) is missing; #VEXO_E_PARAMETER_ERROR
 *         when `utf8_path` is null; #VEXO_E_OUT_OF_MEMORY;
 *         #VEXO_E_OS_ERROR while finding the caller's groups; otherwise
 *         vexo_map_unix_error() of stat's error. */
VEXO_API vexo_t_error_code vexo_unix_test_file_access(const char *utf8_path, vexo_t_bits options);

/* ---- User and group names ----------------------------------------------- */

/** @brief The name of a user id, from the user database.
 *
 * The name's bytes as the database has them (not necessarily UTF-8). Each
 * call has its own buffer; calls may run in parallel.
 *
 * @param[in] uid the user id.
 * @param[out] pname receives a new string the caller frees with vexo_free();
 *        on success only.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `pname` is null;
 *         #VEXO_E_NOT_FOUND when the id has no entry; #VEXO_E_OUT_OF_MEMORY;
 *         otherwise vexo_map_unix_error() with the fallback
 *         #VEXO_E_OS_ERROR (#VEXO_E_OVERFLOW for an entry larger than the
 *         size the system names, ...). */
VEXO_API vexo_t_error_code vexo_user_id_name_unix(vexo_t_uid uid, char **pname, vexo_t_bits options);
/** @brief The name of a group id, from the group database.
 *
 * As vexo_user_id_name_unix().
 *
 * @param[in] gid the group id.
 * @param[out] pname receives a new string the caller frees with vexo_free();
 *        on success only.
 * @param[in] options none are defined; pass 0.
 * @return as vexo_user_id_name_unix(). */
VEXO_API vexo_t_error_code vexo_group_id_name_unix(vexo_t_gid gid, char **pname, vexo_t_bits options);

/* ---- OS file handles ------------------------------------------------------- */

/** vexo_os_file_handle_close_unix(): a failing close is reported as success. */
#define VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS 0x1u
/** vexo_os_file_handle_close_unix(): close at once, without recognising sockets first. */
#define VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK 0x2u

/** @brief Opens a file.
 *
 * Repeated while interrupted. The handle is made close-on-exec (best
 * effort), so children do not inherit it.
 *
 * @param[in] utf8_pathname the path.
 * @param[in] oflag open(2) flags, passed unchanged.
 * @param[in] mode open(2) mode for a file created, passed unchanged.
 * @param[out] pfd receives the handle, which the caller closes with
 *        vexo_os_file_handle_close_unix(); on success only.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `utf8_pathname` is
 *         null; otherwise vexo_map_unix_error() with the fallback
 *         #VEXO_E_OPEN_ERROR (#VEXO_E_FILE_NOT_FOUND, #VEXO_E_FILE_ACCESS,
 *         #VEXO_E_FILE_EXISTS, #VEXO_E_FILE_IS_DIRECTORY,
 *         #VEXO_E_TOO_MANY_OPEN_FILES, ...). */
VEXO_API vexo_t_error_code vexo_unix_open_file(const char *utf8_pathname, int oflag, mode_t mode,
                                               vexo_t_os_file_handle *pfd);
/** @brief The current position of a handle.
 * @param[in] hFile the handle.
 * @param[out] ppos receives the position in bytes; on success only.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; otherwise vexo_map_unix_error() of lseek's error
 *         with the fallback #VEXO_E_OS_ERROR (#VEXO_E_INVALID_STATE for a bad
 *         handle, #VEXO_E_SEEK_ERROR for a pipe or socket, ...). */
VEXO_API vexo_t_error_code vexo_unix_file_pos(vexo_t_os_file_handle hFile, vexo_t_offset *ppos,
                                              vexo_t_bits options);
/** @brief The size of the regular file behind a handle.
 * @param[in] hFile the handle.
 * @param[out] psize receives the size in bytes; on success only.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_NOT_SUPPORTED for anything but a regular
 *         file; otherwise vexo_map_unix_error() of fstat's error with the
 *         fallback #VEXO_E_OS_ERROR (#VEXO_E_INVALID_STATE for a bad
 *         handle, ...). */
VEXO_API vexo_t_error_code vexo_unix_file_size(vexo_t_os_file_handle hFile, vexo_t_offset *psize,
                                               vexo_t_bits options);
/** @brief What kind of object a handle refers to.
 * @param[in] hFile the handle.
 * @return #VEXO_DEVICE_TYPE_TTY for any terminal, else the kind from fstat;
 *         #VEXO_DEVICE_TYPE_ILLEGAL for -1 or a handle the system rejects. */
VEXO_API vexo_t_device_type vexo_unix_device_type(vexo_t_os_file_handle hFile);
/** @brief Closes a handle.
 *
 * A socket goes to vexo_socket_close() unless
 * #VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK. close is called once, never
 * repeated: after an interruption the handle is already released.
 *
 * @param[in] hFile the handle; released whatever the result.
 * @param[in] options VEXO_HANDLE_CLOSE_OPTION_* bits.
 * @return #VEXO_S_NOERR; otherwise vexo_map_unix_error() with the fallback
 *         #VEXO_E_CLOSE_ERROR (#VEXO_E_INVALID_STATE for a bad handle,
 *         #VEXO_E_INTERRUPTED, #VEXO_E_IO_ERROR, ...). */
VEXO_API vexo_t_error_code vexo_os_file_handle_close_unix(vexo_t_os_file_handle hFile, vexo_t_bits options);

/* ---- Directory listing ---------------------------------------------------------- */

/** Deliver only entries whose status (links followed) is a directory. */
#define VEXO_DIR_OPTION_DIRECTORIES_ONLY 0x1u
/** Deliver only entries whose status is not a directory (dangling links are left out too). */
#define VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY 0x2u

/** Entry flag: the listing delivers directories only. */
#define VEXO_DIRENT_FLAG_DIRECTORIES_ONLY 0x1u
/** Entry flag: the listing delivers non-directories only. */
#define VEXO_DIRENT_FLAG_NON_DIRECTORIES_ONLY 0x2u
/** Entry flag: the entry's UTF-8 name is a block of the listing's own. */
#define VEXO_DIRENT_FLAG_UTF8_NAME_OWNED 0x4u

/** @brief Opens a directory listing.
 *
 * Entries come in the system's order, "." and ".." included. A listing
 * belongs to one thread at a time.
 *
 * @param[in] utf8_path the directory.
 * @param[out] pdir receives the listing, which the caller releases with
 *        vexo_close_directory_unix(); on success only.
 * @param[in] options #VEXO_DIR_OPTION_DIRECTORIES_ONLY,
 *        #VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY or 0.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `utf8_path` is null;
 *         #VEXO_E_OUT_OF_MEMORY; otherwise vexo_map_unix_error() with the
 *         fallback #VEXO_E_OS_ERROR (#VEXO_E_FILE_NOT_FOUND,
 *         #VEXO_E_FILE_NOT_DIRECTORY, #VEXO_E_FILE_ACCESS,
 *         #VEXO_E_TOO_MANY_OPEN_FILES, ...). */
VEXO_API vexo_t_error_code vexo_open_directory_unix(const char *utf8_path, vexo_t_dir **pdir,
                                                    vexo_t_bits options);
/** @brief The next entry of a listing.
 *
 * With a filter each candidate is stat'ed; entries removed meanwhile are
 * passed over.
 *
 * @param[in,out] dir the listing.
 * @param[out] pent receives the listing's one entry record, lent: it is
 *        reused by the next read and released by the close. On success only.
 * @param[in] options none are defined; pass 0.
 * @return #VEXO_S_NOERR; #VEXO_E_NO_MORE_ENTRIES at the end;
 *         #VEXO_E_OUT_OF_MEMORY while building a filtered entry's path;
 *         otherwise vexo_map_unix_error() of readdir's error with the
 *         fallback #VEXO_E_OS_ERROR. */
VEXO_API vexo_t_error_code vexo_read_directory_unix(vexo_t_dir *dir, vexo_t_dirent **pent,
                                                    vexo_t_bits options);
/** @brief The name of the current entry, as NFC UTF-8.
 *
 * A name that is not UTF-8 is refused rather than rescued; a listed name can
 * still differ from the bytes on disk (NFC), so keep the OS name, or convert
 * it with vexo_file_name_from_os_unix() and #VEXO_FILE_NAME_OPTION_NO_NFC, to
 * reach the file again.
 *
 * @param[in,out] ent the entry from vexo_read_directory_unix().
 * @param[out] name receives the name, lent by the listing: valid until the
 *        next read, name request or close; never freed by the caller. On
 *        success only.
 * @return #VEXO_S_NOERR; #VEXO_E_INVALID_NAME when the name is not UTF-8;
 *         #VEXO_E_OUT_OF_MEMORY. */
VEXO_API vexo_t_error_code vexo_dirent_name_unix(vexo_t_dirent *ent, const char **name);
/** @brief Closes a listing and releases it, its entry record and names.
 * @param[in] dir the listing; null is ignored. */
VEXO_API void vexo_close_directory_unix(vexo_t_dir *dir);

/* ---- Child processes ---------------------------------------------------------- */

/** @name Child process options (vexo_unix_process_create())
 * Per stream, the first of inherit, null device and pipe that is set
 * decides; every stream needs one of its three bits.
 * @{ */
/** Standard input: the parent's. */
#define VEXO_PROCESS_CREATE_OPTION_STDIN_INHERIT 0x1u
/** Standard input: "/dev/null". */
#define VEXO_PROCESS_CREATE_OPTION_STDIN_NULL 0x2u
/** Standard input: a pipe whose writing end the parent gets. */
#define VEXO_PROCESS_CREATE_OPTION_STDIN_PIPE 0x4u
/** Standard output: the parent's. */
#define VEXO_PROCESS_CREATE_OPTION_STDOUT_INHERIT 0x8u
/** Standard output: "/dev/null". */
#define VEXO_PROCESS_CREATE_OPTION_STDOUT_NULL 0x10u
/** Standard output: a pipe whose reading end the parent gets. */
#define VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE 0x20u
/** Standard error: the parent's. */
#define VEXO_PROCESS_CREATE_OPTION_STDERR_INHERIT 0x40u
/** Standard error: "/dev/null". */
#define VEXO_PROCESS_CREATE_OPTION_STDERR_NULL 0x80u
/** Standard error: a pipe whose reading end the parent gets. */
#define VEXO_PROCESS_CREATE_OPTION_STDERR_PIPE 0x100u
/** The child calls setsid first. */
#define VEXO_PROCESS_CREATE_OPTION_NEW_SESSION 0x400u
/** `cmd_utf8` is a command line for the user's shell ("SHELL", else /bin/sh), run with -c. */
#define VEXO_PROCESS_CREATE_OPTION_SHELL 0x4000u
/** The child's environment is built from `env_utf8` over the inherited one. */
#define VEXO_PROCESS_CREATE_OPTION_ENV 0x20000u
/** With #VEXO_PROCESS_CREATE_OPTION_ENV: over an empty environment instead. */
#define VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT 0x80000u
/** With #VEXO_PROCESS_CREATE_OPTION_ENV: `env_utf8` holds "KEY=VALUE"
 * entries; without it, key NUL value entries. */
#define VEXO_PROCESS_CREATE_OPTION_ENV_COMPACT_FLAG 0x100000u

/** @} */

/** vexo_unix_process_wait(): fail with #VEXO_E_WOULD_BLOCK instead of blocking on a running child. */
#define VEXO_PROCESS_WAIT_OPTION_NONBLOCKING 0x1u
/** vexo_unix_process_wait(): wait for the child's end; required (the only event waited for). */
#define VEXO_PROCESS_WAIT_OPTION_EXIT 0x2u
/** vexo_unix_process_wait(): a caught signal ends the wait with #VEXO_E_INTERRUPTED instead of restarting it.
 */
#define VEXO_PROCESS_WAIT_OPTION_INTERRUPTIBLE 0x4u
/** vexo_unix_process_wait(): no sweep of released children first. */
#define VEXO_PROCESS_WAIT_OPTION_NO_SWEEP 0x8u

/** vexo_unix_process_release(): a child that still runs is kept, to be reaped by a later wait or the
 * shutdown. */
#define VEXO_PROCESS_RELEASE_OPTION_REAP_LATER 0x1u
/** vexo_unix_process_release(): do nothing at all; takes precedence over REAP_LATER. */
#define VEXO_PROCESS_RELEASE_OPTION_FORGET 0x2u

/** @brief Starts a child process.
 *
 * Everything that can fail is prepared before the fork; the child then
 * moves its streams into place, changes to `cwd_utf8` and executes, ending
 * with exit status 1 at the first failure (a missing program included). The
 * program path is used as it is (no search of PATH), relative to
 * `cwd_utf8`. Reads the live environment for the child's: serialise with
 * threads that change it. Process-wide: a child not waited for is recorded
 * in the library's list of released children, which the caller serialises
 * with the other process calls. Waits need SIGCHLD not to be ignored.
 *
 * @param[in] cmd_utf8 the program's path, or with
 *        #VEXO_PROCESS_CREATE_OPTION_SHELL a command line for the shell.
 * @param[in] params_utf8 the arguments after the program name: a
 *        null-terminated array of property lists, one per argument, whose
 *        "string" and "file" entries (`v.u.string`) are concatenated; null
 *        for none. The caller's; copied.
 * @param[in] cwd_utf8 the child's working directory ("." for the parent's).
 * @param[in] env_utf8 with #VEXO_PROCESS_CREATE_OPTION_ENV, a
 *        null-terminated list of entries over the inherited environment
 *        (the entries win); ignored otherwise; the caller's, copied.
 * @param[out] pstdin_parent_fd_wr receives the parent's writing end of the
 *        child's standard input (-1 unless a pipe); may be null.
 * @param[out] pstdout_parent_fd_rd receives the parent's reading end of the
 *        child's standard output (-1 unless a pipe); may be null.
 * @param[out] pstderr_parent_fd_rd receives the parent's reading end of the
 *        child's standard error (-1 unless a pipe); may be null.
 * @param[out] processp receives the child's handle, to wait for or release;
 *        may be null, and the child is then released at once and reaped by
 *        a later wait, release or the shutdown.
 * @param[in] options VEXO_PROCESS_CREATE_OPTION_* bits; one of each
 *        stream's three bits is required.
 *
 * Pipe ends are close-on-exec; the caller closes each end it receives
 * (vexo_os_file_handle_close_unix()), and ends whose pointer is null are
 * closed here. Out-parameters are written on success only.
 *
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `cmd_utf8` or
 *         `cwd_utf8` is null, or with ENV and ENV_NO_INHERIT `env_utf8` is
 *         empty; #VEXO_E_INTERNAL_ERROR when a stream has none of its bits;
 *         #VEXO_E_OUT_OF_MEMORY (an argument list with a key other than
 *         "string" or "file" gives this too); #VEXO_E_TRY_AGAIN when the
 *         environment changed while it was copied; otherwise
 *         vexo_map_unix_error() with the fallback #VEXO_E_OS_ERROR of the
 *         failing pipe, open, dup or fork (#VEXO_E_TOO_MANY_OPEN_FILES,
 *         #VEXO_E_WOULD_BLOCK when no process can be made, ...); in
 *         particular vexo_map_unix_error(EBADF, VEXO_E_OS_ERROR) when the
 *         caller's own descriptor for a stream to inherit is closed, found
 *         before anything is made: a descriptor made for another stream
 *         would otherwise take its number and reach the child in its place.
 *
 * vexo_unix_process_spawn() starts the same child through posix_spawn.
 */
VEXO_API vexo_t_error_code vexo_unix_process_create(const char *cmd_utf8, const vexo_t_property **params_utf8,
                                                    const char *cwd_utf8, const char *const *env_utf8,
                                                    vexo_t_os_file_handle *pstdin_parent_fd_wr,
                                                    vexo_t_os_file_handle *pstdout_parent_fd_rd,
                                                    vexo_t_os_file_handle *pstderr_parent_fd_rd,
                                                    vexo_t_os_process_handle *processp, vexo_t_bits options);

/**
 * @brief Starts a child like vexo_unix_process_create(), through posix_spawn
 *        instead of fork: same cost from a large parent, failures to start
 *        reported, safe from several threads.
 *
 * Parameters, option bits and their meaning are those of
 * vexo_unix_process_create(): the three stream modes and their precedence,
 * the argument vector (direct and shell starts, "SHELL"), the environment
 * (inherited, or built and merged from `env_utf8`), the new session and the
 * working directory. The handle is waited for, signalled and released with
 * the same calls. The differences:
 * - the start does not copy the parent's address space, so its cost does not
 *   grow with the parent's memory;
 * - a program that is missing or cannot be executed, a missing working
 *   directory, or any other failure before the program runs is returned
 *   as vexo_map_unix_error(errno, VEXO_E_OS_ERROR) (e.g.
 *   VEXO_E_FILE_NOT_FOUND, VEXO_E_FILE_ACCESS); no child is left behind, not
 *   even one to reap, and no out-parameter is written;
 * - every descriptor the call makes is close-on-exec from the moment it
 *   exists, and only the child's set-up puts the child's ends on 0, 1 and 2.
 *
 * @param[in]  cmd_utf8   program path (used as it is, no PATH search, relative
 *                        to `cwd_utf8`) or, with VEXO_PROCESS_CREATE_OPTION_SHELL,
 *                        the command line given to the shell with "-c".
 * @param[in]  params_utf8 null, or a null-terminated array of property lists,
 *                        one per argument; the "string" and "file" entries of a
 *                        list are concatenated. Any other key:
 *                        VEXO_E_OUT_OF_MEMORY.
 * @param[in]  cwd_utf8   the child's working directory; required.
 * @param[in]  env_utf8   with VEXO_PROCESS_CREATE_OPTION_ENV, the caller's
 *                        entries (key NUL value NUL, or KEY=VALUE with
 *                        VEXO_PROCESS_CREATE_OPTION_ENV_COMPACT_FLAG), put
 *                        over the inherited environment (or over an empty one
 *                        with VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT).
 * @param[out] pstdin_parent_fd_wr  null, or receives the write end of the
 *                        input pipe (-1 when standard input is not a pipe).
 * @param[out] pstdout_parent_fd_rd null, or receives the read end of the output
 *                        pipe (-1 when not a pipe).
 * @param[out] pstderr_parent_fd_rd null, or receives the read end of the error
 *                        pipe (-1 when not a pipe). The caller owns the ends it
 *                        receives (close-on-exec) and closes them with
 *                        vexo_os_file_handle_close_unix(); ends it did not ask
 *                        for are closed before the call returns.
 * @param[out] processp   null, or receives the child's handle; with null the
 *                        child is released at once into the list of children
 *                        that later waits and releases reap.
 * @param[in]  options    VEXO_PROCESS_CREATE_OPTION_* bits, one mode per stream.
 * @return VEXO_S_NOERR once the program runs in the child;
 *         VEXO_E_PARAMETER_ERROR for a null `cmd_utf8` or `cwd_utf8`, or for
 *         ENV_NO_INHERIT without entries; VEXO_E_INTERNAL_ERROR for a stream
 *         without a mode; vexo_map_unix_error(EBADF, VEXO_E_OS_ERROR) when a
 *         stream to inherit is closed in the caller (checked before anything
 *         is made); VEXO_E_OUT_OF_MEMORY; the mapped errno of a failed
 *         pipe, open or start.
 *
 * Threads: calls of this function may run at the same time from several
 * threads, and a child started by one never holds a descriptor made by
 * another, provided that no thread changes the environment meanwhile (an
 * inherited or merged environment is read from it) and that `processp` is
 * given: the list of released children is process-wide and unlocked, so a
 * start without `processp` must be serialised with waits and releases. Not
 * with vexo_unix_process_create(), whose child ends are inheritable until
 * its child has them.
 */
VEXO_API vexo_t_error_code vexo_unix_process_spawn(const char *cmd_utf8, const vexo_t_property **params_utf8,
                                                   const char *cwd_utf8, const char *const *env_utf8,
                                                   vexo_t_os_file_handle *pstdin_parent_fd_wr,
                                                   vexo_t_os_file_handle *pstdout_parent_fd_rd,
                                                   vexo_t_os_file_handle *pstderr_parent_fd_rd,
                                                   vexo_t_os_process_handle *processp, vexo_t_bits options);
/** @brief The process id of a handle (the same number).
 * @param[in] process the handle.
 * @param[out] pid receives the id; on success only.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `process` is not above
 *         0 or `pid` is null. */
VEXO_API vexo_t_error_code vexo_unix_process_id(vexo_t_os_process_handle process, vexo_t_pid *pid);
/** @brief The handle of a process id (the same number).
 * @param[in] pid the id.
 * @param[out] process receives the handle; on success only.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `pid` is not above 0
 *         or `process` is null. */
VEXO_API vexo_t_error_code vexo_unix_process_from_id(vexo_t_pid pid, vexo_t_os_process_handle *process);
/** @brief The id of the calling process.
 * @param[out] pid receives the id; on success only.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `pid` is null. */
VEXO_API vexo_t_error_code vexo_unix_process_self_id(vexo_t_pid *pid);
/** @brief Waits for a child to end, reaps it and says how it ended.
 *
 * First reaps released children that have ended (unless
 * #VEXO_PROCESS_WAIT_OPTION_NO_SWEEP), even when the arguments are bad. An
 * interrupted wait is restarted unless
 * #VEXO_PROCESS_WAIT_OPTION_INTERRUPTIBLE. Process-wide: the list of
 * released children is unlocked, so the caller serialises process calls.
 * SIGCHLD must not be ignored (SIG_IGN makes the system reap children
 * itself, and the wait finds none).
 *
 * @param[in] process the child's handle.
 * @param[in] timeout must be null.
 * @param[out] exit_status receives how the child ended; may be null; on
 *        success only.
 * @param[in] options VEXO_PROCESS_WAIT_OPTION_* bits;
 *        #VEXO_PROCESS_WAIT_OPTION_EXIT is required.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `process` is not above
 *         0; #VEXO_E_NOT_SUPPORTED with a timeout or without
 *         #VEXO_PROCESS_WAIT_OPTION_EXIT; #VEXO_E_WOULD_BLOCK when
 *         non-blocking and the child still runs; #VEXO_E_NOT_FOUND when it
 *         is not a child of this process or was already reaped;
 *         #VEXO_E_INTERRUPTED when interruptible and a signal came. */
VEXO_API vexo_t_error_code vexo_unix_process_wait(vexo_t_os_process_handle process, vexo_t_timespec *timeout,
                                                  vexo_t_process_exit_status *exit_status,
                                                  vexo_t_bits options);
/** @brief Gives up a child handle: reaps the child if it has ended.
 *
 * Process-wide, like vexo_unix_process_wait() (it sweeps the list of
 * released children first, and may add to it): serialise process calls.
 *
 * @param[in] process the child's handle.
 * @param[in] options VEXO_PROCESS_RELEASE_OPTION_* bits.
 * @return #VEXO_S_NOERR when the child was reaped, kept for later
 *         (#VEXO_PROCESS_RELEASE_OPTION_REAP_LATER) or forgotten
 *         (#VEXO_PROCESS_RELEASE_OPTION_FORGET); #VEXO_E_WOULD_BLOCK when it
 *         still runs and neither option is given; #VEXO_E_OUT_OF_MEMORY when
 *         it cannot be recorded; otherwise the failures of
 *         vexo_unix_process_wait() (#VEXO_E_NOT_FOUND,
 *         #VEXO_E_PARAMETER_ERROR). */
VEXO_API vexo_t_error_code vexo_unix_process_release(vexo_t_os_process_handle process, vexo_t_bits options);
/** @brief Sends a signal to a process (kill(2)).
 * @param[in] process the handle.
 * @param[in] signo the system's signal number (SIGTERM, ...); 0 only tests.
 * @param[in] options none are defined; ignored.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `process` is not above
 *         0 or the signal is not valid; #VEXO_E_NOT_FOUND when there is no
 *         such process; #VEXO_E_PERMISSION_ERROR when it may not be
 *         signalled. */
VEXO_API vexo_t_error_code vexo_unix_process_kill(vexo_t_os_process_handle process, int signo,
                                                  vexo_t_bits options);

/* ---- Start-up, shutdown and the environment --------------------------------- */

/** vexo_init_process_unix(): shut the back end down instead of starting it. */
#define VEXO_INIT_PROCESS_OPTION_DEINIT 0x1u

/** vexo_unix_get_environ(): lend the initial environment (taken at start-up) itself. */
#define VEXO_GET_ENVIRON_OPTION_INITIAL 0x1u
/** vexo_unix_get_environ(): a new copy of the current environment, owned by the caller. */
#define VEXO_GET_ENVIRON_OPTION_CURRENT 0x2u
/** vexo_unix_get_environ(), with INITIAL only: take the initial environment again first. */
#define VEXO_GET_ENVIRON_OPTION_REFRESH 0x4u

/** vexo_unix_getenv(): look in the initial environment; #VEXO_E_INVALID_STATE when there is none. */
#define VEXO_GETENV_OPTION_INITIAL 0x1u
/** vexo_unix_getenv(): look in the live environment. */
#define VEXO_GETENV_OPTION_CURRENT 0x2u

/** @brief Starts the back end up, or shuts it down.
 *
 * Start-up comes before any other call of this header: it takes the
 * initial environment, a UTF-8 snapshot of the environment (entries that are
 * not UTF-8 read as ISO 8859-1), and empties the list of released children.
 * Shutdown, with #VEXO_INIT_PROCESS_OPTION_DEINIT, comes after the last:
 * it releases the snapshot (pointers lent from it die), reaps released
 * children that have ended and forgets the rest. Both touch process-wide
 * state and are not thread-safe: call them while no other thread uses the
 * library.
 *
 * @param[in] options #VEXO_INIT_PROCESS_OPTION_DEINIT or 0.
 * @return #VEXO_S_NOERR, always at start-up: without memory for the
 *         snapshot the back end runs without an initial environment, and
 *         look-ups read the live one. */
VEXO_API vexo_t_error_code vexo_init_process_unix(vexo_t_bits options);
/** @brief The environment as a compact environment, every entry UTF-8.
 *
 * One block: the null-terminated pointer array, then the entries, each
 * key NUL value NUL; entries that are not UTF-8 are read as ISO 8859-1.
 * #VEXO_GET_ENVIRON_OPTION_INITIAL lends the snapshot taken at start-up;
 * #VEXO_GET_ENVIRON_OPTION_CURRENT copies the live environment (serialise
 * with threads that change it). REFRESH replaces the snapshot, which ends
 * every pointer lent from it: process-wide, serialise with every user of the
 * initial environment.
 *
 * @param[out] penv with INITIAL, receives the snapshot, lent until the
 *        next refresh or the shutdown and never freed by the caller (null
 *        when there is none); with CURRENT, a new block the caller frees
 *        with one vexo_free(). On success only.
 * @param[out] psize receives the block's size in bytes (0 when there is no
 *        snapshot); may be null.
 * @param[in] options #VEXO_GET_ENVIRON_OPTION_INITIAL (with REFRESH) or
 *        #VEXO_GET_ENVIRON_OPTION_CURRENT.
 * @return #VEXO_S_NOERR; #VEXO_E_PARAMETER_ERROR when `penv` is null, when
 *         neither INITIAL nor CURRENT is given, or CURRENT comes with
 *         INITIAL or REFRESH; #VEXO_E_OUT_OF_MEMORY; #VEXO_E_TRY_AGAIN when
 *         the environment changed while it was copied. */
VEXO_API vexo_t_error_code vexo_unix_get_environ(char ***penv, size_t *psize, vexo_t_bits options);
/** @brief Copies the value of one variable into the caller's buffer.
 *
 * Looks in the initial environment (UTF-8; the first of duplicate keys
 * wins) unless #VEXO_GETENV_OPTION_CURRENT or there is none; the live
 * environment gives the value's bytes as they are. Reading the live
 * environment races with threads that change it, and reading the snapshot
 * with a refresh or the shutdown: the caller serialises them.
 *
 * @param[in] key the variable's name, compared byte for byte.
 * @param[out] buf receives the value and its NUL; untouched on failure; may
 *        be null when `*psize` is 0 (to ask for the size).
 * @param[in,out] psize in: the capacity of `buf`; out: the size the value
 *        needs with its NUL, also with #VEXO_E_INSUFFICIENT_BUFFER.
 * @param[in] options #VEXO_GETENV_OPTION_INITIAL, #VEXO_GETENV_OPTION_CURRENT
 *        or 0 (the initial environment when there is one).
 * @return #VEXO_S_NOERR; #VEXO_E_NOT_FOUND when the variable is not set;
 *         #VEXO_E_INSUFFICIENT_BUFFER when `buf` is too small;
 *         #VEXO_E_INVALID_STATE with INITIAL and no initial environment;
 *         #VEXO_E_PARAMETER_ERROR when `key` or `psize` is null, or `buf` is
 *         null with a capacity. */
VEXO_API vexo_t_error_code vexo_unix_getenv(const char *key, void *buf, size_t *psize, vexo_t_bits options);
/** @brief The order of environment keys.
 *
 * Bytes compare unsigned, a prefix comes first, and the overlong NUL
 * 0xC0 0x80 sorts below every other byte. A key ends at its NUL.
 * Pure; safe from any thread.
 *
 * @param[in] skey1 a NUL-terminated key.
 * @param[in] skey2 another.
 * @return -1, 0 or 1 as `skey1` sorts before, with or after `skey2`. */
VEXO_API int vexo_unix_compare_environment_keys(const char *skey1, const char *skey2);

VEXO_END_DECLS

#endif /* VEXO_UNIX_H */
