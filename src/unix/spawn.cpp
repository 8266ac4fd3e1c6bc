// Child processes: everything that can fail is prepared before the fork;
// between fork and exec the child only moves its three streams into place,
// changes directory and executes, ending with status 1 at the first failure.
#include "unix_internal.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kStreams = 3;

// What one start holds until it returns. The destructor is the single
// clean-up path, for success and every failure alike.
struct spawn_state {
  char **env = nullptr;  // the environment handed to execve, or null
  char **env1 = nullptr;
  char **env2 = nullptr;
  vexo::maybe_owned os_cmd;
  vexo::maybe_owned os_cwd;
  char **argv = nullptr;
  size_t param_offset = 1;  // slots from here on are ours to free
  int parent_fd[kStreams] = {-1, -1, -1};
  int child_fd[kStreams] = {-1, -1, -1};

  spawn_state(const char *cmd_utf8, const char *cwd_utf8) : os_cmd(cmd_utf8), os_cwd(cwd_utf8) {}
  spawn_state(const spawn_state &) = delete;
  spawn_state &operator=(const spawn_state &) = delete;

  ~spawn_state() {
    vexo_free(env);
    vexo_free(env1);
    vexo_free(env2);
    os_cwd.reset();
    os_cmd.reset();
    if (argv != nullptr) {
      for (size_t i = param_offset; argv[i] != nullptr; ++i) {
        vexo_free(argv[i]);
        argv[i] = nullptr;
      }
      vexo_free(argv);
    }
    for (const int fd : parent_fd)
      close_if_open(fd);
    for (const int fd : child_fd)
      close_if_open(fd);
  }

  static void close_if_open(int fd) {
    if (fd != -1)
      static_cast<void>(vexo_os_file_handle_close_unix(fd, 0));
  }
};

// The mode of stream `stream` (0, 1, 2): its inherit, null and pipe bits
// tested in that order; 0 when none is set.
vexo_t_bits stream_mode(vexo_t_bits options, int stream) {
  const vexo_t_bits bits = (options >> (3 * stream)) & 0x7u;
  for (const vexo_t_bits mode :
       {VEXO_PROCESS_FILE_OPTION_INHERIT, VEXO_PROCESS_FILE_OPTION_NULL, VEXO_PROCESS_FILE_OPTION_PIPE}) {
    if ((bits & mode) != 0)
      return mode;
  }
  return 0;
}

// The caller's entries over the inherited environment (or over nothing), in
// exec form; or the inherited environment itself when there are no entries.
vexo_t_error_code build_environment(spawn_state &s, const char *const *env_utf8, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  const bool no_inherit = (options & VEXO_PROCESS_CREATE_OPTION_ENV_NO_INHERIT) != 0;
  if (env_utf8 == nullptr || env_utf8[0] == nullptr) {
    if (no_inherit)
      return VEXO_E_PARAMETER_ERROR;
    VEXO_CHECK(vexo_get_system_properties(&s.env, nullptr, VEXO_SYSTEM_PROPERTIES_ENVIRON));
    return result;
  }

  size_t env_size2 = 0;
  if (no_inherit) {
    s.env2 = static_cast<char **>(vexo_alloc(sizeof(char *)));
    if (s.env2 == nullptr)
      return VEXO_E_OUT_OF_MEMORY;
    s.env2[0] = nullptr;
    env_size2 = sizeof(char *);
  } else {
    VEXO_CHECK(vexo_get_system_properties(&s.env2, &env_size2, VEXO_SYSTEM_PROPERTIES_COMPACT_ENV));
  }
  size_t env_size1 = 0;
  const vexo_t_bits flag = (options & VEXO_PROCESS_CREATE_OPTION_ENV_COMPACT_FLAG) != 0
                               ? VEXO_COMPACT_ENV_FLAG_KEY_EQ_VALUE
                               : VEXO_COMPACT_ENV_FLAG_KEY_NUL_VALUE;
  VEXO_CHECK(vexo_make_compact_env(env_utf8, &s.env1, &env_size1, flag));
  VEXO_CHECK(vexo_merge_compact_envs(s.env1, env_size1, s.env2, env_size2, &s.env, nullptr, 0));

  // The merged block is writable: joining key and value in place saves a
  // second copy of every entry.
  for (char **entry = s.env; *entry != nullptr; ++entry)
    (*entry)[std::strlen(*entry)] = '=';
  return result;
}

