// The core allocator: malloc/realloc/free unless an embedder (or the test
// harness) routes it elsewhere.
#include <vexo/vexo_core.h>

#include <cstdlib>
#include <cstring>

namespace {

struct allocator {
  vexo_t_malloc_fn malloc_fn = std::malloc;
  vexo_t_realloc_fn realloc_fn = std::realloc;
  vexo_t_free_fn free_fn = std::free;
};
allocator g_allocator;

}  // namespace

extern "C" {

void *vexo_alloc(size_t size) {
  // A zero-byte request still gets a distinct block, so null always means failure.
  return g_allocator.malloc_fn(size == 0 ? 1 : size);
}

void *vexo_realloc(void *p, size_t size) {
  if (p == nullptr)
    return vexo_alloc(size);
  return g_allocator.realloc_fn(p, size == 0 ? 1 : size);
}

char *vexo_alloc_string(const char *s) {
  if (s == nullptr)
    return nullptr;
  size_t n = std::strlen(s) + 1;
  auto *copy = static_cast<char *>(vexo_alloc(n));
  if (copy != nullptr)
    std::memcpy(copy, s, n);
  return copy;
}

void vexo_free(void *p) {
  if (p != nullptr)
    g_allocator.free_fn(p);
}

vexo_t_error_code vexo_replace_allocator(vexo_t_malloc_fn malloc_fn, vexo_t_realloc_fn realloc_fn,
                                         vexo_t_free_fn free_fn) {
  if (malloc_fn == nullptr && realloc_fn == nullptr && free_fn == nullptr) {
    g_allocator = allocator{};
    return VEXO_S_NOERR;
  }
  if (malloc_fn == nullptr || realloc_fn == nullptr || free_fn == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  g_allocator = allocator{malloc_fn, realloc_fn, free_fn};
  return VEXO_S_NOERR;
}

}  // extern "C"
