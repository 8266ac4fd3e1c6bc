// Process ids, wait, kill and release, and the list of released children
// that a later sweep reaps. The list is process-wide and unlocked: callers
// serialise process calls.
#include "unix_internal.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vexo {
vexo_t_os_process_handle *zombies = nullptr;
size_t nzombies = 0;
}  // namespace vexo

using vexo::nzombies;
using vexo::zombies;

namespace {

// waitpid, repeated on EINTR unless the caller asked to hear of signals;
// the process id, 0, or -1 with errno.
pid_t wait_once(pid_t process, int *status, int flags, bool interruptible) {
  if (interruptible)
    return waitpid(process, status, flags);
  pid_t pid = -1;
  static_cast<void>(vexo::retry_on_eintr([&] {
    pid = waitpid(process, status, flags);
    return pid;
  }));
  return pid;
}

vexo_t_error_code wait_failure(int err) {
  switch (err) {
    case ECHILD:
      return VEXO_E_NOT_FOUND;
    case EINVAL:
      return VEXO_E_IMPOSSIBLE_ERROR;
    case ENOTSUP:
      return VEXO_E_NOT_SUPPORTED;
    case EINTR:
      return VEXO_E_INTERRUPTED;
    default:
      return vexo_map_unix_error(err, VEXO_E_OS_ERROR);
  }
}

void decode_status(int status, vexo_t_process_exit_status *exit_status) {
  exit_status->flags = 0;
  exit_status->value = 0;
  if (WIFEXITED(status)) {
    exit_status->flags = VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED;
    exit_status->value = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    exit_status->flags = VEXO_PROCESS_EXIT_STATUS_FLAG_SIGNALED;
#ifdef WCOREDUMP
    if (WCOREDUMP(status))
      exit_status->flags |= VEXO_PROCESS_EXIT_STATUS_FLAG_CORE_DUMPED;
#endif
    exit_status->value = WTERMSIG(status);
  } else if (WIFCONTINUED(status)) {
    exit_status->flags = VEXO_PROCESS_EXIT_STATUS_FLAG_CONTINUED;
  } else if (WIFSTOPPED(status)) {
    exit_status->flags = VEXO_PROCESS_EXIT_STATUS_FLAG_STOPPED;
    exit_status->value = WSTOPSIG(status);
  }
}

}  // namespace

vexo_t_error_code vexo::record_zombie(vexo_t_os_process_handle process) {
  // One slot per record: the list stays as small as what it holds.
  void *grown = zombies == nullptr ? vexo_alloc(sizeof *zombies)
                                   : vexo_realloc(zombies, (nzombies + 1) * sizeof *zombies);
  if (grown == nullptr)
    return VEXO_E_OUT_OF_MEMORY;
  zombies = static_cast<vexo_t_os_process_handle *>(grown);
  zombies[nzombies++] = process;
  return VEXO_S_NOERR;
}

vexo_t_error_code vexo::release_zombies(int force) {
  // Every wait sweeps; an empty list must not even write its globals, which
  // after a fork would copy their page for nothing.
  if (zombies == nullptr)
    return VEXO_S_DEALLOCATED;
  size_t n = nzombies;
  size_t i = 0;
  while (i < n) {
    const vexo_t_error_code rc =
        vexo_unix_process_wait(zombies[i], nullptr, nullptr,
                               VEXO_PROCESS_WAIT_OPTION_NONBLOCKING | VEXO_PROCESS_WAIT_OPTION_EXIT |
                                   VEXO_PROCESS_WAIT_OPTION_NO_SWEEP);
    if (rc >= 0)
      zombies[i] = zombies[--n];  // the moved handle is tried next
    else
      ++i;
  }
  if (n == 0 || force != 0) {
    vexo_free(zombies);
    zombies = nullptr;
    nzombies = 0;
    return VEXO_S_DEALLOCATED;
  }
  nzombies = n;
  // A failed shrink leaves the larger array in use, which is still valid.
  if (void *shrunk = vexo_realloc(zombies, n * sizeof *zombies))
    zombies = static_cast<vexo_t_os_process_handle *>(shrunk);
  return VEXO_S_NOERR;
}

