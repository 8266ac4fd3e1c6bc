// vexo name: one OS name through the conversions, step by step.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <iomanip>
#include <iostream>
#include <vector>

namespace vexo_cli {

namespace {

struct name_options {
  bool hex = false;
  bool no_nfc = false;
  bool no_latin1 = false;
  std::vector<std::string> names;
};

void line(const char *label, const std::string &text) {
  std::cout << "  " << std::left << std::setw(16) << label << text << '\n';
}

std::string bytes_and_text(std::string_view bytes) {
  return to_hex(bytes) + "  " + printable(bytes) + "  (" + std::to_string(bytes.size()) +
         (bytes.size() == 1 ? " byte)" : " bytes)");
}

std::string option_names(vexo_t_bits options) {
  std::string names;
  auto add = [&](vexo_t_bits bit, const char *name) {
    if ((options & bit) != 0)
      names += names.empty() ? name : std::string(" | ") + name;
  };
  add(VEXO_FILE_NAME_OPTION_NO_COPY, "VEXO_FILE_NAME_OPTION_NO_COPY");
  add(VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK, "VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK");
  add(VEXO_FILE_NAME_OPTION_NO_NFC, "VEXO_FILE_NAME_OPTION_NO_NFC");
  return names.empty() ? "0" : names;
}

// Whether normalisation leaves the name as it is, in the library's own
// judgement; only asked of legal UTF-8.
std::string already_nfc(const std::string &name) {
  if (is_ascii(name))
    return "yes (ASCII)";
  if (!is_legal_utf8(name))
    return "cannot tell (not UTF-8)";
  char *nfc = nullptr;
  const vexo_t_error_code rc = vexo_file_name_from_os_unix(name.c_str(), &nfc, 0);
  if (rc < 0)
    throw failure("normalising " + to_hex(name), rc);
  vexo_string owner(nfc);
  return name == nfc ? "yes" : "no";
}

std::string nfc_effect(const std::string &input, const std::string &result, vexo_t_error_code status,
                       vexo_t_bits options) {
  if (is_ascii(input))
    return "not applied (ASCII names pass untouched)";
  if (status == 1)
    return "not applied (text read as Latin-1 is not normalised)";
  if ((options & VEXO_FILE_NAME_OPTION_NO_NFC) != 0)
    return "not applied (--no-nfc)";
  return input == result ? "left the name as it was" : "changed the name";
}

// Shows one name; false when the conversion failed.
bool show_name(const std::string &name, vexo_t_bits options) {
  std::cout << printable(name) << '\n';
  line("OS name", bytes_and_text(name));
  line("ASCII", is_ascii(name) ? "yes" : "no");
  line("legal UTF-8", is_legal_utf8(name) ? "yes" : "no");
  line("already NFC", already_nfc(name));

  char *converted = nullptr;
  const vexo_t_error_code rc = vexo_file_name_from_os_unix(name.c_str(), &converted, options);
  if (rc < 0) {
    line("to UTF-8", "failed with " + describe(rc));
    std::cout << '\n';
    report_failure("name " + to_hex(name), rc);
    return false;
  }
  vexo_string utf8(converted);
  const std::string result = utf8.get();
  line("to UTF-8",
       "status " + std::to_string(rc) + (rc == 1 ? " (rescued: read as Latin-1)" : " (plain success)"));
  line("UTF-8 name", bytes_and_text(result));
  line("NFC", nfc_effect(name, result, rc, options));
  line("Latin-1 rescue", rc == 1 ? "yes, every byte of 0x80 or above taken as one character" : "no");

  char *os_name = nullptr;
  const vexo_t_error_code back = vexo_file_name_for_os_unix(result.c_str(), &os_name, 0);
  if (back < 0)
    throw failure("converting " + to_hex(result) + " back to an OS name", back);
  vexo_string os(os_name);
  std::string remark = os.get() == result ? "the UTF-8 bytes unchanged" : "CHANGED";
  if (os.get() != name)
    remark += "; not the original OS name";
  line("back to OS", to_hex(os.get()) + "  (" + remark + ")");
  std::cout << '\n';
  return true;
}

int run_name(const name_options &opts) {
  std::vector<std::string> names;
  for (const std::string &arg : opts.names) {
    std::string name = opts.hex ? parse_hex(arg, "NAME") : arg;
    if (name.find('\0') != std::string::npos)
      throw CLI::ValidationError("NAME", "'" + arg + "': an OS name cannot hold a NUL byte");
    names.push_back(std::move(name));
  }

  vexo_t_bits options = 0;
  if (!opts.no_latin1)
    options |= VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK;
  if (opts.no_nfc)
    options |= VEXO_FILE_NAME_OPTION_NO_NFC;
  std::cout << "vexo_file_name_from_os_unix options: " << option_names(options) << "\n\n";

  int status = 0;
  for (const std::string &name : names)
    if (!show_name(name, options))
      status = 1;
  return status;
}

}  // namespace

void add_name_command(CLI::App &app, int &status) {
  auto opts = std::make_shared<name_options>();
  CLI::App *cmd = app.add_subcommand(
      "name", "Show how OS file names convert to UTF-8 (ASCII fast path, UTF-8 check, NFC, Latin-1 rescue).");
  cmd->add_flag("--hex", opts->hex, "Take each NAME as hex bytes (65cc81, \"63 61 66 e9\")");
  cmd->add_flag("--no-nfc", opts->no_nfc, "Do not normalise to NFC (VEXO_FILE_NAME_OPTION_NO_NFC)");
  cmd->add_flag("--no-latin1", opts->no_latin1,
                "Fail on names that are not UTF-8 instead of reading them as Latin-1");
  cmd->add_option("NAME", opts->names, "OS file names")->required();
  cmd->callback([opts, &status] { status = run_name(*opts); });
}

}  // namespace vexo_cli