vexo_t_error_code build_argv(spawn_state &s, const char *cmd_utf8, const vexo_t_property **params_utf8,
                             bool shell) {
  size_t nparams = 0;
  if (params_utf8 != nullptr) {
    while (params_utf8[nparams] != nullptr)
      ++nparams;
  }
  s.param_offset = shell ? 3 : 1;
  s.argv = static_cast<char **>(vexo_alloc((s.param_offset + nparams + 1) * sizeof(char *)));
  if (s.argv == nullptr)
    return VEXO_E_OUT_OF_MEMORY;
  s.argv[0] = s.os_cmd.get();
  if (shell) {
    s.argv[1] = const_cast<char *>("-c");
    s.argv[2] = const_cast<char *>(cmd_utf8);
  }
  for (size_t i = 0; i < nparams; ++i) {
    // A null slot also ends the strings the clean-up frees.
    char *arg = vexo::vexo_unix_alloc_argv_entry_string(params_utf8[i]);
    s.argv[s.param_offset + i] = arg;
    if (arg == nullptr)
      return VEXO_E_OUT_OF_MEMORY;
  }
  s.argv[s.param_offset + nparams] = nullptr;
  return VEXO_S_NOERR;
}

// Runs in the child: no allocation, no return.
[[noreturn]] void exec_child(const spawn_state &s, vexo_t_bits options) {
  if ((options & VEXO_PROCESS_CREATE_OPTION_NEW_SESSION) != 0)
    static_cast<void>(setsid());

  // With one of the parent's descriptors 0-2 closed, a child end can have
  // that number, and moving another stream onto it (or closing it after its
  // own dup2) would undo the set-up. Such ends are first copied above 2;
  // the numbers they leave behind are all replaced by the dup2 calls.
  int child_fd[kStreams];
  for (int i = 0; i < kStreams; ++i) {
    child_fd[i] = s.child_fd[i];
    if (child_fd[i] < kStreams) {
      child_fd[i] = fcntl(child_fd[i], F_DUPFD, kStreams);
      if (child_fd[i] == -1)
        _exit(1);
    }
  }
  for (int i = 0; i < kStreams; ++i) {
    if (dup2(child_fd[i], i) == -1)
      _exit(1);
    static_cast<void>(vexo_os_file_handle_close_unix(child_fd[i], 0));
  }
  if (chdir(s.os_cwd.get()) == -1)
    _exit(1);
  if (s.env != nullptr)
    execve(s.os_cmd.get(), s.argv, s.env);
  else
    execv(s.os_cmd.get(), s.argv);
  _exit(1);
}

}  // namespace

vexo_t_error_code vexo::vexo_unix_process_file(int fd, vexo_t_os_file_handle *pparent_fd,
                                               vexo_t_os_file_handle *pchild_fd, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  if ((options & VEXO_PROCESS_FILE_OPTION_NULL) != 0) {
    int child = -1;
    const int err = vexo::retry_on_eintr([&] {
      child = open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
      return child;
    });
    if (err != 0)
      return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
    *pparent_fd = -1;
    *pchild_fd = child;
  } else if ((options & VEXO_PROCESS_FILE_OPTION_INHERIT) != 0) {
    // dup does not block; an EINTR is a failure like any other.
    const int child = dup(fd);
    VEXO_POSIX_CHECK(child, VEXO_E_OS_ERROR);
    *pparent_fd = -1;
    *pchild_fd = child;
  } else if ((options & VEXO_PROCESS_FILE_OPTION_PIPE) != 0) {
    int ends[2];
    VEXO_POSIX_CHECK(pipe(ends), VEXO_E_OS_ERROR);
    const int parent = fd == 0 ? ends[1] : ends[0];
    const int child = fd == 0 ? ends[0] : ends[1];
    // Only the parent's end must vanish at the exec; the child's end is
    // moved onto its stream number first.
    result = vexo::vexo_unix_SETFD(parent, FD_CLOEXEC, FD_CLOEXEC);
    if (result < 0) {
      static_cast<void>(vexo_os_file_handle_close_unix(parent, VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS));
      static_cast<void>(vexo_os_file_handle_close_unix(child, VEXO_HANDLE_CLOSE_OPTION_IGNORE_ERRORS));
      return result;
    }
    *pparent_fd = parent;
    *pchild_fd = child;
  } else {
    return VEXO_E_INTERNAL_ERROR;
  }
  return result;
}

