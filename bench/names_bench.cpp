// The path most directory entries take: an ASCII name through
// vexo_file_name_from_os_unix under the no-copy option, which should be one
// scan and no allocation. The peer is strlen over the same bytes, the least
// any look at the name costs.
#include "ratio.h"

#include <vexo/vexo_unix.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

long g_allocations = 0;

void *counting_malloc(size_t size) {
  ++g_allocations;
  return std::malloc(size);
}

void *counting_realloc(void *p, size_t size) {
  ++g_allocations;
  return std::realloc(p, size);
}

std::string ascii_name(benchmark::State &state) {
  static const std::string pattern = "quarterly-report_2024-final.v2.";
  std::string name;
  while (name.size() < static_cast<size_t>(state.range(0)))
    name += pattern[name.size() % pattern.size()];
  return name;
}

void BM_vexo_from_os(benchmark::State &state) {
  const std::string name = ascii_name(state);
  const char *os_name = name.c_str();
  char *utf8 = nullptr;
  if (vexo_file_name_from_os_unix(os_name, &utf8, VEXO_FILE_NAME_OPTION_NO_COPY) != 0 || utf8 != os_name) {
    state.SkipWithError("an ASCII name did not come back as the caller's pointer");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(vexo_file_name_from_os_unix(os_name, &utf8, VEXO_FILE_NAME_OPTION_NO_COPY));
    benchmark::DoNotOptimize(utf8);
  }
}

void BM_strlen(benchmark::State &state) {
  const std::string name = ascii_name(state);
  const char *os_name = name.c_str();
  for (auto _ : state) {
    benchmark::DoNotOptimize(os_name);
    benchmark::DoNotOptimize(std::strlen(os_name));
  }
}

BENCHMARK(BM_vexo_from_os)->Arg(8)->Arg(32)->Arg(255);
BENCHMARK(BM_strlen)->Arg(8)->Arg(32)->Arg(255);

}  // namespace

int main(int argc, char **argv) {
  // Nothing is outstanding yet, so the allocator may be swapped.
  if (vexo_replace_allocator(counting_malloc, counting_realloc, std::free) != VEXO_S_NOERR)
    return 1;
  bench::capture_reporter rep;
  const bool ran = bench::run_benchmarks(argc, argv, rep);
  vexo_replace_allocator(nullptr, nullptr, nullptr);
  if (!ran)
    return 1;

  bench::print_ratio_table(
      rep, "ASCII name, VEXO_FILE_NAME_OPTION_NO_COPY, beside strlen",
      {
          {"8 bytes", "BM_vexo_from_os/8", "BM_strlen/8", {bench::goal_kind::ratio_at_most, 1.5}},
          {"32 bytes", "BM_vexo_from_os/32", "BM_strlen/32", {bench::goal_kind::ratio_at_most, 1.5}},
          {"32 bytes, time", "BM_vexo_from_os/32", "BM_strlen/32", {bench::goal_kind::vexo_ns_at_most, 10}},
          {"255 bytes", "BM_vexo_from_os/255", "BM_strlen/255", {bench::goal_kind::ratio_at_most, 1.5}},
      });
  std::printf("allocations by the library over every run, calibration included: %ld%s\n", g_allocations,
              g_allocations == 0 ? " (none)" : "");
  return g_allocations == 0 ? 0 : 1;
}
