// The strict UTF-8 validator, judged against ICU's own decoder.
#include <gtest/gtest.h>
#include <vexo/vexo_core.h>

#include "icu_utf8.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// Tallies disagreements without a gtest assertion per input, so the sweeps stay fast under ASan.
struct disagreements {
  long count = 0;
  std::string first;
  void check(const uint8_t *s, size_t n) {
    const bool legal = icu_legal(s, n);
    if (vexo_is_legal_utf8_string(s, n, 0) != (legal ? VEXO_S_NOERR : VEXO_E_ENCODING_INVALID) &&
        count++ == 0)
      first = testing::PrintToString(std::string(s, s + n)) + (legal ? " is legal" : " is not legal");
  }
};

// Every 1-, 2- and 3-byte sequence; 4 bytes with the last two at the byte-class boundaries.
TEST(Utf8Exhaustive, AgreesWithIcu) {
  static constexpr uint8_t kTrail[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F,
                                       0xA0, 0xBF, 0xC0, 0xC2, 0xF4, 0xFF};
  disagreements d;
  std::array<uint8_t, 4> s{};
  for (unsigned a = 0; a < 256; ++a) {
    s[0] = static_cast<uint8_t>(a), d.check(s.data(), 1);
    for (unsigned b = 0; b < 256; ++b) {
      s[1] = static_cast<uint8_t>(b), d.check(s.data(), 2);
      for (unsigned c = 0; c < 256; ++c)
        s[2] = static_cast<uint8_t>(c), d.check(s.data(), 3);
      for (size_t ce = 0; ce < std::size(kTrail) * std::size(kTrail); ++ce)
        s[2] = kTrail[ce / std::size(kTrail)], s[3] = kTrail[ce % std::size(kTrail)], d.check(s.data(), 4);
    }
  }
  EXPECT_EQ(d.count, 0) << "first: " << d.first;
}

// A stray byte or a (cut-off, ill-formed) sequence at every offset of an ASCII run starting at each word
// alignment, so that the word-at-a-time scan is left and re-entered everywhere.
TEST(Utf8AsciiRuns, EveryOffsetAtEveryAlignment) {
  // clang-format off
  const std::vector<std::vector<uint8_t>> pieces = {
      {0x80}, {0xBF}, {0xC1}, {0xF5}, {0xFF}, {0xC3, 0xA9}, {0xE2, 0x82, 0xAC}, {0xF0, 0x9F, 0x98, 0x80},
      {0xF4, 0x8F, 0xBF, 0xBF}, {0xC3, 0x00}, {0xE0, 0x9F, 0x80}, {0xED, 0xA0, 0x80}, {0xF4, 0x90, 0x80, 0x80}};
  // clang-format on
  constexpr size_t kLen = 150;
  std::vector<uint8_t> storage(kLen + 7);  // at offset 7 a run ends where the block does
  disagreements d;
  long legal = 0;
  for (size_t align = 0; align < 8; ++align) {
    uint8_t *run = storage.data() + 7 - align;
    for (size_t i = 0; i < kLen; ++i) {
      for (const auto &piece : pieces) {
        std::fill(run, run + kLen, 'a');
        std::copy_n(piece.begin(), std::min(piece.size(), kLen - i), run + i);
        d.check(run, kLen);
        legal += icu_legal(run, kLen) ? 1 : 0;
      }
      std::fill(run, run + kLen, 'a');
      run[i] = 0xFF;  // just past the size: never looked at
      d.check(run, i);
    }
  }
  EXPECT_EQ(d.count, 0) << "first: " << d.first;
  EXPECT_GT(legal, 8 * 4 * 140) << "the legal sequences were not all seen";
}

TEST(Utf8Edges, NulsSizesAndNull) {
  EXPECT_EQ(vexo_is_legal_utf8_string(std::vector<uint8_t>(100, 0).data(), 100, 0), VEXO_S_NOERR);
  EXPECT_EQ(vexo_is_legal_utf8_string(nullptr, 0, 0), VEXO_S_NOERR);
  EXPECT_EQ(vexo_is_legal_utf8_string(nullptr, 1, 0), VEXO_E_PARAMETER_ERROR);
}