char *vexo::vexo_unix_alloc_argv_entry_string(const vexo_t_property *entry) {
  vexo_t_buf buf = VEXO_BUF_EMPTY_INITIALIZER;
  vexo_t_uint8 *bytes = nullptr;
  size_t size = 0;
  bool ok = true;
  for (; ok && entry->key != nullptr; ++entry) {
    ok = (std::strcmp(entry->key, "string") == 0 || std::strcmp(entry->key, "file") == 0) &&
         vexo_buf_concat_string(&buf, entry->v.u.string) >= 0;
  }
  ok = ok && vexo_buf_push(&buf, 0) >= 0 && vexo_buf_get_buf(&buf, &bytes, &size) >= 0;
  vexo_buf_free(&buf);
  return ok ? reinterpret_cast<char *>(bytes) : nullptr;
}

extern "C" vexo_t_error_code vexo_unix_process_create(
    const char *cmd_utf8, const vexo_t_property **params_utf8, const char *cwd_utf8,
    const char *const *env_utf8, vexo_t_os_file_handle *pstdin_parent_fd_wr,
    vexo_t_os_file_handle *pstdout_parent_fd_rd, vexo_t_os_file_handle *pstderr_parent_fd_rd,
    vexo_t_os_process_handle *processp, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
  // Rejected here rather than left to fail in the child, where the caller
  // would only see an exit with status 1.
  if (cmd_utf8 == nullptr || cwd_utf8 == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  spawn_state s(cmd_utf8, cwd_utf8);

  if ((options & VEXO_PROCESS_CREATE_OPTION_ENV) != 0)
    VEXO_CHECK(build_environment(s, env_utf8, options));

  const bool shell = (options & VEXO_PROCESS_CREATE_OPTION_SHELL) != 0;
  if (shell) {
    char *shell_path = vexo_get_system_property_allocate("SHELL", 0);
    if (shell_path == nullptr)
      shell_path = vexo_alloc_string("/bin/sh");
    if (shell_path == nullptr)
      return VEXO_E_OUT_OF_MEMORY;
    *s.os_cmd.out() = shell_path;
  } else {
    VEXO_CHECK(vexo_file_name_for_os_unix(cmd_utf8, s.os_cmd.out(), VEXO_FILE_NAME_OPTION_NO_COPY));
  }
  VEXO_CHECK(vexo_file_name_for_os_unix(cwd_utf8, s.os_cwd.out(), VEXO_FILE_NAME_OPTION_NO_COPY));
  VEXO_CHECK(build_argv(s, cmd_utf8, params_utf8, shell));

  for (int i = 0; i < kStreams; ++i)
    VEXO_CHECK(vexo::vexo_unix_process_file(i, &s.parent_fd[i], &s.child_fd[i], stream_mode(options, i)));

  const pid_t pid = fork();
  VEXO_POSIX_CHECK(pid, VEXO_E_OS_ERROR);
  if (pid == 0)
    exec_child(s, options);

  vexo_t_os_file_handle *const pparent_fd[kStreams] = {pstdin_parent_fd_wr, pstdout_parent_fd_rd,
                                                       pstderr_parent_fd_rd};
  for (int i = 0; i < kStreams; ++i) {
    if (pparent_fd[i] != nullptr) {
      *pparent_fd[i] = s.parent_fd[i];
      s.parent_fd[i] = -1;
    }
  }
  if (processp != nullptr)
    *processp = pid;
  else
    static_cast<void>(vexo_unix_process_release(pid, VEXO_PROCESS_RELEASE_OPTION_REAP_LATER));
  return VEXO_S_NOERR;
}
