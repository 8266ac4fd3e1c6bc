#include "fault.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <langinfo.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fault {
namespace {

struct call_plan {
  int err = 0, fail_left = 0, calls = 0;
};
std::array<call_plan, static_cast<size_t>(call::count_)> g_calls;

// Counts the call; true (with errno set) when it is to fail.
bool failing(call c) {
  call_plan &p = g_calls[static_cast<size_t>(c)];
  ++p.calls;
  if (p.fail_left == 0)
    return false;
  --p.fail_left;
  errno = p.err;
  return true;
}

}  // namespace

// The harness's allocator, in force while a scope is alive.
struct allocator {
  static inline alloc_scope *scope = nullptr;
  static void *realloc(void *p, size_t n) {
    alloc_scope &s = *scope;
    if (s.hook_)
      s.hook_(s.count_ + 1);
    if (++s.count_ == s.fail_at_) {
      s.injected_ = true;
      return nullptr;
    }
    void *q = std::realloc(p, n);
    if (q != nullptr) {
      s.live_.erase(p);
      s.live_.insert(q);
    }
    return q;
  }
  static void *malloc(size_t n) { return realloc(nullptr, n); }
  static void free(void *p) {
    scope->live_.erase(p);
    std::free(p);
  }
};

alloc_scope::alloc_scope(long fail_at) : fail_at_(fail_at) {
  allocator::scope = this;
  EXPECT_EQ(vexo_replace_allocator(allocator::malloc, allocator::realloc, allocator::free), VEXO_S_NOERR);
}
alloc_scope::~alloc_scope() {
  vexo_replace_allocator(nullptr, nullptr, nullptr);  // blocks still live came from malloc
  allocator::scope = nullptr;
}

long alloc_sweep(const std::function<void(alloc_scope &)> &attempt, long limit) {
  for (long k = 1; k <= limit; ++k) {
    alloc_scope scope(k);
    attempt(scope);
    EXPECT_EQ(scope.live(), 0) << "blocks leaked with allocation " << k << " failing";
    if (::testing::Test::HasFatalFailure())
      return -1;
    if (!scope.injected())
      return scope.allocations();
  }
  ADD_FAILURE() << "allocation sweep did not finish within " << limit << " allocations";
  return -1;
}

void PrintTo(const result &r, std::ostream *os) {
  *os << "{" << r.rc << ", " << ::testing::PrintToString(r.text) << "}";
}

result take(const std::function<vexo_t_error_code(char **)> &op) {
  static char untouched;
  char *out = &untouched;
  const vexo_t_error_code rc = op(&out);
  EXPECT_TRUE(rc >= 0 || out == &untouched) << "written on failure";
  result r{rc, rc < 0 ? "" : out};
  vexo_free(rc < 0 ? nullptr : out);
  return r;
}

long oom_sweep(const std::function<result()> &op, const result &want) {
  return alloc_sweep([&](alloc_scope &scope) {
    const result got = op();  // before asking whether the failure was reached
    EXPECT_EQ(got, (scope.injected() ? result{VEXO_E_OUT_OF_MEMORY, ""} : want));
  });
}

void fail(call c, int err, int times) {
  g_calls[static_cast<size_t>(c)] = {err, times, calls(c)};
}
int calls(call c) {
  return g_calls[static_cast<size_t>(c)].calls;
}
void reset() {
  g_calls = {};
  nl_langinfo_answer = setlocale_answer = std::nullopt;
  getcwd_sizes.clear();
}

int open_fds() {  // listed by the C++ library, whose calls the wrappers do not see
  const std::filesystem::directory_iterator fds("/proc/self/fd");
  return static_cast<int>(std::distance(begin(fds), end(fds))) - 1;  // less the listing's own
}

}  // namespace fault

// Every call of these functions in the test binary, the static library included, lands here: `failed` is what
// a failing call returns.
extern "C" {
#define FAULT_WRAP_TO(ret, name, failed, params, forward)        \
  ret __real_##name params;                                      \
  ret __wrap_##name params {                                     \
    return fault::failing(fault::call::name) ? failed : forward; \
  }
