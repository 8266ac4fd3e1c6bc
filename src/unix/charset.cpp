// The character set of the process's locale.
#include "unix_internal.h"

#include <clocale>
#include <cstring>
#include <langinfo.h>

extern "C" vexo_t_error_code vexo_unix_default_charset(char **pcharset, vexo_t_bits options) {
  (void)options;
  if (pcharset == nullptr)
    return VEXO_E_PARAMETER_ERROR;

  const char *name = nl_langinfo(CODESET);
  if (name == nullptr || *name == '\0') {
    // Read the locale's name without changing it: the locale belongs to the
    // embedding program.
    const char *locale = setlocale(LC_CTYPE, nullptr);
    if (locale == nullptr)
      return VEXO_E_NOT_FOUND;
    // A path names a locale file, not a character set.
    if (*locale == '\0' || *locale == '/')
      return VEXO_E_NOT_SUPPORTED;
    // language_TERRITORY.charset@modifier: the modifier is kept with the name.
    const char *dot = std::strrchr(locale, '.');
    name = dot != nullptr ? dot + 1 : locale;
  }

  char *copy = vexo_alloc_string(name);
  if (copy == nullptr)
    return VEXO_E_OUT_OF_MEMORY;
  *pcharset = copy;
  return VEXO_S_NOERR;
}
