#include "fault.h"

#include <vexo/vexo_core.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstdarg>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <langinfo.h>
#include <locale.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_set>
#include <utility>

namespace fault {
namespace {

struct alloc_state {
  bool active = false;
  long fail_at = 0;
  long count = 0;
  bool injected = false;
  std::unordered_set<void *> live;
  std::function<void(long)> hook;
};
alloc_state g_alloc;

bool next_allocation_fails() {
  ++g_alloc.count;
  if (g_alloc.hook)
    g_alloc.hook(g_alloc.count);
  if (g_alloc.fail_at != 0 && g_alloc.count == g_alloc.fail_at) {
    g_alloc.injected = true;
    return true;
  }
  return false;
}

void *h_malloc(size_t n) {
  if (next_allocation_fails())
    return nullptr;
  void *p = std::malloc(n);
  if (p != nullptr)
    g_alloc.live.insert(p);
  return p;
}

void *h_realloc(void *p, size_t n) {
  if (next_allocation_fails())
    return nullptr;
  void *q = std::realloc(p, n);
  if (q != nullptr) {
    g_alloc.live.erase(p);
    g_alloc.live.insert(q);
  }
  return q;
}

void h_free(void *p) {
  g_alloc.live.erase(p);
  std::free(p);
}

struct call_plan {
  int err = 0;
  int fail_left = 0;
  int calls = 0;
};
std::array<call_plan, static_cast<size_t>(call::count_)> g_calls;
std::optional<const char *> g_nl_langinfo;
std::optional<const char *> g_setlocale;
std::vector<size_t> g_getcwd_sizes;

call_plan &plan(call c) {
  return g_calls[static_cast<size_t>(c)];
}

}  // namespace

// Counts the call; true (with errno set) when it is to fail.
bool take(call c) {
  call_plan &p = plan(c);
  ++p.calls;
  if (p.fail_left > 0) {
    --p.fail_left;
    errno = p.err;
    return true;
  }
  return false;
}

alloc_scope::alloc_scope(long fail_at) {
  g_alloc = alloc_state{};
  g_alloc.active = true;
  g_alloc.fail_at = fail_at;
  EXPECT_EQ(vexo_replace_allocator(h_malloc, h_realloc, h_free), VEXO_S_NOERR);
}

alloc_scope::~alloc_scope() {
  vexo_replace_allocator(nullptr, nullptr, nullptr);
  // Blocks still live came from malloc, so the restored allocator frees them.
  g_alloc.active = false;
  g_alloc.hook = nullptr;
}

void alloc_scope::on_allocation(std::function<void(long)> hook) {
  g_alloc.hook = std::move(hook);
}

bool alloc_scope::injected() const {
  return g_alloc.injected;
}
long alloc_scope::allocations() const {
  return g_alloc.count;
}
long alloc_scope::live() const {
  return static_cast<long>(g_alloc.live.size());
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

void fail(call c, int err, int times) {
  plan(c).err = err;
  plan(c).fail_left = times;
}

int calls(call c) {
  return plan(c).calls;
}

void reset() {
  g_calls = {};
  g_nl_langinfo.reset();
  g_setlocale.reset();
  g_getcwd_sizes.clear();
}

const std::vector<size_t> &getcwd_sizes() {
  return g_getcwd_sizes;
}

void fake_nl_langinfo(std::optional<const char *> answer) {
  g_nl_langinfo = answer;
}
void fake_setlocale(std::optional<const char *> answer) {
  g_setlocale = answer;
}

int open_fds() {
  DIR *d = opendir("/proc/self/fd");
  if (d == nullptr)
    return -1;
  int n = 0;
  while (dirent *e = readdir(d)) {
    if (e->d_name[0] != '.')
      ++n;
  }
  closedir(d);
  return n - 1;  // the listing's own descriptor
}

}  // namespace fault

// ---- Link-time wrappers -------------------------------------------------------
// Every call of the wrapped functions in the test binary, the static library
// included, lands here.

extern "C" {

int __real_close(int fd);
int __wrap_close(int fd) {
  if (fault::take(fault::call::close))
    return -1;
  return __real_close(fd);
}

char *__real_nl_langinfo(nl_item item);
char *__wrap_nl_langinfo(nl_item item) {
  if (fault::take(fault::call::nl_langinfo))
    return nullptr;
  if (fault::g_nl_langinfo)
    return const_cast<char *>(*fault::g_nl_langinfo);
  return __real_nl_langinfo(item);
}

char *__real_setlocale(int category, const char *locale);
char *__wrap_setlocale(int category, const char *locale) {
  if (fault::take(fault::call::setlocale))
    return nullptr;
  if (fault::g_setlocale)
    return const_cast<char *>(*fault::g_setlocale);
  return __real_setlocale(category, locale);
}

// Calls that report failure as -1 with errno.
#define FAULT_WRAP_POSIX(ret, name, params, args) \
  ret __real_##name params;                       \
  ret __wrap_##name params {                      \
    if (fault::take(fault::call::name))           \
      return -1;                                  \
    return __real_##name args;                    \
  }

FAULT_WRAP_POSIX(int, stat, (const char *path, struct stat *buf), (path, buf))
FAULT_WRAP_POSIX(int, unlink, (const char *path), (path))
FAULT_WRAP_POSIX(int, rmdir, (const char *path), (path))
FAULT_WRAP_POSIX(int, rename, (const char *from, const char *to), (from, to))
FAULT_WRAP_POSIX(int, mkdir, (const char *path, mode_t mode), (path, mode))
FAULT_WRAP_POSIX(int, chdir, (const char *path), (path))
FAULT_WRAP_POSIX(int, getgroups, (int size, gid_t *list), (size, list))
FAULT_WRAP_POSIX(long, sysconf, (int name), (name))
FAULT_WRAP_POSIX(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence))
FAULT_WRAP_POSIX(int, fstat, (int fd, struct stat *buf), (fd, buf))
FAULT_WRAP_POSIX(int, closedir, (DIR * dir), (dir))
FAULT_WRAP_POSIX(pid_t, fork, (void), ())
FAULT_WRAP_POSIX(int, pipe, (int fds[2]), (fds))
FAULT_WRAP_POSIX(int, pipe2, (int fds[2], int flags), (fds, flags))
FAULT_WRAP_POSIX(int, dup, (int fd), (fd))
FAULT_WRAP_POSIX(int, dup2, (int fd, int fd2), (fd, fd2))
FAULT_WRAP_POSIX(pid_t, waitpid, (pid_t pid, int *status, int options), (pid, status, options))
FAULT_WRAP_POSIX(int, kill, (pid_t pid, int sig), (pid, sig))

