/** @file vexo_types.h
 * @brief Shared types: fixed-width integers, flag words, OS handles, times,
 * variants and properties, device types and the opaque listing types.
 *
 * Plain C11, usable from C++; every other header includes it. */
#ifndef VEXO_TYPES_H
#define VEXO_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/** @def VEXO_API
 * Marks a function exported from the shared library; the library is built
 * with hidden visibility, so nothing else is exported. */
#if defined(__GNUC__) || defined(__clang__)
#define VEXO_API __attribute__((visibility("default")))
#else
#define VEXO_API
#endif

/** @def VEXO_BEGIN_DECLS
 * Opens C linkage around the declarations when compiled as C++.
 * @def VEXO_END_DECLS
 * Closes what #VEXO_BEGIN_DECLS opened. */
#ifdef __cplusplus
#define VEXO_BEGIN_DECLS extern "C" {
#define VEXO_END_DECLS }
#else
#define VEXO_BEGIN_DECLS
#define VEXO_END_DECLS
#endif

VEXO_BEGIN_DECLS

typedef uint8_t vexo_t_uint8;   /**< An unsigned byte. */
typedef int32_t vexo_t_int32;   /**< A signed 32-bit integer. */
typedef uint32_t vexo_t_uint32; /**< An unsigned 32-bit integer. */
typedef int64_t vexo_t_int64;   /**< A signed 64-bit integer. */
typedef uint64_t vexo_t_uint64; /**< An unsigned 64-bit integer. */

/** One byte of UTF-8 text. */
typedef unsigned char vexo_t_utf8;

/** Every options parameter and every flag field of a record: a word of
 * independent bits. */
typedef vexo_t_uint32 vexo_t_bits;

/** An OS file handle: a file descriptor; -1 stands for none. */
typedef int vexo_t_os_file_handle;
/** A child process as the back end refers to it: its process id. */
typedef pid_t vexo_t_os_process_handle;
/** A process id. */
typedef pid_t vexo_t_pid;

/** A position or a size in a file, in bytes. */
typedef vexo_t_int64 vexo_t_offset;
/** Whole seconds since 1970-01-01 00:00 UTC. */
typedef vexo_t_int64 vexo_t_time;

/** A span of time in seconds and nanoseconds. */
typedef struct vexo_t_timespec_ {
  vexo_t_int64 sec;  /**< Whole seconds. */
  vexo_t_int64 nsec; /**< Nanoseconds, 0 to 999999999. */
} vexo_t_timespec;

/** A tagged value. The back end reads only `u.string`, of the "string" and
 * "file" entries of a child's arguments; `flags`, which tells the member
 * in use, is the caller's. */
typedef struct vexo_t_variant_ {
  vexo_t_bits flags; /**< Which member of `u` holds the value; never read by the back end. */
  /** The value. */
  union {
    const char *string; /**< A NUL-terminated UTF-8 string, the caller's. */
    vexo_t_int64 i64;   /**< A 64-bit integer. */
    void *p;            /**< A pointer. */
    vexo_t_bits flags;  /**< A word of bits. */
    int i;              /**< An int. */
  } u;
} vexo_t_variant;

/** One key and its value. A list of properties is an array that ends with
 * an entry whose key is null. */
typedef struct vexo_t_property_ {
  const char *key;  /**< The property's name; null ends a list. */
  vexo_t_variant v; /**< Its value. */
} vexo_t_property;

/** What kind of object an OS file handle refers to (vexo_unix_device_type()). */
typedef enum vexo_t_device_type_ {
  VEXO_DEVICE_TYPE_ILLEGAL = 0,        /**< -1, or a handle the system rejects. */
  VEXO_DEVICE_TYPE_UNKNOWN = 1,        /**< A valid handle of a kind not listed here. */
  VEXO_DEVICE_TYPE_FILE = 2,           /**< A regular file. */
  VEXO_DEVICE_TYPE_TTY = 3,            /**< Any terminal; tested before the file type. */
  VEXO_DEVICE_TYPE_SOCKET = 4,         /**< A socket. */
  VEXO_DEVICE_TYPE_FIFO = 5,           /**< A pipe or FIFO. */
  VEXO_DEVICE_TYPE_CHARACTER = 6,      /**< A character device that is not a terminal. */
  VEXO_DEVICE_TYPE_DIRECTORY = 7,      /**< A directory. */
  VEXO_DEVICE_TYPE_BLOCK = 8,          /**< A block device. */
  VEXO_DEVICE_TYPE_LINK = 9,           /**< A symbolic link. */
  VEXO_DEVICE_TYPE_FIRST_UNUSED_ = 10, /**< One past the last type. */
  VEXO_DEVICE_TYPE_LAST = 9            /**< The last type. */
} vexo_t_device_type;

/** An open directory listing (vexo_open_directory_unix()). Opaque: callers
 * only hold pointers, and release it with vexo_close_directory_unix(). */
typedef struct vexo_t_dir_ vexo_t_dir;
/** The entry record a listing hands out (vexo_read_directory_unix()).
 * Opaque, and owned by its listing. */
typedef struct vexo_t_dirent_ vexo_t_dirent;

VEXO_END_DECLS

#endif /* VEXO_TYPES_H */
