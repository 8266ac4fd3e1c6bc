// The core's growable byte buffer. A record may start over the caller's own
// storage; the first growth moves it into core memory, after which the
// buffer owns its block.
#include <vexo/vexo_buf.h>
#include <vexo/vexo_core.h>

#include <cstdint>
#include <cstring>

namespace {

// Small enough not to waste memory on short names, large enough that the
// first few pushes do not each reallocate.
constexpr size_t kMinCapacity = 32;

constexpr vexo_t_buf kEmpty = VEXO_BUF_EMPTY_INITIALIZER;

bool owns_block(const vexo_t_buf *b) {
  return (b->flags & VEXO_BUF_FLAG_OWNED) != 0 && b->buf != nullptr;
}

// Makes room for `more` bytes after `extent`. On failure the record is as it was.
vexo_t_error_code reserve(vexo_t_buf *b, size_t more) {
  if (b->extent > b->writable_size)
    return VEXO_E_PARAMETER_ERROR;
  if (more <= b->writable_size - b->extent)
    return VEXO_S_NOERR;
  if ((b->flags & VEXO_BUF_FLAG_GROWABLE) == 0)
    return VEXO_E_INSUFFICIENT_BUFFER;
  if (more > SIZE_MAX - b->extent)
    return VEXO_E_OUT_OF_MEMORY;
  const size_t needed = b->extent + more;
  // Doubling keeps a long run of pushes amortised O(1).
  size_t capacity = b->writable_size <= SIZE_MAX / 2 ? b->writable_size * 2 : needed;
  if (capacity < kMinCapacity)
    capacity = kMinCapacity;
  if (capacity < needed)
    capacity = needed;

  vexo_t_uint8 *grown;
  if (owns_block(b)) {
    grown = static_cast<vexo_t_uint8 *>(vexo_realloc(b->buf, capacity));
  } else {
    // The caller's storage stays theirs; only its bytes in use come along.
    grown = static_cast<vexo_t_uint8 *>(vexo_alloc(capacity));
    if (grown != nullptr && b->extent != 0)
      std::memcpy(grown, b->buf, b->extent);
  }
  if (grown == nullptr)
    return VEXO_E_OUT_OF_MEMORY;
  b->buf = grown;
  b->writable_size = capacity;
  b->flags |= VEXO_BUF_FLAG_OWNED;
  return VEXO_S_NOERR;
}

vexo_t_error_code append(vexo_t_buf *b, const void *bytes, size_t n) {
  vexo_t_error_code result = reserve(b, n);
  if (result < 0)
    return result;
  if (n != 0)
    std::memcpy(b->buf + b->extent, bytes, n);
  b->extent += n;
  return VEXO_S_NOERR;
}

}  // namespace

extern "C" {

void vexo_buf_init_buf(vexo_t_buf *b) {
  if (b != nullptr)
    *b = kEmpty;
}

vexo_t_error_code vexo_buf_concat_string(vexo_t_buf *b, const char *s) {
  if (b == nullptr || s == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  return append(b, s, std::strlen(s));
}

vexo_t_error_code vexo_buf_push(vexo_t_buf *b, vexo_t_uint8 byte) {
  if (b == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  return append(b, &byte, 1);
}

vexo_t_error_code vexo_buf_get_buf(vexo_t_buf *b, vexo_t_uint8 **pbytes, size_t *psize) {
  if (b == nullptr || pbytes == nullptr || psize == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  if (b->extent > b->writable_size)
    return VEXO_E_PARAMETER_ERROR;

  vexo_t_uint8 *bytes;
  if (owns_block(b) && b->writable_size != 0) {
    bytes = b->buf;
    if (b->extent == 0)
      bytes[0] = 0;
  } else {
    // Caller storage, or nothing yet: the caller still gets a block it can free.
    bytes = static_cast<vexo_t_uint8 *>(vexo_alloc(b->extent == 0 ? 1 : b->extent));
    if (bytes == nullptr)
      return VEXO_E_OUT_OF_MEMORY;
    if (b->extent == 0)
      bytes[0] = 0;
    else
      std::memcpy(bytes, b->buf, b->extent);
    if (owns_block(b))
      vexo_free(b->buf);
  }
  *pbytes = bytes;
  *psize = b->extent;
  *b = kEmpty;
  return VEXO_S_NOERR;
}

void vexo_buf_free(vexo_t_buf *b) {
  if (b == nullptr)
    return;
  if (owns_block(b))
    vexo_free(b->buf);
  *b = kEmpty;
}

}  // extern "C"
