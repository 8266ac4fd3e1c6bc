// vexo mkdir, rm, mv, cwd, tmpdir: the path operations, one library call
// each, so that their result codes can be seen from the shell.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace vexo_cli {

namespace {

int finish(const std::string &context, vexo_t_error_code rc, const std::string &done) {
  if (rc < 0) {
    report_failure(context, rc);
    return 1;
  }
  std::cout << done << '\n';
  return 0;
}

int run_mkdir(const std::string &dir) {
  return finish("mkdir " + printable(dir), vexo_unix_create_directory(dir.c_str(), 0),
                "Created directory " + printable(dir) + ".");
}

int run_rm(const std::string &path, bool dir) {
  const vexo_t_error_code rc = vexo_unix_delete_file(path.c_str(), dir ? VEXO_DELETE_OPTION_DIRECTORY : 0);
  const int status = finish("rm " + printable(path), rc,
                            std::string("Removed ") + (dir ? "directory " : "") + printable(path) + ".");
  if (rc == VEXO_E_FILE_IS_DIRECTORY && !dir)
    std::cerr << "vexo: an empty directory is removed with rm --dir\n";
  return status;
}

int run_mv(const std::string &old_path, const std::string &new_path) {
  return finish("mv " + printable(old_path) + " " + printable(new_path),
                vexo_unix_rename_file(old_path.c_str(), new_path.c_str(), 0),
                "Renamed " + printable(old_path) + " to " + printable(new_path) + ".");
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
  std::cout << dir << '\n';
  if (rc == 1)
    std::cerr << "vexo: status 1: the name is not UTF-8 and was read as ISO 8859-1\n";
  return 0;
}

int run_tmpdir() {
  return print_library_string("vexo_unix_temp_directory", vexo_unix_temp_directory);
}

struct path_options {
  std::string path, new_path;
  bool dir = false;
  bool latin1 = false;
};

}  // namespace

void add_path_commands(CLI::App &app, int &status) {
  auto opts = std::make_shared<path_options>();

  CLI::App *mkdir_cmd = app.add_subcommand(
      "mkdir",
      "Create one directory with vexo_unix_create_directory (mode 0777 less the umask; no parents).");
  mkdir_cmd->add_option("DIR", opts->path, "Directory to create (UTF-8)")->required();
  mkdir_cmd->callback([opts, &status] { status = run_mkdir(opts->path); });

  CLI::App *rm_cmd =
      app.add_subcommand("rm", "Delete one file, or with --dir one empty directory (vexo_unix_delete_file).");
  rm_cmd->add_option("PATH", opts->path, "Path to delete (UTF-8)")->required();
  rm_cmd->add_flag("--dir", opts->dir, "Remove an empty directory (VEXO_DELETE_OPTION_DIRECTORY)");
  rm_cmd->callback([opts, &status] { status = run_rm(opts->path, opts->dir); });

  CLI::App *mv_cmd = app.add_subcommand(
      "mv", "Rename OLD to NEW with vexo_unix_rename_file (one rename(2): an existing NEW is replaced).");
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
