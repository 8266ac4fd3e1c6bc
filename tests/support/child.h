// Children for the process suites: parameters as property lists, a bounded reap and a look at what is left of
// our children.
#ifndef VEXO_TESTS_CHILD_H
#define VEXO_TESTS_CHILD_H

#include "unix/unix_internal.h"

#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace child {

// Parameters as property lists, one list of (key, value) entries per argument.
using entries = std::vector<std::pair<const char *, std::string>>;
struct args {
  const std::vector<entries> source;
  std::deque<std::vector<vexo_t_property>> lists;
  std::vector<const vexo_t_property *> ptrs;
  explicit args(const std::vector<entries> &list) : source(list) {
    for (const entries &arg : source) {
      std::vector<vexo_t_property> &props = lists.emplace_back();
      for (const auto &[key, value] : arg)
        props.push_back({key, {0, {value.c_str()}}});
      props.push_back({});
      ptrs.push_back(props.data());
    }
    ptrs.push_back(nullptr);
  }
  args(const args &) = delete;
  const vexo_t_property **get() { return ptrs.data(); }
};
// One "string" entry per argument.
inline args plain(const std::vector<std::string> &list) {
  std::vector<entries> e;
  for (const std::string &s : list)
    e.push_back({{"string", s}});
  return args(e);
}

// How a child ended ("exit 3", "signal 9"), polled for 10 s; one still running then is killed.
inline std::string reap(vexo_t_os_process_handle pid) {
  vexo_t_process_exit_status st{};
  for (int i = 0; i < 1000; ++i, usleep(10000)) {
    const vexo_t_error_code rc = vexo_unix_process_wait(
        pid, nullptr, &st, VEXO_PROCESS_WAIT_OPTION_NONBLOCKING | VEXO_PROCESS_WAIT_OPTION_EXIT);
    if (rc != VEXO_E_WOULD_BLOCK)
      return rc != VEXO_S_NOERR ? "wait failed: " + std::to_string(rc)
                                : (st.flags == VEXO_PROCESS_EXIT_STATUS_FLAG_EXITED ? "exit " : "signal ") +
                                      std::to_string(st.value);
  }
  vexo_unix_process_kill(pid, SIGKILL, 0);
  vexo_unix_process_wait(pid, nullptr, &st, VEXO_PROCESS_WAIT_OPTION_EXIT);
  return "still running after 10 s";
}

// Processes whose parent is this one, in any state, zombies included.
inline std::vector<pid_t> children() {
  std::vector<pid_t> out;
  for (const auto &e : std::filesystem::directory_iterator("/proc")) {
    std::string stat;
    std::getline(std::ifstream(e.path() / "stat"), stat);
    const size_t end = stat.rfind(')');  // "pid (name) state ppid ...", the name may hold anything
    if (end != std::string::npos && end + 4 < stat.size() && std::atoi(stat.c_str() + end + 4) == getpid())
      out.push_back(std::atoi(e.path().filename().c_str()));
  }
  return out;
}

}  // namespace child

#endif  // VEXO_TESTS_CHILD_H
