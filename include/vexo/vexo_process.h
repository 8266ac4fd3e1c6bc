/** @file vexo_process.h
 * @brief How a child process ended, as vexo_unix_process_wait() reports it. */
#ifndef VEXO_PROCESS_H
#define VEXO_PROCESS_H

#include "vexo_types.h"

VEXO_BEGIN_DECLS

/* Exactly one of EXITED, SIGNALED, STOPPED and CONTINUED is set after a
 * successful wait; CORE_DUMPED only together with SIGNALED. */
/** The child exited; `value` is its exit status, 0 to 255. */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED 0x1u
/** A signal ended the child; `value` is the signal's number. */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_SIGNALED 0x2u
/** With #VEXO_PROCESS_EXIT_STATUS_FLAG_SIGNALED only: a core image was written. */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_CORE_DUMPED 0x4u
/** The child was stopped; `value` is the stopping signal's number. */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_STOPPED 0x8u
/** The stopped child was continued; `value` is 0. */
#define VEXO_PROCESS_EXIT_STATUS_FLAG_CONTINUED 0x10u

/** How a child ended. After a successful wait exactly one of EXITED,
 * SIGNALED, STOPPED and CONTINUED is set in `flags`. */
typedef struct vexo_t_process_exit_status_ {
  vexo_t_bits flags;  /**< The VEXO_PROCESS_EXIT_STATUS_FLAG_* bits. */
  vexo_t_int32 value; /**< The exit status or the signal's number, as the flag says. */
} vexo_t_process_exit_status;

VEXO_END_DECLS

#endif /* VEXO_PROCESS_H */
