// vexo name: one OS name through the conversions, step by step.
#include "cli_common.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iomanip>
#include <iostream>
#include <vector>

namespace vexo_cli {

namespace {

struct name_options {
  bool hex = false;
  bool no_nfc = false;
  bool no_latin1 = false;
  bool json = false;
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

// What the conversions make of one name.
struct conversion {
  std::string name;
  vexo_t_error_code rc = VEXO_S_NOERR;  // of vexo_file_name_from_os_unix
  std::string utf8;                     // on success
  std::string os_again;                 // utf8 converted back to an OS name
};

conversion convert(const std::string &name, vexo_t_bits options) {
  conversion c;
  c.name = name;
  char *converted = nullptr;
  c.rc = vexo_file_name_from_os_unix(name.c_str(), &converted, options);
  if (c.rc < 0)
    return c;
  vexo_string utf8(converted);
  c.utf8 = utf8.get();
  char *os_name = nullptr;
  const vexo_t_error_code back = vexo_file_name_for_os_unix(c.utf8.c_str(), &os_name, 0);
  if (back < 0)
    throw failure("converting " + to_hex(c.utf8) + " back to an OS name", back);
  vexo_string os(os_name);
  c.os_again = os.get();
  return c;
}

// Shows one name; false when the conversion failed.
bool show_name(const conversion &c, vexo_t_bits options) {
  const std::string &name = c.name;
  std::cout << printable(name) << '\n';
  line("OS name", bytes_and_text(name));
  line("ASCII", is_ascii(name) ? "yes" : "no");
  line("legal UTF-8", is_legal_utf8(name) ? "yes" : "no");
  line("already NFC", already_nfc(name));
  if (c.rc < 0) {
    line("to UTF-8", "failed with " + describe(c.rc));
    std::cout << '\n';
    report_failure("name " + to_hex(name), c.rc);
    return false;
  }
  line("to UTF-8",
       "status " + std::to_string(c.rc) + (c.rc == 1 ? " (rescued: read as Latin-1)" : " (plain success)"));
  line("UTF-8 name", bytes_and_text(c.utf8));
  line("NFC", nfc_effect(name, c.utf8, c.rc, options));
  line("Latin-1 rescue", c.rc == 1 ? "yes, every byte of 0x80 or above taken as one character" : "no");
  std::string remark = c.os_again == c.utf8 ? "the UTF-8 bytes unchanged" : "CHANGED";
  if (c.os_again != name)
    remark += "; not the original OS name";
  line("back to OS", to_hex(c.os_again) + "  (" + remark + ")");
  std::cout << '\n';
  return true;
}

nlohmann::ordered_json name_json(const conversion &c, vexo_t_bits options) {
  nlohmann::ordered_json result = {{"os_name_hex", to_hex(c.name)},
                                   {"ascii", is_ascii(c.name)},
                                   {"legal_utf8", is_legal_utf8(c.name)},
                                   {"already_nfc", already_nfc(c.name)}};
  if (c.rc < 0) {
    report_failure("name " + to_hex(c.name), c.rc);
    result["error"] = {{"code", code_name(c.rc)}, {"message", vexo_error_message(c.rc)}};
    return result;
  }
  result["status"] = c.rc;
  result["utf8"] = c.utf8;
  result["utf8_hex"] = to_hex(c.utf8);
  result["nfc"] = nfc_effect(c.name, c.utf8, c.rc, options);
  result["latin1_rescue"] = c.rc == 1;
  result["back_to_os_hex"] = to_hex(c.os_again);
  return result;
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
  nlohmann::ordered_json doc = {{"options", option_names(options)},
                                {"names", nlohmann::ordered_json::array()}};
  if (!opts.json)
    std::cout << "vexo_file_name_from_os_unix options: " << option_names(options) << "\n\n";

  int status = 0;
  for (const std::string &name : names) {
    const conversion c = convert(name, options);
    if (c.rc < 0)
      status = 1;
    if (opts.json)
      doc["names"].push_back(name_json(c, options));
    else
      show_name(c, options);
  }
  if (opts.json)
    print_json(doc);
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
  cmd->add_flag("--json", opts->json,
                "One JSON object: the options, and per NAME what each step made of it (bytes in hex)");
  cmd->add_option("NAME", opts->names, "OS file names")->required();
  cmd->callback([opts, &status] { status = run_name(*opts); });
}

}  // namespace vexo_cli
