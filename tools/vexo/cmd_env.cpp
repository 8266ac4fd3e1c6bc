// vexo env: the environment as the library holds it, whole or one variable:
// the snapshot taken at start-up, or a fresh copy of the live environment.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <cstring>
#include <iostream>
#include <vector>

namespace vexo_cli {

// ---- Shared with the tour ------------------------------------------------------

const char *entry_value(const char *entry) {
  return entry + std::strlen(entry) + 1;
}

vexo_t_error_code getenv_value(const std::string &key, vexo_t_bits options, std::string &value) {
  size_t size = 0;
  vexo_t_error_code rc = vexo_unix_getenv(key.c_str(), nullptr, &size, options);
  // Even an empty value needs room for its NUL, so capacity 0 never fits.
  if (rc != VEXO_E_INSUFFICIENT_BUFFER)
    return rc < 0 ? rc : VEXO_E_IMPOSSIBLE_ERROR;
  std::vector<char> buffer(size);
  rc = vexo_unix_getenv(key.c_str(), buffer.data(), &size, options);
  if (rc < 0)
    return rc;
  value.assign(buffer.data(), size - 1);
  return rc;
}

namespace {

struct env_options {
  bool initial = false;
  bool current = false;
  std::string key;
};

// The bytes as the library hands them out, one entry a line, so that the
// output reads like env(1)'s.
void print_entries(char **env) {
  for (char **entry = env; *entry != nullptr; ++entry)
    std::cout << *entry << '=' << entry_value(*entry) << '\n';
}

int run_list(bool current) {
  char **env = nullptr;
  const vexo_t_error_code rc = vexo_unix_get_environ(
      &env, nullptr, current ? VEXO_GET_ENVIRON_OPTION_CURRENT : VEXO_GET_ENVIRON_OPTION_INITIAL);
  if (rc < 0) {
    report_failure(current ? "vexo_unix_get_environ CURRENT" : "vexo_unix_get_environ INITIAL", rc);
    return 1;
  }
  // The initial environment is only lent.
  environ_copy owner(current ? env : nullptr);
  if (env == nullptr) {
    std::cerr << "vexo: there is no initial environment: it could not be copied at start-up (--current "
                 "reads the live one)\n";
    return 1;
  }
  print_entries(env);
  return 0;
}

int run_lookup(const std::string &key, bool current) {
  std::string value;
  const vexo_t_error_code rc =
      getenv_value(key, current ? VEXO_GETENV_OPTION_CURRENT : VEXO_GETENV_OPTION_INITIAL, value);
  if (rc < 0) {
    report_failure(printable(key) + (current ? " in the live environment" : " in the initial environment"),
                   rc);
    return 1;
  }
  std::cout << value << '\n';
  return 0;
}

}  // namespace

void add_env_command(CLI::App &app, int &status) {
  auto opts = std::make_shared<env_options>();
  CLI::App *cmd = app.add_subcommand(
      "env",
      "Print the environment as the library holds it, one KEY=VALUE per line, or the value of KEY alone "
      "(vexo_unix_get_environ, vexo_unix_getenv).");
  CLI::Option *initial = cmd->add_flag(
      "--initial", opts->initial,
      "The snapshot taken at start-up, every entry made UTF-8 (VEXO_GET_ENVIRON_OPTION_INITIAL, "
      "VEXO_GETENV_OPTION_INITIAL); the default");
  cmd->add_flag("--current", opts->current,
                "The live environment: a new copy made UTF-8 (VEXO_GET_ENVIRON_OPTION_CURRENT), or KEY's "
                "bytes as they are (VEXO_GETENV_OPTION_CURRENT)")
      ->excludes(initial);
  CLI::Option *key = cmd->add_option("KEY", opts->key, "Print only the value of this variable");
  cmd->callback([opts, key, &status] {
    status = key->count() > 0 ? run_lookup(opts->key, opts->current) : run_list(opts->current);
  });
}

}  // namespace vexo_cli
