// Strict UTF-8 validation: shortest forms only, no surrogates, nothing above
// U+10FFFF, NUL legal. Every byte of the given size is tested. ASCII runs are
// skipped a machine word at a time, since most names and environments are
// ASCII.
#include "core_internal.h"

#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

namespace {

constexpr uint64_t kHighBits = 0x8080808080808080ull;

inline uint64_t load64(const uint8_t *p) {
  uint64_t w;
  std::memcpy(&w, p, sizeof w);
  return w;
}

// Offset of the first byte with its high bit set in a masked word.
inline unsigned first_high_byte(uint64_t masked) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return static_cast<unsigned>(__builtin_ctzll(masked)) >> 3;
#else
  return static_cast<unsigned>(__builtin_clzll(masked)) >> 3;
#endif
}

// The first byte of 0x80 or above at or after `p`, or `end`.
inline const uint8_t *skip_ascii(const uint8_t *p, const uint8_t *end) {
  while (end - p >= 32) {
    uint64_t any = load64(p) | load64(p + 8) | load64(p + 16) | load64(p + 24);
    if ((any & kHighBits) != 0)
      break;
    p += 32;
  }
  while (end - p >= 8) {
    uint64_t high = load64(p) & kHighBits;
    if (high != 0)
      return p + first_high_byte(high);
    p += 8;
  }
  while (p < end && *p < 0x80)
    ++p;
  return p;
}

inline bool is_cont(uint8_t b) {
  return (b & 0xC0) == 0x80;
}

// Length of the well-formed multi-byte sequence at `p`, or 0.
inline size_t sequence_length(const uint8_t *p, size_t left) {
  const unsigned b0 = p[0];
  if (b0 < 0xC2 || b0 > 0xF4)  // continuation byte, overlong C0/C1 lead, or beyond U+10FFFF
    return 0;
  if (b0 < 0xE0)
    return left >= 2 && is_cont(p[1]) ? 2 : 0;
  if (b0 < 0xF0) {
    // E0 needs A0..BF (no overlongs); ED needs 80..9F (no surrogates).
    const unsigned lo = b0 == 0xE0 ? 0xA0 : 0x80;
    const unsigned hi = b0 == 0xED ? 0x9F : 0xBF;
    return left >= 3 && p[1] >= lo && p[1] <= hi && is_cont(p[2]) ? 3 : 0;
  }
  // F0 needs 90..BF (no overlongs); F4 needs 80..8F (nothing above U+10FFFF).
  const unsigned lo = b0 == 0xF0 ? 0x90 : 0x80;
  const unsigned hi = b0 == 0xF4 ? 0x8F : 0xBF;
  return left >= 4 && p[1] >= lo && p[1] <= hi && is_cont(p[2]) && is_cont(p[3]) ? 4 : 0;
}

}  // namespace

size_t vexo::ascii_prefix(const void *s, size_t size) noexcept {
  const auto *p = static_cast<const uint8_t *>(s);
  return static_cast<size_t>(skip_ascii(p, p + size) - p);
}

#if defined(__SSE2__)

namespace {

VEXO_WHOLE_BLOCKS inline int nul_first(const char *block, unsigned stops) noexcept {
  return block[__builtin_ctz(stops)] == 0;
}

}  // namespace

VEXO_WHOLE_BLOCKS int vexo::ascii_through_nul_sse2(const char *block) noexcept {
  unsigned m;
  for (; (reinterpret_cast<uintptr_t>(block) & 63) != 0; block += 16) {
    if ((m = vexo::ascii_stops(block)) != 0)
      return nul_first(block, m);
  }
  // Four blocks a test: one AND per block instead of a mask and a branch.
  const __m128i zero = _mm_setzero_si128();
  for (;; block += 64) {
    const auto *q = reinterpret_cast<const __m128i *>(block);
    const __m128i plain = _mm_and_si128(
        _mm_and_si128(_mm_cmpgt_epi8(_mm_load_si128(q), zero), _mm_cmpgt_epi8(_mm_load_si128(q + 1), zero)),
        _mm_and_si128(_mm_cmpgt_epi8(_mm_load_si128(q + 2), zero),
                      _mm_cmpgt_epi8(_mm_load_si128(q + 3), zero)));
    if (_mm_movemask_epi8(plain) != 0xFFFF)
      break;
  }
  while ((m = vexo::ascii_stops(block)) == 0)
    block += 16;
  return nul_first(block, m);
}

__attribute__((target("avx2"))) VEXO_WHOLE_BLOCKS int vexo::ascii_through_nul_avx2(
    const char *block) noexcept {
  unsigned m;
  for (; (reinterpret_cast<uintptr_t>(block) & 63) != 0; block += 16) {
    if ((m = vexo::ascii_stops(block)) != 0)
      return nul_first(block, m);
  }
  const __m256i zero = _mm256_setzero_si256();
  for (;; block += 64) {
    const __m256i lo = _mm256_cmpgt_epi8(_mm256_load_si256(reinterpret_cast<const __m256i *>(block)), zero);
    const __m256i hi =
        _mm256_cmpgt_epi8(_mm256_load_si256(reinterpret_cast<const __m256i *>(block + 32)), zero);
    if (static_cast<unsigned>(_mm256_movemask_epi8(_mm256_and_si256(lo, hi))) != 0xFFFFFFFFu) {
      if ((m = ~static_cast<unsigned>(_mm256_movemask_epi8(lo))) != 0)
        return nul_first(block, m);
      return nul_first(block + 32, ~static_cast<unsigned>(_mm256_movemask_epi8(hi)));
    }
  }
}

int vexo::ascii_through_nul(const char *block) noexcept {
  // Twice the bytes per load where the processor has them: long names then
  // cost about what the C library's own string scans cost.
  return __builtin_cpu_supports("avx2") ? vexo::ascii_through_nul_avx2(block)
                                        : vexo::ascii_through_nul_sse2(block);
}

#endif

extern "C" vexo_t_error_code vexo_is_legal_utf8_string(const void *s, size_t size, vexo_t_bits options) {
  (void)options;
  if (size == 0)
    return VEXO_S_NOERR;
  if (s == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  const auto *p = static_cast<const uint8_t *>(s);
  const uint8_t *const end = p + size;
  for (;;) {
    p = skip_ascii(p, end);
    if (p == end)
      return VEXO_S_NOERR;
    // Runs of non-ASCII text stay in this loop instead of re-entering the word scan.
    do {
      size_t n = sequence_length(p, static_cast<size_t>(end - p));
      if (n == 0)
        return VEXO_E_ENCODING_INVALID;
      p += n;
    } while (p < end && *p >= 0x80);
  }
}
