/* File-status record, user and group ids. */
#ifndef VEXO_FILE_H
#define VEXO_FILE_H

#include "vexo_types.h"

VEXO_BEGIN_DECLS

typedef uid_t vexo_t_uid;
typedef gid_t vexo_t_gid;

VEXO_END_DECLS

#endif /* VEXO_FILE_H */