#define FAULT_WRAP(ret, name, failed, params, args) \
  FAULT_WRAP_TO(ret, name, failed, params, __real_##name args)
// clang-format off
FAULT_WRAP(int, close, -1, (int fd), (fd))
FAULT_WRAP(int, stat, -1, (const char *path, struct stat *buf), (path, buf))
FAULT_WRAP(int, unlink, -1, (const char *path), (path))
FAULT_WRAP(int, rmdir, -1, (const char *path), (path))
FAULT_WRAP(int, rename, -1, (const char *from, const char *to), (from, to))
FAULT_WRAP(int, mkdir, -1, (const char *path, mode_t mode), (path, mode))
FAULT_WRAP(int, chdir, -1, (const char *path), (path))
FAULT_WRAP(int, getgroups, -1, (int size, gid_t *list), (size, list))
FAULT_WRAP(long, sysconf, -1, (int name), (name))
FAULT_WRAP(off_t, lseek, -1, (int fd, off_t offset, int whence), (fd, offset, whence))
FAULT_WRAP(int, fstat, -1, (int fd, struct stat *buf), (fd, buf))
FAULT_WRAP(DIR *, opendir, nullptr, (const char *path), (path))
FAULT_WRAP(struct dirent *, readdir, nullptr, (DIR *dir), (dir))
FAULT_WRAP(int, closedir, -1, (DIR *dir), (dir))
FAULT_WRAP(pid_t, fork, -1, (void), ())
FAULT_WRAP(int, pipe, -1, (int fds[2]), (fds))
FAULT_WRAP(int, pipe2, -1, (int fds[2], int flags), (fds, flags))
FAULT_WRAP(int, dup, -1, (int fd), (fd))
FAULT_WRAP(int, dup2, -1, (int fd, int fd2), (fd, fd2))
FAULT_WRAP(pid_t, waitpid, -1, (pid_t pid, int *status, int options), (pid, status, options))
FAULT_WRAP(int, kill, -1, (pid_t pid, int sig), (pid, sig))
FAULT_WRAP(int, posix_spawn, errno, (pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
           const posix_spawnattr_t *attr, char *const argv[], char *const envp[]),
           (pid, path, actions, attr, argv, envp))
FAULT_WRAP(int, getpwuid_r, (*result = nullptr, errno), (uid_t uid, struct passwd *pwd, char *buf, size_t size,
           struct passwd **result), (uid, pwd, buf, size, result))
FAULT_WRAP(int, getgrgid_r, (*result = nullptr, errno), (gid_t gid, struct group *grp, char *buf, size_t size,
           struct group **result), (gid, grp, buf, size, result))

// These two can also give a fixed answer.
FAULT_WRAP_TO(char *, nl_langinfo, nullptr, (nl_item item), fault::nl_langinfo_answer
              ? const_cast<char *>(*fault::nl_langinfo_answer) : __real_nl_langinfo(item))
FAULT_WRAP_TO(char *, setlocale, nullptr, (int category, const char *locale), fault::setlocale_answer
              ? const_cast<char *>(*fault::setlocale_answer) : __real_setlocale(category, locale))
// clang-format on

char *__real_getcwd(char *buf, size_t size);
char *__wrap_getcwd(char *buf, size_t size) {
  fault::getcwd_sizes.push_back(size);
  return fault::failing(fault::call::getcwd) ? nullptr : __real_getcwd(buf, size);
}

// open and fcntl take a third argument only for some requests.
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const bool has_mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  const auto mode = static_cast<mode_t>(has_mode ? va_arg(ap, int) : 0);
  va_end(ap);
  return fault::failing(fault::call::open) ? -1 : __real_open(path, flags, mode);
}
int __real_fcntl(int fd, int cmd, ...);
int __wrap_fcntl(int fd, int cmd, ...) {
  va_list ap;
  va_start(ap, cmd);
  const long arg = va_arg(ap, long);  // unused by commands without an argument
  va_end(ap);
  return fault::failing(fault::call::fcntl) ? -1 : __real_fcntl(fd, cmd, arg);
}
}  // extern "C"
