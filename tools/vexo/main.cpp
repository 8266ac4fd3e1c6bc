// vexo: shows what the library does with the names, text and files of this
// system.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <clocale>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>

namespace {

constexpr int kUsageStatus = 2;

// Decides whether the terminal can be sent UTF-8 as it is; when the library
// cannot tell, escaping is the safe side.
void detect_terminal_charset() {
  char *charset = nullptr;
  if (vexo_unix_default_charset(&charset, 0) < 0)
    return;
  vexo_cli::vexo_string owner(charset);
  vexo_cli::set_terminal_utf8(vexo_cli::charset_is_utf8(charset));
}

std::string unexpected(const std::string &arg) {
  return (arg.size() > 1 && arg[0] == '-' ? "unknown option '" : "unexpected argument '") + arg + "'";
}

// One line on standard error, naming what was wrong and where help is.
int usage_error(const CLI::App &app, const std::string &what) {
  std::string command = "vexo";
  for (const CLI::App *sub : app.get_subcommands())
    command += " " + sub->get_name();
  std::string line = what;
  for (char &c : line)
    if (c == '\n')
      c = ' ';
  while (!line.empty() && line.back() == ' ')
    line.pop_back();
  std::cerr << command << ": " << vexo_cli::escaped(line) << " (see '" << command << " --help')\n";
  return kUsageStatus;
}

// Parses the command line and runs the command it names; the exit status.
int dispatch(CLI::App &app, int argc, char **argv, const int &status) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    // Help (and any other request that is not an error) is printed by CLI11.
    if (e.get_exit_code() == 0)
      return app.exit(e);
    // CLI11 lists extras last first; the first one is the one to name.
    if (dynamic_cast<const CLI::ExtrasError *>(&e) != nullptr)
      for (const CLI::App *sub : app.get_subcommands())
        if (!sub->remaining().empty())
          return usage_error(app, unexpected(sub->remaining().front()));
    // Arguments before any command are left over; the first one says why.
    if (app.get_subcommands().empty() && !app.remaining().empty()) {
      const std::string first = app.remaining().front();
      return usage_error(app, first[0] == '-' ? unexpected(first) : "unknown command '" + first + "'");
    }
    return usage_error(app, e.what());
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
  // A parent that ignores SIGCHLD would have the kernel reap every child at
  // once, leaving nothing for `run` to wait for.
  std::signal(SIGCHLD, SIG_DFL);
  vexo_cli::install_output();
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
  app.formatter(vexo_cli::help_formatter());
  app.set_version_flag("--version", std::string("vexo ") + vexo_version(),
                       "Print the library's version and exit");
  app.require_subcommand(1, 1);
  app.footer(
      "Exit status: 0 on success, 1 on failure, 2 for a usage error; `run` exits with the program's "
      "status, or 128 + the signal that ended it, 127 when the program was not found and 126 when it could "
      "not be started.");
  int status = 0;
  vexo_cli::add_name_command(app, status);
  vexo_cli::add_charset_command(app, status);
  vexo_cli::add_stat_commands(app, status);
  vexo_cli::add_path_commands(app, status);
  vexo_cli::add_list_commands(app, status);
  vexo_cli::add_run_command(app, status);
  vexo_cli::add_env_command(app, status);
  vexo_cli::add_tour_command(app, status);
  // After the subcommands, which would inherit it: a program's arguments
  // after `run ... --` reach the top level, and must not be parsed there.
  app.prefix_command();
  app.parse_complete_callback([&app] {
    const auto subs = app.get_subcommands();
    if (!subs.empty() && subs.front()->get_name() != "run" && !app.remaining().empty())
      throw CLI::ValidationError(unexpected(app.remaining().front()));
  });

  return shut_down(vexo_cli::finish_output(dispatch(app, argc, argv, status)));
}
