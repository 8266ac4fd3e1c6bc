/* Lists a directory, reads a file's status, runs a child and reads its
 * output through a pipe, and looks up a variable. Usage: getting_started [DIR] */
#include <vexo/vexo_unix.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

/* Reports a failure by its code's name and sentence; returns the code. */
static vexo_t_error_code report(const char *what, vexo_t_error_code rc) {
  if (rc < 0)
    fprintf(stderr, "%s: %s: %s\n", what, vexo_error_name(rc), vexo_error_message(rc));
  return rc;
}

static vexo_t_error_code list(const char *path) {
  vexo_t_dir *dir = NULL;
  vexo_t_dirent *ent = NULL;
  const char *name = NULL; /* lent by the listing: valid until the next read */
  vexo_t_error_code rc = vexo_open_directory_unix(path, &dir, 0);
  if (rc < 0)
    return report("open directory", rc);
  while ((rc = vexo_read_directory_unix(dir, &ent, 0)) >= 0) {
    if (vexo_dirent_name_unix(ent, &name) >= 0)
      printf("  %s\n", name);
    else
      printf("  (a name that is not UTF-8)\n");
  }
  vexo_close_directory_unix(dir);
  return rc == VEXO_E_NO_MORE_ENTRIES ? VEXO_S_NOERR : report("read directory", rc);
}

static vexo_t_error_code status(const char *path) {
  vexo_t_stat info; /* written only on success */
  vexo_t_error_code rc =
      vexo_stat_unix(path, &info, VEXO_STAT_OPTION_TYPE | VEXO_STAT_OPTION_SIZE | VEXO_STAT_OPTION_ACCESS);
  if (rc < 0)
    return report("stat", rc);
  printf("%s: %s, %llu bytes, %sreadable by me\n", path,
         (info.type & VEXO_STAT_TYPE_DIRECTORY) ? "directory" : "not a directory",
         (unsigned long long)info.size, (info.mode & VEXO_STAT_MODE_CALLER_READ) ? "" : "not ");
  return rc;
}

static vexo_t_error_code run_child(void) {
  /* One argument, made of one "string" entry; a null key ends the list. */
  vexo_t_property arg[2];
  const vexo_t_property *params[2] = {arg, NULL};
  vexo_t_os_file_handle out = -1;
  vexo_t_os_process_handle child = 0;
  vexo_t_process_exit_status end;
  char text[256];
  ssize_t n;
  vexo_t_error_code rc;

  memset(arg, 0, sizeof arg);
  arg[0].key = "string";
  arg[0].v.u.string = "hello from the child";
  rc = vexo_unix_process_create("/bin/echo", params, ".", NULL, NULL, &out, NULL, &child,
                                VEXO_PROCESS_CREATE_OPTION_STDIN_NULL |
                                    VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE |
                                    VEXO_PROCESS_CREATE_OPTION_STDERR_INHERIT);
  if (rc < 0)
    return report("start child", rc);
  while ((n = read(out, text, sizeof text - 1)) > 0) {
    text[n] = '\0';
    printf("child says: %s", text);
  }
  vexo_os_file_handle_close_unix(out, 0);
  rc = vexo_unix_process_wait(child, NULL, &end, VEXO_PROCESS_WAIT_OPTION_EXIT);
  if (rc < 0)
    return report("wait", rc);
  if (!(end.flags & VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED) || end.value != 0)
    return report("child", VEXO_E_ERROR);
  printf("child exited with status %d\n", (int)end.value);
  return rc;
}

static vexo_t_error_code lookup(const char *key) {
  char value[1024];
  size_t size = sizeof value;
  /* Looked up in the snapshot taken at start-up, in UTF-8. */
  vexo_t_error_code rc = vexo_unix_getenv(key, value, &size, VEXO_GETENV_OPTION_INITIAL);
  if (rc == VEXO_E_NOT_FOUND)
    printf("%s is not set\n", key);
  else if (rc >= 0)
    printf("%s=%s\n", key, value);
  else
    report("getenv", rc); /* VEXO_E_INSUFFICIENT_BUFFER: `size` says how much is needed */
  return rc == VEXO_E_NOT_FOUND ? VEXO_S_NOERR : rc;
}

int main(int argc, char **argv) {
  const char *dir = argc > 1 ? argv[1] : ".";
  int failed = 0;

  vexo_init_process_unix(0); /* first: takes the snapshot of the environment */
  printf("vexo %s, listing %s:\n", vexo_version(), dir);
  failed |= list(dir) < 0;
  failed |= status(dir) < 0;
  failed |= run_child() < 0;
  failed |= lookup("HOME") < 0;
  vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT); /* last */
  return failed ? 1 : 0;
}