extern "C" vexo_t_error_code vexo_unix_process_id(vexo_t_os_process_handle process, vexo_t_pid *pid) {
  if (process <= 0 || pid == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  *pid = process;
  return VEXO_S_NOERR;
}

extern "C" vexo_t_error_code vexo_unix_process_from_id(vexo_t_pid pid, vexo_t_os_process_handle *process) {
  if (pid <= 0 || process == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  *process = pid;
  return VEXO_S_NOERR;
}

extern "C" vexo_t_error_code vexo_unix_process_self_id(vexo_t_pid *pid) {
  if (pid == nullptr)
    return VEXO_E_PARAMETER_ERROR;
  *pid = getpid();
  return VEXO_S_NOERR;
}

extern "C" vexo_t_error_code vexo_unix_process_wait(vexo_t_os_process_handle process,
                                                    vexo_t_timespec *timeout,
                                                    vexo_t_process_exit_status *exit_status,
                                                    vexo_t_bits options) {
  // The sweep comes before any argument check, so even a bad call lets
  // released children go.
  if ((options & VEXO_PROCESS_WAIT_OPTION_NO_SWEEP) == 0)
    static_cast<void>(vexo::release_zombies(0));
  if (process <= 0)
    return VEXO_E_PARAMETER_ERROR;
  // Only an unbounded wait or a single poll can be built on waitpid.
  if (timeout != nullptr || (options & VEXO_PROCESS_WAIT_OPTION_EXIT) == 0)
    return VEXO_E_NOT_SUPPORTED;

  const bool interruptible = (options & VEXO_PROCESS_WAIT_OPTION_INTERRUPTIBLE) != 0;
  int status = 0;
  pid_t pid = wait_once(process, &status, WNOHANG, interruptible);
  if (pid == 0) {
    if ((options & VEXO_PROCESS_WAIT_OPTION_NONBLOCKING) != 0)
      return VEXO_E_WOULD_BLOCK;
    pid = wait_once(process, &status, 0, interruptible);
    if (pid == 0)
      return VEXO_E_IMPOSSIBLE_ERROR;
  }
  if (pid == -1)
    return wait_failure(errno);

  if (exit_status != nullptr)
    decode_status(status, exit_status);
  return VEXO_S_NOERR;
}

extern "C" vexo_t_error_code vexo_unix_process_release(vexo_t_os_process_handle process,
                                                       vexo_t_bits options) {
  if ((options & VEXO_PROCESS_RELEASE_OPTION_FORGET) != 0)
    return VEXO_S_NOERR;
  const vexo_t_error_code rc = vexo_unix_process_wait(
      process, nullptr, nullptr, VEXO_PROCESS_WAIT_OPTION_NONBLOCKING | VEXO_PROCESS_WAIT_OPTION_EXIT);
  if (rc != VEXO_E_WOULD_BLOCK)
    return rc < 0 ? rc : VEXO_S_NOERR;
  if ((options & VEXO_PROCESS_RELEASE_OPTION_REAP_LATER) == 0)
    return VEXO_E_WOULD_BLOCK;
  return vexo::record_zombie(process);
}

extern "C" vexo_t_error_code vexo_unix_process_kill(vexo_t_os_process_handle process, int signo,
                                                    vexo_t_bits /*options*/) {
  if (process <= 0)
    return VEXO_E_PARAMETER_ERROR;
  if (kill(process, signo) == 0)
    return VEXO_S_NOERR;
  switch (errno) {
    case ESRCH:
      return VEXO_E_NOT_FOUND;
    case EINVAL:
      return VEXO_E_PARAMETER_ERROR;
    case EPERM:
      return VEXO_E_PERMISSION_ERROR;
    default:
      return vexo_map_unix_error(errno, VEXO_E_OS_ERROR);
  }
}
