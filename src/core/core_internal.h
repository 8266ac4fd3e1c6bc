// What the core's own files share, and the small owners that the back end
// builds its single clean-up path from. Nothing here is exported.
#ifndef VEXO_CORE_INTERNAL_H
#define VEXO_CORE_INTERNAL_H

#include <vexo/vexo_core.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <unistd.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vexo {

// Length of the leading run of bytes below 0x80, scanned a word at a time.
size_t ascii_prefix(const void *s, size_t size) noexcept;

#if defined(__SSE2__)

// The scans for a NUL-terminated string's end read whole aligned blocks, as
// any vector strlen does: past the NUL, but never out of the aligned 64
// bytes that hold it, so never onto a page the string does not touch. The
// address sanitizer would see those bytes as outside the string; the
// answers never depend on them. Under the sanitizer they are also kept out
// of line: inlined into an instrumented caller, their loads would be
// instrumented after all.
#if defined(__SANITIZE_ADDRESS__)
#define VEXO_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VEXO_ASAN 1
#endif
#endif
#if defined(VEXO_ASAN)
#define VEXO_WHOLE_BLOCKS __attribute__((no_sanitize_address, noinline))
#else
#define VEXO_WHOLE_BLOCKS __attribute__((no_sanitize_address))
#endif

// One bit for each byte of the aligned 16 at `block` that ends an ASCII
// scan: the NUL, or one of 0x80 and above (at or below 0 as signed bytes).
VEXO_WHOLE_BLOCKS inline unsigned ascii_stops(const char *block) noexcept {
  const __m128i bytes = _mm_load_si128(reinterpret_cast<const __m128i *>(block));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpgt_epi8(bytes, _mm_setzero_si128()))) ^ 0xFFFFu;
}

// From the aligned 16-byte block `block` on: non-zero when the first byte
// that is NUL or 0x80 and above is the NUL. The widest vectors the processor
// has are used; both kinds are callable so that each can be tested.
int ascii_through_nul(const char *block) noexcept;
int ascii_through_nul_sse2(const char *block) noexcept;
int ascii_through_nul_avx2(const char *block) noexcept;  // only where the processor has AVX2

#endif

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
