// Names of user and group ids, from the system's databases.
#include "unix_internal.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace {

// The two lookups differ only in the size query, the call and the record;
// each call has its own buffer and record, so calls may run in parallel.
template <class Entry, class Id, class Lookup>
vexo_t_error_code id_name(Id id, int size_query, Lookup lookup, char *Entry::*name, char **pname) {
  if (pname == nullptr)
    return VEXO_E_PARAMETER_ERROR;

  // -1 with errno still 0 means "no limit", which leaves no size to use.
  errno = 0;
  const long size = sysconf(size_query);
  if (size == -1)
    return vexo_map_unix_error(errno, VEXO_E_OS_ERROR);

  const auto buffer_size = static_cast<size_t>(size);
  vexo::mem<char> buffer(static_cast<char *>(vexo_alloc(buffer_size)));
  if (!buffer)
    return VEXO_E_OUT_OF_MEMORY;

  Entry entry;
  Entry *found = nullptr;
  // The error comes back as the return value; a short buffer (ERANGE) is
  // reported rather than retried, since the system named the size.
  const int err = lookup(id, &entry, buffer.get(), buffer_size, &found);
  if (err != 0)
    return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
  if (found == nullptr)
    return VEXO_E_NOT_FOUND;

  // The database's bytes as they are; they need not be UTF-8.
  char *copy = vexo_alloc_string(found->*name);
  if (copy == nullptr)
    return VEXO_E_OUT_OF_MEMORY;
  *pname = copy;
  return VEXO_S_NOERR;
}

}  // namespace

extern "C" {

vexo_t_error_code vexo_user_id_name_unix(vexo_t_uid uid, char **pname, vexo_t_bits options) {
  (void)options;
  return id_name(uid, _SC_GETPW_R_SIZE_MAX, getpwuid_r, &passwd::pw_name, pname);
}

vexo_t_error_code vexo_group_id_name_unix(vexo_t_gid gid, char **pname, vexo_t_bits options) {
  (void)options;
  return id_name(gid, _SC_GETGR_R_SIZE_MAX, getgrgid_r, &group::gr_name, pname);
}

}  // extern "C"
