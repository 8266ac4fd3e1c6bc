// The current environment copied into one block: whatever the entries, the block is well formed, and holds
// the entries that have a key, in order, split at their first '='; entries that are not UTF-8 come back read
// as Latin-1. When every entry is UTF-8 the block is sized exactly as the sizing pass counts; entries left
// out still count in it.
#include "fuzz_util.h"
#include "icu_utf8.h"
#include "unix/unix_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // One entry per line; a NUL ends an entry too.
  std::vector<std::string> entries = fuzz::split(data, size, '\n');
  std::vector<char *> array;
  std::vector<std::string> utf8;
  bool all_legal = true;
  size_t want_size = (entries.size() + 1) * sizeof(char *);
  for (std::string &e : entries) {
    array.push_back(e.data());
    const bool legal = icu_legal(reinterpret_cast<const uint8_t *>(e.data()), e.size());
    all_legal = all_legal && legal;
    want_size += e.size() + (e.find('=') == std::string::npos ? 2 : 1);
    utf8.push_back(legal ? e : fuzz::latin1(e));
  }
  array.push_back(nullptr);
  char **saved = environ, **env = nullptr;
  environ = array.data();
  size_t env_size = 0;
  const vexo_t_error_code rc =
      vexo::copy_current_os_environ(&env, &env_size, VEXO_COPY_ENVIRON_OPTION_NUL_SEPARATED);
  environ = saved;
  fuzz::check(rc == VEXO_S_NOERR && compact_entries(env, env_size, false) == fuzz::entries_of(utf8));
  fuzz::check(!all_legal || env_size == want_size);
  vexo_free(env);
  return 0;
}
