// vexo_is_legal_utf8_string over 64 KiB of text, beside a plain
// byte-at-a-time validator with the same rules: every name and environment
// entry goes through the validator, and most of them are ASCII.
#include "ratio.h"

#include <vexo/vexo_core.h>

#include <cstdio>
#include <string>

namespace {

constexpr size_t kTextSize = 64 * 1024;

// Shortest forms only, no surrogates, nothing above U+10FFFF, NUL legal.
bool plain_is_legal_utf8(const unsigned char *s, size_t size) {
  size_t i = 0;
  while (i < size) {
    const unsigned b = s[i];
    if (b < 0x80) {
      ++i;
      continue;
    }
    size_t length = 0;
    unsigned lo = 0x80, hi = 0xBF;  // range of the second byte
    if (b >= 0xC2 && b <= 0xDF) {
      length = 2;
    } else if (b >= 0xE0 && b <= 0xEF) {
      length = 3;
      lo = b == 0xE0 ? 0xA0 : 0x80;
      hi = b == 0xED ? 0x9F : 0xBF;
    } else if (b >= 0xF0 && b <= 0xF4) {
      length = 4;
      lo = b == 0xF0 ? 0x90 : 0x80;
      hi = b == 0xF4 ? 0x8F : 0xBF;
    } else {
      return false;
    }
    if (size - i < length || s[i + 1] < lo || s[i + 1] > hi)
      return false;
    for (size_t k = 2; k < length; ++k)
      if ((s[i + k] & 0xC0) != 0x80)
        return false;
    i += length;
  }
  return true;
}

// Whole copies of `unit`, then ASCII spaces, so that the text stays legal.
std::string fill(const std::string &unit) {
  std::string text;
  while (text.size() + unit.size() <= kTextSize)
    text += unit;
  text.resize(kTextSize, ' ');
  return text;
}

const std::string g_ascii =
    fill("The quick brown fox jumps over the lazy dog; /usr/share/doc/README.txt 0123456789\n");
const std::string g_mixed = fill(
    "Grüße aus Köln, naïve café. Ελληνικά κείμενα. Русский текст. 日本語のテキスト。中文文本。"
    "한국어 텍스트. Tiếng Việt. emoji 🙂🚀. plain ASCII between them, as in real documents.\n");

void BM_vexo_utf8(benchmark::State &state, const std::string *text) {
  for (auto _ : state)
    benchmark::DoNotOptimize(vexo_is_legal_utf8_string(text->data(), text->size(), 0));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text->size()));
}

void BM_plain_utf8(benchmark::State &state, const std::string *text) {
  const auto *bytes = reinterpret_cast<const unsigned char *>(text->data());
  for (auto _ : state) {
    benchmark::DoNotOptimize(bytes);
    benchmark::DoNotOptimize(plain_is_legal_utf8(bytes, text->size()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text->size()));
}

// The two validators must agree, or the comparison is between different jobs.
bool validators_agree() {
  const std::string samples[] = {
      g_ascii,
      g_mixed,
      "caf\xC3\xA9",
      "caf\xE9",
      "\xC0\xAF",
      "\xED\xA0\x80",
      "\xED\x9F\xBF",
      "\xF4\x90\x80\x80",
      "\xF4\x8F\xBF\xBF",
      "\xE2\x82",
      "\xE0\x9F\x80",
      std::string("a\0b", 3),
      "",
  };
  for (const std::string &s : samples) {
    const bool vexo = vexo_is_legal_utf8_string(s.data(), s.size(), 0) >= 0;
    const bool plain = plain_is_legal_utf8(reinterpret_cast<const unsigned char *>(s.data()), s.size());
    if (vexo != plain) {
      std::fprintf(stderr, "validators disagree on a %zu-byte sample (vexo %d, plain %d)\n", s.size(), vexo,
                   plain);
      return false;
    }
  }
  return vexo_is_legal_utf8_string(g_ascii.data(), g_ascii.size(), 0) >= 0 &&
         vexo_is_legal_utf8_string(g_mixed.data(), g_mixed.size(), 0) >= 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (!validators_agree())
    return 1;
  benchmark::RegisterBenchmark("BM_vexo_utf8/ascii", BM_vexo_utf8, &g_ascii);
  benchmark::RegisterBenchmark("BM_plain_utf8/ascii", BM_plain_utf8, &g_ascii);
  benchmark::RegisterBenchmark("BM_vexo_utf8/mixed", BM_vexo_utf8, &g_mixed);
  benchmark::RegisterBenchmark("BM_plain_utf8/mixed", BM_plain_utf8, &g_mixed);

  bench::capture_reporter rep;
  if (!bench::run_benchmarks(argc, argv, rep))
    return 1;
  bench::print_ratio_table(rep, "UTF-8 validation of 64 KiB, vexo_is_legal_utf8_string beside a byte loop",
                           {
                               {"ASCII text",
                                "BM_vexo_utf8/ascii",
                                "BM_plain_utf8/ascii",
                                {bench::goal_kind::vexo_gbps_at_least, 4}},
                               {"mixed-script text", "BM_vexo_utf8/mixed", "BM_plain_utf8/mixed", {}},
                           });
  return 0;
}
