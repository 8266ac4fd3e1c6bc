// The reference the UTF-8 validator is judged against: ICU's own decoder,
// which rejects overlong forms, surrogates and values above U+10FFFF.
#ifndef VEXO_TESTS_ICU_UTF8_H
#define VEXO_TESTS_ICU_UTF8_H

#include <unicode/utf8.h>

#include <cstddef>
#include <cstdint>

inline bool icu_legal(const uint8_t *s, size_t size) {
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

#endif  // VEXO_TESTS_ICU_UTF8_H
