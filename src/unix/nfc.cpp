// NFC normalisation of UTF-8 text, built on ICU's UTF-8 normaliser. This is
// the only place that knows how normalisation is done.
#include "unix_internal.h"

#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>

#include <climits>
#include <cstring>

namespace {

// Most names normalise into this without touching the heap; longer ones
// still learn their exact size from it.
constexpr int32_t kScratchSize = 1024;

// UTF-8 NFC grows text by at most three times; ICU counts in int32_t.
constexpr size_t kMaxInput = INT32_MAX / 3;

}  // namespace

vexo_t_error_code vexo::utf8_to_nfc(const char *utf8, char **putf8_nfc, vexo_t_bits options) {
  (void)options;
  if (utf8 == nullptr || putf8_nfc == nullptr)
    return VEXO_E_PARAMETER_ERROR;

  const size_t len = std::strlen(utf8);
  // ICU passes ill-formed bytes through untouched, so it cannot be the judge.
  if (len == 0 || vexo_is_legal_utf8_string(utf8, len, 0) < 0)
    return VEXO_E_ENCODING_INVALID;
  if (len > kMaxInput)
    return VEXO_E_NOT_SUPPORTED;

  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2 *nfc = icu::Normalizer2::getNFCInstance(status);
  if (U_FAILURE(status))
    return VEXO_E_IMPOSSIBLE_ERROR;
  const icu::StringPiece src(utf8, static_cast<int32_t>(len));

  // Most names read from disk are composed already: ICU's quick check is the
  // cheaper sizing pass for them, and the fill is a copy.
  const bool composed = nfc->isNormalizedUTF8(src, status);
  if (U_FAILURE(status))
    return VEXO_E_IMPOSSIBLE_ERROR;
  if (composed) {
    char *out = static_cast<char *>(vexo_alloc(len + 1));
    if (out == nullptr)
      return VEXO_E_OUT_OF_MEMORY;
    std::memcpy(out, utf8, len + 1);
    *putf8_nfc = out;
    return VEXO_S_NOERR;
  }

  char scratch[kScratchSize];
  icu::CheckedArrayByteSink sizing(scratch, kScratchSize);
  nfc->normalizeUTF8(0, src, sizing, nullptr, status);
  if (U_FAILURE(status) || sizing.NumberOfBytesAppended() < 0)
    return VEXO_E_IMPOSSIBLE_ERROR;
  const auto size = static_cast<size_t>(sizing.NumberOfBytesAppended());

  vexo::mem<char> out(static_cast<char *>(vexo_alloc(size + 1)));
  if (!out)
    return VEXO_E_OUT_OF_MEMORY;
  if (!sizing.Overflowed()) {
    std::memcpy(out.get(), scratch, size);
  } else {
    icu::CheckedArrayByteSink fill(out.get(), static_cast<int32_t>(size));
    nfc->normalizeUTF8(0, src, fill, nullptr, status);
    if (U_FAILURE(status) || fill.Overflowed() || static_cast<size_t>(fill.NumberOfBytesAppended()) != size)
      return VEXO_E_IMPOSSIBLE_ERROR;
  }
  out.get()[size] = '\0';
  *putf8_nfc = out.release();
  return VEXO_S_NOERR;
}
