// The file-system operations beside the one system call each of them wraps:
// vexo_stat_unix beside stat(2), vexo_get_working_directory_unix beside
// getcwd(3) into a stack buffer, vexo_unix_test_file_access beside
// access(2). The files live in a scratch directory removed at the end.
#include "ratio.h"

#include <vexo/vexo_unix.h>

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Owns neither file nor group of the foreign file, so the access class
// walks the whole group list before settling on "other".
constexpr uid_t kOtherId = 12345;
constexpr size_t kLongCwd = 1000;
constexpr size_t kLongestComponent = 200;

constexpr vexo_t_bits kAllButAccess = VEXO_STAT_OPTION_REQUIRE_NON_DIRECTORY | VEXO_STAT_OPTION_MODE |
                                      VEXO_STAT_OPTION_TYPE | VEXO_STAT_OPTION_TIMES | VEXO_STAT_OPTION_SIZE |
                                      VEXO_STAT_OPTION_OWNER | VEXO_STAT_OPTION_GROUP;
constexpr vexo_t_bits kAll = kAllButAccess | VEXO_STAT_OPTION_ACCESS;

struct fixture {
  std::string home;      // the working directory to return to
  std::string dir;       // scratch directory, its canonical name
  std::string owned;     // a file the process owns, mode 0644
  std::string foreign;   // the same owned by kOtherId; empty when chown is not allowed
  std::string long_dir;  // a directory whose absolute name is kLongCwd bytes
};

fixture g;

bool fail(const std::string &what) {
  std::fprintf(stderr, "fs_bench: %s: %s\n", what.c_str(), std::strerror(errno));
  return false;
}

bool make_file(const std::string &path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0)
    return fail("cannot create " + path);
  ::close(fd);
  // The umask must not decide which permission bits are measured.
  return ::chmod(path.c_str(), 0644) == 0 || fail("cannot chmod " + path);
}

// Nested directories under the scratch directory until the name is exactly
// kLongCwd bytes; no component may exceed the file system's name limit.
bool make_long_dir() {
  std::string path = g.dir;
  while (path.size() < kLongCwd) {
    const size_t room = kLongCwd - path.size() - 1;
    size_t n = std::min(room, kLongestComponent);
    if (room - n == 1)  // a last "/x" needs two bytes
      --n;
    path += '/';
    path.append(n, 'd');
    if (::mkdir(path.c_str(), 0755) != 0)
      return fail("cannot create a directory of " + std::to_string(path.size()) + " bytes");
  }
  g.long_dir = path;
  return true;
}

bool set_up() {
  char cwd[PATH_MAX];
  if (::getcwd(cwd, sizeof cwd) == nullptr)
    return fail("getcwd");
  g.home = cwd;
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vexo-fs-bench-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr)
    return fail("cannot make a scratch directory " + pattern);
  // getcwd reports the canonical name, which the long directory is measured by.
  char real[PATH_MAX];
  if (::realpath(pattern.c_str(), real) == nullptr)
    return fail("realpath " + pattern);
  g.dir = real;
  g.owned = g.dir + "/owned";
  if (!make_file(g.owned) || !make_long_dir())
    return false;
  const std::string foreign = g.dir + "/foreign";
  if (!make_file(foreign))
    return false;
  if (::chown(foreign.c_str(), kOtherId, kOtherId) == 0)
    g.foreign = foreign;
  else
    std::fprintf(stderr, "fs_bench: cannot chown a file to %u (%s); the non-owner case is left out\n",
                 static_cast<unsigned>(kOtherId), std::strerror(errno));
  return true;
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
  return ::remove(path);
}

void tear_down() {
  if (!g.dir.empty() && ::nftw(g.dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS) != 0)
    fail("could not remove " + g.dir);
}

// The vexo side must answer what the raw call answers, or the ratio
// compares different work.
bool cwd_agrees(const std::string &dir, size_t expected_size) {
  if (::chdir(dir.c_str()) != 0)
    return fail("chdir " + dir);
  char *vexo = nullptr;
  const vexo_t_error_code rc = vexo_get_working_directory_unix(&vexo, 0);
  char raw[PATH_MAX];
  const bool raw_ok = ::getcwd(raw, sizeof raw) != nullptr;
  const bool same =
      rc == VEXO_S_NOERR && raw_ok && std::strcmp(vexo, raw) == 0 && std::strlen(raw) == expected_size;
  if (rc >= 0)
    vexo_free(vexo);
  if (::chdir(g.home.c_str()) != 0)
    return fail("chdir " + g.home);
  if (!same)
    std::fprintf(stderr, "fs_bench: vexo_get_working_directory_unix (%d) and getcwd disagree in %s\n", rc,
                 dir.c_str());
  return same;
}

bool caller_access_is(const std::string &path, vexo_t_bits expected) {
  vexo_t_stat info = {};
  const vexo_t_error_code rc = vexo_stat_unix(path.c_str(), &info, kAll);
  const vexo_t_bits caller = info.mode & ~0xFFFu;
  if (rc == VEXO_S_NOERR && caller == expected)
    return true;
  std::fprintf(stderr, "fs_bench: vexo_stat_unix on %s gave %d and caller bits 0x%x, expected 0x%x\n",
               path.c_str(), rc, static_cast<unsigned>(caller), static_cast<unsigned>(expected));
  return false;
}

