// NFC of realistic non-ASCII file names through vexo_file_name_from_os_unix
// (UTF-8 check, copy, normalisation, the result freed each time) beside ICU
// normalising the same bytes into a std::string, which is the work vexo
// delegates. Decomposed names are what some file systems and archives hand
// back; composed names are the common case, where normalisation changes
// nothing.
#include "ratio.h"

#include <vexo/vexo_unix.h>

#include "unix/unix_internal.h"

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

const char *const kComposedNames[] = {
    "Crème brûlée à la façon de grand-mère.txt", "Größenänderung der Übersichtskarte.pdf",
    "Tiếng Việt – hướng dẫn sử dụng.docx",       "Año de publicación – coração.odt",
    "Şişli'de çalışma takvimi 2023.xlsx",
};

std::vector<std::string> g_composed;
std::vector<std::string> g_decomposed;

std::string normalize(const icu::Normalizer2 *form, const std::string &text) {
  std::string out;
  icu::StringByteSink<std::string> sink(&out);
  UErrorCode ec = U_ZERO_ERROR;
  form->normalizeUTF8(0, icu::StringPiece(text), sink, nullptr, ec);
  return U_SUCCESS(ec) ? out : std::string();
}

void BM_vexo_nfc(benchmark::State &state, const std::vector<std::string> *names) {
  size_t i = 0;
  for (auto _ : state) {
    char *utf8 = nullptr;
    benchmark::DoNotOptimize(vexo_file_name_from_os_unix((*names)[i].c_str(), &utf8, 0));
    benchmark::DoNotOptimize(utf8);
    vexo_free(utf8);
    i = i + 1 == names->size() ? 0 : i + 1;
  }
}

// The normalisation step alone, as the conversion calls it after its UTF-8
// check and copy: the like-for-like comparison with ICU.
void BM_vexo_nfc_step(benchmark::State &state, const std::vector<std::string> *names) {
  size_t i = 0;
  for (auto _ : state) {
    char *utf8 = nullptr;
    benchmark::DoNotOptimize(vexo::utf8_to_nfc((*names)[i].c_str(), &utf8, 0));
    benchmark::DoNotOptimize(utf8);
    vexo_free(utf8);
    i = i + 1 == names->size() ? 0 : i + 1;
  }
}

void BM_icu_nfc(benchmark::State &state, const std::vector<std::string> *names) {
  UErrorCode ec = U_ZERO_ERROR;
  const icu::Normalizer2 *nfc = icu::Normalizer2::getNFCInstance(ec);
  size_t i = 0;
  for (auto _ : state) {
    std::string out;
    icu::StringByteSink<std::string> sink(&out);
    nfc->normalizeUTF8(0, icu::StringPiece((*names)[i]), sink, nullptr, ec);
    benchmark::DoNotOptimize(out.data());
    i = i + 1 == names->size() ? 0 : i + 1;
  }
}

// Both sides must produce the composed name from either form, or the
// timings compare different work.
bool prepare_names() {
  UErrorCode ec = U_ZERO_ERROR;
  const icu::Normalizer2 *nfc = icu::Normalizer2::getNFCInstance(ec);
  const icu::Normalizer2 *nfd = icu::Normalizer2::getNFDInstance(ec);
  if (U_FAILURE(ec)) {
    std::fprintf(stderr, "ICU normalisers unavailable: %s\n", u_errorName(ec));
    return false;
  }
  for (const char *name : kComposedNames) {
    g_composed.emplace_back(name);
    g_decomposed.push_back(normalize(nfd, name));
    if (g_decomposed.back() == name) {
      std::fprintf(stderr, "'%s' does not decompose\n", name);
      return false;
    }
  }
  for (const auto *names : {&g_composed, &g_decomposed}) {
    for (size_t i = 0; i < names->size(); ++i) {
      char *utf8 = nullptr;
      const vexo_t_error_code rc = vexo_file_name_from_os_unix((*names)[i].c_str(), &utf8, 0);
      const bool same = rc == 0 && g_composed[i] == utf8 && normalize(nfc, (*names)[i]) == g_composed[i];
      vexo_free(utf8);
      if (!same) {
        std::fprintf(stderr, "vexo and ICU disagree on the NFC of '%s' (result %d)\n", (*names)[i].c_str(),
                     rc);
        return false;
      }
    }
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  if (!prepare_names())
    return 1;
  benchmark::RegisterBenchmark("BM_vexo_nfc/decomposed", BM_vexo_nfc, &g_decomposed);
  benchmark::RegisterBenchmark("BM_icu_nfc/decomposed", BM_icu_nfc, &g_decomposed);
  benchmark::RegisterBenchmark("BM_vexo_nfc_step/decomposed", BM_vexo_nfc_step, &g_decomposed);
  benchmark::RegisterBenchmark("BM_vexo_nfc/composed", BM_vexo_nfc, &g_composed);
  benchmark::RegisterBenchmark("BM_vexo_nfc_step/composed", BM_vexo_nfc_step, &g_composed);
  benchmark::RegisterBenchmark("BM_icu_nfc/composed", BM_icu_nfc, &g_composed);

  bench::capture_reporter rep;
  if (!bench::run_benchmarks(argc, argv, rep))
    return 1;
  size_t shortest = 1000, longest = 0;
  for (const auto *names : {&g_composed, &g_decomposed})
    for (const std::string &n : *names) {
      shortest = std::min(shortest, n.size());
      longest = std::max(longest, n.size());
    }
  std::printf("\n%zu names of %zu to %zu bytes, one name per iteration\n", g_composed.size(), shortest,
              longest);
  bench::print_ratio_table(
      rep, "NFC of a file name beside ICU normalizeUTF8 into a std::string",
      {
          {"decomposed, utf8_to_nfc",
           "BM_vexo_nfc_step/decomposed",
           "BM_icu_nfc/decomposed",
           {bench::goal_kind::ratio_at_most, 1.2}},
          {"composed, utf8_to_nfc",
           "BM_vexo_nfc_step/composed",
           "BM_icu_nfc/composed",
           {bench::goal_kind::ratio_at_most, 1.2}},
          {"decomposed, whole conversion", "BM_vexo_nfc/decomposed", "BM_icu_nfc/decomposed", {}},
          {"composed, whole conversion", "BM_vexo_nfc/composed", "BM_icu_nfc/composed", {}},
      });
  return 0;
}
