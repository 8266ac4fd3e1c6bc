/* Compiles every public header as C11 and makes a few calls through the
 * shared library. */
#include <vexo/vexo_unix.h>

#include <stdio.h>
#include <string.h>

static int failures;

static void expect(int ok, const char *what) {
  if (!ok && ++failures)
    fprintf(stderr, "consumer_c: %s\n", what);
}

int main(void) {
  static const char decomposed[] = "e\xcc\x81";
  char *name = NULL;
  char *charset = NULL;
  vexo_t_buf b = VEXO_BUF_EMPTY_INITIALIZER;

  expect(vexo_file_name_from_os_unix(decomposed, &name, 0) == VEXO_S_NOERR, "conversion failed");
  expect(name != NULL && strcmp(name, "\xc3\xa9") == 0, "conversion is not NFC");
  vexo_free(name);

  expect(strcmp(vexo_version(), VEXO_VERSION_STRING) == 0, "library and headers differ in version");
  expect(vexo_map_unix_error(0, VEXO_S_NOERR) < 0, "mapping of 0 is not a failure");
  expect(vexo_is_legal_utf8_string("\xed\xa0\x80", 3, 0) < 0, "a surrogate passed as UTF-8");
  expect(vexo_unix_path_root_len("/tmp") == 1, "root length");
  expect(vexo_buf_concat_string(&b, "abc") == VEXO_S_NOERR && b.extent == 3, "buffer");
  vexo_buf_free(&b);
  expect(vexo_unix_default_charset(&charset, 0) == VEXO_S_NOERR && charset != NULL, "charset");
  vexo_free(charset);

  if (failures == 0)
    puts("consumer_c: ok");
  return failures == 0 ? 0 : 1;
}
