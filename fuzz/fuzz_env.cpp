// Compact environments and the look-ups in them, from fuzzed KEY=VALUE
// texts. Made in either entry form and merged (the second environment's
// keys that the first holds are dropped), a block keeps its pointers and
// entries inside itself, in order, sized exactly. Installed as the initial
// environment, it answers every key with the first duplicate's value and
// keeps the capacity protocol. The key order is antisymmetric, zero only for
// equal keys, and transitive where every 0xC0 is the overlong NUL's lead.
#include "fuzz_util.h"
#include "unix/unix_internal.h"

#include <algorithm>
#include <cstring>

namespace {

using fuzz::check;
using fuzz::entries;
using fuzz::read_block;

entries expected(const std::vector<std::string> &texts) {
  entries out;
  for (const std::string &t : texts) {
    const size_t eq = t.find('=');
    if (eq != 0 && !t.empty())
      out.emplace_back(t.substr(0, eq), eq == std::string::npos ? "" : t.substr(eq + 1));
  }
  return out;
}

struct block {
  char **env = nullptr;
  size_t size = 0;
  block() = default;
  block(const std::vector<std::string> &texts, vexo_t_bits flag) {
    std::vector<const char *> list;
    for (const std::string &t : texts)
      list.push_back(t.c_str());
    list.push_back(nullptr);
    check(vexo_make_compact_env(list.data(), &env, &size, flag) == VEXO_S_NOERR);
  }
  ~block() { vexo_free(env); }
};

bool well_formed(const std::string &key) {
  for (size_t i = 0; i < key.size(); ++i) {
    if (static_cast<unsigned char>(key[i]) == 0xC0 && (i + 1 == key.size() || key[i + 1] != '\x80'))
      return false;
  }
  return true;
}

void look_up(const std::string &key, const entries &env) {
  const auto hit = std::find_if(env.begin(), env.end(), [&](const auto &e) { return e.first == key; });
  size_t n = 0;
  vexo_t_error_code rc = vexo_unix_getenv(key.c_str(), nullptr, &n, VEXO_GETENV_OPTION_INITIAL);
  if (hit == env.end()) {
    check(rc == VEXO_E_NOT_FOUND && n == 0);
    return;
  }
  const std::string &value = hit->second;
  check(rc == VEXO_E_INSUFFICIENT_BUFFER && n == value.size() + 1);
  std::string buf(value.size() + 8, '\x5A');
  for (size_t capacity : {value.size(), value.size() + 1}) {
    n = capacity;
    rc = vexo_unix_getenv(key.c_str(), buf.data(), &n, VEXO_GETENV_OPTION_INITIAL);
    check(n == value.size() + 1);
    const bool fits = capacity == n;
    check(rc == (fits ? VEXO_S_NOERR : VEXO_E_INSUFFICIENT_BUFFER));
    check(buf.compare(0, n, fits ? value + '\0' : std::string(n, '\x5A')) == 0);
    check(buf.find_first_not_of('\x5A', n) == std::string::npos);
  }
}

void key_order(const std::vector<std::string> &keys) {
  const auto cmp = [](const std::string &a, const std::string &b) {
    return vexo_unix_compare_environment_keys(a.c_str(), b.c_str());
  };
  for (const std::string &a : keys) {
    for (const std::string &b : keys) {
      const int ab = cmp(a, b);
      check((ab == -1 || ab == 0 || ab == 1) && ab == -cmp(b, a) && (ab == 0) == (a == b));
      if (!well_formed(a) || !well_formed(b) || ab > 0)
        continue;
      for (const std::string &c : keys) {
        if (well_formed(c) && cmp(b, c) <= 0)
          check(cmp(a, c) <= 0);
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 1024)
    return 0;
  fuzz::allocations::install();
  const long live = fuzz::allocations::live;
  const std::vector<std::string> texts = fuzz::split(data + 1, size - 1, '\n');
  const entries want = expected(texts);
  key_order({texts.begin(), texts.begin() + static_cast<long>(std::min<size_t>(texts.size(), 12))});
  {
    // The same entries as key NUL value NUL; an empty key is left out in this form too.
    std::vector<std::string> nul_texts;
    for (std::string t : texts)
      nul_texts.push_back(t.find('=') == std::string::npos ? t + '\0' : t.replace(t.find('='), 1, 1, '\0'));
    const block eq_form(texts, VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE);
    const block nul_form(nul_texts, VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE);
    check(read_block(eq_form.env, eq_form.size) == want && read_block(nul_form.env, nul_form.size) == want);

    const auto cut = static_cast<long>(data[0] % (texts.size() + 1));
    const block first({texts.begin(), texts.begin() + cut}, VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE);
    const block second({texts.begin() + cut, texts.end()}, VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE);
    entries merged_want = expected({texts.begin(), texts.begin() + cut});
    const size_t held = merged_want.size();
    for (const auto &e : expected({texts.begin() + cut, texts.end()})) {
      if (std::none_of(merged_want.begin(), merged_want.begin() + static_cast<long>(held),
                       [&](const auto &m) { return m.first == e.first; }))
        merged_want.push_back(e);
    }
    const long blocks = fuzz::allocations::live;
    block merged;
    vexo_t_error_code rc = VEXO_S_NOERR;
    const bool failed_alloc = fuzz::allocations::failing(data[0] >> 6, [&] {
      rc = vexo_merge_compact_envs(first.env, first.size, second.env, second.size, &merged.env, &merged.size,
                                   0);
    });
    if (failed_alloc) {
      check(rc == VEXO_E_OUT_OF_MEMORY && merged.env == nullptr && fuzz::allocations::live == blocks);
    } else {
      check(rc == VEXO_S_NOERR && read_block(merged.env, merged.size) == merged_want);
      char **const saved = vexo::initial_environ_NUL_separated;
      const size_t saved_size = vexo::initial_environ_NUL_separated_size;
      vexo::initial_environ_NUL_separated = merged.env;
      vexo::initial_environ_NUL_separated_size = merged.size;
      for (size_t i = 0; i < texts.size() && i < 32; ++i) {
        const std::string key = texts[i].substr(0, texts[i].find('='));
        look_up(texts[i], merged_want);
        look_up(key, merged_want);
        look_up(key + '=', merged_want);
        look_up(key.substr(0, key.size() / 2), merged_want);
      }
      vexo::initial_environ_NUL_separated = saved;
      vexo::initial_environ_NUL_separated_size = saved_size;
    }
  }
  check(fuzz::allocations::live == live);
  return 0;
}
