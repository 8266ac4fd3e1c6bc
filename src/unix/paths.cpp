// Operations on a path as a whole: delete, rename, create a directory, the
// working directory and the temporary directory.
#include "unix_internal.h"

#include <cstring>
#include <unistd.h>

namespace {

// A working directory is read without asking for its length first: start
// with room for 256 bytes of name and double it, at most 9 times (65536).
constexpr size_t kFirstWorkingDirectoryLength = 256;
constexpr int kWorkingDirectoryAttempts = 9;

vexo_t_error_code delete_directory(const char *os_dir) {
  const int err = vexo::retry_on_eintr([os_dir] { return rmdir(os_dir); });
  switch (err) {
    case 0:
      return VEXO_S_NOERR;
    // Systems differ in which of the two a non-empty directory gives.
    case EEXIST:
    case ENOTEMPTY:
      return VEXO_E_DIR_NOT_EMPTY;
    case ENOTDIR:
      return VEXO_E_FILE_NOT_DIRECTORY;
    default:
      return vexo_map_unix_error(err, VEXO_E_FILE_ACCESS);
  }
}

vexo_t_error_code delete_non_directory(const char *os_file) {
  const int err = vexo::retry_on_eintr([os_file] { return unlink(os_file); });
  switch (err) {
    case 0:
      return VEXO_S_NOERR;
    case EISDIR:
      return VEXO_E_FILE_IS_DIRECTORY;
    case ENOENT:
      return VEXO_E_FILE_NOT_FOUND;
    default:
      return vexo_map_unix_error(err, VEXO_E_FILE_ACCESS);
  }
}

}  // namespace

int vexo::os_rename(const char *os_oldpath, const char *os_newpath) {
  return vexo::retry_on_eintr([=] { return rename(os_oldpath, os_newpath); });
}

int vexo::os_mkdir(const char *os_path, mode_t mode) {
  return vexo::retry_on_eintr([=] { return mkdir(os_path, mode); });
}

extern "C" {

vexo_t_error_code vexo_unix_delete_file(const char *utf8_file, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo::maybe_owned os_file(utf8_file);
  VEXO_CHECK(vexo_file_name_for_os_unix(utf8_file, os_file.out(), VEXO_FILE_NAME_OPTION_NO_COPY));

  if ((options & VEXO_DELETE_OPTION_DIRECTORY) == 0)
    return delete_non_directory(os_file.get());
  // Refused before anything is touched, so the caller can fall back safely.
  if ((options & VEXO_DELETE_OPTION_NOT_IMPLEMENTED) != 0)
    return VEXO_E_NOT_IMPLEMENTED;
  return delete_directory(os_file.get());
}

vexo_t_error_code vexo_unix_rename_file(const char *utf8_oldfile, const char *utf8_newfile,
                                        vexo_t_bits options) {
  (void)options;
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo::maybe_owned os_old(utf8_oldfile);
  vexo::maybe_owned os_new(utf8_newfile);
  VEXO_CHECK(vexo_file_name_for_os_unix(utf8_oldfile, os_old.out(), VEXO_FILE_NAME_OPTION_NO_COPY));
  VEXO_CHECK(vexo_file_name_for_os_unix(utf8_newfile, os_new.out(), VEXO_FILE_NAME_OPTION_NO_COPY));

  // Whatever rename does with an existing target is what the caller gets.
  const int err = vexo::os_rename(os_old.get(), os_new.get());
  return err == 0 ? VEXO_S_NOERR : vexo_map_unix_error(err, VEXO_E_FILE_ACCESS);
}

vexo_t_error_code vexo_unix_create_directory(const char *utf8_dir, vexo_t_bits options) {
  (void)options;
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo::maybe_owned os_dir(utf8_dir);
  VEXO_CHECK(vexo_file_name_for_os_unix(utf8_dir, os_dir.out(), VEXO_FILE_NAME_OPTION_NO_COPY));

  // The process's file-creation mask narrows this as the user configured.
  const int err = vexo::os_mkdir(os_dir.get(), 0777);
  return err == 0 ? VEXO_S_NOERR : vexo_map_unix_error(err, VEXO_E_OS_ERROR);
}

vexo_t_error_code vexo_set_working_directory_unix(const char *utf8_dir, vexo_t_bits options) {
  (void)options;
  if (utf8_dir == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  vexo_t_error_code result = VEXO_S_NOERR;
  // Not repeated on EINTR: the caller decides whether to try again.
  VEXO_POSIX_CHECK(chdir(utf8_dir), VEXO_E_OS_ERROR);
  return result;
}

vexo_t_error_code vexo_get_working_directory_unix(char **putf8_dir, vexo_t_bits options) {
  if (putf8_dir == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  vexo_t_error_code result = VEXO_S_NOERR;

  vexo::mem<char> os_dir;
  size_t length = kFirstWorkingDirectoryLength;
  for (int attempt = 1;; ++attempt) {
    os_dir.reset(static_cast<char *>(vexo_alloc(length + 1)));
    if (!os_dir)
      return VEXO_E_OUT_OF_MEMORY;
    if (getcwd(os_dir.get(), length + 1) != nullptr)
      break;
    const int err = errno;
    // A fresh block per attempt: growing in place would copy a useless name.
    os_dir.reset();
    if (err != ERANGE || attempt == kWorkingDirectoryAttempts)
      return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
    length *= 2;
  }

  const vexo_t_bits vexo_file_name_from_os_options =
      (options & VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK) != 0 ? VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK
                                                                     : 0;
  char *utf8_dir = nullptr;
  // Status 1 (read as Latin-1) reaches the caller.
  VEXO_CHECK(vexo_file_name_from_os_unix(os_dir.get(), &utf8_dir, vexo_file_name_from_os_options));
  *putf8_dir = utf8_dir;
  return result;
}

vexo_t_error_code vexo_unix_temp_directory(char **putf8_dir, vexo_t_bits options) {
  (void)options;
  if (putf8_dir == nullptr)
    return VEXO_E_PARAMETER_ERROR;

  // Taken as it stands: existence, type and encoding are the user's business.
  vexo::mem<char> property(vexo_get_system_property_allocate("TMPDIR", 0));
  const char *dir = property && *property ? property.get() : "/tmp";
  const size_t len = std::strlen(dir);

  vexo::mem<char> utf8_dir(static_cast<char *>(vexo_alloc(len + 2)));
  if (!utf8_dir)
    return VEXO_E_OUT_OF_MEMORY;
  char *out = utf8_dir.get();
  std::memcpy(out, dir, len + 1);
  // Callers append file names directly.
  if (out[len - 1] != '/') {
    out[len] = '/';
    out[len + 1] = '\0';
  }
  *putf8_dir = utf8_dir.release();
  return VEXO_S_NOERR;
}

}  // extern "C"
