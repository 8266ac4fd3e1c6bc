// vexo ls, vexo fd: a directory as the listing API delivers it, and what
// the library says about the tool's own standard streams.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <memory>

namespace vexo_cli {

namespace {

struct dir_closer {
  void operator()(vexo_t_dir *dir) const { vexo_close_directory_unix(dir); }
};

}  // namespace

listing list_directory(const std::string &path, vexo_t_bits options) {
  vexo_t_dir *raw = nullptr;
  if (const vexo_t_error_code rc = vexo_open_directory_unix(path.c_str(), &raw, options); rc < 0)
    throw failure("cannot list " + printable(path), rc);
  const std::unique_ptr<vexo_t_dir, dir_closer> dir(raw);
  listing result;
  for (;;) {
    vexo_t_dirent *ent = nullptr;
    const vexo_t_error_code rc = vexo_read_directory_unix(dir.get(), &ent, 0);
    if (rc == VEXO_E_NO_MORE_ENTRIES)
      break;
    if (rc < 0)
      throw failure("cannot read the directory " + printable(path), rc);
    const char *name = nullptr;
    // An entry without a UTF-8 name is still listed; the listing goes on.
    if (const vexo_t_error_code nrc = vexo_dirent_name_unix(ent, &name); nrc < 0)
      result.unnamed.push_back(nrc);
    else
      result.names.emplace_back(name);
  }
  std::sort(result.names.begin(), result.names.end());
  return result;
}

std::string unnamed_text(vexo_t_error_code rc) {
  return "(a name that is not UTF-8: " + code_name(rc) + ")";
}

const char *device_type_name(vexo_t_device_type type) {
  switch (type) {
    case VEXO_DEVICE_TYPE_ILLEGAL:
      return "ILLEGAL";
    case VEXO_DEVICE_TYPE_UNKNOWN:
      return "UNKNOWN";
    case VEXO_DEVICE_TYPE_FILE:
      return "FILE";
    case VEXO_DEVICE_TYPE_TTY:
      return "TTY";
    case VEXO_DEVICE_TYPE_SOCKET:
      return "SOCKET";
    case VEXO_DEVICE_TYPE_FIFO:
      return "FIFO";
    case VEXO_DEVICE_TYPE_CHARACTER:
      return "CHARACTER";
    case VEXO_DEVICE_TYPE_DIRECTORY:
      return "DIRECTORY";
    case VEXO_DEVICE_TYPE_BLOCK:
      return "BLOCK";
    case VEXO_DEVICE_TYPE_LINK:
      return "LINK";
    default:
      return "(not a device type)";
  }
}

namespace {

// Quotes only the names that would not read back as they are.
bool prints_bare(const std::string &name) {
  for (char c : name)
    if (static_cast<unsigned char>(c) <= 0x20 || static_cast<unsigned char>(c) >= 0x7F || c == '"' ||
        c == '\\')
      return false;
  return true;
}

struct ls_options {
  std::string path;
  bool dirs = false;
  bool files = false;
};

int run_ls(const ls_options &opts) {
  vexo_t_bits options = 0;
  if (opts.dirs)
    options |= VEXO_DIR_OPTION_DIRECTORIES_ONLY;
  if (opts.files)
    options |= VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY;
  const listing l = list_directory(opts.path, options);
  for (const std::string &name : l.names)
    std::cout << (prints_bare(name) ? name : printable(name)) << '\n';
  for (const vexo_t_error_code rc : l.unnamed)
    std::cout << unnamed_text(rc) << '\n';
  if (!l.unnamed.empty()) {
    std::cout.flush();
    std::cerr << "vexo: " << l.unnamed.size() << (l.unnamed.size() == 1 ? " entry has" : " entries have")
              << " a name that is not legal UTF-8; the listing gives no name for it, only the code\n";
  }
  return 0;
}

int run_fd() {
  static constexpr const char *kStreams[] = {"standard input", "standard output", "standard error"};
  for (int fd = 0; fd < 3; ++fd)
    std::cout << fd << "  " << std::left << std::setw(17) << kStreams[fd]
              << device_type_name(vexo_unix_device_type(fd)) << '\n';
  return 0;
}

}  // namespace

void add_list_commands(CLI::App &app, int &status) {
  auto ls = std::make_shared<ls_options>();
  CLI::App *ls_cmd = app.add_subcommand(
      "ls", "Lists a directory through the listing API, names in UTF-8 NFC, sorted by their bytes.");
  ls_cmd->add_option("DIR", ls->path, "The directory to list")->required();
  auto *dirs = ls_cmd->add_flag("--dirs", ls->dirs, "Only entries that are directories (links followed)");
  ls_cmd->add_flag("--files", ls->files, "Only entries that are not directories")->excludes(dirs);
  ls_cmd->callback([ls, &status] { status = run_ls(*ls); });

  CLI::App *fd_cmd =
      app.add_subcommand("fd", "What vexo_unix_device_type says about standard input, output and error.");
  fd_cmd->callback([&status] { status = run_fd(); });
}

}  // namespace vexo_cli
