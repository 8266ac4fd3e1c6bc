// The version is compiled into the library, so a program can tell the
// library it runs with from the headers it was built against.
#include <vexo/vexo_version.h>

extern "C" VEXO_API const char *vexo_version(void) {
  return VEXO_VERSION_STRING;
}
