// vexo: shows what the library does with the names, text and files of this
// system.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <clocale>
#include <exception>
#include <iostream>
#include <string>

namespace {

// Decides whether the terminal can be sent UTF-8 as it is; when the library
// cannot tell, escaping is the safe side.
void detect_terminal_charset() {
  char *charset = nullptr;
  if (vexo_unix_default_charset(&charset, 0) < 0)
    return;
  vexo_cli::vexo_string owner(charset);
  vexo_cli::set_terminal_utf8(vexo_cli::charset_is_utf8(charset));
}

// Parses the command line and runs the command it names; the exit status.
int dispatch(CLI::App &app, int argc, char **argv, const int &status) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    // Without this, a misspelt subcommand reads as a missing one.
    if (app.get_subcommands().empty() && !app.remaining().empty() && app.remaining().front()[0] != '-') {
      std::cerr << "vexo: unknown command '" << app.remaining().front()
                << "' (name, charset, stat, access, mkdir, rm, mv, cwd, tmpdir, ls, fd, run, env or tour)\n"
                << "Run with --help for more information.\n";
      return 2;
    }
    return app.exit(e);
  } catch (const vexo_cli::failure &e) {
    vexo_cli::report_failure(e.what(), e.code());
    return 1;
  } catch (const std::exception &e) {
    std::cerr << "vexo: " << e.what() << '\n';
    return 1;
  }
  return status;
}

// Drops the snapshot of the environment and reaps released children that
// have ended. Its failure fails a command that had succeeded.
int shut_down(int status) {
  const vexo_t_error_code rc = vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT);
  if (rc < 0) {
    vexo_cli::report_failure("vexo_init_process_unix (shutdown)", rc);
    return status != 0 ? status : 1;
  }
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  // The library reads the locale (character set), so it must be the user's.
  std::setlocale(LC_ALL, "");
  // Start-up comes before any other library call. It takes the snapshot of
  // the environment that `env` shows, and cannot fail: without a snapshot,
  // look-ups read the live environment.
  static_cast<void>(vexo_init_process_unix(0));
  detect_terminal_charset();

  CLI::App app{
      "Shows how vexo converts file names and text between this system and UTF-8, and what it says about "
      "files, directories, paths, handles, child processes and the environment.",
      "vexo"};
  app.set_version_flag("--version", std::string("vexo ") + vexo_version(),
                       "Print the library's version and exit");
  app.require_subcommand(1, 1);
  app.failure_message([](const CLI::App *, const CLI::Error &e) {
    return std::string("vexo: ") + e.what() + "\nRun with --help for more information.\n";
  });
  int status = 0;
  vexo_cli::add_name_command(app, status);
  vexo_cli::add_charset_command(app, status);
  vexo_cli::add_stat_commands(app, status);
  vexo_cli::add_path_commands(app, status);
  vexo_cli::add_list_commands(app, status);
  vexo_cli::add_run_command(app, status);
  vexo_cli::add_env_command(app, status);
  vexo_cli::add_tour_command(app, status);

  return shut_down(dispatch(app, argc, argv, status));
}