int __real_posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                       const posix_spawnattr_t *attr, char *const argv[], char *const envp[]);
int __wrap_posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                       const posix_spawnattr_t *attr, char *const argv[], char *const envp[]) {
  if (fault::take(fault::call::posix_spawn))
    return errno;
  return __real_posix_spawn(pid, path, actions, attr, argv, envp);
}

// open and fcntl take a third argument only for some requests.
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  if (fault::take(fault::call::open))
    return -1;
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list ap;
    va_start(ap, flags);
    mode = static_cast<mode_t>(va_arg(ap, int));
    va_end(ap);
  }
  return __real_open(path, flags, mode);
}

int __real_fcntl(int fd, int cmd, ...);
int __wrap_fcntl(int fd, int cmd, ...) {
  if (fault::take(fault::call::fcntl))
    return -1;
  va_list ap;
  va_start(ap, cmd);
  const long arg = va_arg(ap, long);  // unused by commands without an argument
  va_end(ap);
  return __real_fcntl(fd, cmd, arg);
}

DIR *__real_opendir(const char *path);
DIR *__wrap_opendir(const char *path) {
  if (fault::take(fault::call::opendir))
    return nullptr;
  return __real_opendir(path);
}

struct dirent *__real_readdir(DIR *dir);
struct dirent *__wrap_readdir(DIR *dir) {
  if (fault::take(fault::call::readdir))
    return nullptr;
  return __real_readdir(dir);
}

char *__real_getcwd(char *buf, size_t size);
char *__wrap_getcwd(char *buf, size_t size) {
  fault::g_getcwd_sizes.push_back(size);
  if (fault::take(fault::call::getcwd))
    return nullptr;
  return __real_getcwd(buf, size);
}

// These two return the error number instead of setting errno.
int __real_getpwuid_r(uid_t uid, struct passwd *pwd, char *buf, size_t size, struct passwd **result);
int __wrap_getpwuid_r(uid_t uid, struct passwd *pwd, char *buf, size_t size, struct passwd **result) {
  if (fault::take(fault::call::getpwuid_r)) {
    *result = nullptr;
    return errno;
  }
  return __real_getpwuid_r(uid, pwd, buf, size, result);
}

int __real_getgrgid_r(gid_t gid, struct group *grp, char *buf, size_t size, struct group **result);
int __wrap_getgrgid_r(gid_t gid, struct group *grp, char *buf, size_t size, struct group **result) {
  if (fault::take(fault::call::getgrgid_r)) {
    *result = nullptr;
    return errno;
  }
  return __real_getgrgid_r(gid, grp, buf, size, result);
}

}  // extern "C"
