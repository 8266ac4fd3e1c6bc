// An OS name to UTF-8 under every combination of the options, judged against ICU's NFC taken through UTF-16
// (not the library's UTF-8 path): ASCII and un-normalised names come back lent under no-copy, legal names as
// their NFC in a new string, others fail or come back read as Latin-1 with status 1. The first byte picks an
// allocation to fail, which must leave nothing written and nothing allocated.
#include "fuzz_util.h"
#include "icu_utf8.h"
#include "unix/unix_internal.h"

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 4096)
    return 0;
  fuzz::allocations::install();
  const std::string name(reinterpret_cast<const char *>(data) + 1,
                         strnlen(reinterpret_cast<const char *>(data) + 1, size - 1));
  const bool ascii =
      std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  const bool legal = icu_legal(reinterpret_cast<const uint8_t *>(name.data()), name.size());
  UErrorCode status = U_ZERO_ERROR;
  std::string nfc;
  if (legal)
    icu::Normalizer2::getNFCInstance(status)
        ->normalize(icu::UnicodeString::fromUTF8(name), status)
        .toUTF8String(nfc);
  fuzz::check(U_SUCCESS(status));

  for (vexo_t_bits o = 0; o < 16; o += (o & 1) != 0 ? 3 : 1) {  // 0, 1, 4, 5, 8, 9, 12, 13
    const bool no_copy = (o & VEXO_FILE_NAME_OPTION_NO_COPY) != 0;
    const long live = fuzz::allocations::live;
    char *const untouched = reinterpret_cast<char *>(&size);
    char *out = untouched;
    vexo_t_error_code rc = VEXO_S_NOERR;
    const bool failed_alloc = fuzz::allocations::failing(
        data[0] % 4, [&] { rc = vexo_file_name_from_os_unix(name.c_str(), &out, o); });
    if (rc < 0) {
      fuzz::check(out == untouched && fuzz::allocations::live == live &&
                  rc == (failed_alloc ? VEXO_E_OUT_OF_MEMORY : VEXO_E_ENCODING_INVALID) &&
                  (failed_alloc || (!legal && (o & VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK) == 0)));
      continue;
    }
    const bool lent = out == name.c_str(),
               plain = ascii || (legal && (o & VEXO_FILE_NAME_OPTION_NO_NFC) != 0);
    const std::string got(out);
    // A normalisation that failed (here: its allocation) hands back the name itself.
    fuzz::check(plain ? rc == 0 && got == name && lent == no_copy
                : legal
                    ? rc == 0 && ((got == nfc && !lent) || (failed_alloc && got == name && lent == no_copy))
                    : rc == 1 && got == fuzz::latin1(name) && !lent);
    if (!lent)
      vexo_free(out);
    fuzz::check(fuzz::allocations::live == live);
  }
  return 0;
}
