// System properties and the compact environments the core builds.
#include <gtest/gtest.h>

#include <vexo/vexo_core.h>

#include "fault.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;
char **const kUntouched = reinterpret_cast<char **>(0x1);

// Reads a compact environment back, checking its layout on the way: the
// pointers and their null, then key NUL value NUL entries back to back, each
// with a non-empty key, filling the block exactly.
pairs read_compact(char **env, size_t size) {
  pairs out;
  size_t n = 0;
  while (env[n] != nullptr)
    ++n;
  const char *end = reinterpret_cast<const char *>(env) + size;
  const char *next = reinterpret_cast<const char *>(env + n + 1);
  for (size_t i = 0; i < n; ++i) {
    EXPECT_EQ(env[i], next) << "entry " << i << " is not where the one before ended";
    const size_t key_len = next < end ? strnlen(next, static_cast<size_t>(end - next)) : 0;
    const char *value = next + key_len + 1;
    EXPECT_GT(key_len, 0u);
    EXPECT_LT(value, end) << "entry " << i << " runs past the block";
    if (env[i] != next || value >= end)
      return out;
    const size_t value_len = strnlen(value, static_cast<size_t>(end - value));
    out.emplace_back(std::string(next, key_len), std::string(value, value_len));
    next = value + value_len + 1;
  }
  EXPECT_EQ(next, end) << "the size is not the size of the block";
  return out;
}

// Puts a chosen array in place of the live environment for one scope.
struct environ_guard {
  std::vector<const char *> entries;
  char **saved = environ;
  explicit environ_guard(std::vector<const char *> e) : entries(std::move(e)) {
    entries.push_back(nullptr);
    environ = const_cast<char **>(entries.data());
  }
  ~environ_guard() { environ = saved; }
};

// A compact environment of "KEY=VALUE" entries, freed at the end of its scope.
struct compact {
  char **env = nullptr;
  size_t size = 0;
  explicit compact(const std::vector<std::string> &entries) {
    std::vector<const char *> list;
    for (const std::string &e : entries)
      list.push_back(e.c_str());
    list.push_back(nullptr);
    EXPECT_EQ(vexo_make_compact_env(list.data(), &env, &size, VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE),
              VEXO_S_NOERR);
  }
  ~compact() { vexo_free(env); }
};

TEST(SystemProperty, CopiesTheLiveValue) {
  ASSERT_EQ(setenv("VEXO_TEST_PROPERTY", "/tmp/a=b", 1), 0);
  fault::alloc_sweep([](fault::alloc_scope &scope) {
    char *v = vexo_get_system_property_allocate("VEXO_TEST_PROPERTY", 0);
    ASSERT_EQ(v == nullptr, scope.injected());
    if (v != nullptr) {
      EXPECT_STREQ(v, "/tmp/a=b");
      EXPECT_NE(v, getenv("VEXO_TEST_PROPERTY")) << "a copy, not the live string";
    }
    vexo_free(v);
  });
  ASSERT_EQ(unsetenv("VEXO_TEST_PROPERTY"), 0);
  EXPECT_EQ(vexo_get_system_property_allocate("VEXO_TEST_PROPERTY", 0), nullptr);
  EXPECT_EQ(vexo_get_system_property_allocate(nullptr, 0), nullptr);
}

TEST(SystemProperties, BothFormsOfTheLiveEnvironment) {
  const std::vector<const char *> live = {"A=1", "B", "=x", "", "D=a=b", "A=2", "E=", "\xE9=\xFF"};
  environ_guard guard(live);
  char **block = nullptr;
  size_t size = 0;
  ASSERT_EQ(vexo_get_system_properties(&block, &size, VEXO_SYSTEM_PROPERTIES_COMPACT_ENV), VEXO_S_NOERR);
  EXPECT_EQ(read_compact(block, size),
            (pairs{{"A", "1"}, {"B", ""}, {"D", "a=b"}, {"A", "2"}, {"E", ""}, {"\xE9", "\xFF"}}));
  vexo_free(block);

  // The strings unchanged, empty ones too, packed behind their pointers.
  ASSERT_EQ(vexo_get_system_properties(&block, nullptr, VEXO_SYSTEM_PROPERTIES_ENVIRON), VEXO_S_NOERR);
  const char *next = reinterpret_cast<const char *>(block + live.size() + 1);
  size_t i = 0;
  for (; block[i] != nullptr && i < live.size(); next = block[i] + std::strlen(block[i]) + 1, ++i) {
    EXPECT_EQ(block[i], next);
    EXPECT_STREQ(block[i], live[i]);
  }
  EXPECT_EQ(i, live.size());
  EXPECT_EQ(block[i], nullptr);
  vexo_free(block);
}

