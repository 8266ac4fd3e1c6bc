// The validator must agree with ICU's decoder on every input.
#include <vexo/vexo_core.h>

#include "icu_utf8.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > INT32_MAX)
    return 0;
  const bool legal = vexo_is_legal_utf8_string(data, size, 0) == VEXO_S_NOERR;
  if (legal != icu_legal(data, size))
    std::abort();
  return 0;
}
