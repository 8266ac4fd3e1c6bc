// Look-ups of single variables, in the initial environment or the live one,
// and the order of environment keys.
#include "unix_internal.h"

#include <cstdlib>
#include <cstring>

using vexo::initial_environ_NUL_separated;

extern "C" int vexo_unix_compare_environment_keys(const char *skey1, const char *skey2) {
  const auto *a = reinterpret_cast<const unsigned char *>(skey1);
  const auto *b = reinterpret_cast<const unsigned char *>(skey2);
  while (*a == *b && *a != 0) {
    ++a;
    ++b;
  }
  if (*a == 0)
    return *b == 0 ? 0 : -1;
  if (*b == 0)
    return 1;
  // The overlong form of U+0000 stands for an embedded NUL, which sorts
  // below every other character.
  if (a[0] == 0xC0 && a[1] == 0x80)
    return -1;
  if (b[0] == 0xC0 && b[1] == 0x80)
    return 1;
  return *a < *b ? -1 : 1;
}

extern "C" vexo_t_error_code vexo_unix_getenv(const char *key, void *buf, size_t *psize,
                                              vexo_t_bits options) {
  if (key == nullptr || psize == nullptr || (buf == nullptr && *psize != 0))
    return VEXO_E_PARAMETER_ERROR;
  char **initial = initial_environ_NUL_separated;
  if (initial == nullptr && (options & VEXO_GETENV_OPTION_INITIAL) != 0)
    return VEXO_E_INVALID_STATE;

  const char *value = nullptr;
  if ((options & VEXO_GETENV_OPTION_CURRENT) != 0 || initial == nullptr) {
    value = std::getenv(key);
  } else {
    // Linear and allocation-free; the first of duplicate keys wins.
    for (char **entry = initial; *entry != nullptr; ++entry) {
      // Keys compare equal only byte for byte, so the first byte settles most.
      if ((*entry)[0] == key[0] && vexo_unix_compare_environment_keys(key, *entry) == 0) {
        value = *entry + std::strlen(*entry) + 1;
        break;
      }
    }
  }
  if (value == nullptr)
    return VEXO_E_NOT_FOUND;

  const size_t needed = std::strlen(value) + 1;
  const size_t capacity = *psize;
  *psize = needed;
  if (needed > capacity)
    return VEXO_E_INSUFFICIENT_BUFFER;
  std::memcpy(buf, value, needed);
  return VEXO_S_NOERR;
}
