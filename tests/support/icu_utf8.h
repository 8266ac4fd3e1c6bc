// The reference the UTF-8 validator is judged against: ICU's own decoder, which rejects overlong forms,
// surrogates and values above U+10FFFF.
#ifndef VEXO_TESTS_ICU_UTF8_H
#define VEXO_TESTS_ICU_UTF8_H

#include <unicode/utf8.h>

#include <cstddef>
#include <cstdint>

inline bool icu_legal(const uint8_t *s, size_t size) {
  UChar32 c = 0;
  for (int32_t i = 0, n = static_cast<int32_t>(size); i < n && c >= 0;)
    U8_NEXT(s, i, n, c);
  return c >= 0;
}

#endif  // VEXO_TESTS_ICU_UTF8_H
