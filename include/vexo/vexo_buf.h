/** @file vexo_buf.h
 * @brief The I/O core's growable byte buffer.
 *
 * Callers read `buf` and `extent` directly and may set `extent` back to a
 * shorter length. A buffer belongs to one thread at a time; the functions
 * touch no other state. */
#ifndef VEXO_BUF_H
#define VEXO_BUF_H

#include "vexo_errors.h"
#include "vexo_types.h"

VEXO_BEGIN_DECLS

/** `buf` may be moved to a larger block when the buffer is full. */
#define VEXO_BUF_FLAG_GROWABLE 0x2u
/** `buf` came from the core allocator and is released with the buffer. */
#define VEXO_BUF_FLAG_OWNED 0x4u

/** A byte buffer: bytes in use, room, and whether it may grow. */
typedef struct vexo_t_buf_ {
  vexo_t_uint8 *buf;    /**< The bytes; null in an empty buffer that has not grown yet. */
  size_t extent;        /**< Bytes in use. */
  size_t writable_size; /**< Bytes available at `buf`. */
  vexo_t_bits flags;    /**< #VEXO_BUF_FLAG_GROWABLE, #VEXO_BUF_FLAG_OWNED. */
  vexo_t_bits pad;      /**< Unused; keeps the record's size. */
} vexo_t_buf;

/** `{ NULL, 0, 0, 6, 0 }`: an empty buffer that grows on first use. A buffer
 * over caller storage sets `buf` and `writable_size` and leaves out
 * #VEXO_BUF_FLAG_OWNED; it is copied to core memory if it has to grow, and
 * the caller's storage stays the caller's. */
#define VEXO_BUF_EMPTY_INITIALIZER \
  { NULL, 0, 0, VEXO_BUF_FLAG_GROWABLE | VEXO_BUF_FLAG_OWNED, 0 }

/** @brief Makes `*b` an empty growable buffer (#VEXO_BUF_EMPTY_INITIALIZER).
 *
 * Whatever `*b` held is forgotten, not freed.
 *
 * @param[out] b the buffer; null is ignored. */
VEXO_API void vexo_buf_init_buf(vexo_t_buf *b);

/** @brief Appends the bytes of `s` (without its NUL).
 *
 * @param[in,out] b the buffer; grows as needed when growable.
 * @param[in] s a NUL-terminated string, the caller's; it is copied.
 * @return #VEXO_S_NOERR;
 *         #VEXO_E_PARAMETER_ERROR when `b` or `s` is null, or `extent`
 *         exceeds `writable_size`;
 *         #VEXO_E_INSUFFICIENT_BUFFER when the bytes do not fit a buffer
 *         that may not grow;
 *         #VEXO_E_OUT_OF_MEMORY when growing fails. On failure the buffer is
 *         as it was. */
VEXO_API vexo_t_error_code vexo_buf_concat_string(vexo_t_buf *b, const char *s);

/** @brief Appends one byte.
 *
 * @param[in,out] b the buffer; grows as needed when growable.
 * @param[in] byte the byte; 0 is appended like any other.
 * @return #VEXO_S_NOERR;
 *         #VEXO_E_PARAMETER_ERROR when `b` is null, or `extent` exceeds
 *         `writable_size`;
 *         #VEXO_E_INSUFFICIENT_BUFFER when a buffer that may not grow is full;
 *         #VEXO_E_OUT_OF_MEMORY when growing fails. On failure the buffer is
 *         as it was. */
VEXO_API vexo_t_error_code vexo_buf_push(vexo_t_buf *b, vexo_t_uint8 byte);

/** @brief Hands the bytes in use to the caller and leaves the buffer empty.
 *
 * An owned block is handed over as it is; bytes in caller storage are
 * copied into a new block. An empty buffer hands out a one-byte block
 * holding NUL with a size of 0.
 *
 * @param[in,out] b the buffer; on success it is empty and growable.
 * @param[out] pbytes receives a new block that the caller frees with
 *        vexo_free(); written on success only.
 * @param[out] psize receives the number of bytes in use; on success only.
 * @return #VEXO_S_NOERR;
 *         #VEXO_E_PARAMETER_ERROR when a pointer is null or `extent` exceeds
 *         `writable_size`;
 *         #VEXO_E_OUT_OF_MEMORY when the copy cannot be made (the buffer is
 *         then as it was). */
VEXO_API vexo_t_error_code vexo_buf_get_buf(vexo_t_buf *b, vexo_t_uint8 **pbytes, size_t *psize);

/** @brief Releases an owned block and leaves the buffer empty and growable.
 *
 * Caller storage is not freed.
 *
 * @param[in,out] b the buffer; null is ignored. */
VEXO_API void vexo_buf_free(vexo_t_buf *b);

VEXO_END_DECLS

#endif /* VEXO_BUF_H */
