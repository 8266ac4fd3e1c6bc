/** @file vexo_file.h
 * @brief The file-status record that vexo_stat_unix() fills, its option and
 * mode bits, and user and group ids. */
#ifndef VEXO_FILE_H
#define VEXO_FILE_H

#include "vexo_types.h"

VEXO_BEGIN_DECLS

typedef uid_t vexo_t_uid; /**< A user id. */
typedef gid_t vexo_t_gid; /**< A group id. */

/* What vexo_stat_unix fills; fields not asked for are set to 0. */
/** Fail with #VEXO_E_FILE_NOT_DIRECTORY unless the path is a directory. */
#define VEXO_STAT_OPTION_REQUIRE_DIRECTORY 0x2u
/** Fail with #VEXO_E_FILE_IS_DIRECTORY when the path is a directory. */
#define VEXO_STAT_OPTION_REQUIRE_NON_DIRECTORY 0x4u
/** Fill the owner, group and other bits of `mode`. */
#define VEXO_STAT_OPTION_MODE 0x8u
/** Fill the CALLER bits of `mode`: what this process may do, judged from the permission bits of its class. */
#define VEXO_STAT_OPTION_ACCESS 0x100u
/** Fill `type`. */
#define VEXO_STAT_OPTION_TYPE 0x200u
/** Fill the three times. */
#define VEXO_STAT_OPTION_TIMES 0x400u
/** Fill `size`. */
#define VEXO_STAT_OPTION_SIZE 0x800u
/** Fill `owner`. */
#define VEXO_STAT_OPTION_OWNER 0x1000u
/** Fill `group`. */
#define VEXO_STAT_OPTION_GROUP 0x2000u

/* `mode`: one nibble per class (owner, group, others); execute is reported
 * as search for a directory. */
/** The owner may read. */
#define VEXO_STAT_MODE_OWNER_READ 0x1u
/** The owner may write. */
#define VEXO_STAT_MODE_OWNER_WRITE 0x2u
/** The owner may execute (never set for a directory). */
#define VEXO_STAT_MODE_OWNER_EXECUTE 0x4u
/** The owner may search (a directory's execute bit). */
#define VEXO_STAT_MODE_OWNER_SEARCH 0x8u
/** The group may read. */
#define VEXO_STAT_MODE_GROUP_READ 0x10u
/** The group may write. */
#define VEXO_STAT_MODE_GROUP_WRITE 0x20u
/** The group may execute (never set for a directory). */
#define VEXO_STAT_MODE_GROUP_EXECUTE 0x40u
/** The group may search (a directory's execute bit). */
#define VEXO_STAT_MODE_GROUP_SEARCH 0x80u
/** Others may read. */
#define VEXO_STAT_MODE_OTHER_READ 0x100u
/** Others may write. */
#define VEXO_STAT_MODE_OTHER_WRITE 0x200u
/** Others may execute (never set for a directory). */
#define VEXO_STAT_MODE_OTHER_EXECUTE 0x400u
/** Others may search (a directory's execute bit). */
#define VEXO_STAT_MODE_OTHER_SEARCH 0x800u
/* What the calling process itself may do. */
/** The calling process may read. */
#define VEXO_STAT_MODE_CALLER_READ 0x8000u
/** The calling process may write. */
#define VEXO_STAT_MODE_CALLER_WRITE 0x10000u
/** The calling process may execute (never set for a directory). */
#define VEXO_STAT_MODE_CALLER_EXECUTE 0x20000u
/** The calling process may search (a directory's execute bit). */
#define VEXO_STAT_MODE_CALLER_SEARCH 0x40000u

/* `type` */
/** The path is a directory (links followed). */
#define VEXO_STAT_TYPE_DIRECTORY 0x1u

typedef struct vexo_t_stat_ vexo_t_stat; /**< The file-status record. */
/** A clean-up function the caller keeps in its record; the back end never
 * calls it. */
typedef void vexo_t_stat_deinit_fun(vexo_t_stat *info, void *cookie);

/** The status of a file as vexo_stat_unix() reports it. Fields not asked
 * for by the options are set to 0; `flags`, `deiniters_count` and
 * `deiniters` belong to the caller and are never read or written. */
struct vexo_t_stat_ {
  vexo_t_bits flags;       /**< The caller's; never read or written by the back end. */
  vexo_t_bits mode;        /**< VEXO_STAT_MODE_* bits. */
  vexo_t_bits type;        /**< #VEXO_STAT_TYPE_DIRECTORY or 0. */
  vexo_t_time access_time; /**< Last access. */
  vexo_t_time modify_time; /**< Last change of the contents. */
  vexo_t_time create_time; /**< Last change of the status, not the birth time. */
  vexo_t_uint64 size;      /**< Size in bytes. */
  vexo_t_uid owner;        /**< Owner's user id. */
  vexo_t_gid group;        /**< Group id. */
  size_t deiniters_count;  /**< The caller's, like `flags`. */
  /** The caller's clean-up list, like `flags`. */
  struct {
    vexo_t_stat_deinit_fun *fun; /**< A clean-up function. */
    void *cookie;                /**< Its argument. */
  } * deiniters;
};

VEXO_END_DECLS

#endif /* VEXO_FILE_H */
