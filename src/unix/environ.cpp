// Start-up and shutdown, and the environment in compact form: one block
// holding the pointer array and every entry as key NUL value NUL, all of it
// UTF-8, handed over and released with a single pointer.
#include "unix_internal.h"

#include <cstring>
#include <unistd.h>

namespace vexo {
char **initial_environ_NUL_separated = nullptr;
size_t initial_environ_NUL_separated_size = 0;
}  // namespace vexo

using vexo::initial_environ_NUL_separated;
using vexo::initial_environ_NUL_separated_size;

char ***vexo::os_environ_array() {
  return &environ;
}

size_t vexo::env_length(char **env) {
  size_t n = 0;
  while (env[n] != nullptr)
    ++n;
  return (n + 1) * sizeof(char *);
}

vexo_t_error_code vexo::copy_current_os_environ_raw(char ***envp, size_t *psize, vexo_t_bits /*options*/) {
  char ***accessor = vexo::os_environ_array();
  if (accessor == nullptr || *accessor == nullptr)
    return VEXO_E_IMPOSSIBLE_ERROR;

  size_t count = 0;
  size_t bytes = 0;
  for (char **entry = *accessor; *entry != nullptr; ++entry, ++count) {
    // One walk finds the '=' and the end; an entry without '=' needs one
    // more NUL for its empty value.
    const char *eq = strchrnul(*entry, '=');
    const size_t key_len = static_cast<size_t>(eq - *entry);
    bytes += *eq == '=' ? key_len + std::strlen(eq) + 1 : key_len + 2;
  }
  const size_t ptr_room = (count + 1) * sizeof(char *);
  const size_t size = ptr_room + bytes;
  vexo::mem<char *> block(static_cast<char **>(vexo_alloc(size)));
  if (block == nullptr)
    return VEXO_E_OUT_OF_MEMORY;

  // The array is read afresh: the allocation may have given another thread
  // (or the allocator itself) the chance to change it. Every mismatch with
  // the sizing pass means the environment changed in between.
  char **os_env = *accessor;
  if (os_env == nullptr)
    return VEXO_E_TRY_AGAIN;
  char **ptrs = block.get();
  char *pos = reinterpret_cast<char *>(block.get()) + ptr_room;
  size_t room = bytes;
  size_t stored = 0;
  for (char **entry = os_env; *entry != nullptr && stored < count; ++entry) {
    const size_t len = std::strlen(*entry);
    if (len + 1 > room)
      return VEXO_E_TRY_AGAIN;
    std::memcpy(pos, *entry, len + 1);
    // The copy ends in NUL, so the scan stops at the '=' or by position L.
    const char *eq = strchrnul(pos, '=');
    const size_t key_len = static_cast<size_t>(eq - pos);
    if (*eq == '\0' && key_len < len)
      return VEXO_E_TRY_AGAIN;
    size_t used = len + 1;
    if (key_len < len) {
      pos[key_len] = '\0';
    } else {
      if (pos[len] != '\0' || len + 2 > room)
        return VEXO_E_TRY_AGAIN;
      pos[len + 1] = '\0';
      used = len + 2;
    }
    // An empty key names nothing; the next entry overwrites these bytes.
    if (key_len == 0)
      continue;
    ptrs[stored++] = pos;
    pos += used;
    room -= used;
  }
  ptrs[stored] = nullptr;
  *envp = block.release();
  *psize = size;
  return VEXO_S_NOERR;
}

