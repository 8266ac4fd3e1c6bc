// Whether the calling process may use a path as asked, judged like the file
// status from the permission bits and the caller's class; nothing is opened
// or created.
#include "unix_internal.h"

#include <cstring>

namespace {

// The status of the directory that would hold a missing file. Cuts `os_path`
// in place behind the parent's own trailing slash.
vexo_t_error_code stat_parent(char *os_path, struct stat *pstat_buf) {
  // The parent is found in the name alone, which a relative name may not
  // hold; the working directory is not consulted.
  const vexo_t_error_code root = vexo_path_root_len(os_path);
  if (root == 0)
    return VEXO_E_FILE_NOT_FOUND;
  // A failure code turns into a huge size here and is refused with the rest.
  size_t len = std::strlen(os_path);
  if (static_cast<size_t>(root) >= len)
    return VEXO_E_FILE_NOT_FOUND;

  if (os_path[len - 1] == '/')
    os_path[--len] = '\0';
  char *slash = std::strrchr(os_path, '/');
  if (slash == nullptr)
    return VEXO_E_FILE_NOT_FOUND;
  slash[1] = '\0';

  const int err = vexo::os_stat(os_path, pstat_buf);
  if (err != 0)
    return vexo_map_unix_error(err, VEXO_E_FILE_NOT_FOUND);
  if (!S_ISDIR(pstat_buf->st_mode))
    return VEXO_E_FILE_NOT_FOUND;
  return VEXO_S_NOERR;
}

mode_t kept_bits(vexo_t_unix_access_class access_class) {
  switch (access_class) {
    case VEXO_UNIX_ACCESS_CLASS_OWNER:
      return S_IRWXU;
    case VEXO_UNIX_ACCESS_CLASS_GROUP:
      return S_IRWXG;
    default:
      return S_IRWXO;
  }
}

}  // namespace

extern "C" vexo_t_error_code vexo_unix_test_file_access(const char *utf8_path, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  // Always a private copy: the creation test cuts it, and the caller's
  // string must stay as it was.
  char *copy = nullptr;
  VEXO_CHECK(vexo_file_name_for_os_unix(utf8_path, &copy, 0));
  vexo::mem<char> os_path(copy);

  struct stat st {};
  bool is_dir = false;
  const int err = vexo::os_stat(os_path.get(), &st);
  if (err != 0) {
    if ((options & VEXO_ACCESS_OPTION_REGULAR) != 0)
      return VEXO_E_FILE_NOT_FOUND;
    if ((options & VEXO_ACCESS_OPTION_CREATE) == 0 || err != ENOENT)
      return vexo_map_unix_error(err, VEXO_E_FILE_NOT_FOUND);
    VEXO_CHECK(stat_parent(os_path.get(), &st));
    // Creating means writing the parent; searching it is not asked for.
    is_dir = true;
    options = (options & ~VEXO_ACCESS_OPTION_SEARCH) | VEXO_ACCESS_OPTION_WRITE;
  } else {
    is_dir = S_ISDIR(st.st_mode);
    if (is_dir && (options & VEXO_ACCESS_OPTION_DIRECTORY) == 0)
      return VEXO_E_FILE_IS_DIRECTORY;
    if (!is_dir && (options & VEXO_ACCESS_OPTION_DIRECTORY) != 0)
      return VEXO_E_FILE_NOT_DIRECTORY;
    if ((options & VEXO_ACCESS_OPTION_REGULAR) != 0 && !S_ISREG(st.st_mode))
      return VEXO_E_FILE_ACCESS;
    if ((options & VEXO_ACCESS_OPTION_CREATE) != 0)
      options |= VEXO_ACCESS_OPTION_WRITE;
  }

  mode_t mask = 0;
  if ((options & VEXO_ACCESS_OPTION_READ) != 0)
    mask |= S_IRUSR | S_IRGRP | S_IROTH;
  if ((options & VEXO_ACCESS_OPTION_WRITE) != 0)
    mask |= S_IWUSR | S_IWGRP | S_IWOTH;
  if ((options & (is_dir ? VEXO_ACCESS_OPTION_SEARCH : VEXO_ACCESS_OPTION_EXECUTE)) != 0)
    mask |= S_IXUSR | S_IXGRP | S_IXOTH;
  if (mask == 0)
    return result;

  vexo_t_unix_access_class access_class = VEXO_UNIX_ACCESS_CLASS_INVALID;
  VEXO_CHECK(vexo::vexo_unix_access_class(&st, &access_class));
  mask &= kept_bits(access_class);
  return (st.st_mode & mask) == mask ? VEXO_S_NOERR : VEXO_E_FILE_ACCESS;
}
