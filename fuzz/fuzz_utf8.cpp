// The validator must agree with ICU's decoder on every input.
#include <vexo/vexo_core.h>

#include <unicode/utf8.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

bool icu_legal(const uint8_t *s, size_t size) {
  const auto n = static_cast<int32_t>(size);
  int32_t i = 0;
  while (i < n) {
    UChar32 c;
    U8_NEXT(s, i, n, c);
    if (c < 0)
      return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > INT32_MAX)
    return 0;
  const bool legal = vexo_is_legal_utf8_string(data, size, 0) == VEXO_S_NOERR;
  if (legal != icu_legal(data, size))
    std::abort();
  return 0;
}
