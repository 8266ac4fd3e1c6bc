// vexo stat, vexo access: what the library says about a path and about what
// the calling process may do with it.
#include "cli_common.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <ctime>
#include <iomanip>
#include <iostream>
#include <vector>

namespace vexo_cli {

namespace {

std::string hex_bits(vexo_t_bits bits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(bits));
  return text;
}

// Database names are bytes; quote them only when they would not print cleanly.
std::string name_text(const char *name) {
  const std::string_view bytes = name;
  for (char c : bytes)
    if (static_cast<unsigned char>(c) < 0x21 || static_cast<unsigned char>(c) >= 0x7F)
      return printable(bytes);
  return std::string(bytes);
}

std::string id_text(vexo_t_error_code rc, char *name, unsigned id) {
  if (rc < 0)
    return std::to_string(id) + " (no name: " + code_name(rc) + ")";
  vexo_string owner(name);
  return name_text(name) + " (" + std::to_string(id) + ")";
}

void line(const char *label, const std::string &text) {
  std::cout << "  " << std::left << std::setw(15) << label << text << '\n';
}

// One class nibble as ls shows it: search on a directory is its x.
std::string ls_letters(vexo_t_bits nibble) {
  std::string text = permission_letters(nibble);
  if (text[2] == 's')
    text[2] = 'x';
  return text;
}

// Owner, group and others as ls shows them, then the octal value: "rwxr-xr-x 0755".
std::string ls_permissions(vexo_t_bits mode, std::string &octal) {
  std::string letters;
  unsigned value = 0;
  for (int shift = 0; shift < 12; shift += 4) {
    const std::string three = ls_letters((mode >> shift) & 0xFu);
    letters += three;
    value =
        value * 8 + (three[0] == 'r' ? 4u : 0u) + (three[1] == 'w' ? 2u : 0u) + (three[2] == 'x' ? 1u : 0u);
  }
  char text[8];
  std::snprintf(text, sizeof text, "0%03o", value);
  octal = text;
  return letters;
}

nlohmann::ordered_json id_json(vexo_t_error_code rc, char *name, unsigned id) {
  nlohmann::ordered_json result = {{"id", id}};
  if (rc < 0) {
    result["name"] = nullptr;
    return result;
  }
  vexo_string owner(name);
  result["name"] = name;
  return result;
}

nlohmann::ordered_json stat_json(const std::string &path, const vexo_t_stat &info) {
  std::string octal;
  const std::string letters = ls_permissions(info.mode, octal);
  char *user = nullptr;
  const vexo_t_error_code urc = vexo_user_id_name_unix(info.owner, &user, 0);
  char *group = nullptr;
  const vexo_t_error_code grc = vexo_group_id_name_unix(info.group, &group, 0);
  return {{"path", path},
          {"directory", (info.type & VEXO_STAT_TYPE_DIRECTORY) != 0},
          {"permissions", letters},
          {"octal", octal},
          {"mode", info.mode},
          {"your_access", ls_letters((info.mode >> 15) & 0xFu)},
          {"accessed", info.access_time},
          {"modified", info.modify_time},
          {"changed", info.create_time},
          {"size", info.size},
          {"owner", id_json(urc, user, info.owner)},
          {"group", id_json(grc, group, info.group)}};
}

void show_stat(const std::string &path, const vexo_t_stat &info) {
  const bool dir = (info.type & VEXO_STAT_TYPE_DIRECTORY) != 0;
  std::string octal;
  const std::string letters = ls_permissions(info.mode, octal);
  std::cout << printable(path) << '\n';
  line("type", dir ? "directory" : "not a directory");
  line("permissions", letters + " " + octal + "  (vexo " + hex_bits(info.mode & 0xFFFu) + ")");
  line("your access",
       ls_letters((info.mode >> 15) & 0xFu) + "  (vexo " + hex_bits(info.mode & ~0xFFFu) + ")");
  line("accessed", local_time_text(info.access_time));
  line("modified", local_time_text(info.modify_time));
  line("changed", local_time_text(info.create_time) + "  (status change)");
  line("size", std::to_string(info.size) + (info.size == 1 ? " byte" : " bytes"));
  line("owner", user_text(info.owner));
  line("group", group_text(info.group));
}

struct stat_options {
  std::vector<std::string> paths;
  bool json = false;
};

int run_stat(const stat_options &opts) {
  nlohmann::ordered_json doc = nlohmann::ordered_json::array();
  bool first = true;
  int status = 0;
  for (const std::string &path : opts.paths) {
    vexo_t_stat info = {};
    const vexo_t_error_code rc = vexo_stat_unix(path.c_str(), &info, kStatAllFields);
    if (rc < 0) {
      report_failure("stat " + printable(path), rc);
      doc.push_back(
          {{"path", path}, {"error", {{"code", code_name(rc)}, {"message", vexo_error_message(rc)}}}});
      status = 1;
    } else if (opts.json) {
      doc.push_back(stat_json(path, info));
    } else {
      if (!first)
        std::cout << '\n';
      first = false;
      show_stat(path, info);
    }
  }
  if (opts.json)
    print_json(doc);
  return status;
}

struct access_options {
  std::string path;
  bool read = false, write = false, exec = false, search = false, create = false, dir = false,
       regular = false;
};

int run_access(const access_options &opts) {
  vexo_t_bits options = 0;
  if (opts.read)
    options |= VEXO_ACCESS_OPTION_READ;
  if (opts.write)
    options |= VEXO_ACCESS_OPTION_WRITE;
  if (opts.exec)
    options |= VEXO_ACCESS_OPTION_EXECUTE;
  if (opts.search)
    options |= VEXO_ACCESS_OPTION_SEARCH;
  if (opts.create)
    options |= VEXO_ACCESS_OPTION_CREATE;
  if (opts.dir)
    options |= VEXO_ACCESS_OPTION_DIRECTORY;
  if (opts.regular)
    options |= VEXO_ACCESS_OPTION_REGULAR;
  // A refusal is the answer asked for, not a failure of the tool: it goes
  // to standard output like the yes.
  const vexo_t_error_code rc = vexo_unix_test_file_access(opts.path.c_str(), options);
  if (rc < 0) {
    std::cout << "no: " << describe(rc) << '\n';
    return 1;
  }
  std::cout << "yes\n";
  return 0;
}

}  // namespace

