/* Shared types of the I/O layer: fixed-width integers, flag words, handles,
 * variants and properties. Plain C11; usable from C++. */
#ifndef VEXO_TYPES_H
#define VEXO_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#if defined(__GNUC__) || defined(__clang__)
#define VEXO_API __attribute__((visibility("default")))
#else
#define VEXO_API
#endif

#ifdef __cplusplus
#define VEXO_BEGIN_DECLS extern "C" {
#define VEXO_END_DECLS }
#else
#define VEXO_BEGIN_DECLS
#define VEXO_END_DECLS
#endif

VEXO_BEGIN_DECLS

typedef uint8_t vexo_t_uint8;
typedef int32_t vexo_t_int32;
typedef uint32_t vexo_t_uint32;
typedef int64_t vexo_t_int64;
typedef uint64_t vexo_t_uint64;

/* One byte of UTF-8 text. */
typedef unsigned char vexo_t_utf8;

/* Every options parameter and every flag field of a record. */
typedef vexo_t_uint32 vexo_t_bits;

typedef int vexo_t_os_file_handle;
typedef pid_t vexo_t_os_process_handle;
typedef pid_t vexo_t_pid;

typedef vexo_t_int64 vexo_t_offset;
/* Whole seconds since 1970-01-01 00:00 UTC. */
typedef vexo_t_int64 vexo_t_time;

typedef struct vexo_t_timespec_ {
  vexo_t_int64 sec;
  vexo_t_int64 nsec;
} vexo_t_timespec;

typedef struct vexo_t_variant_ {
  vexo_t_bits flags;
  union {
    const char *string;
    vexo_t_int64 i64;
    void *p;
    vexo_t_bits flags;
    int i;
  } u;
} vexo_t_variant;

/* A list of properties ends with an entry whose key is null. */
typedef struct vexo_t_property_ {
  const char *key;
  vexo_t_variant v;
} vexo_t_property;

/* What kind of object an OS file handle refers to. */
typedef enum vexo_t_device_type_ {
  VEXO_DEVICE_TYPE_ILLEGAL = 0, /* -1, or a handle the system rejects */
  VEXO_DEVICE_TYPE_UNKNOWN = 1,
  VEXO_DEVICE_TYPE_FILE = 2,
  VEXO_DEVICE_TYPE_TTY = 3, /* any terminal, tested before the file type */
  VEXO_DEVICE_TYPE_SOCKET = 4,
  VEXO_DEVICE_TYPE_FIFO = 5,
  VEXO_DEVICE_TYPE_CHARACTER = 6, /* a character device that is not a terminal */
  VEXO_DEVICE_TYPE_DIRECTORY = 7,
  VEXO_DEVICE_TYPE_BLOCK = 8,
  VEXO_DEVICE_TYPE_LINK = 9,
  VEXO_DEVICE_TYPE_FIRST_UNUSED_ = 10,
  VEXO_DEVICE_TYPE_LAST = 9
} vexo_t_device_type;

/* Completed by the back end; callers only hold pointers. */
typedef struct vexo_t_dir_ vexo_t_dir;
typedef struct vexo_t_dirent_ vexo_t_dirent;

VEXO_END_DECLS

#endif /* VEXO_TYPES_H */
