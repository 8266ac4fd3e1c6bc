// File status, and which permission bits of a file apply to the calling
// process. Access is judged from the mode bits and the effective ids alone:
// the kernel's own check would answer for the real ids, and for root it
// would answer yes to nearly everything.
#include "unix_internal.h"

#include <unistd.h>

namespace {

// The system's read, write and execute bits of one class.
struct class_bits {
  mode_t read;
  mode_t write;
  mode_t execute;
};

constexpr class_bits kOwnerBits{S_IRUSR, S_IWUSR, S_IXUSR};
constexpr class_bits kGroupBits{S_IRGRP, S_IWGRP, S_IXGRP};
constexpr class_bits kOtherBits{S_IROTH, S_IWOTH, S_IXOTH};

// The caller's bits repeat the owner nibble higher up, so one helper serves
// both halves of `mode`.
constexpr unsigned kCallerShift = 15;
static_assert(VEXO_STAT_MODE_OWNER_READ << kCallerShift == VEXO_STAT_MODE_CALLER_READ);
static_assert(VEXO_STAT_MODE_OWNER_WRITE << kCallerShift == VEXO_STAT_MODE_CALLER_WRITE);
static_assert(VEXO_STAT_MODE_OWNER_EXECUTE << kCallerShift == VEXO_STAT_MODE_CALLER_EXECUTE);
static_assert(VEXO_STAT_MODE_OWNER_SEARCH << kCallerShift == VEXO_STAT_MODE_CALLER_SEARCH);

// One class's permissions in the owner nibble of `mode`; execute on a
// directory means search, so the two never appear together.
vexo_t_bits nibble(mode_t st_mode, const class_bits &c, bool is_dir) {
  vexo_t_bits bits = 0;
  if ((st_mode & c.read) != 0)
    bits |= VEXO_STAT_MODE_OWNER_READ;
  if ((st_mode & c.write) != 0)
    bits |= VEXO_STAT_MODE_OWNER_WRITE;
  if ((st_mode & c.execute) != 0)
    bits |= is_dir ? VEXO_STAT_MODE_OWNER_SEARCH : VEXO_STAT_MODE_OWNER_EXECUTE;
  return bits;
}

const class_bits &bits_of(vexo_t_unix_access_class access_class) {
  switch (access_class) {
    case VEXO_UNIX_ACCESS_CLASS_OWNER:
      return kOwnerBits;
    case VEXO_UNIX_ACCESS_CLASS_GROUP:
      return kGroupBits;
    default:
      return kOtherBits;
  }
}

}  // namespace

int vexo::os_stat(const char *os_path, struct stat *pstat_buf) {
  return vexo::retry_on_eintr([=] { return stat(os_path, pstat_buf); });
}

vexo_t_error_code vexo::vexo_unix_access_class(const struct stat *stat_buf,
                                               vexo_t_unix_access_class *paccess_class) {
  vexo_t_error_code result = VEXO_S_NOERR;
  // The owner is judged by the owner bits alone, even where the group or
  // others are granted more, and root gets no exception.
  if (geteuid() == stat_buf->st_uid) {
    *paccess_class = VEXO_UNIX_ACCESS_CLASS_OWNER;
    return result;
  }

  const gid_t egid = getegid();
  const int count = getgroups(0, nullptr);
  VEXO_POSIX_CHECK(count, VEXO_E_OS_ERROR);
  // One slot more for the effective group, which the system may or may not
  // list among the supplementary ones.
  vexo::mem<gid_t> groups(static_cast<gid_t *>(vexo_alloc((static_cast<size_t>(count) + 1) * sizeof(gid_t))));
  if (!groups)
    return VEXO_E_OUT_OF_MEMORY;
  const int n = getgroups(count, groups.get());
  VEXO_POSIX_CHECK(n, VEXO_E_OS_ERROR);
  // With a capacity of 0 the answer is a count, not entries written; should
  // the groups have grown meanwhile, it must not index past the list.
  const int filled = count == 0 ? 0 : n;
  groups.get()[filled] = egid;

  vexo_t_unix_access_class access_class = VEXO_UNIX_ACCESS_CLASS_OTHER;
  for (int i = 0; i <= filled; ++i) {
    if (groups.get()[i] == stat_buf->st_gid) {
      access_class = VEXO_UNIX_ACCESS_CLASS_GROUP;
      break;
    }
  }
  *paccess_class = access_class;
  return result;
}

extern "C" vexo_t_error_code vexo_stat_unix(const char *utf8_path, vexo_t_stat *info, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo::maybe_owned os_path(utf8_path);
  VEXO_CHECK(vexo_file_name_for_os_unix(utf8_path, os_path.out(), VEXO_FILE_NAME_OPTION_NO_COPY));

  struct stat st {};
  const int err = vexo::os_stat(os_path.get(), &st);
  if (err != 0)
    return vexo_map_unix_error(err, VEXO_E_FILE_NOT_FOUND);

  const bool is_dir = S_ISDIR(st.st_mode);
  if ((options & VEXO_STAT_OPTION_REQUIRE_DIRECTORY) != 0 && !is_dir)
    return VEXO_E_FILE_NOT_DIRECTORY;
  if ((options & VEXO_STAT_OPTION_REQUIRE_NON_DIRECTORY) != 0 && is_dir)
    return VEXO_E_FILE_IS_DIRECTORY;
  if (info == nullptr)
    return result;

  vexo_t_bits mode = 0;
  if ((options & VEXO_STAT_OPTION_MODE) != 0) {
    mode |= nibble(st.st_mode, kOwnerBits, is_dir);
    mode |= nibble(st.st_mode, kGroupBits, is_dir) << 4;
    mode |= nibble(st.st_mode, kOtherBits, is_dir) << 8;
  }
  if ((options & VEXO_STAT_OPTION_ACCESS) != 0) {
    vexo_t_unix_access_class access_class = VEXO_UNIX_ACCESS_CLASS_INVALID;
    VEXO_CHECK(vexo::vexo_unix_access_class(&st, &access_class));
    mode |= nibble(st.st_mode, bits_of(access_class), is_dir) << kCallerShift;
  }

  // Nothing is written before the last failure point; `flags` and the
  // deiniters are the caller's.
  const bool times = (options & VEXO_STAT_OPTION_TIMES) != 0;
  info->mode = mode;
  info->type = (options & VEXO_STAT_OPTION_TYPE) != 0 && is_dir ? VEXO_STAT_TYPE_DIRECTORY : 0;
  info->access_time = times ? static_cast<vexo_t_time>(st.st_atim.tv_sec) : 0;
  info->modify_time = times ? static_cast<vexo_t_time>(st.st_mtim.tv_sec) : 0;
  info->create_time = times ? static_cast<vexo_t_time>(st.st_ctim.tv_sec) : 0;
  info->size = (options & VEXO_STAT_OPTION_SIZE) != 0 ? static_cast<vexo_t_uint64>(st.st_size) : 0;
  info->owner = (options & VEXO_STAT_OPTION_OWNER) != 0 ? st.st_uid : 0;
  info->group = (options & VEXO_STAT_OPTION_GROUP) != 0 ? st.st_gid : 0;
  return result;
}