TEST(MakeCompactEnv, KeyNulValueEntries) {
  // Byte arrays, so that each key NUL value NUL entry keeps its inner NUL.
  const char a[] = "A\0001", b[] = "B\0", d[] = "D\0a=b", no_key[] = "\0x", dup[] = "A\0002", eq[] = "K=V\0w";
  const char *nul_separated[] = {a, b, no_key, "", d, dup, eq, nullptr};
  char **env = nullptr;
  size_t size = 0;
  ASSERT_EQ(vexo_make_compact_env(nul_separated, &env, &size, VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE),
            VEXO_S_NOERR);
  EXPECT_EQ(read_compact(env, size), (pairs{{"A", "1"}, {"B", ""}, {"D", "a=b"}, {"A", "2"}, {"K=V", "w"}}));
  EXPECT_NE(env[0], a) << "the list is copied, not taken over";
  vexo_free(env);
}

TEST(MergeCompactEnvs, FirstEnvironmentWinsEachKeepsItsOrder) {
  compact env1({"PATH=/bin", "A=1", "A=1b", "HOME=/root"}),
      env2({"Z=26", "A=2", "HOME=/home", "B=2", "Z=27", "PATH2=x"});
  const pairs only1 = {{"PATH", "/bin"}, {"A", "1"}, {"A", "1b"}, {"HOME", "/root"}};
  char **merged = nullptr;
  size_t size = 0;
  ASSERT_EQ(vexo_merge_compact_envs(env1.env, env1.size, env2.env, env2.size, &merged, &size, 0),
            VEXO_S_NOERR);
  pairs want = only1;
  want.insert(want.end(), {{"Z", "26"}, {"B", "2"}, {"Z", "27"}, {"PATH2", "x"}});
  EXPECT_EQ(read_compact(merged, size), want);
  merged[0][0] = 'Q';  // writable, and not shared with env1
  EXPECT_STREQ(env1.env[0], "PATH");
  vexo_free(merged);

  compact none({});
  for (auto [one, two] : std::vector<std::pair<char **, char **>>{
           {env1.env, nullptr}, {nullptr, env1.env}, {none.env, env1.env}, {env1.env, env1.env}}) {
    ASSERT_EQ(vexo_merge_compact_envs(one, 0, two, 0, &merged, &size, 0), VEXO_S_NOERR);
    EXPECT_EQ(read_compact(merged, size), only1);
    vexo_free(merged);
  }
}

