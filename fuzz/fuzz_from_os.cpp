// Sized OS text to UTF-8 with the Latin-1 fallback: the result is always
// UTF-8, sized as promised, and gives back the input byte for byte.
#include "unix/unix_internal.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (data == nullptr)
    return 0;
  const auto *in = reinterpret_cast<const char *>(data);
  char *out = nullptr;
  size_t out_size = 0;
  const vexo_t_error_code rc =
      vexo::vexo_from_os_unix(in, size, &out, &out_size, VEXO_FROM_OS_OPTION_LATIN1_FALLBACK);
  if (rc < 0)
    std::abort();
  if (vexo_is_legal_utf8_string(out, out_size, 0) < 0)
    std::abort();

  const bool legal = vexo_is_legal_utf8_string(in, size, 0) >= 0;
  if (legal) {
    if (rc != 0 || out_size != size || std::memcmp(out, in, size) != 0)
      std::abort();
  } else {
    size_t high = 0;
    for (size_t i = 0; i < size; ++i)
      high += data[i] >= 0x80 ? 1 : 0;
    if (rc != 1 || out_size != size + high)
      std::abort();
    // Each character of the result is one input byte read as Latin-1.
    const auto *o = reinterpret_cast<const uint8_t *>(out);
    size_t j = 0;
    for (size_t i = 0; i < size; ++i) {
      unsigned b = o[j++];
      if (b >= 0x80) {
        if (b != 0xC2 && b != 0xC3)
          std::abort();
        b = ((b & 0x1Fu) << 6) | (o[j++] & 0x3Fu);
      }
      if (b != data[i])
        std::abort();
    }
    if (j != out_size)
      std::abort();
  }
  vexo_free(out);
  return 0;
}
