// The strict UTF-8 validator, judged against ICU's own decoder.
#include <gtest/gtest.h>

#include <vexo/vexo_core.h>

#include <unicode/utf8.h>

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

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

bool vexo_legal(const uint8_t *s, size_t size) {
  return vexo_is_legal_utf8_string(s, size, 0) == VEXO_S_NOERR;
}

std::string hex(const uint8_t *s, size_t n) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += i == 0 ? "" : " ";
    out += digits[s[i] >> 4];
    out += digits[s[i] & 15];
  }
  return out;
}

// Tallies disagreements without a gtest assertion per input, so that the
// exhaustive sweeps stay fast under the sanitizers.
struct disagreements {
  long count = 0;
  std::string first;
  void check(const uint8_t *s, size_t n) {
    const bool expected = icu_legal(s, n);
    if (vexo_legal(s, n) != expected && count++ == 0)
      first = hex(s, n) + (expected ? " is legal" : " is not legal");
  }
};

TEST(Utf8Exhaustive, EveryOneTwoAndThreeByteSequence) {
  disagreements d;
  std::array<uint8_t, 3> s{};
  for (unsigned a = 0; a < 256; ++a) {
    s[0] = static_cast<uint8_t>(a);
    d.check(s.data(), 1);
    for (unsigned b = 0; b < 256; ++b) {
      s[1] = static_cast<uint8_t>(b);
      d.check(s.data(), 2);
      for (unsigned c = 0; c < 256; ++c) {
        s[2] = static_cast<uint8_t>(c);
        d.check(s.data(), 3);
      }
    }
  }
  EXPECT_EQ(d.count, 0) << "first: " << d.first;
}

TEST(Utf8Exhaustive, EveryFourByteClassAtItsBoundaries) {
  static constexpr uint8_t kTrail[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F,
                                       0xA0, 0xBF, 0xC0, 0xC2, 0xF4, 0xFF};
  disagreements d;
  std::array<uint8_t, 4> s{};
  for (unsigned a = 0; a < 256; ++a) {
    s[0] = static_cast<uint8_t>(a);
    for (unsigned b = 0; b < 256; ++b) {
      s[1] = static_cast<uint8_t>(b);
      for (uint8_t c : kTrail) {
        s[2] = c;
        for (uint8_t e : kTrail) {
          s[3] = e;
          d.check(s.data(), 4);
        }
      }
    }
  }
  EXPECT_EQ(d.count, 0) << "first: " << d.first;
}

// Mixtures of ASCII runs, well-formed sequences and stray bytes, long enough
// to cross the word-at-a-time scan in and out at many offsets.
TEST(Utf8Mixed, RandomTextAgreesWithIcu) {
  static const std::vector<std::vector<uint8_t>> kPieces = {{0xC3, 0xA9},
                                                            {0xE2, 0x82, 0xAC},
                                                            {0xF0, 0x9F, 0x98, 0x80},
                                                            {0xF4, 0x8F, 0xBF, 0xBF},
                                                            {0xEF, 0xBF, 0xBF},
                                                            {0xED, 0x9F, 0xBF},
                                                            {0x00},
                                                            {0x80},
                                                            {0xC0, 0x80},
                                                            {0xED, 0xA0, 0x80},
                                                            {0xF4, 0x90, 0x80, 0x80},
                                                            {0xE0, 0x9F},
                                                            {0xFE},
                                                            {0xF0, 0x8F, 0xBF, 0xBF}};
  std::mt19937 rng(20240229);
  disagreements d;
  long legal = 0;
  for (int round = 0; round < 20000; ++round) {
    std::vector<uint8_t> text;
    const int pieces = static_cast<int>(rng() % 12);
    for (int p = 0; p < pieces; ++p) {
      if (rng() % 2 == 0) {
        text.insert(text.end(), rng() % 70, static_cast<uint8_t>('a' + rng() % 26));
      } else {
        // Mostly well-formed pieces, so that about half the texts are legal.
        const auto &piece = kPieces[rng() % 4 == 0 ? rng() % kPieces.size() : rng() % 6];
        text.insert(text.end(), piece.begin(), piece.end());
      }
    }
    d.check(text.data(), text.size());
    legal += icu_legal(text.data(), text.size()) ? 1 : 0;
  }
  EXPECT_EQ(d.count, 0) << "first: " << d.first;
  EXPECT_GT(legal, 2000);
  EXPECT_LT(legal, 18000);
}

