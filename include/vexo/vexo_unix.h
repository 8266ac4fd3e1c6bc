/* The Unix back end of the I/O layer: every exported operation and its
 * option bits. Includes the other public headers. */
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

/* vexo_file_name_for_os_unix: the OS name is the caller's pointer itself.
 * vexo_file_name_from_os_unix: an ASCII name, or a UTF-8 name that is not
 * normalised, comes back as the caller's pointer itself. */
#define VEXO_FILE_NAME_OPTION_NO_COPY 0x1u
/* A name that is not legal UTF-8 is read as ISO 8859-1 (status 1). */
#define VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK 0x4u
/* No NFC normalisation. */
#define VEXO_FILE_NAME_OPTION_NO_NFC 0x8u

/* Legal UTF-8 input is handed back as the caller's pointer. */
#define VEXO_FROM_OS_OPTION_NO_COPY 0x1u
/* Input that is not legal UTF-8 is read as ISO 8859-1 (status 1). */
#define VEXO_FROM_OS_OPTION_LATIN1_FALLBACK 0x4u

/* UTF-8 file name to OS name; a copy, or the caller's pointer under
 * VEXO_FILE_NAME_OPTION_NO_COPY. The text is neither checked nor changed. */
VEXO_API vexo_t_error_code vexo_file_name_for_os_unix(const char *utf8_name, char **pos_name,
                                                      vexo_t_bits options);

/* OS file name to NFC UTF-8. Returns 0, or 1 when the name was not UTF-8
 * and was read as ISO 8859-1 (then it is not normalised). */
VEXO_API vexo_t_error_code vexo_file_name_from_os_unix(const char *senc_path, char **putf8_path,
                                                       vexo_t_bits options);

/* The character set of the process's locale, as a new string. */
VEXO_API vexo_t_error_code vexo_unix_default_charset(char **pcharset, vexo_t_bits options);

/* 1 for a path beginning with '/', else VEXO_E_FILE_NOT_ABSOLUTE. */
VEXO_API vexo_t_error_code vexo_unix_path_root_len(const char *utf8_path);

/* ---- Paths and well-known directories ------------------------------------ */

/* rmdir instead of unlink. */
#define VEXO_DELETE_OPTION_DIRECTORY 0x1u
/* With VEXO_DELETE_OPTION_DIRECTORY: refuse with VEXO_E_NOT_IMPLEMENTED. */
#define VEXO_DELETE_OPTION_NOT_IMPLEMENTED 0x4u
/* A working directory that is not UTF-8 is read as ISO 8859-1 (status 1). */
#define VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK 0x4u

VEXO_API vexo_t_error_code vexo_unix_delete_file(const char *utf8_file, vexo_t_bits options);
VEXO_API vexo_t_error_code vexo_unix_rename_file(const char *utf8_oldfile, const char *utf8_newfile,
                                                 vexo_t_bits options);
VEXO_API vexo_t_error_code vexo_unix_create_directory(const char *utf8_dir, vexo_t_bits options);
VEXO_API vexo_t_error_code vexo_set_working_directory_unix(const char *utf8_dir, vexo_t_bits options);
VEXO_API vexo_t_error_code vexo_get_working_directory_unix(char **putf8_dir, vexo_t_bits options);
/* "TMPDIR", else "/tmp"; always ends in '/'. */
VEXO_API vexo_t_error_code vexo_unix_temp_directory(char **putf8_dir, vexo_t_bits options);

/* ---- File status and access ------------------------------------------------- */

/* `info` may be null (an existence and type test); it is written only on
 * success. Options and record: vexo_file.h. */
VEXO_API vexo_t_error_code vexo_stat_unix(const char *utf8_path, vexo_t_stat *info, vexo_t_bits options);

#define VEXO_ACCESS_OPTION_EXECUTE 0x1u
#define VEXO_ACCESS_OPTION_WRITE 0x2u
#define VEXO_ACCESS_OPTION_READ 0x4u
/* An existing path must be writable; a missing one, its parent directory. */
#define VEXO_ACCESS_OPTION_CREATE 0x8u
#define VEXO_ACCESS_OPTION_SEARCH 0x10u
/* The path must be a directory; without it, it must not be one. */
#define VEXO_ACCESS_OPTION_DIRECTORY 0x20u
/* The path must exist and be a regular file. */
#define VEXO_ACCESS_OPTION_REGULAR 0x40u

/* VEXO_S_NOERR when the calling process may use the path as the options
 * ask, judged from the permission bits; otherwise the reason. */
VEXO_API vexo_t_error_code vexo_unix_test_file_access(const char *utf8_path, vexo_t_bits options);

/* ---- User and group names ----------------------------------------------- */

/* The database's name bytes as they are, as a new string. */
VEXO_API vexo_t_error_code vexo_user_id_name_unix(vexo_t_uid uid, char **pname, vexo_t_bits options);
VEXO_API vexo_t_error_code vexo_group_id_name_unix(vexo_t_gid gid, char **pname, vexo_t_bits options);

/* ---- OS file handles ------------------------------------------------------- */

