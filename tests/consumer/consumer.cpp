// Compiles every public header as C++ and links the static library.
#include <vexo/vexo_unix.h>

#include <cstdio>
#include <cstring>

bool clash_free_link();

int main() {
  char *name = nullptr;
  int rc = vexo_file_name_from_os_unix("\xe9", &name, VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK);
  bool ok = rc == 1 && name != nullptr && std::strcmp(name, "\xc3\xa9") == 0;
  vexo_free(name);
  ok = ok && vexo_file_name_from_os_unix("\xe9", &name, 0) == VEXO_E_ENCODING_INVALID;
  ok = ok && clash_free_link();
  ok = ok && VEXO_E_INSUFFICIENT_BUFFER == VEXO_E_OUT_OF_MEMORY;
  std::puts(ok ? "consumer_cxx: ok" : "consumer_cxx: FAILED");
  return ok ? 0 : 1;
}
