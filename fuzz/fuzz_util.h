// What the fuzz targets share. A broken invariant aborts, so that libFuzzer keeps the input. The core
// allocator is routed through a counter of live blocks, which can also fail one chosen request, so that every
// input also checks that nothing leaks and that failures are clean.
#ifndef VEXO_FUZZ_UTIL_H
#define VEXO_FUZZ_UTIL_H

#include <vexo/vexo_core.h>

#include "compact_block.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzz {

inline void check(bool ok) {
  if (!ok)
    std::abort();
}

// Each byte as one ISO 8859-1 character, in UTF-8.
inline std::string latin1(const std::string &s) {
  std::string out;
  for (const char c : s) {
    const auto b = static_cast<unsigned char>(c);
    out += b < 0x80 ? std::string(1, c)
                    : std::string{static_cast<char>(0xC0 | (b >> 6)), static_cast<char>(0x80 | (b & 0x3F))};
  }
  return out;
}

// The input cut at every `sep` byte and every NUL; always at least one piece.
inline std::vector<std::string> split(const uint8_t *data, size_t size, uint8_t sep) {
  std::vector<std::string> pieces(1);
  for (size_t i = 0; i < size; ++i)
    data[i] == sep || data[i] == 0 ? pieces.emplace_back() : pieces.back() += static_cast<char>(data[i]);
  return pieces;
}

// The KEY=VALUE texts that have a key, split at their first '='.
inline pairs entries_of(const std::vector<std::string> &texts) {
  pairs out;
  for (const std::string &t : texts) {
    const size_t eq = t.find('=');
    if (eq != 0 && !t.empty())
      out.emplace_back(t.substr(0, eq), eq == std::string::npos ? "" : t.substr(eq + 1));
  }
  return out;
}

struct allocations {
  static inline long live = 0;
  static inline long until_failure = 0;  // the request that many from now fails; 0: none does

  static bool fail_now() { return until_failure > 0 && --until_failure == 0; }
  static void *take(size_t n) { return fail_now() ? nullptr : (++live, std::malloc(n)); }
  static void *resize(void *p, size_t n) { return fail_now() ? nullptr : std::realloc(p, n); }
  static void give_back(void *p) { --live, std::free(p); }
  // Runs `call` with the `nth` request from now failing (0: none); whether it failed one.
  template <class Call>
  static bool failing(long nth, Call call) {
    until_failure = nth;
    call();
    const bool failed = nth != 0 && until_failure == 0;
    until_failure = 0;
    return failed;
  }
  // Once, before the library holds any block.
  static void install() {
    static const bool done = vexo_replace_allocator(take, resize, give_back) == VEXO_S_NOERR;
    check(done);
  }
};

}  // namespace fuzz

#endif  // VEXO_FUZZ_UTIL_H
