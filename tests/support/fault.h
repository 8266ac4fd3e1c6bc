// Fault injection for the test binaries: an allocator that can fail the k-th allocation and counts live
// blocks, and link-time wrappers (-Wl,--wrap=NAME) around the system calls the library makes, which fail a
// chosen number of calls with a chosen errno; a disarmed wrapper only forwards.
#ifndef VEXO_TESTS_FAULT_H
#define VEXO_TESTS_FAULT_H

#include <gtest/gtest.h>
#include <vexo/vexo_core.h>

#include <functional>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace fault {

// While alive, the core allocator is the harness's: the k-th allocation (or reallocation) made in its
// lifetime fails; k = 0 never fails.
class alloc_scope {
 public:
  explicit alloc_scope(long fail_at = 0);
  ~alloc_scope();
  alloc_scope(const alloc_scope &) = delete;
  // Runs before every allocation of the scope with its number (1, 2, ...).
  void on_allocation(std::function<void(long)> hook) { hook_ = std::move(hook); }
  bool injected() const { return injected_; }  // the k-th allocation was reached and failed
  long allocations() const { return count_; }  // allocations attempted, the failed one included
  long live() const { return static_cast<long>(live_.size()); }  // blocks made here and not yet freed

 private:
  friend struct allocator;
  long fail_at_, count_ = 0;
  bool injected_ = false;
  std::unordered_set<void *> live_;
  std::function<void(long)> hook_;
};

// Runs `attempt` with allocation k failing, k = 1, 2, ... until an attempt goes through without reaching its
// k-th allocation; after each attempt no block may be live. Returns the allocations of the successful
// attempt.
long alloc_sweep(const std::function<void(alloc_scope &)> &attempt, long limit = 100000);

// What an operation handing out a string gave: its code, and its text ("" on failure).
struct result {
  vexo_t_error_code rc;
  std::string text;
  bool operator==(const result &) const = default;
};
void PrintTo(const result &r, std::ostream *os);
// Runs op(&out): a failure must leave `out` untouched; a success's string is freed.
result take(const std::function<vexo_t_error_code(char **)> &op);
// The allocation sweep of `op`: VEXO_E_OUT_OF_MEMORY whenever an allocation failed, `want` otherwise. Returns
// the allocations `want` takes.
long oom_sweep(const std::function<result()> &op, const result &want);

// clang-format off
#define FAULT_CALLS(X) X(close) X(nl_langinfo) X(setlocale) X(stat) X(unlink) X(rmdir) X(rename) X(mkdir) \
  X(chdir) X(getcwd) X(getgroups) X(sysconf) X(getpwuid_r) X(getgrgid_r) X(open) X(lseek) X(fstat) X(fcntl) \
  X(opendir) X(readdir) X(closedir) X(fork) X(pipe) X(pipe2) X(dup) X(dup2) X(waitpid) X(kill) X(posix_spawn)
#define FAULT_ENUMERATOR(name) name,
enum class call { FAULT_CALLS(FAULT_ENUMERATOR) count_ };
#undef FAULT_ENUMERATOR
// clang-format on

// The next `times` calls of `c` fail with `err`, then calls go through again. A failing call returns what the
// real one returns on failure: -1 with errno set, null with errno set for pointer results, and the error
// number itself for getpwuid_r, getgrgid_r and posix_spawn. `err` may be 0 (sysconf's "no limit").
void fail(call c, int err, int times = 1);
// Calls of `c` made since the last reset (armed or not).
int calls(call c);
// Disarms every call, forgets counts and fake answers.
void reset();

// The size argument of every getcwd call since the last reset, in order.
inline std::vector<size_t> getcwd_sizes;
// Answers nl_langinfo and setlocale give instead of their own while set (cleared by reset).
inline std::optional<const char *> nl_langinfo_answer, setlocale_answer;

// Resets the system-call plans before and after each test using it.
class Test : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
};

// Open descriptors of this process, from /proc/self/fd.
int open_fds();

// A Test that also fails when it leaves more or fewer descriptors open than it found.
class FdTest : public Test {
 protected:
  void TearDown() override {
    Test::TearDown();
    EXPECT_EQ(open_fds(), fds_) << "descriptor leaked";
  }
  int fds_ = open_fds();
};

}  // namespace fault

#endif  // VEXO_TESTS_FAULT_H
