// Child processes, started two ways from one preparation (environment,
// program, working directory, argument vector, streams):
// - vexo_unix_process_create forks: between fork and exec the child only
//   moves its three streams into place, changes directory and executes,
//   ending with status 1 at the first failure;
// - vexo_unix_process_spawn hands the same set-up to posix_spawn as file
//   actions, so its cost does not grow with the parent's memory, a failed
//   exec is reported to the caller, and every descriptor it makes is
//   close-on-exec from the start, which keeps concurrent starts apart.
#include "unix_internal.h"

#include <cstring>
#include <fcntl.h>
#include <spawn.h>
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

// An inherited stream must be the caller's own descriptor. When it is
// closed, a descriptor made for another stream would take its number and
// be handed to the child in its place; refuse before anything is made,
// with the answer a dup of the closed descriptor gives.
vexo_t_error_code check_inherited_streams(vexo_t_bits options) {
  for (int i = 0; i < kStreams; ++i) {
    if (stream_mode(options, i) == VEXO_PROCESS_FILE_OPTION_INHERIT && fcntl(i, F_GETFD) == -1)
      return vexo_map_unix_error(errno, VEXO_E_OS_ERROR);
  }
  return VEXO_S_NOERR;
}

// What both starts prepare the same way: environment, program, working
// directory and argument vector.
vexo_t_error_code prepare(spawn_state &s, const char *cmd_utf8, const vexo_t_property **params_utf8,
                          const char *cwd_utf8, const char *const *env_utf8, vexo_t_bits options) {
  vexo_t_error_code result = VEXO_S_NOERR;
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
  return build_argv(s, cmd_utf8, params_utf8, shell);
}