namespace {

size_t entry_size(const char *entry) {
  const size_t key_len = std::strlen(entry);
  return key_len + std::strlen(entry + key_len + 1) + 2;
}

// The strings of a list, up to its first null, and the list itself.
struct string_list_deleter {
  void operator()(char **list) const noexcept {
    for (char **s = list; *s != nullptr; ++s)
      vexo_free(*s);
    vexo_free(list);
  }
};

// Rebuilds `raw` with every entry made UTF-8, those that are not read as
// ISO 8859-1 as a whole (key and value). `raw` is freed on success.
vexo_t_error_code rebuild_as_utf8(vexo::mem<char *> &raw, char ***penv, size_t *psize) {
  vexo_t_error_code result = VEXO_S_NOERR;
  char **list = static_cast<char **>(vexo_alloc(vexo::env_length(raw.get())));
  if (list == nullptr)
    return VEXO_E_OUT_OF_MEMORY;
  std::unique_ptr<char *, string_list_deleter> owner(list);
  size_t i = 0;
  for (; raw.get()[i] != nullptr; ++i) {
    const char *entry = raw.get()[i];
    list[i] = nullptr;  // ends the list for the clean-up if this conversion fails
    VEXO_CHECK(vexo::vexo_from_os_unix(entry, entry_size(entry), &list[i], nullptr,
                                       VEXO_FROM_OS_OPTION_LATIN1_FALLBACK));
  }
  list[i] = nullptr;
  raw.reset();
  VEXO_CHECK(vexo_make_compact_env(list, penv, psize, VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE));
  return VEXO_S_NOERR;
}

}  // namespace

vexo_t_error_code vexo::copy_current_os_environ(char ***penv, size_t *psize, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  char **block = nullptr;
  size_t size = 0;
  VEXO_CHECK(vexo::copy_current_os_environ_raw(&block, &size, options));
  vexo::mem<char *> raw(block);

  // The stored entries lie back to back, each ending in NUL, and no UTF-8
  // sequence can span a NUL: one test of the whole run answers for every
  // entry at once.
  char **env = block;
  if (block[0] != nullptr) {
    char **last = block;
    while (last[1] != nullptr)
      ++last;
    const size_t run = static_cast<size_t>(*last - block[0]) + entry_size(*last);
    if (vexo_is_legal_utf8_string(block[0], run, 0) < 0)
      VEXO_CHECK(rebuild_as_utf8(raw, &env, &size));
  }
  if (env == block)
    static_cast<void>(raw.release());  // handed out as it is
  if (psize != nullptr)
    *psize = size;
  *penv = env;
  return VEXO_S_NOERR;
}

vexo_t_error_code vexo::init_env() {
  vexo_t_error_code result = VEXO_S_NOERR;
  char **env = nullptr;
  size_t size = 0;
  VEXO_CHECK(vexo::copy_current_os_environ(&env, &size, VEXO_COPY_ENVIRON_OPTION_NUL_SEPARATED));
  vexo::release_env();
  initial_environ_NUL_separated = env;
  initial_environ_NUL_separated_size = size;
  return VEXO_S_NOERR;
}

void vexo::release_env() {
  char **env = initial_environ_NUL_separated;
  initial_environ_NUL_separated_size = 0;
  initial_environ_NUL_separated = nullptr;
  vexo_free(env);
}

extern "C" vexo_t_error_code vexo_init_process_unix(vexo_t_bits options) {
  if ((options & VEXO_INIT_PROCESS_OPTION_DEINIT) != 0) {
    vexo::release_env();
    const vexo_t_error_code swept = vexo::release_zombies(1);
    return swept < 0 ? swept : VEXO_S_NOERR;
  }
  // Nothing is freed: before start-up the list holds nothing valid.
  vexo::zombies = nullptr;
  vexo::nzombies = 0;
  // Without a copy the back end still works; look-ups then read the live
  // environment.
  static_cast<void>(vexo::init_env());
  return VEXO_S_NOERR;
}

extern "C" vexo_t_error_code vexo_unix_get_environ(char ***penv, size_t *psize, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  if (penv == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  if ((options & VEXO_GET_ENVIRON_OPTION_CURRENT) != 0) {
    if ((options & (VEXO_GET_ENVIRON_OPTION_REFRESH | VEXO_GET_ENVIRON_OPTION_INITIAL)) != 0)
      return VEXO_E_PARAMETER_ERROR;
    return vexo::copy_current_os_environ(penv, psize, VEXO_COPY_ENVIRON_OPTION_NUL_SEPARATED);
  }
  if ((options & VEXO_GET_ENVIRON_OPTION_INITIAL) == 0)
    return VEXO_E_PARAMETER_ERROR;
  if ((options & VEXO_GET_ENVIRON_OPTION_REFRESH) != 0)
    VEXO_CHECK(vexo::init_env());
  *penv = initial_environ_NUL_separated;
  if (psize != nullptr)
    *psize = initial_environ_NUL_separated_size;
  return result;
}
