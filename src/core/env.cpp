// System properties and compact environments. Every compact environment the
// core hands out comes from one builder, so that all of them share one
// layout: room for N + 1 entry pointers, then the entries, each as
// key NUL value NUL, all in a single block sized exactly.
#include "core_internal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

// An entry as the builder copies it; key and value point into the source.
struct entry {
  const char *key;
  size_t key_len;
  const char *value;
  size_t value_len;
};

// "KEY=VALUE": the key ends at the first '=', later ones belong to the value;
// without any '=' the whole text is the key and the value is empty.
entry split_key_eq_value(const char *s) {
  const char *eq = std::strchr(s, '=');
  if (eq == nullptr) {
    size_t n = std::strlen(s);
    return {s, n, s + n, 0};
  }
  return {s, static_cast<size_t>(eq - s), eq + 1, std::strlen(eq + 1)};
}

// key NUL value NUL. An empty entry is a lone NUL: nothing follows it to read.
entry split_key_nul_value(const char *s) {
  size_t n = std::strlen(s);
  if (n == 0)
    return {s, 0, s, 0};
  return {s, n, s + n + 1, std::strlen(s + n + 1)};
}

size_t count_entries(const char *const *list) {
  size_t n = 0;
  if (list != nullptr) {
    while (list[n] != nullptr)
      ++n;
  }
  return n;
}

// One block: room for `count` + 1 pointers, then `bytes` of text that they
// point at. Filling is checked against the sizing pass, so a source that grew
// in between (the live environment changed under us) cannot write past it.
class pointer_block {
 public:
  bool allocate(size_t count, size_t bytes) {
    const size_t pointer_room = (count + 1) * sizeof(char *);
    size_ = pointer_room + bytes;
    block_.reset(static_cast<char *>(vexo_alloc(size_)));
    if (!block_)
      return false;
    slots_ = reinterpret_cast<char **>(block_.get());
    pos_ = block_.get() + pointer_room;
    count_ = count;
    room_ = bytes;
    return true;
  }
  // Where the next entry's `need` bytes go, or null when the sizing was outrun.
  char *add(size_t need) {
    if (stored_ == count_ || need > room_)
      return nullptr;
    char *p = pos_;
    slots_[stored_++] = p;
    pos_ += need;
    room_ -= need;
    return p;
  }
  size_t size() const { return size_; }
  char **finish() {
    slots_[stored_] = nullptr;
    block_.release();
    return slots_;
  }

 private:
  vexo::mem<char> block_;
  char **slots_ = nullptr;
  char *pos_ = nullptr;
  size_t count_ = 0;
  size_t stored_ = 0;
  size_t room_ = 0;
  size_t size_ = 0;
};

// `for_each(put)` calls put(entry) for every candidate entry in order; it runs
// twice, once to size the block and once to fill it. Entries with an empty key
// are left out.
template <class ForEach>
vexo_t_error_code build_compact_env(const ForEach &for_each, char ***penv, size_t *psize) {
  size_t count = 0;
  size_t bytes = 0;
  for_each([&](const entry &e) {
    if (e.key_len != 0) {
      ++count;
      bytes += e.key_len + e.value_len + 2;
    }
  });
  pointer_block out;
  if (!out.allocate(count, bytes))
    return VEXO_E_OUT_OF_MEMORY;

  bool overrun = false;
  for_each([&](const entry &e) {
    if (e.key_len == 0 || overrun)
      return;
    char *pos = out.add(e.key_len + e.value_len + 2);
    if (pos == nullptr) {
      overrun = true;
      return;
    }
    std::memcpy(pos, e.key, e.key_len);
    pos[e.key_len] = '\0';
    std::memcpy(pos + e.key_len + 1, e.value, e.value_len);
    pos[e.key_len + 1 + e.value_len] = '\0';
  });
  if (overrun)
    return VEXO_E_TRY_AGAIN;
  if (psize != nullptr)
    *psize = out.size();
  *penv = out.finish();
  return VEXO_S_NOERR;
}

