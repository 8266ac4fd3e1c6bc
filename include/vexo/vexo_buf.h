/* The I/O core's growable byte buffer. Callers read `buf` and `extent`
 * directly and may set `extent` back to a shorter length. */
#ifndef VEXO_BUF_H
#define VEXO_BUF_H

#include "vexo_errors.h"
#include "vexo_types.h"

VEXO_BEGIN_DECLS

/* `buf` may be moved to a larger block when the buffer is full. */
#define VEXO_BUF_FLAG_GROWABLE 0x2u
/* `buf` came from the core allocator and is released with the buffer. */
#define VEXO_BUF_FLAG_OWNED 0x4u

typedef struct vexo_t_buf_ {
  vexo_t_uint8 *buf;
  size_t extent;        /* bytes in use */
  size_t writable_size; /* bytes available at `buf` */
  vexo_t_bits flags;
  vexo_t_bits pad;
} vexo_t_buf;

/* { NULL, 0, 0, 6, 0 }: an empty buffer that grows on first use. A buffer
 * over caller storage sets `buf` and `writable_size` and leaves out
 * VEXO_BUF_FLAG_OWNED; it is copied to core memory if it has to grow. */
#define VEXO_BUF_EMPTY_INITIALIZER \
  { NULL, 0, 0, VEXO_BUF_FLAG_GROWABLE | VEXO_BUF_FLAG_OWNED, 0 }

VEXO_API void vexo_buf_init_buf(vexo_t_buf *b);
VEXO_API vexo_t_error_code vexo_buf_concat_string(vexo_t_buf *b, const char *s);
VEXO_API vexo_t_error_code vexo_buf_push(vexo_t_buf *b, vexo_t_uint8 byte);
/* Hands the bytes in use to the caller, who frees them with vexo_free; the
 * buffer is left empty and growable. An empty buffer hands out a one-byte
 * block holding NUL with a size of 0. */
VEXO_API vexo_t_error_code vexo_buf_get_buf(vexo_t_buf *b, vexo_t_uint8 **pbytes, size_t *psize);
VEXO_API void vexo_buf_free(vexo_t_buf *b);

VEXO_END_DECLS

#endif /* VEXO_BUF_H */
