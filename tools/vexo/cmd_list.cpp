// vexo ls, vexo fd: a directory as the listing API delivers it, and what
// the library says about the tool's own standard streams.
#include "cli_common.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

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

// On a terminal, a name is quoted when it would not read back as it is or
// holds something the terminal would act on.
std::string name_text(const std::string &name) {
  if (!stdout_is_terminal())
    return name;
  const bool bare = !needs_escape(name) && name.find_first_of(" \"\\'") == std::string::npos;
  return bare ? name : printable(name);
}

struct ls_options {
  std::vector<std::string> paths;
  bool dirs = false;
  bool files = false;
  bool json = false;
  bool null = false;
};

nlohmann::ordered_json error_json(vexo_t_error_code rc) {
  return {{"code", code_name(rc)}, {"message", vexo_error_message(rc)}};
}

// Reads one directory; false, said on standard error and in the JSON
// document, when it cannot be read.
bool read_listing(const std::string &path, vexo_t_bits options, listing &l, nlohmann::ordered_json &doc) {
  try {
    l = list_directory(path, options);
  } catch (const failure &e) {
    report_failure(e.what(), e.code());
    doc.push_back({{"directory", path}, {"error", error_json(e.code())}});
    return false;
  }
  for (const vexo_t_error_code rc : l.unnamed)
    report_failure("ls " + printable(path) + ": an entry's name cannot be converted", rc);
  return true;
}

nlohmann::ordered_json listing_json(const std::string &path, const listing &l) {
  nlohmann::ordered_json result = {{"directory", path}, {"entries", l.names}};
  if (!l.unnamed.empty()) {
    result["unconverted"] = nlohmann::ordered_json::array();
    for (const vexo_t_error_code rc : l.unnamed)
      result["unconverted"].push_back(error_json(rc));
  }
  return result;
}

int run_ls(ls_options opts) {
  vexo_t_bits options = 0;
  if (opts.dirs)
    options |= VEXO_DIR_OPTION_DIRECTORIES_ONLY;
  if (opts.files)
    options |= VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY;
  if (opts.paths.empty())
    opts.paths.emplace_back(".");
  const bool headed = opts.paths.size() > 1 && !opts.json;
  const char end = opts.null ? '\0' : '\n';
  nlohmann::ordered_json doc = nlohmann::ordered_json::array();
  int status = 0;
  bool first = true;
  for (const std::string &path : opts.paths) {
    listing l;
    if (!read_listing(path, options, l, doc)) {
      status = 1;
      continue;
    }
    if (!l.unnamed.empty())
      status = 1;
    if (opts.json) {
      doc.push_back(listing_json(path, l));
      continue;
    }
    if (headed)
      std::cout << (first || opts.null ? "" : "\n") << name_text(path) << ':' << end;
    first = false;
    for (const std::string &name : l.names)
      std::cout << name_text(name) << end;
  }
  if (opts.json)
    print_json(doc);
  return status;
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
      "ls",
      "List each DIR (default: the working directory) through the listing API, names in UTF-8 NFC, sorted "
      "by their bytes, one a line; several DIRs are headed by their names. Names are written as they are, "
      "and quoted only on a terminal. An entry whose name cannot be converted is reported on standard "
      "error and makes the exit status 1.");
  ls_cmd->add_option("DIR", ls->paths, "The directories to list");
  auto *dirs = ls_cmd->add_flag("--dirs", ls->dirs, "Only entries that are directories (links followed)");
  ls_cmd->add_flag("--files", ls->files, "Only entries that are not directories")->excludes(dirs);
  auto *json =
      ls_cmd->add_flag("--json", ls->json,
                       "One JSON array: per DIR an object with \"directory\", and \"entries\" or \"error\"");
  ls_cmd->add_flag("-0,--null", ls->null, "End each name (and heading) with a NUL byte, not a newline")
      ->excludes(json);
  ls_cmd->callback([ls, &status] { status = run_ls(*ls); });

  CLI::App *fd_cmd =
      app.add_subcommand("fd", "What vexo_unix_device_type says about standard input, output and error.");
  fd_cmd->callback([&status] { status = run_fd(); });
}

}  // namespace vexo_cli
