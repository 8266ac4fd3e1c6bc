// Directory listing. One allocation per listing holds the stream, the path
// buffer that filtered reads build entry paths in, and the one entry record
// every read hands out again.
#include "unix_internal.h"

#include <memory>

namespace {

constexpr vexo_t_bits kFilters = VEXO_DIRENT_FLAG_DIRECTORIES_ONLY | VEXO_DIRENT_FLAG_NON_DIRECTORIES_ONLY;
static_assert(VEXO_DIR_OPTION_DIRECTORIES_ONLY == VEXO_DIRENT_FLAG_DIRECTORIES_ONLY);
static_assert(VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY == VEXO_DIRENT_FLAG_NON_DIRECTORIES_ONLY);

// A stream that no listing owns yet.
struct stream_closer {
  void operator()(DIR *os_dir) const noexcept { (void)vexo::os_closedir(os_dir); }
};
using stream = std::unique_ptr<DIR, stream_closer>;

// A listing not yet handed out is released as its close would.
struct listing_closer {
  void operator()(vexo_t_dir *dir) const noexcept { vexo_close_directory_unix(dir); }
};
using listing = std::unique_ptr<vexo_t_dir, listing_closer>;

// VEXO_S_TRUE when the current entry passes the listing's filter,
// VEXO_S_FALSE when it is passed over, or the failure to build its path.
vexo_t_error_code wanted(vexo_t_dir *dir) {
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo_t_buf &path = dir->os_path_buf;
  path.extent = dir->os_path_len;
  VEXO_CHECK(vexo_buf_concat_string(&path, dir->ent.os_ent->d_name));
  VEXO_CHECK(vexo_buf_push(&path, 0));

  struct stat st;
  // Removed or dangling since the system listed it: nothing to classify.
  if (vexo::os_stat(reinterpret_cast<const char *>(path.buf), &st) != 0)
    return VEXO_S_FALSE;
  const bool is_dir = S_ISDIR(st.st_mode);
  if ((dir->ent.flags & VEXO_DIRENT_FLAG_DIRECTORIES_ONLY) != 0 && !is_dir)
    return VEXO_S_FALSE;
  if ((dir->ent.flags & VEXO_DIRENT_FLAG_NON_DIRECTORIES_ONLY) != 0 && is_dir)
    return VEXO_S_FALSE;
  return VEXO_S_TRUE;
}

}  // namespace

int vexo::os_opendir(const char *os_path, DIR **pos_dir) {
  for (;;) {
    DIR *os_dir = opendir(os_path);
    if (os_dir != nullptr) {
      *pos_dir = os_dir;
      return 0;
    }
    if (errno != EINTR)
      return errno;
  }
}

int vexo::os_readdir(DIR *os_dir, struct dirent **pos_ent) {
  struct dirent *os_ent = nullptr;
  // readdir tells the end from a failure only through errno.
  do {
    errno = 0;
    os_ent = readdir(os_dir);
  } while (os_ent == nullptr && errno == EINTR);
  if (os_ent == nullptr && errno != 0)
    return errno;
  *pos_ent = os_ent;
  return 0;
}

int vexo::os_closedir(DIR *os_dir) {
  // Never repeated: the stream is released whatever closedir reports, and a
  // second call would touch freed memory.
  return closedir(os_dir) == 0 ? 0 : errno;
}

extern "C" {

vexo_t_error_code vexo_open_directory_unix(const char *utf8_path, vexo_t_dir **pdir, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo::maybe_owned os_path(utf8_path);
  VEXO_CHECK(vexo_file_name_for_os_unix(utf8_path, os_path.out(), VEXO_FILE_NAME_OPTION_NO_COPY));

  DIR *os_dir = nullptr;
  const int err = vexo::os_opendir(os_path.get(), &os_dir);
  if (err != 0)
    return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
  stream unowned(os_dir);

  listing dir(static_cast<vexo_t_dir *>(vexo_alloc(sizeof(vexo_t_dir))));
  if (!dir)
    return VEXO_E_OUT_OF_MEMORY;
  *dir = vexo_t_dir{};  // no path, no name, no entry: what the close expects
  vexo_buf_init_buf(&dir->os_path_buf);
  dir->os_dir = unowned.release();

  // Only a filter needs entry paths; an unfiltered listing never stats.
  if ((options & kFilters) != 0) {
    vexo_t_buf &path = dir->os_path_buf;
    VEXO_CHECK(vexo_buf_concat_string(&path, os_path.get()));
    if (path.extent == 0 || path.buf[path.extent - 1] != '/')
      VEXO_CHECK(vexo_buf_push(&path, '/'));
    dir->os_path_len = path.extent;
  }

  dir->ent.dir = dir.get();
  dir->ent.flags = options & kFilters;
  *pdir = dir.release();
  return VEXO_S_NOERR;
}

vexo_t_error_code vexo_read_directory_unix(vexo_t_dir *dir, vexo_t_dirent **pent, vexo_t_bits options) {
  (void)options;
  vexo_t_error_code result = VEXO_S_NOERR;
  for (;;) {
    const int err = vexo::os_readdir(dir->os_dir, &dir->ent.os_ent);
    if (err != 0)
      return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
    if (dir->ent.os_ent == nullptr)
      return VEXO_E_NO_MORE_ENTRIES;
    if ((dir->ent.flags & kFilters) == 0)
      break;
    VEXO_CHECK(wanted(dir));
    if (result == VEXO_S_TRUE)
      break;
  }
  *pent = &dir->ent;
  return VEXO_S_NOERR;
}

vexo_t_error_code vexo_dirent_name_unix(vexo_t_dirent *ent, const char **name) {
  // The flag stays until the conversion has answered; freeing null is harmless.
  if ((ent->flags & VEXO_DIRENT_FLAG_UTF8_NAME_OWNED) != 0) {
    vexo_free(ent->utf8_name);
    ent->utf8_name = nullptr;
  }
  const char *os_name = ent->os_ent->d_name;
  const vexo_t_error_code result =
      vexo_file_name_from_os_unix(os_name, &ent->utf8_name, VEXO_FILE_NAME_OPTION_NO_COPY);
  if (result < 0) {
    // VEXO_E_ENCODING_UNASSIGNED has the same value as UNMAPPABLE.
    if (result == VEXO_E_ENCODING_INVALID || result == VEXO_E_ENCODING_UNMAPPABLE)
      return VEXO_E_INVALID_NAME;
    return result;
  }
  // An ASCII name, or one that could not be normalised, is lent from the stream.
  if (ent->utf8_name == os_name)
    ent->flags &= ~VEXO_DIRENT_FLAG_UTF8_NAME_OWNED;
  else
    ent->flags |= VEXO_DIRENT_FLAG_UTF8_NAME_OWNED;
  *name = ent->utf8_name;
  return VEXO_S_NOERR;
}

void vexo_close_directory_unix(vexo_t_dir *dir) {
  if (dir == nullptr)
    return;
  if (dir->os_dir != nullptr)
    (void)vexo::os_closedir(dir->os_dir);
  vexo_buf_free(&dir->os_path_buf);
  if (dir->ent.utf8_name != nullptr && (dir->ent.flags & VEXO_DIRENT_FLAG_UTF8_NAME_OWNED) != 0)
    vexo_free(dir->ent.utf8_name);
  vexo_free(dir);
}

}  // extern "C"
