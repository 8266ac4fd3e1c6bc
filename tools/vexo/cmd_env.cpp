// vexo env: the environment as the library holds it, whole or one variable:
// the snapshot taken at start-up, or a fresh copy of the live environment.
#include "cli_common.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

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
  bool json = false;
  bool null = false;
  std::vector<std::string> keys;
};

int run_list(const env_options &opts) {
  char **env = nullptr;
  const vexo_t_error_code rc = vexo_unix_get_environ(
      &env, nullptr, opts.current ? VEXO_GET_ENVIRON_OPTION_CURRENT : VEXO_GET_ENVIRON_OPTION_INITIAL);
  if (rc < 0) {
    report_failure(opts.current ? "vexo_unix_get_environ CURRENT" : "vexo_unix_get_environ INITIAL", rc);
    return 1;
  }
  // The initial environment is only lent.
  environ_copy owner(opts.current ? env : nullptr);
  if (env == nullptr) {
    std::cerr << "vexo: there is no initial environment: it could not be copied at start-up (--current "
                 "reads the live one)\n";
    return 1;
  }
  nlohmann::ordered_json doc = nlohmann::ordered_json::object();
  for (char **entry = env; *entry != nullptr; ++entry) {
    if (opts.json)
      doc[*entry] = entry_value(*entry);
    else
      std::cout << shown(std::string(*entry) + '=' + entry_value(*entry)) << (opts.null ? '\0' : '\n');
  }
  if (opts.json)
    print_json(doc);
  return 0;
}

// Like printenv: a missing variable only makes the exit status 1.
int run_lookup(const env_options &opts) {
  const vexo_t_bits options = opts.current ? VEXO_GETENV_OPTION_CURRENT : VEXO_GETENV_OPTION_INITIAL;
  nlohmann::ordered_json doc = nlohmann::ordered_json::object();
  int status = 0;
  for (const std::string &key : opts.keys) {
    std::string value;
    const vexo_t_error_code rc = getenv_value(key, options, value);
    if (rc < 0) {
      if (rc != VEXO_E_NOT_FOUND)
        report_failure(
            printable(key) + (opts.current ? " in the live environment" : " in the initial environment"), rc);
      doc[key] = nullptr;
      status = 1;
    } else if (opts.json) {
      doc[key] = value;
    } else {
      std::cout << shown(value) << (opts.null ? '\0' : '\n');
    }
  }
  if (opts.json)
    print_json(doc);
  return status;
}

}  // namespace

void add_env_command(CLI::App &app, int &status) {
  auto opts = std::make_shared<env_options>();
  CLI::App *cmd = app.add_subcommand(
      "env",
      "Print the environment as the library holds it, one KEY=VALUE per line, or the value of each KEY, one "
      "per line; exit status 1 when a KEY is not set (vexo_unix_get_environ, vexo_unix_getenv).");
  CLI::Option *initial = cmd->add_flag(
      "--initial", opts->initial,
      "The snapshot taken at start-up, every entry made UTF-8 (VEXO_GET_ENVIRON_OPTION_INITIAL, "
      "VEXO_GETENV_OPTION_INITIAL); the default");
  cmd->add_flag("--current", opts->current,
                "The live environment: a new copy made UTF-8 (VEXO_GET_ENVIRON_OPTION_CURRENT), or KEY's "
                "bytes as they are (VEXO_GETENV_OPTION_CURRENT)")
      ->excludes(initial);
  auto *json = cmd->add_flag("--json", opts->json,
                             "One JSON object of KEY: VALUE, in the environment's order (null for a KEY "
                             "that is not set)");
  cmd->add_flag("-0,--null", opts->null, "End each line with a NUL byte, not a newline")->excludes(json);
  cmd->add_option("KEY", opts->keys, "Print only the values of these variables")
      ->check([](const std::string &key) {
        return key.find('=') != std::string::npos ? "'" + key + "' holds '=', which no KEY can"
                                                  : std::string();
      });
  cmd->callback([opts, &status] { status = opts->keys.empty() ? run_list(*opts) : run_lookup(*opts); });
}

}  // namespace vexo_cli
