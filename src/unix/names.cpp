// Conversions between the core's UTF-8 names and the system's byte names.
// The system takes UTF-8 bytes as they are, so only names coming back from
// it need work: they may not be UTF-8 at all, and may not be NFC.
#include "unix_internal.h"

#include <cstdint>
#include <cstring>

namespace {

// The success status that tells the caller its text was not UTF-8.
constexpr auto kReadAsLatin1 = static_cast<vexo_t_error_code>(1);

// The caller's own string under VEXO_FILE_NAME_OPTION_NO_COPY, else a copy.
vexo_t_error_code lend_or_copy(const char *s, char **pout, vexo_t_bits options) {
  if ((options & VEXO_FILE_NAME_OPTION_NO_COPY) != 0) {
    *pout = const_cast<char *>(s);
    return VEXO_S_NOERR;
  }
  char *copy = vexo_alloc_string(s);
  if (copy == nullptr)
    return VEXO_E_OUT_OF_MEMORY;
  *pout = copy;
  return VEXO_S_NOERR;
}

// The names that need work, out of line so that the ASCII path, taken by
// nearly every listed name, stays free of their stack frame.
[[gnu::noinline]] vexo_t_error_code from_os_non_ascii(const char *senc_path, char **putf8_path,
                                                      vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo::maybe_owned raw(senc_path);
  VEXO_CHECK(vexo::vexo_file_name_from_os_unix_generic(senc_path, raw.out(), options));

  // Text read as Latin-1 is composed already: U+0080..U+00FF are all NFC.
  if (result == kReadAsLatin1 || (options & VEXO_FILE_NAME_OPTION_NO_NFC) != 0) {
    *putf8_path = raw.release();
    return result;
  }

  char *nfc = nullptr;
  if (vexo::utf8_to_nfc(raw.get(), &nfc, 0) >= 0) {
    *putf8_path = nfc;
    return VEXO_S_NOERR;
  }
  // A name that cannot be normalised is still a usable name.
  *putf8_path = raw.release();
  return VEXO_S_NOERR;
}

}  // namespace

#if defined(__SSE2__)

// One pass finds the NUL and any high byte together, over aligned blocks.
VEXO_WHOLE_BLOCKS int vexo::is_ASCII(const char *s) {
  const auto addr = reinterpret_cast<uintptr_t>(s);
  const char *block = reinterpret_cast<const char *>(addr & ~uintptr_t{15});
  // Most names end within their first three aligned 16-byte blocks: no call
  // for them. A block is read only once the one before holds no NUL, so no
  // read reaches a page the name does not touch.
  unsigned m = vexo::ascii_stops(block) >> (addr & 15);
  if (m != 0)
    return s[__builtin_ctz(m)] == 0;
  for (int i = 0; i < 2; ++i) {
    block += 16;
    if ((m = vexo::ascii_stops(block)) != 0)
      return block[__builtin_ctz(m)] == 0;
  }
  return vexo::ascii_through_nul(block + 16);
}

#else

int vexo::is_ASCII(const char *s) {
  // libc's strlen and the word-wide scan beat a byte loop even though they
  // read the name twice.
  const size_t len = std::strlen(s);
  return vexo::ascii_prefix(s, len) == len;
}

#endif

vexo_t_error_code vexo::vexo_from_os_unix(const char *senc_string, size_t senc_string_size,
                                          char **putf8_string, size_t *putf8_string_size,
                                          vexo_t_bits options) {
  if (senc_string == nullptr || putf8_string == nullptr)
    return VEXO_E_PARAMETER_ERROR;

  vexo_t_error_code result = VEXO_S_NOERR;
  char *out = nullptr;
  size_t out_size = senc_string_size;

  if (vexo_is_legal_utf8_string(senc_string, senc_string_size, 0) >= 0) {
    if ((options & VEXO_FROM_OS_OPTION_NO_COPY) != 0) {
      out = const_cast<char *>(senc_string);
    } else {
      out = static_cast<char *>(vexo_alloc(senc_string_size));
      if (out == nullptr)
        return VEXO_E_OUT_OF_MEMORY;
      std::memcpy(out, senc_string, senc_string_size);
    }
  } else {
    if ((options & VEXO_FROM_OS_OPTION_LATIN1_FALLBACK) == 0)
      return VEXO_E_ENCODING_INVALID;
    // Every byte is one Latin-1 character, even those that happen to form
    // UTF-8 sequences: a name is one encoding or the other, never a mix.
    const auto *in = reinterpret_cast<const unsigned char *>(senc_string);
    size_t high = 0;
    for (size_t i = 0; i < senc_string_size; ++i) {
      if (in[i] >= 0x80)
        ++high;
    }
    out_size = senc_string_size + high;
    auto *o = static_cast<unsigned char *>(vexo_alloc(out_size));
    if (o == nullptr)
      return VEXO_E_OUT_OF_MEMORY;
    out = reinterpret_cast<char *>(o);
    for (size_t i = 0; i < senc_string_size; ++i) {
      const unsigned b = in[i];
      if (b < 0x80) {
        *o++ = static_cast<unsigned char>(b);
      } else {
        *o++ = static_cast<unsigned char>(0xC0 | (b >> 6));
        *o++ = static_cast<unsigned char>(0x80 | (b & 0x3F));
      }
    }
    result = kReadAsLatin1;
  }

  *putf8_string = out;
  if (putf8_string_size != nullptr)
    *putf8_string_size = out_size;
  return result;
}

vexo_t_error_code vexo::vexo_file_name_from_os_unix_generic(const char *senc_path, char **putf8_path,
                                                            vexo_t_bits options) {
  if (senc_path == nullptr || putf8_path == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  vexo_t_bits from_os_options = 0;
  if ((options & VEXO_FILE_NAME_OPTION_NO_COPY) != 0)
    from_os_options |= VEXO_FROM_OS_OPTION_NO_COPY;
  if ((options & VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK) != 0)
    from_os_options |= VEXO_FROM_OS_OPTION_LATIN1_FALLBACK;
  // Converting the terminator too leaves the result NUL-terminated.
  return vexo::vexo_from_os_unix(senc_path, std::strlen(senc_path) + 1, putf8_path, nullptr, from_os_options);
}

// Flattened so that the ASCII test is inlined: for a short name a call costs
// as much as the scan.
[[gnu::flatten]] vexo_t_error_code vexo::vexo_file_name_from_os_darwin(const char *senc_path,
                                                                       char **putf8_path,
                                                                       vexo_t_bits options) {
  if (senc_path == nullptr || putf8_path == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  // Most names are ASCII, which is UTF-8 and NFC already.
  if (vexo::is_ASCII(senc_path))
    return lend_or_copy(senc_path, putf8_path, options);
  return from_os_non_ascii(senc_path, putf8_path, options);
}

extern "C" {

vexo_t_error_code vexo_file_name_for_os_unix(const char *utf8_name, char **pos_name, vexo_t_bits options) {
  if (utf8_name == nullptr || pos_name == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  return lend_or_copy(utf8_name, pos_name, options);
}

vexo_t_error_code vexo_file_name_from_os_unix(const char *senc_path, char **putf8_path, vexo_t_bits options) {
  return vexo::vexo_file_name_from_os_darwin(senc_path, putf8_path, options);
}

vexo_t_error_code vexo_unix_path_root_len(const char *utf8_path) {
  if (utf8_path == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  // Repeated leading slashes name the same root.
  return utf8_path[0] == '/' ? static_cast<vexo_t_error_code>(1) : VEXO_E_FILE_NOT_ABSOLUTE;
}

}  // extern "C"
