// vexo mkdir, rm, mv, cwd, tmpdir: the path operations, one library call
// each, so that their result codes can be seen from the shell.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <iostream>
#include <vector>

namespace vexo_cli {

namespace {

// Quiet on success, like the commands these stand for; each failure is
// said and the other operands are still tried.
int each(const std::vector<std::string> &operands, const char *verb,
         const std::function<vexo_t_error_code(const std::string &)> &op) {
  int status = 0;
  for (const std::string &operand : operands) {
    const vexo_t_error_code rc = op(operand);
    if (rc < 0) {
      report_failure(std::string(verb) + " " + printable(operand), rc);
      status = 1;
    }
  }
  return status;
}

int run_mkdir(const std::vector<std::string> &dirs) {
  return each(dirs, "mkdir",
              [](const std::string &dir) { return vexo_unix_create_directory(dir.c_str(), 0); });
}

int run_rm(const std::vector<std::string> &paths, bool dir) {
  bool hint = false;
  const int status = each(paths, "rm", [&](const std::string &path) {
    const vexo_t_error_code rc = vexo_unix_delete_file(path.c_str(), dir ? VEXO_DELETE_OPTION_DIRECTORY : 0);
    hint = hint || (rc == VEXO_E_FILE_IS_DIRECTORY && !dir);
    return rc;
  });
  if (hint)
    std::cerr << "vexo: an empty directory is removed with rm --dir\n";
  return status;
}

int run_mv(const std::string &old_path, const std::string &new_path) {
  const vexo_t_error_code rc = vexo_unix_rename_file(old_path.c_str(), new_path.c_str(), 0);
  if (rc < 0) {
    report_failure("mv " + printable(old_path) + " " + printable(new_path), rc);
    return 1;
  }
  return 0;
}

int run_cwd(bool latin1) {
  char *dir = nullptr;
  const vexo_t_error_code rc =
      vexo_get_working_directory_unix(&dir, latin1 ? VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK : 0);
  if (rc < 0) {
    report_failure("vexo_get_working_directory_unix", rc);
    if (rc == VEXO_E_ENCODING_INVALID && !latin1)
      std::cerr << "vexo: the name is not UTF-8; --latin1 reads it as ISO 8859-1\n";
    return 1;
  }
  vexo_string owner(dir);
  // Bare, so that the output can be used as a path; the remark goes aside.
  std::cout << shown(dir) << '\n';
  if (rc == 1)
    std::cerr << "vexo: status 1: the name is not UTF-8 and was read as ISO 8859-1\n";
  return 0;
}

int run_tmpdir() {
  return print_library_string("vexo_unix_temp_directory", vexo_unix_temp_directory);
}

struct path_options {
  std::vector<std::string> paths;
  std::string path, new_path;
  bool dir = false;
  bool latin1 = false;
};

}  // namespace

void add_path_commands(CLI::App &app, int &status) {
  auto opts = std::make_shared<path_options>();

  CLI::App *mkdir_cmd = app.add_subcommand(
      "mkdir",
      "Create each DIR with vexo_unix_create_directory (mode 0777 less the umask; no parents). Quiet "
      "on success.");
  mkdir_cmd->add_option("DIR", opts->paths, "Directories to create (UTF-8)")->required();
  mkdir_cmd->callback([opts, &status] { status = run_mkdir(opts->paths); });

  CLI::App *rm_cmd =
      app.add_subcommand("rm",
                         "Delete each file, or with --dir each empty directory (vexo_unix_delete_file). "
                         "Quiet on success.");
  rm_cmd->add_option("PATH", opts->paths, "Paths to delete (UTF-8)")->required();
  rm_cmd->add_flag("--dir", opts->dir, "Remove an empty directory (VEXO_DELETE_OPTION_DIRECTORY)");
  rm_cmd->callback([opts, &status] { status = run_rm(opts->paths, opts->dir); });

  CLI::App *mv_cmd = app.add_subcommand("mv",
                                        "Rename OLD to NEW with vexo_unix_rename_file (one rename(2): an "
                                        "existing NEW is replaced). Quiet on success.");
  mv_cmd->add_option("OLD", opts->path, "Existing path (UTF-8)")->required();
  mv_cmd->add_option("NEW", opts->new_path, "New path (UTF-8)")->required();
  mv_cmd->callback([opts, &status] { status = run_mv(opts->path, opts->new_path); });

  CLI::App *cwd_cmd =
      app.add_subcommand("cwd", "Print the working directory (vexo_get_working_directory_unix).");
  cwd_cmd->add_flag(
      "--latin1", opts->latin1,
      "Read a name that is not UTF-8 as ISO 8859-1 (VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK)");
  cwd_cmd->callback([opts, &status] { status = run_cwd(opts->latin1); });

  CLI::App *tmpdir_cmd = app.add_subcommand(
      "tmpdir", "Print the temporary directory (vexo_unix_temp_directory): $TMPDIR or /tmp, ending in '/'.");
  tmpdir_cmd->callback([&status] { status = run_tmpdir(); });
}

}  // namespace vexo_cli