std::string permission_letters(vexo_t_bits nibble) {
  std::string text = "---";
  if ((nibble & VEXO_STAT_MODE_OWNER_READ) != 0)
    text[0] = 'r';
  if ((nibble & VEXO_STAT_MODE_OWNER_WRITE) != 0)
    text[1] = 'w';
  if ((nibble & VEXO_STAT_MODE_OWNER_EXECUTE) != 0)
    text[2] = 'x';
  else if ((nibble & VEXO_STAT_MODE_OWNER_SEARCH) != 0)
    text[2] = 's';
  return text;
}

std::string permissions_text(vexo_t_bits mode) {
  return permission_letters(mode & 0xFu) + permission_letters((mode >> 4) & 0xFu) +
         permission_letters((mode >> 8) & 0xFu);
}

std::string caller_access_text(vexo_t_bits mode) {
  // The caller's bits keep the order and meaning of a class nibble.
  static_assert(VEXO_STAT_MODE_CALLER_READ >> 15 == VEXO_STAT_MODE_OWNER_READ &&
                VEXO_STAT_MODE_CALLER_WRITE >> 15 == VEXO_STAT_MODE_OWNER_WRITE &&
                VEXO_STAT_MODE_CALLER_EXECUTE >> 15 == VEXO_STAT_MODE_OWNER_EXECUTE &&
                VEXO_STAT_MODE_CALLER_SEARCH >> 15 == VEXO_STAT_MODE_OWNER_SEARCH);
  return permission_letters((mode >> 15) & 0xFu);
}

std::string local_time_text(vexo_t_time t) {
  const auto seconds = static_cast<std::time_t>(t);
  std::tm local = {};
  char text[64];
  if (localtime_r(&seconds, &local) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &local) == 0)
    return std::to_string(t) + " s since 1970";
  return text;
}

std::string user_text(vexo_t_uid uid) {
  char *name = nullptr;
  const vexo_t_error_code rc = vexo_user_id_name_unix(uid, &name, 0);
  return id_text(rc, name, uid);
}

std::string group_text(vexo_t_gid gid) {
  char *name = nullptr;
  const vexo_t_error_code rc = vexo_group_id_name_unix(gid, &name, 0);
  return id_text(rc, name, gid);
}

void add_stat_commands(CLI::App &app, int &status) {
  auto sopts = std::make_shared<stat_options>();
  CLI::App *stat = app.add_subcommand(
      "stat",
      "Show vexo_stat_unix of each PATH: type, permissions as ls shows them with their octal value and "
      "the library's own bits, your own access, times, size, owner and group.");
  stat->add_option("PATH", sopts->paths, "Paths (UTF-8)")->required();
  stat->add_flag("--json", sopts->json,
                 "One JSON array, an object per PATH (times in seconds since 1970, or \"error\")");
  stat->callback([sopts, &status] { status = run_stat(*sopts); });

  auto aopts = std::make_shared<access_options>();
  CLI::App *access = app.add_subcommand(
      "access",
      "Ask vexo_unix_test_file_access whether you may use PATH as the flags say; prints yes (exit 0) or "
      "the reason (exit 1). Without --dir, PATH must not be a directory.");
  access->add_option("PATH", aopts->path, "Path (UTF-8)")->required();
  access->add_flag("--read", aopts->read, "Read permission (VEXO_ACCESS_OPTION_READ)");
  access->add_flag("--write", aopts->write, "Write permission (VEXO_ACCESS_OPTION_WRITE)");
  access->add_flag("--exec", aopts->exec,
                   "Execute permission, for a non-directory (VEXO_ACCESS_OPTION_EXECUTE)");
  access->add_flag("--search", aopts->search,
                   "Search permission, for a directory (VEXO_ACCESS_OPTION_SEARCH)");
  access->add_flag("--create", aopts->create,
                   "Could be written or created: a missing PATH is judged by its parent directory "
                   "(VEXO_ACCESS_OPTION_CREATE)");
  access->add_flag("--dir", aopts->dir, "PATH must be a directory (VEXO_ACCESS_OPTION_DIRECTORY)");
  access->add_flag("--regular", aopts->regular,
                   "PATH must exist and be a regular file (VEXO_ACCESS_OPTION_REGULAR)");
  access->callback([aopts, &status] { status = run_access(*aopts); });
}

}  // namespace vexo_cli
