// vexo charset: the character set of the user's locale, as the library sees it.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace vexo_cli {

namespace {

int run_charset() {
  char *charset = nullptr;
  const vexo_t_error_code rc = vexo_unix_default_charset(&charset, 0);
  if (rc < 0) {
    report_failure("vexo_unix_default_charset", rc);
    return 1;
  }
  vexo_string owner(charset);
  std::cout << charset << '\n';
  return 0;
}

}  // namespace

void add_charset_command(CLI::App &app, int &status) {
  CLI::App *cmd =
      app.add_subcommand("charset", "Print the character set of the locale (vexo_unix_default_charset).");
  cmd->callback([&status] { status = run_charset(); });
}

}  // namespace vexo_cli