// Gives the caller the parent ends it asked for and the child's handle, or
// releases the child into the list of children reaped later.
void hand_out(spawn_state &s, pid_t pid, vexo_t_os_file_handle *const pparent_fd[kStreams],
              vexo_t_os_process_handle *processp) {
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

// One stream for the spawn path: like vexo_unix_process_file, but every
// descriptor is close-on-exec as it is made, and an inherited stream makes
// none (the file action copies the caller's own onto itself, which also
// clears its close-on-exec flag in the child). A child end numbered 0-2
// (the caller has closed some of its streams) is moved above them, so that
// no file action overwrites the source of a later one.
vexo_t_error_code open_stream_cloexec(int fd, int *pparent_fd, int *pchild_fd, vexo_t_bits mode) {
  vexo_t_error_code result = VEXO_S_NOERR;
  vexo::unique_fd parent, child;
  if (mode == VEXO_PROCESS_FILE_OPTION_INHERIT)
    return VEXO_S_NOERR;
  if (mode == VEXO_PROCESS_FILE_OPTION_NULL) {
    int null = -1;
    const int err = vexo::retry_on_eintr([&] {
      null = open("/dev/null", (fd == 0 ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
      return null;
    });
    if (err != 0)
      return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
    child.reset(null);
  } else if (mode == VEXO_PROCESS_FILE_OPTION_PIPE) {
    int ends[2];
    VEXO_POSIX_CHECK(pipe2(ends, O_CLOEXEC), VEXO_E_OS_ERROR);
    parent.reset(fd == 0 ? ends[1] : ends[0]);
    child.reset(fd == 0 ? ends[0] : ends[1]);
  } else {
    return VEXO_E_INTERNAL_ERROR;
  }
  if (child.get() < kStreams) {
    const int moved = fcntl(child.get(), F_DUPFD_CLOEXEC, kStreams);
    VEXO_POSIX_CHECK(moved, VEXO_E_OS_ERROR);
    child.reset(moved);
  }
  *pparent_fd = parent.release();
  *pchild_fd = child.release();
  return result;
}

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct spawn_plan {
  posix_spawnattr_t attr;
  posix_spawn_file_actions_t actions;
  bool has_attr = false, has_actions = false;
  spawn_plan() = default;
  spawn_plan(const spawn_plan &) = delete;
  spawn_plan &operator=(const spawn_plan &) = delete;
  ~spawn_plan() {
    if (has_actions)
      posix_spawn_file_actions_destroy(&actions);
    if (has_attr)
      posix_spawnattr_destroy(&attr);
  }
};

// The child as the fork path makes it, set up by the C library: a new
// session first if asked, the three streams, the working directory, the
// exec. Any failure on the way comes back as its errno value, with the
// child already reaped.
vexo_t_error_code spawn_child(const spawn_state &s, vexo_t_bits options, pid_t *ppid) {
  spawn_plan plan;
  int err = posix_spawnattr_init(&plan.attr);
  plan.has_attr = err == 0;
  if (err == 0 && (options & VEXO_PROCESS_CREATE_OPTION_NEW_SESSION) != 0)
    err = posix_spawnattr_setflags(&plan.attr, POSIX_SPAWN_SETSID);
  if (err == 0) {
    err = posix_spawn_file_actions_init(&plan.actions);
    plan.has_actions = err == 0;
  }
  for (int i = 0; err == 0 && i < kStreams; ++i)
    err = posix_spawn_file_actions_adddup2(&plan.actions, s.child_fd[i] == -1 ? i : s.child_fd[i], i);
  if (err == 0)
    err = posix_spawn_file_actions_addchdir_np(&plan.actions, s.os_cwd.get());
  if (err == 0)
    err = posix_spawn(ppid, s.os_cmd.get(), &plan.actions, &plan.attr, s.argv,
                      s.env != nullptr ? s.env : environ);
  return err == 0 ? VEXO_S_NOERR : vexo_map_unix_error(err, VEXO_E_OS_ERROR);
}

// Both starts: preparation, streams, then the fork or the spawn.
vexo_t_error_code start_child(const char *cmd_utf8, const vexo_t_property **params_utf8, const char *cwd_utf8,
                              const char *const *env_utf8, vexo_t_os_file_handle *const pparent_fd[kStreams],
                              vexo_t_os_process_handle *processp, vexo_t_bits options, bool use_spawn) {
  vexo_t_error_code result = VEXO_S_NOERR;
  // Rejected here rather than left to fail in the child, where the caller
  // of the fork path would only see an exit with status 1.
  if (cmd_utf8 == nullptr || cwd_utf8 == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  VEXO_CHECK(check_inherited_streams(options));
  spawn_state s(cmd_utf8, cwd_utf8);
  VEXO_CHECK(prepare(s, cmd_utf8, params_utf8, cwd_utf8, env_utf8, options));

  pid_t pid = -1;
  if (use_spawn) {
    for (int i = 0; i < kStreams; ++i)
      VEXO_CHECK(open_stream_cloexec(i, &s.parent_fd[i], &s.child_fd[i], stream_mode(options, i)));
    VEXO_CHECK(spawn_child(s, options, &pid));
  } else {
    for (int i = 0; i < kStreams; ++i)
      VEXO_CHECK(vexo::vexo_unix_process_file(i, &s.parent_fd[i], &s.child_fd[i], stream_mode(options, i)));
    pid = fork();
    VEXO_POSIX_CHECK(pid, VEXO_E_OS_ERROR);
    if (pid == 0)
      exec_child(s, options);
  }
  hand_out(s, pid, pparent_fd, processp);
  return VEXO_S_NOERR;
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
  vexo_t_os_file_handle *const pparent_fd[kStreams] = {pstdin_parent_fd_wr, pstdout_parent_fd_rd,
                                                       pstderr_parent_fd_rd};
  return start_child(cmd_utf8, params_utf8, cwd_utf8, env_utf8, pparent_fd, processp, options, false);
}

extern "C" vexo_t_error_code vexo_unix_process_spawn(
    const char *cmd_utf8, const vexo_t_property **params_utf8, const char *cwd_utf8,
    const char *const *env_utf8, vexo_t_os_file_handle *pstdin_parent_fd_wr,
    vexo_t_os_file_handle *pstdout_parent_fd_rd, vexo_t_os_file_handle *pstderr_parent_fd_rd,
    vexo_t_os_process_handle *processp, vexo_t_bits options) {
  vexo_t_os_file_handle *const pparent_fd[kStreams] = {pstdin_parent_fd_wr, pstdout_parent_fd_rd,
                                                       pstderr_parent_fd_rd};
  return start_child(cmd_utf8, params_utf8, cwd_utf8, env_utf8, pparent_fd, processp, options, true);
}
