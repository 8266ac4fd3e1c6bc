/* File-status record, user and group ids. */
#ifndef VEXO_FILE_H
#define VEXO_FILE_H

#include "vexo_types.h"

VEXO_BEGIN_DECLS

typedef uid_t vexo_t_uid;
typedef gid_t vexo_t_gid;

/* What vexo_stat_unix fills; fields not asked for are set to 0. */
#define VEXO_STAT_OPTION_REQUIRE_DIRECTORY 0x2u
#define VEXO_STAT_OPTION_REQUIRE_NON_DIRECTORY 0x4u
#define VEXO_STAT_OPTION_MODE 0x8u
#define VEXO_STAT_OPTION_ACCESS 0x100u
#define VEXO_STAT_OPTION_TYPE 0x200u
#define VEXO_STAT_OPTION_TIMES 0x400u
#define VEXO_STAT_OPTION_SIZE 0x800u
#define VEXO_STAT_OPTION_OWNER 0x1000u
#define VEXO_STAT_OPTION_GROUP 0x2000u

/* `mode`: one nibble per class (owner, group, others); execute is reported
 * as search for a directory. */
#define VEXO_STAT_MODE_OWNER_READ 0x1u
#define VEXO_STAT_MODE_OWNER_WRITE 0x2u
#define VEXO_STAT_MODE_OWNER_EXECUTE 0x4u
#define VEXO_STAT_MODE_OWNER_SEARCH 0x8u
#define VEXO_STAT_MODE_GROUP_READ 0x10u
#define VEXO_STAT_MODE_GROUP_WRITE 0x20u
#define VEXO_STAT_MODE_GROUP_EXECUTE 0x40u
#define VEXO_STAT_MODE_GROUP_SEARCH 0x80u
#define VEXO_STAT_MODE_OTHER_READ 0x100u
#define VEXO_STAT_MODE_OTHER_WRITE 0x200u
#define VEXO_STAT_MODE_OTHER_EXECUTE 0x400u
#define VEXO_STAT_MODE_OTHER_SEARCH 0x800u
/* What the calling process itself may do. */
#define VEXO_STAT_MODE_CALLER_READ 0x8000u
#define VEXO_STAT_MODE_CALLER_WRITE 0x10000u
#define VEXO_STAT_MODE_CALLER_EXECUTE 0x20000u
#define VEXO_STAT_MODE_CALLER_SEARCH 0x40000u

/* `type` */
#define VEXO_STAT_TYPE_DIRECTORY 0x1u

typedef struct vexo_t_stat_ vexo_t_stat;
typedef void vexo_t_stat_deinit_fun(vexo_t_stat *info, void *cookie);

struct vexo_t_stat_ {
  vexo_t_bits flags; /* the caller's; never read or written by the back end */
  vexo_t_bits mode;
  vexo_t_bits type;
  vexo_t_time access_time;
  vexo_t_time modify_time;
  vexo_t_time create_time; /* status-change time, not birth time */
  vexo_t_uint64 size;
  vexo_t_uid owner;
  vexo_t_gid group;
  size_t deiniters_count; /* the caller's, like `flags` */
  struct {
    vexo_t_stat_deinit_fun *fun;
    void *cookie;
  } * deiniters;
};

VEXO_END_DECLS

#endif /* VEXO_FILE_H */
