/* The Unix back end of the I/O layer: every exported operation and its
 * option bits. Includes the other public headers. */
#ifndef VEXO_UNIX_H
#define VEXO_UNIX_H

#include "vexo_buf.h"
#include "vexo_core.h"
#include "vexo_errors.h"
#include "vexo_file.h"
#include "vexo_process.h"
#include "vexo_types.h"

VEXO_BEGIN_DECLS

/* ---- Text and file names ------------------------------------------------ */

/* vexo_file_name_for_os_unix: the OS name is the caller's pointer itself.
 * vexo_file_name_from_os_unix: an ASCII name, or a UTF-8 name that is not
 * normalised, comes back as the caller's pointer itself. */
#define VEXO_FILE_NAME_OPTION_NO_COPY 0x1u
/* A name that is not legal UTF-8 is read as ISO 8859-1 (status 1). */
#define VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK 0x4u
/* No NFC normalisation. */
#define VEXO_FILE_NAME_OPTION_NO_NFC 0x8u

/* Legal UTF-8 input is handed back as the caller's pointer. */
#define VEXO_FROM_OS_OPTION_NO_COPY 0x1u
/* Input that is not legal UTF-8 is read as ISO 8859-1 (status 1). */
#define VEXO_FROM_OS_OPTION_LATIN1_FALLBACK 0x4u

/* UTF-8 file name to OS name; a copy, or the caller's pointer under
 * VEXO_FILE_NAME_OPTION_NO_COPY. The text is neither checked nor changed. */
VEXO_API vexo_t_error_code vexo_file_name_for_os_unix(const char *utf8_name, char **pos_name,
                                                      vexo_t_bits options);

/* OS file name to NFC UTF-8. Returns 0, or 1 when the name was not UTF-8
 * and was read as ISO 8859-1 (then it is not normalised). */
VEXO_API vexo_t_error_code vexo_file_name_from_os_unix(const char *senc_path, char **putf8_path,
                                                       vexo_t_bits options);

/* The character set of the process's locale, as a new string. */
VEXO_API vexo_t_error_code vexo_unix_default_charset(char **pcharset, vexo_t_bits options);

/* 1 for a path beginning with '/', else VEXO_E_FILE_NOT_ABSOLUTE. */
VEXO_API vexo_t_error_code vexo_unix_path_root_len(const char *utf8_path);

VEXO_END_DECLS

#endif /* VEXO_UNIX_H */
