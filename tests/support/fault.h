// Fault injection for the test binaries: a replaceable allocator that can
// fail the k-th allocation and counts live blocks, and link-time wrappers
// (-Wl,--wrap=NAME) around the system calls the library makes, which can
// fail a chosen number of calls with a chosen errno. Nothing here is in the
// library; a disarmed wrapper only forwards.
#ifndef VEXO_TESTS_FAULT_H
#define VEXO_TESTS_FAULT_H

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fault {

// ---- Allocation ----------------------------------------------------------

// While alive, the core allocator is the harness's: the k-th allocation (or
// reallocation) made in its lifetime fails; k = 0 never fails.
class alloc_scope {
 public:
  explicit alloc_scope(long fail_at = 0);
  ~alloc_scope();
  alloc_scope(const alloc_scope &) = delete;
  alloc_scope &operator=(const alloc_scope &) = delete;

  // Runs before every allocation of the scope with its number (1, 2, ...),
  // e.g. to change what the code under test is reading meanwhile.
  void on_allocation(std::function<void(long)> hook);

  bool injected() const;     // the k-th allocation was reached and failed
  long allocations() const;  // allocations attempted, the failed one included
  long live() const;         // blocks made in this scope and not yet freed
};

// Runs `attempt` with allocation k failing, k = 1, 2, ... until an attempt
// goes through without reaching its k-th allocation. After each attempt no
// block may be live (the attempt frees what it was handed on success).
// `attempt` receives the scope and checks codes and out-parameters itself.
// Returns the number of allocations the successful attempt made.
long alloc_sweep(const std::function<void(alloc_scope &)> &attempt, long limit = 100000);

// ---- System calls ----------------------------------------------------------

enum class call {
  close,
  nl_langinfo,
  setlocale,
  stat,
  unlink,
  rmdir,
  rename,
  mkdir,
  chdir,
  getcwd,
  getgroups,
  sysconf,
  getpwuid_r,
  getgrgid_r,
  open,
  lseek,
  fstat,
  fcntl,
  opendir,
  readdir,
  closedir,
  fork,
  pipe,
  pipe2,
  dup,
  dup2,
  waitpid,
  kill,
  posix_spawn,  // fails by returning the error number, as it does
  count_
};

// The next `times` calls of `c` fail with `err`, then calls go through again.
// A failing call returns what the real one returns on failure: -1 with errno
// set, null with errno set for pointer results, and the error number itself
// for getpwuid_r/getgrgid_r. `err` may be 0 (sysconf's "no limit").
void fail(call c, int err, int times = 1);
// Calls of `c` made since the last reset (armed or not).
int calls(call c);
// Disarms every call, forgets counts and fake answers.
void reset();

// The size argument of every getcwd call since the last reset, in order.
const std::vector<size_t> &getcwd_sizes();

// Pointer-returning calls can be given a fixed answer instead of an errno.
void fake_nl_langinfo(std::optional<const char *> answer);
void fake_setlocale(std::optional<const char *> answer);

// Resets the system-call plans before and after each test using it.
class Test : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
};

// ---- Descriptors ------------------------------------------------------------

// Open descriptors of this process, from /proc/self/fd.
int open_fds();

}  // namespace fault

#endif  // VEXO_TESTS_FAULT_H
