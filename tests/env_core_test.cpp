// System properties and the compact environments the core builds.
#include <gtest/gtest.h>

#include <vexo/vexo_core.h>

#include "fault.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using pairs = std::vector<std::pair<std::string, std::string>>;

// Reads a compact environment back and checks its layout on the way: room
// for the pointers and the null pointer, then the entries back to back, each
// key NUL value NUL with a non-empty key, filling the block exactly.
pairs read_compact(char **env, size_t size) {
  pairs out;
  size_t n = 0;
  while (env[n] != nullptr)
    ++n;
  const char *end = reinterpret_cast<const char *>(env) + size;
  const char *next = reinterpret_cast<const char *>(env + n + 1);
  for (size_t i = 0; i < n; ++i) {
    EXPECT_EQ(env[i], next) << "entry " << i << " is not where the one before ended";
    if (env[i] != next || next >= end)
      return out;
    const size_t key_len = strnlen(next, static_cast<size_t>(end - next));
    const char *value = next + key_len + 1;
    EXPECT_GT(key_len, 0u);
    EXPECT_LT(value, end) << "entry " << i << " runs past the block";
    if (value >= end)
      return out;
    const size_t value_len = strnlen(value, static_cast<size_t>(end - value));
    out.emplace_back(std::string(next, key_len), std::string(value, value_len));
    next = value + value_len + 1;
  }
  EXPECT_EQ(next, end) << "the size is not the size of the block";
  return out;
}

// Puts a chosen array in place of the live environment for one scope.
class EnvironGuard {
 public:
  explicit EnvironGuard(std::vector<const char *> entries) : entries_(std::move(entries)), saved_(environ) {
    entries_.push_back(nullptr);
    environ = const_cast<char **>(entries_.data());
  }
  ~EnvironGuard() { environ = saved_; }
  EnvironGuard(const EnvironGuard &) = delete;
  EnvironGuard &operator=(const EnvironGuard &) = delete;

 private:
  std::vector<const char *> entries_;
  char **saved_;
};

// A compact environment of "KEY=VALUE" entries, freed at the end of its scope.
struct compact {
  char **env = nullptr;
  size_t size = 0;
  explicit compact(std::vector<const char *> entries) {
    entries.push_back(nullptr);
    EXPECT_EQ(vexo_make_compact_env(entries.data(), &env, &size, VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE),
              VEXO_S_NOERR);
  }
  ~compact() { vexo_free(env); }
  compact(const compact &) = delete;
  compact &operator=(const compact &) = delete;
};

TEST(SystemProperty, CopiesTheLiveValue) {
  ASSERT_EQ(setenv("VEXO_TEST_PROPERTY", "/tmp/a=b", 1), 0);
  char *value = vexo_get_system_property_allocate("VEXO_TEST_PROPERTY", 0);
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(value, "/tmp/a=b");
  EXPECT_NE(value, getenv("VEXO_TEST_PROPERTY")) << "a copy, not the live string";
  vexo_free(value);
  fault::alloc_sweep([](fault::alloc_scope &scope) {
    char *v = vexo_get_system_property_allocate("VEXO_TEST_PROPERTY", 0);
    EXPECT_EQ(v == nullptr, scope.injected());
    vexo_free(v);
  });
  ASSERT_EQ(unsetenv("VEXO_TEST_PROPERTY"), 0);
  EXPECT_EQ(vexo_get_system_property_allocate("VEXO_TEST_PROPERTY", 0), nullptr);
  EXPECT_EQ(vexo_get_system_property_allocate(nullptr, 0), nullptr);
}

TEST(SystemProperties, BothFormsOfTheLiveEnvironment) {
  const std::vector<const char *> live = {"A=1", "B", "=x", "", "D=a=b", "A=2", "E=", "\xE9=\xFF"};
  EnvironGuard guard(live);
  char **block = nullptr;
  size_t size = 0;
  ASSERT_EQ(vexo_get_system_properties(&block, &size, VEXO_SYSTEM_PROPERTIES_COMPACT_ENV), VEXO_S_NOERR);
  EXPECT_EQ(read_compact(block, size),
            (pairs{{"A", "1"}, {"B", ""}, {"D", "a=b"}, {"A", "2"}, {"E", ""}, {"\xE9", "\xFF"}}));
  vexo_free(block);

  // Selector 12: the strings unchanged, empty ones too, packed behind their pointers.
  ASSERT_EQ(vexo_get_system_properties(&block, nullptr, VEXO_SYSTEM_PROPERTIES_ENVIRON), VEXO_S_NOERR);
  const char *next = reinterpret_cast<const char *>(block + live.size() + 1);
  size_t i = 0;
  for (; block[i] != nullptr && i < live.size(); ++i) {
    EXPECT_EQ(block[i], next);
    EXPECT_STREQ(block[i], live[i]);
    next = block[i] + std::strlen(block[i]) + 1;
  }
  EXPECT_EQ(i, live.size());
  EXPECT_EQ(block[i], nullptr);
  vexo_free(block);
}

