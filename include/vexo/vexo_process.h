/* Exit status of a child process. */
#ifndef VEXO_PROCESS_H
#define VEXO_PROCESS_H

#include "vexo_types.h"

VEXO_BEGIN_DECLS

/* Exactly one of EXITED, SIGNALED, STOPPED and CONTINUED is set after a
 * successful wait; CORE_DUMPED only together with SIGNALED. */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED 0x1u      /* value: exit status 0..255 */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_SIGNALED 0x2u    /* value: the signal's number */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_CORE_DUMPED 0x4u /* with SIGNALED: a core image was written */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_STOPPED 0x8u     /* value: the stopping signal's number */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_CONTINUED 0x10u  /* value: 0 */

typedef struct vexo_t_process_exit_status_ {
  vexo_t_bits flags;
  vexo_t_int32 value;
} vexo_t_process_exit_status;

VEXO_END_DECLS

#endif /* VEXO_PROCESS_H */
