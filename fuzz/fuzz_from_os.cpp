// Any bytes: the validator agrees with ICU's decoder, and sized OS text to UTF-8 with the Latin-1 fallback
// gives the input back unchanged when it is UTF-8 (status 0), each byte read as Latin-1 otherwise (status 1).
#include "fuzz_util.h"
#include "icu_utf8.h"
#include "unix/unix_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > INT32_MAX)
    return 0;
  const bool legal = icu_legal(data, size);
  fuzz::check((vexo_is_legal_utf8_string(data, size, 0) == VEXO_S_NOERR) == legal);
  const std::string in(reinterpret_cast<const char *>(data), size);
  char *out = nullptr;
  size_t out_size = 0;
  const vexo_t_error_code rc =
      vexo::vexo_from_os_unix(in.data(), size, &out, &out_size, VEXO_FROM_OS_OPTION_LATIN1_FALLBACK);
  fuzz::check(rc == (legal ? 0 : 1) && std::string(out, out_size) == (legal ? in : fuzz::latin1(in)));
  vexo_free(out);
  return 0;
}
