// The current environment copied into one block: whatever the entries, the
// block is well formed and all UTF-8, and holds the entries that have a key,
// in order, split at their first '='; entries that are not UTF-8 come back
// read as Latin-1. When every entry is UTF-8 the block is sized exactly as
// the sizing pass counts.
#include "fuzz_util.h"
#include "unix/unix_internal.h"

using fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // One entry per line; a NUL ends an entry too.
  std::vector<std::string> entries = fuzz::split(data, size, '\n');
  std::vector<char *> array;
  for (std::string &e : entries)
    array.push_back(e.data());
  array.push_back(nullptr);

  bool all_legal = true;
  size_t want_size = array.size() * sizeof(char *);
  fuzz::entries want;
  for (const std::string &e : entries) {
    const bool legal = vexo_is_legal_utf8_string(e.data(), e.size(), 0) >= 0;
    all_legal = all_legal && legal;
    const size_t eq = e.find('=');
    want_size += e.size() + (eq == std::string::npos ? 2 : 1);
    if (e.empty() || eq == 0)
      continue;
    std::string key = e.substr(0, eq);
    std::string value = eq == std::string::npos ? "" : e.substr(eq + 1);
    want.emplace_back(legal ? key : fuzz::latin1(key), legal ? value : fuzz::latin1(value));
  }

  char **saved = environ;
  environ = array.data();
  char **env = nullptr;
  size_t env_size = 0;
  const vexo_t_error_code rc =
      vexo::copy_current_os_environ(&env, &env_size, VEXO_COPY_ENVIRON_OPTION_NUL_SEPARATED);
  environ = saved;
  check(rc == VEXO_S_NOERR);
  // Entries left out still count in the size of a block copied as it stands.
  const fuzz::entries got = fuzz::read_block(env, env_size, false);
  check(got == want);
  for (const auto &[key, value] : got) {
    const std::string run = key + '\0' + value + '\0';
    check(vexo_is_legal_utf8_string(run.data(), run.size(), 0) >= 0);
  }
  if (all_legal)
    check(env_size == want_size);
  vexo_free(env);
  return 0;
}
