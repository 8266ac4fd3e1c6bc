// What the vexo subcommands share: owners for library strings, failure
// reporting, hex and terminal rendering of byte strings.
#ifndef VEXO_TOOL_CLI_COMMON_H
#define VEXO_TOOL_CLI_COMMON_H

#include <vexo/vexo_unix.h>

#include <nlohmann/json_fwd.hpp>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
class FormatterBase;
}  // namespace CLI

namespace vexo_cli {

struct vexo_deleter {
  void operator()(char *p) const { vexo_free(p); }
};
// A string the library handed out; never holds a pointer the caller lent.
using vexo_string = std::unique_ptr<char, vexo_deleter>;

// A library call failed where the tool cannot go on; main reports it and
// exits with status 1.
class failure : public std::runtime_error {
 public:
  failure(const std::string &what_failed, vexo_t_error_code code);
  vexo_t_error_code code() const { return code_; }

 private:
  vexo_t_error_code code_;
};

// "VEXO_E_FILE_NOT_FOUND", or the number when the library has no name for it.
std::string code_name(vexo_t_error_code code);
// "VEXO_E_FILE_NOT_FOUND: <the library's sentence>".
std::string describe(vexo_t_error_code code);
// "vexo: <context>: <describe(code)>" on stderr.
void report_failure(std::string_view context, vexo_t_error_code code);

// Prints the string that `fn` hands out (a library call named `name` taking
// an out-pointer and options 0); 0, or 1 after reporting its failure.
int print_library_string(std::string_view name, vexo_t_error_code (*fn)(char **, vexo_t_bits));

// "63 61 66 c3 a9"; "(empty)" for no bytes.
std::string to_hex(std::string_view bytes);

// Hex digit pairs, optionally separated by blanks ("65cc81", "65 cc 81").
// Throws CLI::ValidationError naming `option` on anything else.
std::string parse_hex(std::string_view text, const std::string &option);

bool is_ascii(std::string_view bytes);
bool is_legal_utf8(std::string_view bytes);
// Length of the legal UTF-8 sequence that `bytes` starts with; 0 when it
// does not start with one.
size_t utf8_length(std::string_view bytes);
// The code point of one legal UTF-8 sequence.
char32_t decode_utf8(std::string_view seq);

// Whether the terminal takes UTF-8; decided once from the locale by main.
void set_terminal_utf8(bool utf8);
bool terminal_is_utf8();
bool charset_is_utf8(std::string_view charset);

// `bytes` in double quotes for the terminal: C0 controls, DEL, quotes and
// bytes that are not UTF-8 escaped (\xNN); C1 controls and the
// bidirectional overrides and isolates as \u{XXXX}; other characters as
// they are when the terminal takes UTF-8, else as \u{XXXX}.
std::string printable(std::string_view bytes);
// As printable(), without the quotes: for messages that quote themselves.
std::string escaped(std::string_view bytes);
// Whether printable() would escape anything in `bytes` but quotes.
bool needs_escape(std::string_view bytes);
// Controls (C0, DEL, C1) and the bidirectional overrides and isolates.
bool must_escape(char32_t cp);

// ---- Output (cli_output.cpp) ----------------------------------------------

// Puts standard output behind a buffer that remembers a failed write, and
// ignores SIGPIPE so that a closed pipe is such a write; main calls it
// before anything is written.
void install_output();
// While it lives, SIGPIPE has the disposition the tool was started with, so
// that a child started meanwhile inherits that rather than the tool's own.
class inherited_sigpipe {
 public:
  inherited_sigpipe();
  ~inherited_sigpipe();
  inherited_sigpipe(const inherited_sigpipe &) = delete;
  inherited_sigpipe &operator=(const inherited_sigpipe &) = delete;
};
// Flushes standard output; a write that failed is reported and turns a
// successful `status` into 1.
int finish_output(int status);
// Whether standard output is a terminal, decided once at start.
bool stdout_is_terminal();
// `bytes` as they are, or printable() when standard output is a terminal
// and they hold something a terminal would act on.
std::string shown(std::string_view bytes);
// One JSON document on standard output (ASCII only on a terminal; bytes
// that are not UTF-8 become U+FFFD).
void print_json(const nlohmann::ordered_json &doc);
// Help text wrapped to 80 columns.
std::shared_ptr<CLI::FormatterBase> help_formatter();

// ---- File status, shared by `stat` and the tour (cmd_stat.cpp) ----------

// Every field of the record; the two REQUIRE options would only turn a
// display into a type test.
constexpr vexo_t_bits kStatAllFields =
    VEXO_STAT_OPTION_MODE | VEXO_STAT_OPTION_ACCESS | VEXO_STAT_OPTION_TYPE | VEXO_STAT_OPTION_TIMES |
    VEXO_STAT_OPTION_SIZE | VEXO_STAT_OPTION_OWNER | VEXO_STAT_OPTION_GROUP;

// One class nibble of vexo_t_stat::mode as three letters: r, w, then x for
// execute or s for search ("rw-", "r-s").
std::string permission_letters(vexo_t_bits nibble);
// Owner, group and others ("rwsr-sr-s").
std::string permissions_text(vexo_t_bits mode);
// The caller's own access bits of `mode`, as one class ("rw-").
std::string caller_access_text(vexo_t_bits mode);
// "2024-05-01 14:03:27 +0200", in the local time zone.
std::string local_time_text(vexo_t_time t);
// "root (0)"; the number alone, with the reason, when the name lookup fails.
std::string user_text(vexo_t_uid uid);
std::string group_text(vexo_t_gid gid);

// ---- Directory listing, shared by `ls` and the tour (cmd_list.cpp) -------

struct listing {
  std::vector<std::string> names;          // UTF-8 NFC, sorted by their bytes
  std::vector<vexo_t_error_code> unnamed;  // one code per entry without a UTF-8 name
};
// Every entry the listing API delivers for `path` under `options`; throws
// `failure` when the directory cannot be opened or read.
listing list_directory(const std::string &path, vexo_t_bits options);
// The line shown for an entry whose name request failed with `rc`.
std::string unnamed_text(vexo_t_error_code rc);
// "CHARACTER" for VEXO_DEVICE_TYPE_CHARACTER and so on.
const char *device_type_name(vexo_t_device_type type);

// ---- Child processes, shared by `run` and the tour (cmd_run.cpp) -------

// Program arguments as vexo_unix_process_create takes them: one property
// list with a single "string" entry per argument, then a null pointer.
class argument_lists {
 public:
  explicit argument_lists(std::vector<std::string> texts);
  argument_lists(const argument_lists &) = delete;
  argument_lists &operator=(const argument_lists &) = delete;
  const vexo_t_property **get() { return pointers_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<std::array<vexo_t_property, 2>> lists_;
  std::vector<const vexo_t_property *> pointers_;
};

// "exited with 3", "killed by signal SIGKILL", "... (core dumped)".
std::string exit_status_text(const vexo_t_process_exit_status &status);

// ---- The environment, shared by `env` and the tour (cmd_env.cpp) ---------

// A compact environment that vexo_unix_get_environ copied for the caller
// (VEXO_GET_ENVIRON_OPTION_CURRENT): one block, released with one vexo_free.
struct environ_deleter {
  void operator()(char **block) const { vexo_free(block); }
};
using environ_copy = std::unique_ptr<char *, environ_deleter>;

// The value of a compact-environment entry (key NUL value NUL).
const char *entry_value(const char *entry);

// The value of `key` through vexo_unix_getenv under `options`: the size is
// asked for first, then exactly that much is fetched. `value` is written on
// success only.
vexo_t_error_code getenv_value(const std::string &key, vexo_t_bits options, std::string &value);

// Each registers one subcommand whose run stores its exit status in `status`.
void add_name_command(CLI::App &app, int &status);
void add_charset_command(CLI::App &app, int &status);
void add_tour_command(CLI::App &app, int &status);
void add_run_command(CLI::App &app, int &status);
void add_env_command(CLI::App &app, int &status);
// stat, access
void add_stat_commands(CLI::App &app, int &status);
// mkdir, rm, mv, cwd, tmpdir
void add_path_commands(CLI::App &app, int &status);
// ls, fd
void add_list_commands(CLI::App &app, int &status);

}  // namespace vexo_cli

#endif  // VEXO_TOOL_CLI_COMMON_H
