/* Exit status of a child process. */
#ifndef VEXO_PROCESS_H
#define VEXO_PROCESS_H

#include "vexo_types.h"

VEXO_BEGIN_DECLS

VEXO_END_DECLS

#endif /* VEXO_PROCESS_H */
