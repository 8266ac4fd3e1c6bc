// The environment snapshot beside the least a copy of the environment can
// do (size it, one malloc, memcpy every entry), for 10, 100 and 1000
// variables, counting the allocations the snapshot makes; and the look-up
// in the initial environment beside libc's getenv on the same 100 variables.
#include "ratio.h"

#include <vexo/vexo_unix.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char **environ;

namespace {

long g_allocations = 0;

void *counting_malloc(size_t n) {
  ++g_allocations;
  return std::malloc(n);
}
void *counting_realloc(void *p, size_t n) {
  ++g_allocations;
  return std::realloc(p, n);
}

// An environment of `n` variables VAR_<i>=<path-like value>; with `latin1`
// the middle value holds the byte 0xE9, which is not UTF-8.
struct test_env {
  std::vector<std::string> text;
  std::vector<char *> ptrs;
  test_env(int n, bool latin1) {
    for (int i = 0; i < n; ++i)
      text.push_back("VAR_" + std::to_string(i) + "=/usr/local/share/value/" + std::to_string(i * 7919));
    if (latin1)
      text[static_cast<size_t>(n / 2)] += "\xE9t\xE9";
    for (std::string &s : text)
      ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
  }
};

// Swaps the process environment for a test one for the scope's lifetime.
class env_scope {
 public:
  explicit env_scope(test_env &env) : saved_(environ) { environ = env.ptrs.data(); }
  ~env_scope() { environ = saved_; }
  env_scope(const env_scope &) = delete;
  env_scope &operator=(const env_scope &) = delete;

 private:
  char **saved_;
};

void BM_vexo_snapshot(benchmark::State &state, bool latin1) {
  test_env env(static_cast<int>(state.range(0)), latin1);
  env_scope scope(env);
  vexo_replace_allocator(counting_malloc, counting_realloc, std::free);
  g_allocations = 0;
  for (auto _ : state) {
    char **block = nullptr;
    if (vexo_unix_get_environ(&block, nullptr, VEXO_GET_ENVIRON_OPTION_CURRENT) != VEXO_S_NOERR) {
      state.SkipWithError("snapshot failed");
      break;
    }
    benchmark::DoNotOptimize(block);
    vexo_free(block);
  }
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(g_allocations), benchmark::Counter::kAvgIterations);
  vexo_replace_allocator(nullptr, nullptr, nullptr);
}

void BM_raw_copy(benchmark::State &state, bool latin1) {
  test_env env(static_cast<int>(state.range(0)), latin1);
  env_scope scope(env);
  for (auto _ : state) {
    size_t n = 0;
    size_t bytes = 0;
    for (; environ[n] != nullptr; ++n)
      bytes += std::strlen(environ[n]) + 1;
    auto **block = static_cast<char **>(std::malloc((n + 1) * sizeof(char *) + bytes));
    char *pos = reinterpret_cast<char *>(block + n + 1);
    for (size_t i = 0; i < n; ++i) {
      const size_t len = std::strlen(environ[i]) + 1;
      std::memcpy(pos, environ[i], len);
      block[i] = pos;
      pos += len;
    }
    block[n] = nullptr;
    benchmark::DoNotOptimize(block);
    std::free(block);
  }
}

BENCHMARK_CAPTURE(BM_vexo_snapshot, utf8, false)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(BM_raw_copy, utf8, false)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(BM_vexo_snapshot, latin1, true)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK_CAPTURE(BM_raw_copy, latin1, true)->Arg(10)->Arg(100)->Arg(1000);

constexpr int kLookupVars = 100;

std::string lookup_key(int which) {
  return "VAR_" + std::to_string(which);
}

void BM_vexo_getenv(benchmark::State &state) {
  test_env env(kLookupVars, false);
  env_scope scope(env);
  vexo_init_process_unix(0);
  const std::string key = lookup_key(static_cast<int>(state.range(0)));
  char buf[256];
  for (auto _ : state) {
    size_t size = sizeof buf;
    if (vexo_unix_getenv(key.c_str(), buf, &size, VEXO_GETENV_OPTION_INITIAL) != VEXO_S_NOERR) {
      state.SkipWithError("look-up failed");
      break;
    }
    benchmark::DoNotOptimize(buf);
  }
  vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT);
}

// The libc side copies the value too, so both hand the caller the same thing.
void BM_libc_getenv(benchmark::State &state) {
  test_env env(kLookupVars, false);
  env_scope scope(env);
  const std::string key = lookup_key(static_cast<int>(state.range(0)));
  char buf[256];
  for (auto _ : state) {
    const char *value = std::getenv(key.c_str());
    if (value == nullptr) {
      state.SkipWithError("look-up failed");
      break;
    }
    std::memcpy(buf, value, std::strlen(value) + 1);
    benchmark::DoNotOptimize(buf);
  }
}

BENCHMARK(BM_vexo_getenv)->Arg(0)->Arg(kLookupVars / 2)->Arg(kLookupVars - 1);
BENCHMARK(BM_libc_getenv)->Arg(0)->Arg(kLookupVars / 2)->Arg(kLookupVars - 1);

}  // namespace

int main(int argc, char **argv) {
  bench::capture_reporter rep;
  if (!bench::run_benchmarks(argc, argv, rep))
    return 1;

  std::vector<bench::row> snapshot;
  for (const char *n : {"10", "100", "1000"}) {
    for (const char *kind : {"utf8", "latin1"}) {
      snapshot.push_back({std::string(kind) + ", " + n + " variables",
                          std::string("BM_vexo_snapshot/") + kind + "/" + n,
                          std::string("BM_raw_copy/") + kind + "/" + n,
                          {}});
    }
  }
  bench::print_ratio_table(rep, "environment snapshot beside one malloc + memcpy of every entry", snapshot);
  std::printf("allocations per snapshot:");
  for (const char *n : {"10", "100", "1000"}) {
    for (const char *kind : {"utf8", "latin1"}) {
      if (const auto m = rep.find(std::string("BM_vexo_snapshot/") + kind + "/" + n))
        std::printf("  %s/%s %.0f", kind, n, m->counters.at("allocs"));
    }
  }
  std::printf("\n");

  bench::print_ratio_table(rep, "look-up in the initial environment beside libc getenv (100 variables)",
                           {{"first variable", "BM_vexo_getenv/0", "BM_libc_getenv/0", {}},
                            {"middle variable", "BM_vexo_getenv/50", "BM_libc_getenv/50", {}},
                            {"last variable", "BM_vexo_getenv/99", "BM_libc_getenv/99", {}}});
  return 0;
}