/* A failing close is reported as success. */
#define VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS 0x1u
/* close() at once, without recognising sockets first. */
#define VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK 0x2u

/* `oflag` and `mode` go to open(2) unchanged; the handle is close-on-exec. */
VEXO_API vexo_t_error_code vexo_unix_open_file(const char *utf8_pathname, int oflag, mode_t mode,
                                               vexo_t_os_file_handle *pfd);
VEXO_API vexo_t_error_code vexo_unix_file_pos(vexo_t_os_file_handle hFile, vexo_t_offset *ppos,
                                              vexo_t_bits options);
/* Regular files only; anything else gives VEXO_E_NOT_SUPPORTED. */
VEXO_API vexo_t_error_code vexo_unix_file_size(vexo_t_os_file_handle hFile, vexo_t_offset *psize,
                                               vexo_t_bits options);
VEXO_API vexo_t_device_type vexo_unix_device_type(vexo_t_os_file_handle hFile);
/* Sockets go to vexo_socket_close unless VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK. */
VEXO_API vexo_t_error_code vexo_os_file_handle_close_unix(vexo_t_os_file_handle hFile, vexo_t_bits options);

/* ---- Directory listing ---------------------------------------------------------- */

/* Deliver only entries whose status (links followed) is a directory. */
#define VEXO_DIR_OPTION_DIRECTORIES_ONLY 0x1u
/* Deliver only entries whose status is not a directory. */
#define VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY 0x2u

#define VEXO_DIRENT_FLAG_DIRECTORIES_ONLY 0x1u
#define VEXO_DIRENT_FLAG_NON_DIRECTORIES_ONLY 0x2u
#define VEXO_DIRENT_FLAG_UTF8_NAME_OWNED 0x4u

VEXO_API vexo_t_error_code vexo_open_directory_unix(const char *utf8_path, vexo_t_dir **pdir,
                                                    vexo_t_bits options);
/* VEXO_S_NOERR with the listing's one entry record, or VEXO_E_NO_MORE_ENTRIES. */
VEXO_API vexo_t_error_code vexo_read_directory_unix(vexo_t_dir *dir, vexo_t_dirent **pent,
                                                    vexo_t_bits options);
/* The entry's NFC UTF-8 name, owned by the listing: valid until the next
 * read, name request or close. VEXO_E_INVALID_NAME when it is not UTF-8. */
VEXO_API vexo_t_error_code vexo_dirent_name_unix(vexo_t_dirent *ent, const char **name);
VEXO_API void vexo_close_directory_unix(vexo_t_dir *dir);

/* ---- Child processes ---------------------------------------------------------- */

/* Per stream, the first of inherit, null device and pipe that is set decides;
 * a stream with none of its three bits fails with VEXO_E_INTERNAL_ERROR. */
#define VEXO_PROCESS_CREATE_OPTION_STDIN_INHERIT 0x1u
#define VEXO_PROCESS_CREATE_OPTION_STDIN_NULL 0x2u
#define VEXO_PROCESS_CREATE_OPTION_STDIN_PIPE 0x4u
#define VEXO_PROCESS_CREATE_OPTION_STDOUT_INHERIT 0x8u
#define VEXO_PROCESS_CREATE_OPTION_STDOUT_NULL 0x10u
#define VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE 0x20u
#define VEXO_PROCESS_CREATE_OPTION_STDERR_INHERIT 0x40u
#define VEXO_PROCESS_CREATE_OPTION_STDERR_NULL 0x80u
#define VEXO_PROCESS_CREATE_OPTION_STDERR_PIPE 0x100u
/* The child calls setsid first. */
#define VEXO_PROCESS_CREATE_OPTION_NEW_SESSION 0x400u
/* `cmd_utf8` is a command line for the user's shell ("SHELL", else /bin/sh). */
#define VEXO_PROCESS_CREATE_OPTION_SHELL 0x4000u
/* The child's environment is built from `env_utf8` over the inherited one. */
#define VEXO_PROCESS_CREATE_OPTION_ENV 0x20000u
/* With ENV: over an empty environment instead. */
#define VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT 0x80000u
/* With ENV: `env_utf8` holds "KEY=VALUE" entries (the compact builder's flag 1). */
#define VEXO_PROCESS_CREATE_OPTION_ENV_COMPACT_FLAG 0x100000u

/* Fail with VEXO_E_WOULD_BLOCK instead of blocking on a running child. */
#define VEXO_PROCESS_WAIT_OPTION_NONBLOCKING 0x1u
/* Wait for the child's end; required (the only event waited for here). */
#define VEXO_PROCESS_WAIT_OPTION_EXIT 0x2u
/* A signal ends the wait with VEXO_E_INTERRUPTED instead of restarting it. */
#define VEXO_PROCESS_WAIT_OPTION_INTERRUPTIBLE 0x4u
/* No sweep of released children first. */
#define VEXO_PROCESS_WAIT_OPTION_NO_SWEEP 0x8u

/* A child that still runs is kept to be reaped by a later wait or release. */
#define VEXO_PROCESS_RELEASE_OPTION_REAP_LATER 0x1u
/* Do nothing at all; takes precedence over REAP_LATER. */
#define VEXO_PROCESS_RELEASE_OPTION_FORGET 0x2u