TEST(SystemProperties, EmptyClearedAndBadArguments) {
  for (bool cleared : {false, true}) {
    EnvironGuard guard({});
    if (cleared)
      environ = nullptr;  // as clearenv leaves it
    char **block = nullptr;
    size_t size = 0;
    ASSERT_EQ(vexo_get_system_properties(&block, &size, VEXO_SYSTEM_PROPERTIES_COMPACT_ENV), VEXO_S_NOERR);
    EXPECT_EQ(size, sizeof(char *));
    EXPECT_EQ(block[0], nullptr);
    vexo_free(block);
    ASSERT_EQ(vexo_get_system_properties(&block, nullptr, VEXO_SYSTEM_PROPERTIES_ENVIRON), VEXO_S_NOERR);
    EXPECT_EQ(block[0], nullptr);
    vexo_free(block);
  }
  char **block = reinterpret_cast<char **>(0x1);
  size_t size = 7;
  for (int selector : {0, 3, 5, 11, 13, -4})
    EXPECT_EQ(vexo_get_system_properties(&block, &size, selector), VEXO_E_NOT_SUPPORTED) << selector;
  EXPECT_EQ(vexo_get_system_properties(nullptr, &size, VEXO_SYSTEM_PROPERTIES_COMPACT_ENV),
            VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(block, reinterpret_cast<char **>(0x1));
  EXPECT_EQ(size, 7u);
}

TEST(MakeCompactEnv, BothEntryForms) {
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

  const char *with_eq[] = {"A=1", "B", "=x", "", "D=a=b", "A=2", "E=", nullptr};
  ASSERT_EQ(vexo_make_compact_env(with_eq, &env, &size, VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE), VEXO_S_NOERR);
  EXPECT_EQ(read_compact(env, size), (pairs{{"A", "1"}, {"B", ""}, {"D", "a=b"}, {"A", "2"}, {"E", ""}}));
  vexo_free(env);
}

TEST(MakeCompactEnv, EmptyListsAndBadArguments) {
  const char *none[] = {nullptr};
  const char *all_left_out[] = {"", "=x", nullptr};
  for (const char *const *list : std::array<const char *const *, 3>{nullptr, none, all_left_out}) {
    char **env = nullptr;
    size_t size = 0;
    ASSERT_EQ(vexo_make_compact_env(list, &env, &size, VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE), VEXO_S_NOERR);
    EXPECT_EQ(size, sizeof(char *));
    EXPECT_EQ(env[0], nullptr);
    vexo_free(env);
  }
  char **env = reinterpret_cast<char **>(0x1);
  size_t size = 7;
  const char *list[] = {"A=1", nullptr};
  EXPECT_EQ(vexo_make_compact_env(list, &env, &size, 2), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_make_compact_env(list, nullptr, &size, 1), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(env, reinterpret_cast<char **>(0x1));
  EXPECT_EQ(size, 7u);
}

TEST(MergeCompactEnvs, FirstEnvironmentWinsEachKeepsItsOrder) {
  compact env1({"PATH=/bin", "A=1", "A=1b", "HOME=/root"});
  compact env2({"Z=26", "A=2", "HOME=/home", "B=2", "Z=27", "PATH2=x"});
  char **merged = nullptr;
  size_t size = 0;
  ASSERT_EQ(vexo_merge_compact_envs(env1.env, env1.size, env2.env, env2.size, &merged, &size, 0),
            VEXO_S_NOERR);
  EXPECT_EQ(read_compact(merged, size), (pairs{{"PATH", "/bin"},
                                               {"A", "1"},
                                               {"A", "1b"},
                                               {"HOME", "/root"},
                                               {"Z", "26"},
                                               {"B", "2"},
                                               {"Z", "27"},
                                               {"PATH2", "x"}}));
  merged[0][0] = 'Q';  // writable, and not shared with env1
  EXPECT_STREQ(env1.env[0], "PATH");
  vexo_free(merged);

  compact none({});
  for (auto [one, two] : std::vector<std::pair<char **, char **>>{
           {env1.env, nullptr}, {nullptr, env1.env}, {none.env, env1.env}, {env1.env, env1.env}}) {
    ASSERT_EQ(vexo_merge_compact_envs(one, 0, two, 0, &merged, &size, 0), VEXO_S_NOERR);
    EXPECT_EQ(read_compact(merged, size),
              (pairs{{"PATH", "/bin"}, {"A", "1"}, {"A", "1b"}, {"HOME", "/root"}}));
    vexo_free(merged);
  }
  ASSERT_EQ(vexo_merge_compact_envs(nullptr, 0, nullptr, 0, &merged, nullptr, 0), VEXO_S_NOERR);
  EXPECT_EQ(merged[0], nullptr);
  vexo_free(merged);
  EXPECT_EQ(vexo_merge_compact_envs(env1.env, 0, env2.env, 0, nullptr, &size, 0), VEXO_E_PARAMETER_ERROR);
}

// Thousands of keys out of order, many of them prefixes of others: the
// look-up of env1's keys must find exactly the equal ones.
TEST(MergeCompactEnvs, LargeEnvironments) {
  std::vector<std::string> text1, text2;
  for (int i = 0; i < 5000; ++i) {
    const std::string key = std::string("K").append(std::to_string((i * 7919) % 5000 + 1));
    text1.push_back(key + "=1");
    text2.push_back(key + "0=2");  // K<k>0 is one of env1's keys exactly when k <= 500
    text2.push_back(key + "=2");
  }
  std::vector<const char *> list1, list2;
  for (const auto &s : text1)
    list1.push_back(s.c_str());
  for (const auto &s : text2)
    list2.push_back(s.c_str());
  compact env1(list1), env2(list2);
  char **merged = nullptr;
  size_t size = 0;
  ASSERT_EQ(vexo_merge_compact_envs(env1.env, env1.size, env2.env, env2.size, &merged, &size, 0),
            VEXO_S_NOERR);
  const pairs got = read_compact(merged, size);
  vexo_free(merged);
  ASSERT_EQ(got.size(), 5000u + 4500u);
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].second, i < 5000 ? "1" : "2");
    if (i >= 5000) {
      EXPECT_GT(std::stoi(got[i].first.substr(1)), 5000) << got[i].first;
    }
  }
}

