// The current environment copied into one block: whatever the entries, the
// block is well formed and all UTF-8, and holds the entries that have a key,
// in order, split at their first '='; entries that are not UTF-8 come back
// read as Latin-1. When every entry is UTF-8 the block is sized exactly as
// the sizing pass counts.
#include "unix/unix_internal.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

void check(bool ok) {
  if (!ok)
    std::abort();
}

std::string latin1(const std::string &s) {
  std::string out;
  for (const char c : s) {
    const auto b = static_cast<unsigned char>(c);
    if (b < 0x80) {
      out += c;
    } else {
      out += static_cast<char>(0xC0 | (b >> 6));
      out += static_cast<char>(0x80 | (b & 0x3F));
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // One entry per line; a NUL ends an entry too.
  std::vector<std::string> entries(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '\n' || data[i] == 0)
      entries.emplace_back();
    else
      entries.back() += static_cast<char>(data[i]);
  }
  std::vector<char *> array;
  for (std::string &e : entries)
    array.push_back(e.data());
  array.push_back(nullptr);

  bool all_legal = true;
  size_t want_size = array.size() * sizeof(char *);
  std::vector<std::pair<std::string, std::string>> want;
  for (const std::string &e : entries) {
    const bool legal = vexo_is_legal_utf8_string(e.data(), e.size(), 0) >= 0;
    all_legal = all_legal && legal;
    const size_t eq = e.find('=');
    want_size += e.size() + (eq == std::string::npos ? 2 : 1);
    if (e.empty() || eq == 0)
      continue;
    std::string key = e.substr(0, eq);
    std::string value = eq == std::string::npos ? "" : e.substr(eq + 1);
    want.emplace_back(legal ? key : latin1(key), legal ? value : latin1(value));
  }

  char **saved = environ;
  environ = array.data();
  char **env = nullptr;
  size_t env_size = 0;
  const vexo_t_error_code rc =
      vexo::copy_current_os_environ(&env, &env_size, VEXO_COPY_ENVIRON_OPTION_NUL_SEPARATED);
  environ = saved;
  check(rc == VEXO_S_NOERR);

  size_t n = 0;
  while (env[n] != nullptr)
    ++n;
  check(n == want.size());
  const char *low = reinterpret_cast<const char *>(env + n + 1);
  const char *end = reinterpret_cast<const char *>(env) + env_size;
  for (size_t i = 0; i < n; ++i) {
    const char *key = env[i];
    check(key >= low && key < end);
    const size_t key_len = strnlen(key, static_cast<size_t>(end - key));
    const char *value = key + key_len + 1;
    check(value < end);
    const size_t value_len = strnlen(value, static_cast<size_t>(end - value));
    check(value + value_len < end);
    check(vexo_is_legal_utf8_string(key, key_len + value_len + 2, 0) >= 0);
    check(want[i].first == std::string(key, key_len) && want[i].second == std::string(value, value_len));
    low = value + value_len + 1;
  }
  if (all_legal)
    check(env_size == want_size);
  vexo_free(env);
  return 0;
}
