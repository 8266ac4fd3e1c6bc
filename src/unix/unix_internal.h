// What the back end's files share and nothing else. Nothing declared here is
// exported from the shared library (hidden visibility); tests reach it
// through the static library.
#ifndef VEXO_UNIX_INTERNAL_H
#define VEXO_UNIX_INTERNAL_H

#include <vexo/vexo_unix.h>

#include "../core/core_internal.h"

#include <cerrno>
#include <cstddef>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

// Stores a result code in the operation's `result` and leaves through the
// owners' destructors when it is a failure; a positive status is kept.
#define VEXO_CHECK(expr) \
  do {                   \
    result = (expr);     \
    if (result < 0)      \
      return result;     \
  } while (0)

// For a system call reporting failure as -1: maps errno and leaves. Never
// repeats the call; EINTR loops are written around it where wanted.
#define VEXO_POSIX_CHECK(call, fallback)               \
  do {                                                 \
    if ((call) == -1) {                                \
      result = vexo_map_unix_error(errno, (fallback)); \
      return result;                                   \
    }                                                  \
  } while (0)

// Every internal function and variable lives in the library's namespace: a
// static link must not clash with an embedder's own names.
namespace vexo {

// ---- Text and file names --------------------------------------------------

// Non-zero when every byte before the NUL is below 0x80 (the empty string too).
int is_ASCII(const char *s);

// Sized system-encoded text to UTF-8; every byte of `senc_string_size` is
// carried through. Returns 0, or 1 after reading the text as ISO 8859-1.
vexo_t_error_code vexo_from_os_unix(const char *senc_string, size_t senc_string_size, char **putf8_string,
                                    size_t *putf8_string_size, vexo_t_bits options);

// The plain conversion of a NUL-terminated OS name, without normalisation.
vexo_t_error_code vexo_file_name_from_os_unix_generic(const char *senc_path, char **putf8_path,
                                                      vexo_t_bits options);

// The NFC form of a UTF-8 string as a new string. Fails where the text cannot
// be read as UTF-8; callers then keep the un-normalised name.
vexo_t_error_code utf8_to_nfc(const char *utf8, char **putf8_nfc, vexo_t_bits options);

// The normalising conversion: ASCII fast path, generic conversion, NFC and
// the fall-back to the un-normalised name. Named after the system whose file
// names must be NFC; here it is built on ICU.
vexo_t_error_code vexo_file_name_from_os_darwin(const char *senc_path, char **putf8_path,
                                                vexo_t_bits options);

// ---- File system -------------------------------------------------------------

// Makes a call that reports failure as -1 until it is not interrupted:
// an interrupted call has done nothing. 0 or the errno value.
template <class Call>
int retry_on_eintr(Call call) {
  while (call() == -1) {
    if (errno != EINTR)
      return errno;
  }
  return 0;
}

// System-call wrappers repeated while interrupted; 0 or the errno value.
int os_stat(const char *os_path, struct stat *pstat_buf);
int os_rename(const char *os_oldpath, const char *os_newpath);
int os_mkdir(const char *os_path, mode_t mode);

}  // namespace vexo

// Which permission bits of a file apply to the calling process.
enum vexo_t_unix_access_class {
  VEXO_UNIX_ACCESS_CLASS_INVALID = 0,
  VEXO_UNIX_ACCESS_CLASS_OWNER = 1,
  VEXO_UNIX_ACCESS_CLASS_GROUP = 2,
  VEXO_UNIX_ACCESS_CLASS_OTHER = 3
};

namespace vexo {

// From the effective user id, effective group id and supplementary groups;
// only st_uid and st_gid are read. The class is written only on success.
vexo_t_error_code vexo_unix_access_class(const struct stat *stat_buf,
                                         vexo_t_unix_access_class *paccess_class);

// ---- OS file handles and directory listing ------------------------------------

// Sets the descriptor flags so that the bits of `mask` take their values from
// `value`; other flags stay. Neither fcntl is repeated on EINTR.
vexo_t_error_code vexo_unix_SETFD(vexo_t_os_file_handle fd, int mask, int value);
int os_fstat(int fd, struct stat *pstat_buf);

int os_opendir(const char *os_path, DIR **pos_dir);
// 0 with the entry, or with null at the end; else the errno value and
// `*pos_ent` untouched.
int os_readdir(DIR *os_dir, struct dirent **pos_ent);
int os_closedir(DIR *os_dir);

}  // namespace vexo

struct vexo_t_dirent_ {
  vexo_t_dir *dir;
  char *utf8_name;        // owned when VEXO_DIRENT_FLAG_UTF8_NAME_OWNED, else d_name itself
  struct dirent *os_ent;  // the stream's storage; null before the first read and at the end
  vexo_t_bits flags;
};

// One allocation per listing: the stream, the reusable path buffer and the
// one entry record every read hands out.
struct vexo_t_dir_ {
  DIR *os_dir;
  vexo_t_buf os_path_buf;  // directory path and '/', then the entry's name during filtered reads
  size_t os_path_len;
  vexo_t_dirent ent;
};

namespace vexo {

// ---- Child processes ------------------------------------------------------------

// Stream modes of vexo_unix_process_file, one per call.
#define VEXO_PROCESS_FILE_OPTION_INHERIT 0x1u
#define VEXO_PROCESS_FILE_OPTION_NULL 0x2u
#define VEXO_PROCESS_FILE_OPTION_PIPE 0x4u

// Prepares standard stream `fd` (0 read by the child, 1 and 2 written) for a
// child: the child's end, and for a pipe the parent's close-on-exec end (-1
// otherwise). Both are written on success only.
vexo_t_error_code vexo_unix_process_file(int fd, vexo_t_os_file_handle *pparent_fd,
                                         vexo_t_os_file_handle *pchild_fd, vexo_t_bits options);

// The concatenated "string"/"file" entries of one parameter as a new
// string; null on any failure, an unknown key included.
char *vexo_unix_alloc_argv_entry_string(const vexo_t_property *entry);

// Released children not reaped yet. Null exactly when empty; order carries
// no meaning.
extern vexo_t_os_process_handle *zombies;
extern size_t nzombies;

// One sweep: reaps what has ended. VEXO_S_DEALLOCATED when the list has been
// freed (empty, or `force`: what still runs is forgotten), else VEXO_S_NOERR.
vexo_t_error_code release_zombies(int force);
// Appends one handle, growing the list by exactly one slot.
vexo_t_error_code record_zombie(vexo_t_os_process_handle process);

// ---- Environment --------------------------------------------------------------

// The only form copy_current_os_environ makes; every caller sets it.
#define VEXO_COPY_ENVIRON_OPTION_NUL_SEPARATED 0x1u

// Where the platform keeps the process's environment array: a pointer to
// the current null-terminated array of KEY=VALUE entries, or null.
char ***os_environ_array();

// The initial environment (a compact block) and its size; null and 0 when
// none is installed. Changed only by init_env and release_env, together.
extern char **initial_environ_NUL_separated;
extern size_t initial_environ_NUL_separated_size;

// Bytes for a pointer array as long as the null-terminated `env`, plus its null.
size_t env_length(char **env);
// The two-pass copy into one block, without the UTF-8 test.
vexo_t_error_code copy_current_os_environ_raw(char ***envp, size_t *psize, vexo_t_bits options);
// A new compact environment of the current environment, every entry UTF-8.
vexo_t_error_code copy_current_os_environ(char ***penv, size_t *psize, vexo_t_bits options);
vexo_t_error_code init_env();
void release_env();

}  // namespace vexo

#endif  // VEXO_UNIX_INTERNAL_H