TEST(CompactEnvAllocation, EveryProducerFailsCleanly) {
  EnvironGuard guard({"A=1", "B", "C=3"});
  compact env1({"A=1", "B"});
  compact env2({"B=2", "C=3"});
  const std::vector<std::pair<const char *, std::function<vexo_t_error_code(char ***, size_t *)>>> producers =
      {
          {"selector 4", [](char ***e, size_t *s) { return vexo_get_system_properties(e, s, 4); }},
          {"selector 12", [](char ***e, size_t *) { return vexo_get_system_properties(e, nullptr, 12); }},
          {"make, flag 0",
           [](char ***e, size_t *s) {
             const char *entries[] = {"A\0001", "B\0", "C\0003", nullptr};
             return vexo_make_compact_env(entries, e, s, VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE);
           }},
          {"make, flag 1",
           [](char ***e, size_t *s) {
             const char *entries[] = {"A=1", "B", "C=3", nullptr};
             return vexo_make_compact_env(entries, e, s, VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE);
           }},
          {"merge",
           [&](char ***e, size_t *s) { return vexo_merge_compact_envs(env1.env, 0, env2.env, 0, e, s, 0); }},
      };
  for (const auto &producer : producers) {
    const char *what = producer.first;
    const auto &produce = producer.second;
    SCOPED_TRACE(what);
    long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
      char **env = reinterpret_cast<char **>(0x1);
      size_t size = 7;
      vexo_t_error_code r = produce(&env, &size);
      if (scope.injected()) {
        EXPECT_EQ(r, VEXO_E_OUT_OF_MEMORY);
        EXPECT_EQ(env, reinterpret_cast<char **>(0x1));
        EXPECT_EQ(size, 7u);
        return;
      }
      ASSERT_EQ(r, VEXO_S_NOERR);
      if (std::strcmp(what, "selector 12") != 0) {
        EXPECT_EQ(read_compact(env, size), (pairs{{"A", "1"}, {"B", ""}, {"C", "3"}}));
      }
      vexo_free(env);
    });
    EXPECT_EQ(made, std::strcmp(what, "merge") == 0 ? 2 : 1) << "the merge also allocates its key index";
  }
}

}  // namespace