// A bad byte, or a sequence, at every offset of a long ASCII run, with the run
// starting at each alignment of a machine word.
TEST(Utf8AsciiRuns, EveryOffsetAtEveryAlignment) {
  constexpr size_t kLen = 150;
  std::vector<uint8_t> storage(kLen + 16);
  for (size_t align = 0; align < 8; ++align) {
    uint8_t *run = storage.data() + align;
    for (size_t i = 0; i < kLen; ++i) {
      std::fill(run, run + kLen, 'a');
      for (uint8_t bad : std::array<uint8_t, 5>{0x80, 0xBF, 0xC1, 0xF5, 0xFF}) {
        run[i] = bad;
        EXPECT_EQ(vexo_is_legal_utf8_string(run, kLen, 0), VEXO_E_ENCODING_INVALID)
            << "byte " << int{bad} << " at " << i << ", alignment " << align;
      }
      run[i] = 0xC3;
      if (i + 1 < kLen) {
        run[i + 1] = 0xA9;
        EXPECT_EQ(vexo_is_legal_utf8_string(run, kLen, 0), VEXO_S_NOERR) << i << ", alignment " << align;
      } else {
        EXPECT_EQ(vexo_is_legal_utf8_string(run, kLen, 0), VEXO_E_ENCODING_INVALID) << "lead byte last";
      }
      // The bad byte just past the size is never looked at.
      std::fill(run, run + kLen, 'a');
      run[i] = 0xFF;
      EXPECT_EQ(vexo_is_legal_utf8_string(run, i, 0), VEXO_S_NOERR) << i << ", alignment " << align;
    }
  }
}

TEST(Utf8Edges, TruncatedSequencesAtTheEnd) {
  const std::vector<std::vector<uint8_t>> sequences = {
      {0xC3, 0xA9}, {0xE2, 0x82, 0xAC}, {0xF0, 0x9F, 0x98, 0x80}, {0xF4, 0x8F, 0xBF, 0xBF}};
  for (const auto &seq : sequences) {
    for (size_t prefix : {size_t{0}, size_t{3}, size_t{40}}) {
      std::vector<uint8_t> text(prefix, 'x');
      text.insert(text.end(), seq.begin(), seq.end());
      EXPECT_EQ(vexo_is_legal_utf8_string(text.data(), text.size(), 0), VEXO_S_NOERR)
          << hex(seq.data(), seq.size());
      for (size_t cut = 1; cut < seq.size(); ++cut)
        EXPECT_EQ(vexo_is_legal_utf8_string(text.data(), text.size() - cut, 0), VEXO_E_ENCODING_INVALID)
            << hex(seq.data(), seq.size()) << " less " << cut << " after " << prefix;
    }
  }
}

TEST(Utf8Edges, NulsSizesAndNull) {
  const uint8_t nuls[] = {'a', 0, 'b', 0, 0, 0xC3, 0xA9, 0};
  EXPECT_EQ(vexo_is_legal_utf8_string(nuls, sizeof nuls, 0), VEXO_S_NOERR);
  const uint8_t nul_inside[] = {0xC3, 0x00};
  EXPECT_EQ(vexo_is_legal_utf8_string(nul_inside, sizeof nul_inside, 0), VEXO_E_ENCODING_INVALID);
  const std::vector<uint8_t> zeros(100, 0);
  EXPECT_EQ(vexo_is_legal_utf8_string(zeros.data(), zeros.size(), 0), VEXO_S_NOERR);
  EXPECT_EQ(vexo_is_legal_utf8_string(nullptr, 0, 0), VEXO_S_NOERR);
  EXPECT_EQ(vexo_is_legal_utf8_string("\xFF", 0, 0), VEXO_S_NOERR);
  EXPECT_EQ(vexo_is_legal_utf8_string(nullptr, 1, 0), VEXO_E_PARAMETER_ERROR);
}

}  // namespace