vexo_t_error_code live_compact_env(char ***penv, size_t *psize) {
  return build_compact_env(
      [](const auto &put) {
        for (size_t i = 0; environ != nullptr && environ[i] != nullptr; ++i)
          put(split_key_eq_value(environ[i]));
      },
      penv, psize);
}

// The live entries byte for byte, empty ones included, behind their pointers.
vexo_t_error_code live_environ_strings(char ***penv) {
  const size_t count = count_entries(environ);
  size_t bytes = 0;
  for (size_t i = 0; i < count; ++i)
    bytes += std::strlen(environ[i]) + 1;
  pointer_block out;
  if (!out.allocate(count, bytes))
    return VEXO_E_OUT_OF_MEMORY;
  for (size_t i = 0; i < count && environ != nullptr && environ[i] != nullptr; ++i) {
    const size_t need = std::strlen(environ[i]) + 1;
    char *pos = out.add(need);
    if (pos == nullptr)
      return VEXO_E_TRY_AGAIN;
    std::memcpy(pos, environ[i], need);
  }
  *penv = out.finish();
  return VEXO_S_NOERR;
}

// A closure rather than a function: its type is local to this file, so the
// sort instantiated on it is too, and adds no global symbol to the library.
constexpr auto key_less = [](const char *a, const char *b) { return std::strcmp(a, b) < 0; };

}  // namespace

extern "C" {

char *vexo_get_system_property_allocate(const char *key, vexo_t_bits options) {
  (void)options;
  if (key == nullptr)
    return nullptr;
  return vexo_alloc_string(std::getenv(key));
}

vexo_t_error_code vexo_get_system_properties(char ***penv, size_t *psize, int selector) {
  if (penv == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  switch (selector) {
    case VEXO_SYSTEM_PROPERTIES_COMPACT_ENV:
      return live_compact_env(penv, psize);
    case VEXO_SYSTEM_PROPERTIES_ENVIRON:
      return live_environ_strings(penv);
    default:
      return VEXO_E_NOT_SUPPORTED;
  }
}

vexo_t_error_code vexo_make_compact_env(const char *const *entries, char ***penv, size_t *psize,
                                        vexo_t_bits flag) {
  if (penv == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  entry (*split)(const char *);
  switch (flag) {
    case VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE:
      split = split_key_nul_value;
      break;
    case VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE:
      split = split_key_eq_value;
      break;
    default:
      return VEXO_E_PARAMETER_ERROR;
  }
  const size_t count = count_entries(entries);
  return build_compact_env(
      [&](const auto &put) {
        for (size_t i = 0; i < count; ++i)
          put(split(entries[i]));
      },
      penv, psize);
}

vexo_t_error_code vexo_merge_compact_envs(char **env1, size_t size1, char **env2, size_t size2, char ***penv,
                                          size_t *psize, vexo_t_bits options) {
  (void)size1;
  (void)size2;
  (void)options;
  if (penv == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  const size_t n1 = count_entries(env1);
  const size_t n2 = count_entries(env2);

  // env1's keys sorted, so that each of env2's keys costs a binary search.
  vexo::mem<const char *> index;
  if (n1 != 0 && n2 != 0) {
    index.reset(static_cast<const char **>(vexo_alloc(n1 * sizeof(const char *))));
    if (!index)
      return VEXO_E_OUT_OF_MEMORY;
    std::copy(env1, env1 + n1, index.get());
    std::sort(index.get(), index.get() + n1, key_less);
  }
  auto env1_holds = [&](const char *key) {
    return index && std::binary_search(index.get(), index.get() + n1, key, key_less);
  };

  return build_compact_env(
      [&](const auto &put) {
        for (size_t i = 0; i < n1; ++i)
          put(split_key_nul_value(env1[i]));
        for (size_t i = 0; i < n2; ++i) {
          if (!env1_holds(env2[i]))
            put(split_key_nul_value(env2[i]));
        }
      },
      penv, psize);
}

}  // extern "C"
