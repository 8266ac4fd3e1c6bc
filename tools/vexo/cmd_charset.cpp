// vexo charset: the character set of the user's locale, as the library sees it.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace vexo_cli {

namespace {

int run_charset() {
  return print_library_string("vexo_unix_default_charset", vexo_unix_default_charset);
}

}  // namespace

void add_charset_command(CLI::App &app, int &status) {
  CLI::App *cmd =
      app.add_subcommand("charset", "Print the character set of the locale (vexo_unix_default_charset).");
  cmd->callback([&status] { status = run_charset(); });
}

}  // namespace vexo_cli
