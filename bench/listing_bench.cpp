// Directory listing and OS file handles beside the system calls they make:
// a listing with a name request per entry beside opendir/readdir and
// std::filesystem::directory_iterator; a DIRECTORIES_ONLY listing beside
// readdir + stat per entry; vexo_unix_device_type beside isatty + fstat;
// vexo_os_file_handle_close_unix beside close. The directory lives in a
// scratch directory removed at the end.
#include "ratio.h"

#include <vexo/vexo_unix.h>

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

constexpr int kEntries = 10000;
// One entry in ten is a directory, so the filter passes over most of them.
constexpr int kDirectoryEvery = 10;

struct fixture {
  std::string scratch;
  std::string dir;   // the listed directory, kEntries entries besides "." and ".."
  std::string file;  // a regular file outside it, opened by the handle benchmarks
  int fd = -1;       // `file`, open for the classification benchmarks
};

fixture g;

bool fail(const std::string &what) {
  std::fprintf(stderr, "listing_bench: %s: %s\n", what.c_str(), std::strerror(errno));
  return false;
}

bool set_up() {
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vexo-listing-bench-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr)
    return fail("cannot make a scratch directory " + pattern);
  g.scratch = pattern;
  g.dir = g.scratch + "/entries";
  if (::mkdir(g.dir.c_str(), 0755) != 0)
    return fail("mkdir " + g.dir);
  char name[32];
  for (int i = 0; i < kEntries; ++i) {
    std::snprintf(name, sizeof name, "/entry-%05d", i);
    const std::string path = g.dir + name;
    if (i % kDirectoryEvery == 0) {
      if (::mkdir(path.c_str(), 0755) != 0)
        return fail("mkdir " + path);
      continue;
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
      return fail("cannot create " + path);
    ::close(fd);
  }
  g.file = g.scratch + "/handle";
  g.fd = ::open(g.file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  return g.fd >= 0 || fail("cannot create " + g.file);
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
  return ::remove(path);
}

void tear_down() {
  if (g.fd >= 0)
    ::close(g.fd);
  if (!g.scratch.empty() && ::nftw(g.scratch.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS) != 0)
    fail("could not remove " + g.scratch);
}

// Entries delivered by one listing under `options`, each with its name
// asked for; -1 on a failure.
long vexo_list(vexo_t_bits options, bool with_names) {
  vexo_t_dir *dir = nullptr;
  if (vexo_open_directory_unix(g.dir.c_str(), &dir, options) != VEXO_S_NOERR)
    return -1;
  long count = 0;
  vexo_t_dirent *ent = nullptr;
  vexo_t_error_code rc;
  while ((rc = vexo_read_directory_unix(dir, &ent, 0)) == VEXO_S_NOERR) {
    if (with_names) {
      const char *name = nullptr;
      if (vexo_dirent_name_unix(ent, &name) < 0)
        break;
      benchmark::DoNotOptimize(name);
    }
    ++count;
  }
  vexo_close_directory_unix(dir);
  return rc == VEXO_E_NO_MORE_ENTRIES ? count : -1;
}

long raw_list() {
  DIR *dir = ::opendir(g.dir.c_str());
  if (dir == nullptr)
    return -1;
  long count = 0;
  while (const dirent *e = ::readdir(dir)) {
    benchmark::DoNotOptimize(e->d_name);
    ++count;
  }
  ::closedir(dir);
  return count;
}

long raw_list_directories() {
  DIR *dir = ::opendir(g.dir.c_str());
  if (dir == nullptr)
    return -1;
  std::string path = g.dir + "/";
  const size_t base = path.size();
  long count = 0;
  struct stat st = {};
  while (const dirent *e = ::readdir(dir)) {
    path.resize(base);
    path += e->d_name;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
      ++count;
  }
  ::closedir(dir);
  return count;
}

long iterator_list() {
  std::error_code ec;
  long count = 0;
  for (const auto &entry : std::filesystem::directory_iterator(g.dir, ec)) {
    benchmark::DoNotOptimize(entry.path().c_str());
    ++count;
  }
  return ec ? -1 : count;
}

// Both sides must see the same entries, or the ratio compares different work.
bool answers_agree() {
  const long all = kEntries + 2;
  const long dirs = (kEntries + kDirectoryEvery - 1) / kDirectoryEvery + 2;
  const long got[] = {vexo_list(0, true), raw_list(), iterator_list() + 2,
                      vexo_list(VEXO_DIR_OPTION_DIRECTORIES_ONLY, false), raw_list_directories()};
  const long want[] = {all, all, all, dirs, dirs};
  for (size_t i = 0; i < std::size(got); ++i)
    if (got[i] != want[i]) {
      std::fprintf(stderr, "listing_bench: listing %zu gave %ld entries, expected %ld\n", i, got[i], want[i]);
      return false;
    }
  if (vexo_unix_device_type(g.fd) != VEXO_DEVICE_TYPE_FILE) {
    std::fprintf(stderr, "listing_bench: vexo_unix_device_type does not call %s a file\n", g.file.c_str());
    return false;
  }
  return true;
}

template <typename List>
void run_listing(benchmark::State &state, List list) {
  for (auto _ : state)
    if (list() < 0) {
      state.SkipWithError("the listing failed");
      break;
    }
  state.SetItemsProcessed(state.iterations() * (kEntries + 2));
}

void BM_vexo_list(benchmark::State &state) {
  run_listing(state, [] { return vexo_list(0, true); });
}
void BM_readdir(benchmark::State &state) {
  run_listing(state, raw_list);
}
void BM_directory_iterator(benchmark::State &state) {
  run_listing(state, iterator_list);
}
void BM_vexo_list_dirs(benchmark::State &state) {
  run_listing(state, [] { return vexo_list(VEXO_DIR_OPTION_DIRECTORIES_ONLY, false); });
}
void BM_readdir_stat(benchmark::State &state) {
  run_listing(state, raw_list_directories);
}

void BM_vexo_device_type(benchmark::State &state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(vexo_unix_device_type(g.fd));
}

// What vexo_unix_device_type asks the system for a regular file.
void BM_isatty_fstat(benchmark::State &state) {
  struct stat st = {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(::isatty(g.fd));
    benchmark::DoNotOptimize(::fstat(g.fd, &st));
    benchmark::ClobberMemory();
  }
}

// Each iteration opens the file and closes it: pausing the timer around
// open would cost more than the close being measured.
template <typename Close>
void open_and_close(benchmark::State &state, Close close_fd) {
  for (auto _ : state) {
    const int fd = ::open(g.file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || close_fd(fd) != 0) {
      state.SkipWithError("open or close failed");
      break;
    }
  }
}

void BM_vexo_close(benchmark::State &state, vexo_t_bits options) {
  open_and_close(state, [options](int fd) { return vexo_os_file_handle_close_unix(fd, options); });
}
void BM_close(benchmark::State &state) {
  open_and_close(state, ::close);
}

void register_benchmarks() {
  benchmark::RegisterBenchmark("BM_vexo_list", BM_vexo_list)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_readdir", BM_readdir)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_directory_iterator", BM_directory_iterator)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_vexo_list_dirs", BM_vexo_list_dirs)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_readdir_stat", BM_readdir_stat)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_vexo_device_type", BM_vexo_device_type);
  benchmark::RegisterBenchmark("BM_isatty_fstat", BM_isatty_fstat);
  benchmark::RegisterBenchmark("BM_vexo_close/socket_check", BM_vexo_close, 0u);
  benchmark::RegisterBenchmark("BM_vexo_close/no_socket_check", BM_vexo_close,
                               VEXO_HANDLE_CLOSE_OPTION_NO_SOCKET_CHECK);
  benchmark::RegisterBenchmark("BM_close", BM_close);
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

  const std::string entries = std::to_string(kEntries) + " entries";
  bench::print_ratio_table(
      rep, ("listing " + entries + " beside readdir and the standard library").c_str(),
      {
          {"list + names, readdir", "BM_vexo_list", "BM_readdir", {bench::goal_kind::ratio_at_most, 1.10}},
          {"list + names, iterator",
           "BM_vexo_list",
           "BM_directory_iterator",
           {bench::goal_kind::ratio_at_most, 1.0}},
          {"DIRECTORIES_ONLY, stat",
           "BM_vexo_list_dirs",
           "BM_readdir_stat",
           {bench::goal_kind::ratio_at_most, 1.10}},
      });
  bench::print_ratio_table(
      rep, "OS file handles beside the system calls",
      {
          {"device type, regular file", "BM_vexo_device_type", "BM_isatty_fstat", {}},
          {"open + close", "BM_vexo_close/socket_check", "BM_close", {}},
          {"open + close, NO_SOCKET_CHECK", "BM_vexo_close/no_socket_check", "BM_close", {}},
      });
  std::printf(
      "The names are ASCII, so vexo hands out each entry's own text. The iterator skips \".\" and \"..\" and "
      "builds a path per entry. The close rows include an open per iteration on both sides; without "
      "NO_SOCKET_CHECK vexo first classifies the handle (isatty, fstat).\n");
  return 0;
}
