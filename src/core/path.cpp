// Roots of Unix paths: only the single leading slash.
#include <vexo/vexo_core.h>

extern "C" vexo_t_error_code vexo_path_root_len(const char *path) {
  if (path == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  return path[0] == '/' ? static_cast<vexo_t_error_code>(1) : VEXO_S_NOERR;
}