TEST(CompactEnvs, EmptyInputsGiveAnEmptyBlockBadArgumentsChangeNothing) {
  auto expect_empty = [](auto produce) {
    char **block = nullptr;
    size_t size = sizeof(char *);
    ASSERT_EQ(produce(&block, &size), VEXO_S_NOERR);
    EXPECT_TRUE(size == sizeof(char *) && block[0] == nullptr) << size;
    vexo_free(block);
  };
  for (bool cleared : {false, true}) {
    environ_guard guard({});
    if (cleared)
      environ = nullptr;  // as clearenv leaves it
    expect_empty([](char ***b, size_t *s) { return vexo_get_system_properties(b, s, 4); });
    expect_empty([](char ***b, size_t *) { return vexo_get_system_properties(b, nullptr, 12); });
  }
  const char *none[] = {nullptr}, *all_left_out[] = {"", "=x", nullptr};
  for (const char *const *list : std::initializer_list<const char *const *>{nullptr, none, all_left_out})
    expect_empty([&](char ***b, size_t *s) { return vexo_make_compact_env(list, b, s, 1); });
  expect_empty(
      [](char ***b, size_t *) { return vexo_merge_compact_envs(nullptr, 0, nullptr, 0, b, nullptr, 0); });

  char **block = kUntouched;
  size_t size = 7;
  for (int selector : {0, 3, 5, 11, 13, -4})
    EXPECT_EQ(vexo_get_system_properties(&block, &size, selector), VEXO_E_NOT_SUPPORTED) << selector;
  EXPECT_EQ(vexo_get_system_properties(nullptr, &size, 4), VEXO_E_PARAMETER_ERROR);
  const char *list[] = {"A=1", nullptr};
  EXPECT_EQ(vexo_make_compact_env(list, &block, &size, 2), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_make_compact_env(list, nullptr, &size, 1), VEXO_E_PARAMETER_ERROR);
  compact one({"A=1"});
  EXPECT_EQ(vexo_merge_compact_envs(one.env, 0, one.env, 0, nullptr, &size, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_TRUE(block == kUntouched && size == 7u);
}

// Thousands of keys out of order, many of them prefixes of others: the
// look-up of env1's keys must find exactly the equal ones.
TEST(MergeCompactEnvs, LargeEnvironments) {
  std::vector<std::string> text1, text2;
  for (int i = 0; i < 5000; ++i) {
    const std::string key = "K" + std::to_string((i * 7919) % 5000 + 1);
    text1.push_back(key + "=1");
    text2.insert(text2.end(), {key + "0=2", key + "=2"});  // K<k>0 is in env1 exactly when k <= 500
  }
  compact env1(text1), env2(text2);
  char **merged = nullptr;
  size_t size = 0;
  ASSERT_EQ(vexo_merge_compact_envs(env1.env, env1.size, env2.env, env2.size, &merged, &size, 0),
            VEXO_S_NOERR);
  const pairs got = read_compact(merged, size);
  vexo_free(merged);
  ASSERT_EQ(got.size(), 5000u + 4500u);
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].second, i < 5000 ? "1" : "2");
    EXPECT_TRUE(i < 5000 || std::stoi(got[i].first.substr(1)) > 5000) << got[i].first;
  }
}

const char *const nul_form[] = {"A\0001", "B\0", "C\0003", nullptr};
const char *const eq_form[] = {"A=1", "B", "C=3", nullptr};

TEST(CompactEnvAllocation, EveryProducerFailsCleanly) {
  environ_guard guard({"A=1", "B", "C=3"});
  compact env1({"A=1", "B"}), env2({"B=2", "C=3"});
  struct producer {
    const char *what;
    long allocations;  // the merge also allocates its key index
    bool compact_form;
    std::function<vexo_t_error_code(char ***, size_t *)> produce;
  };
  const producer producers[] = {
      {"selector 4", 1, true, [](char ***e, size_t *s) { return vexo_get_system_properties(e, s, 4); }},
      {"selector 12", 1, false,
       [](char ***e, size_t *) { return vexo_get_system_properties(e, nullptr, 12); }},
      {"flag 0", 1, true, [](char ***e, size_t *s) { return vexo_make_compact_env(nul_form, e, s, 0); }},
      {"flag 1", 1, true, [](char ***e, size_t *s) { return vexo_make_compact_env(eq_form, e, s, 1); }},
      {"merge", 2, true,
       [&](char ***e, size_t *s) { return vexo_merge_compact_envs(env1.env, 0, env2.env, 0, e, s, 0); }},
  };
  for (const producer &p : producers) {
    SCOPED_TRACE(p.what);
    const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
      char **env = kUntouched;
      size_t size = 7;
      const vexo_t_error_code r = p.produce(&env, &size);
      if (scope.injected()) {
        EXPECT_TRUE(r == VEXO_E_OUT_OF_MEMORY && env == kUntouched && size == 7u) << r;
        return;
      }
      ASSERT_EQ(r, VEXO_S_NOERR);
      if (p.compact_form) {
        EXPECT_EQ(read_compact(env, size), (pairs{{"A", "1"}, {"B", ""}, {"C", "3"}}));
      }
      vexo_free(env);
    });
    EXPECT_EQ(made, p.allocations);
  }
}

}  // namespace
