// An embedder's own functions under the plain names the library uses
// internally. A static link pulls in every object that defines them, so a
// library that leaked those names into the global namespace fails to link.
#include <vexo/vexo_unix.h>

#include <dirent.h>
#include <sys/stat.h>

int is_ASCII(const char *) {
  return 0;
}
int utf8_to_nfc(const char *, char **, unsigned) {
  return 0;
}
int os_stat(const char *, struct stat *) {
  return 0;
}
int os_opendir(const char *, DIR **) {
  return 0;
}
int os_rename(const char *, const char *) {
  return 0;
}
int init_env() {
  return 0;
}
void release_env() {}
size_t env_length(char **) {
  return 0;
}
int copy_current_os_environ(char ***, size_t *, unsigned) {
  return 0;
}
int record_zombie(int) {
  return 0;
}
int release_zombies(int) {
  return 0;
}
int vexo_unix_process_file(int, int *, int *, unsigned) {
  return 0;
}

// Calls into every object file that defines one of the names above.
bool clash_free_link() {
  vexo_t_stat st;
  vexo_t_dir *dir = nullptr;
  char *name = nullptr;
  bool ok = vexo_init_process_unix(0) >= 0 && vexo_stat_unix("/", &st, 0) >= 0 &&
            vexo_unix_rename_file("/nonexistent/a", "/nonexistent/b", 0) < 0 &&
            vexo_file_name_from_os_unix("e\xcc\x81", &name, 0) >= 0 &&
            vexo_open_directory_unix("/", &dir, 0) >= 0;
  static_cast<void>(vexo_unix_process_release(0x7fffffff, 0));
  vexo_free(name);
  if (dir != nullptr)
    vexo_close_directory_unix(dir);
  const vexo_t_property *no_params[] = {nullptr};
  ok = ok && vexo_unix_process_create(
                 "/nonexistent", no_params, "/", nullptr, nullptr, nullptr, nullptr, nullptr,
                 VEXO_PROCESS_CREATE_OPTION_STDIN_NULL | VEXO_PROCESS_CREATE_OPTION_STDOUT_NULL |
                     VEXO_PROCESS_CREATE_OPTION_STDERR_NULL) >= 0;
  return vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT) >= 0 && ok;
}