/* Starts `cmd_utf8` (a program path, used as it is, relative to `cwd_utf8`)
 * or, with VEXO_PROCESS_CREATE_OPTION_SHELL, the command line through the
 * shell. `params_utf8`: null-terminated array of property lists, one per
 * argument, whose "string" and "file" entries are concatenated. Parent pipe
 * ends (close-on-exec; -1 for a stream that is not a pipe) and the handle go
 * to the non-null pointers, on success only; without `processp` the child is
 * released at once and reaped later. A failure after the fork ends the child
 * with status 1. Null `cmd_utf8` or `cwd_utf8`: VEXO_E_PARAMETER_ERROR. */
VEXO_API vexo_t_error_code vexo_unix_process_create(const char *cmd_utf8, const vexo_t_property **params_utf8,
                                                    const char *cwd_utf8, const char *const *env_utf8,
                                                    vexo_t_os_file_handle *pstdin_parent_fd_wr,
                                                    vexo_t_os_file_handle *pstdout_parent_fd_rd,
                                                    vexo_t_os_file_handle *pstderr_parent_fd_rd,
                                                    vexo_t_os_process_handle *processp, vexo_t_bits options);
/* Handles and ids are the same number; not above 0: VEXO_E_PARAMETER_ERROR. */
VEXO_API vexo_t_error_code vexo_unix_process_id(vexo_t_os_process_handle process, vexo_t_pid *pid);
VEXO_API vexo_t_error_code vexo_unix_process_from_id(vexo_t_pid pid, vexo_t_os_process_handle *process);
VEXO_API vexo_t_error_code vexo_unix_process_self_id(vexo_t_pid *pid);
/* Reaps the child and decodes how it ended. `timeout` must be null
 * (otherwise VEXO_E_NOT_SUPPORTED); an already reaped or unknown child gives
 * VEXO_E_NOT_FOUND. `exit_status` may be null and is written on success only. */
VEXO_API vexo_t_error_code vexo_unix_process_wait(vexo_t_os_process_handle process, vexo_t_timespec *timeout,
                                                  vexo_t_process_exit_status *exit_status,
                                                  vexo_t_bits options);
/* Reaps an ended child; a running one gives VEXO_E_WOULD_BLOCK, or is kept
 * for later with VEXO_PROCESS_RELEASE_OPTION_REAP_LATER. */
VEXO_API vexo_t_error_code vexo_unix_process_release(vexo_t_os_process_handle process, vexo_t_bits options);
/* kill(2) with the system's signal number; `options` is ignored. */
VEXO_API vexo_t_error_code vexo_unix_process_kill(vexo_t_os_process_handle process, int signo,
                                                  vexo_t_bits options);

/* ---- Start-up, shutdown and the environment --------------------------------- */

/* Shut the back end down instead of starting it. */
#define VEXO_INIT_PROCESS_OPTION_DEINIT 0x1u

/* Lend the initial environment (taken at start-up) itself. */
#define VEXO_GET_ENVIRON_OPTION_INITIAL 0x1u
/* A new copy of the current environment, owned by the caller. */
#define VEXO_GET_ENVIRON_OPTION_CURRENT 0x2u
/* With INITIAL only: take the initial environment again first. */
#define VEXO_GET_ENVIRON_OPTION_REFRESH 0x4u

/* Look in the initial environment; VEXO_E_INVALID_STATE when there is none. */
#define VEXO_GETENV_OPTION_INITIAL 0x1u
/* Look in the live environment. */
#define VEXO_GETENV_OPTION_CURRENT 0x2u

/* Start-up (always VEXO_S_NOERR: without a copy of the environment the back
 * end runs without an initial environment) or, with
 * VEXO_INIT_PROCESS_OPTION_DEINIT, shutdown: the initial environment is
 * released and released children that have ended are reaped, the rest
 * forgotten. */
VEXO_API vexo_t_error_code vexo_init_process_unix(vexo_t_bits options);
/* A compact environment (pointer array, then entries key NUL value NUL, all
 * UTF-8, in one block) and its size; `psize` may be null. INITIAL lends
 * the installed block (null and 0 when there is none), CURRENT hands out a
 * copy to free with vexo_free. VEXO_E_TRY_AGAIN: the environment changed
 * while it was being copied. */
VEXO_API vexo_t_error_code vexo_unix_get_environ(char ***penv, size_t *psize, vexo_t_bits options);
/* Copies the value of `key` and its NUL into `buf`, whose capacity is
 * `*psize`; `*psize` receives the size needed, also with
 * VEXO_E_INSUFFICIENT_BUFFER (then `buf` is untouched and may be null). */
VEXO_API vexo_t_error_code vexo_unix_getenv(const char *key, void *buf, size_t *psize, vexo_t_bits options);
/* -1, 0 or 1: bytes unsigned, a prefix first, the overlong NUL 0xC0 0x80
 * below every other byte. */
VEXO_API int vexo_unix_compare_environment_keys(const char *skey1, const char *skey2);

VEXO_END_DECLS

#endif /* VEXO_UNIX_H */
