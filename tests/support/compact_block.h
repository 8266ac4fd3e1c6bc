// Compact environment blocks as the tests and the fuzz targets make and read them.
#ifndef VEXO_TESTS_COMPACT_BLOCK_H
#define VEXO_TESTS_COMPACT_BLOCK_H

#include <vexo/vexo_core.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using pairs = std::vector<std::pair<std::string, std::string>>;

// The entries of a block: its pointers up to their null, then each entry as a non-empty key, NUL, value, NUL,
// inside the block and behind the one before; `packed`: right behind it, the last one ending the block.
// Nothing when the layout is broken.
inline std::optional<pairs> compact_entries(char **env, size_t size, bool packed) {
  char **const last = std::find(env, env + size / sizeof *env, nullptr);
  if (last == env + size / sizeof *env)
    return std::nullopt;
  const char *p = reinterpret_cast<const char *>(last + 1), *const end =
                                                                reinterpret_cast<const char *>(env) + size;
  auto nul = [end](const char *s) { return static_cast<const char *>(std::memchr(s, 0, size_t(end - s))); };
  pairs out;
  for (char **e = env; e != last; ++e, ++p) {
    const char *key = *e, *mid = key >= p && key < end && (key == p || !packed) ? nul(key) : nullptr;
    if (mid == nullptr || mid == key || (p = nul(mid + 1)) == nullptr)
      return std::nullopt;
    out.emplace_back(std::string(key, mid), std::string(mid + 1, p));
  }
  return packed && p != end ? std::nullopt : std::optional(out);
}

// A block made from entries in either form (`rc`: what the making gave), freed with its scope.
struct compact_env {
  char **env = nullptr;
  size_t size = 0;
  vexo_t_error_code rc = VEXO_S_NOERR;
  compact_env() = default;
  explicit compact_env(const std::vector<std::string> &entries,
                       vexo_t_bits form = VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE) {
    std::vector<const char *> list;
    for (const std::string &e : entries)
      list.push_back(e.c_str());
    list.push_back(nullptr);
    rc = vexo_make_compact_env(list.data(), &env, &size, form);
  }
  compact_env(const compact_env &) = delete;
  ~compact_env() { vexo_free(env); }
};

#endif  // VEXO_TESTS_COMPACT_BLOCK_H
