// Compact environments and the look-ups in them, from fuzzed KEY=VALUE texts. Made in either entry form and
// merged (the second environment's keys that the first holds are dropped), a block keeps its pointers and
// entries inside itself, in order, sized exactly. Installed as the initial environment, it answers every key
// with the first duplicate's value and keeps the capacity protocol. The key order is antisymmetric, zero only
// for equal keys, and transitive where every 0xC0 is the overlong NUL's lead.
#include "fuzz_util.h"
#include "unix/unix_internal.h"

#include <algorithm>

using fuzz::check;
using texts = std::vector<std::string>;

bool well_formed(const std::string &key) {
  size_t i = 0;
  while ((i = key.find('\xC0', i)) != std::string::npos && key.compare(i, 2, "\xC0\x80") == 0)
    ++i;
  return i == std::string::npos;
}

void look_up(const std::string &key, const pairs &env) {
  const auto hit = std::find_if(env.begin(), env.end(), [&](const auto &e) { return e.first == key; });
  size_t n = 0;
  const vexo_t_error_code rc = vexo_unix_getenv(key.c_str(), nullptr, &n, VEXO_GETENV_OPTION_INITIAL);
  if (hit == env.end())
    return check(rc == VEXO_E_NOT_FOUND && n == 0);
  const std::string &value = hit->second;
  check(rc == VEXO_E_INSUFFICIENT_BUFFER && n == value.size() + 1);
  std::string buf(value.size() + 8, '\x5A');
  for (size_t capacity : {value.size(), value.size() + 1}) {
    const bool fits = capacity > value.size();
    n = capacity;
    check(vexo_unix_getenv(key.c_str(), buf.data(), &n, VEXO_GETENV_OPTION_INITIAL) ==
              (fits ? VEXO_S_NOERR : VEXO_E_INSUFFICIENT_BUFFER) &&
          n == value.size() + 1 && buf.compare(0, n, fits ? value + '\0' : std::string(n, '\x5A')) == 0 &&
          buf.find_first_not_of('\x5A', n) == std::string::npos);
  }
}

void key_order(const texts &keys) {
  const auto cmp = [](const std::string &a, const std::string &b) {
    return vexo_unix_compare_environment_keys(a.c_str(), b.c_str());
  };
  for (const std::string &a : keys) {
    for (const std::string &b : keys) {
      const int ab = cmp(a, b);
      check((ab == -1 || ab == 0 || ab == 1) && ab == -cmp(b, a) && (ab == 0) == (a == b));
      for (const std::string &c : keys)
        check(ab > 0 || cmp(b, c) > 0 || !well_formed(a) || !well_formed(b) || !well_formed(c) ||
              cmp(a, c) <= 0);
    }
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 1024)
    return 0;
  fuzz::allocations::install();
  const long live = fuzz::allocations::live;
  const texts all = fuzz::split(data + 1, size - 1, '\n');
  key_order({all.begin(), all.begin() + static_cast<long>(std::min<size_t>(all.size(), 12))});
  {
    // The same entries as key NUL value NUL; an empty key is left out in this form too.
    texts nul_texts;
    for (std::string t : all)
      nul_texts.push_back(t.find('=') == std::string::npos ? t + '\0' : t.replace(t.find('='), 1, 1, '\0'));
    const compact_env eq_form(all), nul_form(nul_texts, VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE);
    check(compact_entries(eq_form.env, eq_form.size, true) == fuzz::entries_of(all) &&
          compact_entries(nul_form.env, nul_form.size, true) == fuzz::entries_of(all));

    const auto cut = static_cast<long>(data[0] % (all.size() + 1));
    const texts one(all.begin(), all.begin() + cut), two(all.begin() + cut, all.end());
    const compact_env first(one), second(two);
    check((eq_form.rc | nul_form.rc | first.rc | second.rc) == VEXO_S_NOERR);
    const pairs firsts = fuzz::entries_of(one);
    pairs want = firsts;
    for (const auto &e : fuzz::entries_of(two))
      if (std::none_of(firsts.begin(), firsts.end(), [&](const auto &m) { return m.first == e.first; }))
        want.push_back(e);
    const long blocks = fuzz::allocations::live;
    compact_env merged;
    vexo_t_error_code rc = VEXO_S_NOERR;
    const bool failed_alloc = fuzz::allocations::failing(data[0] >> 6, [&] {
      rc = vexo_merge_compact_envs(first.env, first.size, second.env, second.size, &merged.env, &merged.size,
                                   0);
    });
    check(failed_alloc
              ? rc == VEXO_E_OUT_OF_MEMORY && merged.env == nullptr && fuzz::allocations::live == blocks
              : rc == VEXO_S_NOERR && compact_entries(merged.env, merged.size, true) == want);
    std::swap(vexo::initial_environ_NUL_separated, merged.env);  // installed, and back into `merged`
    std::swap(vexo::initial_environ_NUL_separated_size, merged.size);
    for (size_t i = 0; !failed_alloc && i < all.size() && i < 32; ++i) {
      const std::string key = all[i].substr(0, all[i].find('='));
      for (const std::string &k : {all[i], key, key + '=', key.substr(0, key.size() / 2)})
        look_up(k, want);
    }
    std::swap(vexo::initial_environ_NUL_separated, merged.env);
    std::swap(vexo::initial_environ_NUL_separated_size, merged.size);
  }
  check(fuzz::allocations::live == live);
  return 0;
}