bool answers_agree() {
  if (!caller_access_is(g.owned, VEXO_STAT_MODE_CALLER_READ | VEXO_STAT_MODE_CALLER_WRITE))
    return false;
  if (!g.foreign.empty() && !caller_access_is(g.foreign, VEXO_STAT_MODE_CALLER_READ))
    return false;
  if (vexo_unix_test_file_access(g.owned.c_str(), VEXO_ACCESS_OPTION_READ) != VEXO_S_NOERR ||
      ::access(g.owned.c_str(), R_OK) != 0) {
    std::fprintf(stderr, "fs_bench: the access tests do not both grant read access to %s\n", g.owned.c_str());
    return false;
  }
  return cwd_agrees(g.dir, g.dir.size()) && cwd_agrees(g.long_dir, kLongCwd);
}

void BM_vexo_stat(benchmark::State &state, const std::string *path, vexo_t_bits options) {
  vexo_t_stat info = {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(vexo_stat_unix(path->c_str(), &info, options));
    benchmark::ClobberMemory();
  }
}

void BM_stat(benchmark::State &state, const std::string *path) {
  struct stat st = {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(::stat(path->c_str(), &st));
    benchmark::ClobberMemory();
  }
}

// Measures inside `dir` and returns to where the program started; the
// working directory is the process's, so it is set per run.
template <typename Loop>
void in_directory(benchmark::State &state, const std::string &dir, Loop loop) {
  if (::chdir(dir.c_str()) != 0) {
    state.SkipWithError("chdir into the measured directory failed");
    return;
  }
  loop();
  if (::chdir(g.home.c_str()) != 0)
    state.SkipWithError("chdir back failed");
}

void BM_vexo_cwd(benchmark::State &state, const std::string *dir) {
  in_directory(state, *dir, [&] {
    for (auto _ : state) {
      char *cwd = nullptr;
      benchmark::DoNotOptimize(vexo_get_working_directory_unix(&cwd, 0));
      vexo_free(cwd);
    }
  });
}

void BM_getcwd(benchmark::State &state, const std::string *dir) {
  in_directory(state, *dir, [&] {
    char cwd[PATH_MAX];
    for (auto _ : state) {
      benchmark::DoNotOptimize(::getcwd(cwd, sizeof cwd));
      benchmark::ClobberMemory();
    }
  });
}

void BM_vexo_access(benchmark::State &state, const std::string *path) {
  for (auto _ : state)
    benchmark::DoNotOptimize(vexo_unix_test_file_access(path->c_str(), VEXO_ACCESS_OPTION_READ));
}

void BM_access(benchmark::State &state, const std::string *path) {
  for (auto _ : state)
    benchmark::DoNotOptimize(::access(path->c_str(), R_OK));
}

void register_benchmarks() {
  benchmark::RegisterBenchmark("BM_vexo_stat/all_but_access", BM_vexo_stat, &g.owned, kAllButAccess);
  benchmark::RegisterBenchmark("BM_vexo_stat/access_owner", BM_vexo_stat, &g.owned, kAll);
  benchmark::RegisterBenchmark("BM_stat/owned", BM_stat, &g.owned);
  if (!g.foreign.empty()) {
    benchmark::RegisterBenchmark("BM_vexo_stat/access_other", BM_vexo_stat, &g.foreign, kAll);
    benchmark::RegisterBenchmark("BM_stat/foreign", BM_stat, &g.foreign);
  }
  benchmark::RegisterBenchmark("BM_vexo_cwd/short", BM_vexo_cwd, &g.dir);
  benchmark::RegisterBenchmark("BM_getcwd/short", BM_getcwd, &g.dir);
  benchmark::RegisterBenchmark("BM_vexo_cwd/1000", BM_vexo_cwd, &g.long_dir);
  benchmark::RegisterBenchmark("BM_getcwd/1000", BM_getcwd, &g.long_dir);
  benchmark::RegisterBenchmark("BM_vexo_access/read", BM_vexo_access, &g.owned);
  benchmark::RegisterBenchmark("BM_access/read", BM_access, &g.owned);
}

}  // namespace

int main(int argc, char **argv) {
  if (!set_up() || !answers_agree()) {
    tear_down();
    return 1;
  }
  register_benchmarks();
  bench::capture_reporter rep;
  const bool ran = bench::run_benchmarks(argc, argv, rep);
  tear_down();
  if (!ran)
    return 1;

  const std::string short_label = "cwd, " + std::to_string(g.dir.size()) + " bytes";
  bench::print_ratio_table(
      rep, "file-system operations beside the system call they make",
      {
          {"stat, all but ACCESS",
           "BM_vexo_stat/all_but_access",
           "BM_stat/owned",
           {bench::goal_kind::ratio_at_most, 1.05}},
          {"stat + ACCESS, owner", "BM_vexo_stat/access_owner", "BM_stat/owned", {}},
          {"stat + ACCESS, non-owner", "BM_vexo_stat/access_other", "BM_stat/foreign", {}},
          {short_label, "BM_vexo_cwd/short", "BM_getcwd/short", {bench::goal_kind::ratio_at_most, 1.2}},
          {"cwd, 1000 bytes", "BM_vexo_cwd/1000", "BM_getcwd/1000", {bench::goal_kind::ratio_at_most, 1.2}},
          {"access READ, owner", "BM_vexo_access/read", "BM_access/read", {}},
      });
  std::printf(
      "The vexo cwd figures include freeing the result. A name over 256 bytes takes vexo one getcwd per "
      "buffer of 257, 513, 1025 ... bytes until it fits; getcwd here is given PATH_MAX at once.\n");
  return 0;
}
