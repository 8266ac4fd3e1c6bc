// An embedder's own functions under the plain names the library uses
// internally. A static link pulls in every object that defines them, so a
// library that leaked those names into the global namespace fails to link.
#include <vexo/vexo_unix.h>

#include <dirent.h>
#include <sys/stat.h>

// clang-format off
#define CLASH(ret, name, ...) ret name(__VA_ARGS__) { return ret(); }
CLASH(int, is_ASCII, const char *)
CLASH(int, utf8_to_nfc, const char *, char **, unsigned)
CLASH(int, os_stat, const char *, struct stat *)
CLASH(int, os_opendir, const char *, DIR **)
CLASH(int, os_rename, const char *, const char *)
CLASH(int, init_env)
CLASH(void, release_env)
CLASH(size_t, env_length, char **)
CLASH(int, copy_current_os_environ, char ***, size_t *, unsigned)
CLASH(int, record_zombie, int)
CLASH(int, release_zombies, int)
CLASH(int, vexo_unix_process_file, int, int *, int *, unsigned)
// clang-format on

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
