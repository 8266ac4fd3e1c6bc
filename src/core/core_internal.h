// What the core's own files share, and the small owners that the back end
// builds its single clean-up path from. Nothing here is exported.
#ifndef VEXO_CORE_INTERNAL_H
#define VEXO_CORE_INTERNAL_H

#include <vexo/vexo_core.h>

#include <cerrno>
#include <memory>
#include <unistd.h>

namespace vexo {

// Length of the leading run of bytes below 0x80, scanned a word at a time.
size_t ascii_prefix(const void *s, size_t size) noexcept;

struct free_deleter {
  void operator()(void *p) const noexcept { vexo_free(p); }
};

// A block from the core allocator; release() hands it to the caller.
template <class T>
using mem = std::unique_ptr<T, free_deleter>;

// A string that is either the caller's own (never freed) or a block of
// ours: conversions under a no-copy option may hand back their input.
class maybe_owned {
 public:
  explicit maybe_owned(const char *caller) noexcept : caller_(caller) {}
  maybe_owned(const maybe_owned &) = delete;
  maybe_owned &operator=(const maybe_owned &) = delete;
  ~maybe_owned() { reset(); }

  char **out() noexcept {
    reset();
    return &p_;
  }
  char *get() const noexcept { return p_; }
  bool is_callers() const noexcept { return p_ == caller_; }
  char *release() noexcept {
    char *p = p_;
    p_ = nullptr;
    return p;
  }
  void reset() noexcept {
    if (p_ != caller_)
      vexo_free(p_);
    p_ = nullptr;
  }

 private:
  const char *caller_;
  char *p_ = nullptr;
};

// A descriptor closed on every path unless handed over.
class unique_fd {
 public:
  unique_fd() noexcept = default;
  explicit unique_fd(int fd) noexcept : fd_(fd) {}
  unique_fd(unique_fd &&o) noexcept : fd_(o.release()) {}
  unique_fd &operator=(unique_fd &&o) noexcept {
    reset(o.release());
    return *this;
  }
  ~unique_fd() { reset(); }

  int get() const noexcept { return fd_; }
  int release() noexcept {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) noexcept {
    if (fd_ >= 0) {
      int saved = errno;  // a clean-up close must not disturb the caller's errno
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace vexo

#endif  // VEXO_CORE_INTERNAL_H
