// vexo tour: a short guided run through what the library does, in a scratch
// directory that is removed at the end. Each section is a function of its
// own; a new subsystem gets its section by adding one to `sections`.
#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <system_error>
#include <vector>

namespace vexo_cli {

namespace {

// ---- Scratch directory ---------------------------------------------------

volatile std::sig_atomic_t g_deferred_signal = 0;

void defer_signal(int sig) {
  g_deferred_signal = sig;
}

// The tour takes milliseconds, so signals that would end it (Ctrl-C, a
// closed pipe) are held until the scratch directory is gone and then
// delivered as they would have been.
class deferred_signals {
 public:
  deferred_signals() {
    struct sigaction sa = {};
    sa.sa_handler = defer_signal;
    sigemptyset(&sa.sa_mask);
    for (size_t i = 0; i < std::size(kSignals); ++i)
      sigaction(kSignals[i], &sa, &saved_[i]);
  }
  ~deferred_signals() {
    for (size_t i = 0; i < std::size(kSignals); ++i)
      sigaction(kSignals[i], &saved_[i], nullptr);
    if (g_deferred_signal != 0)
      std::raise(g_deferred_signal);
  }
  deferred_signals(const deferred_signals &) = delete;
  deferred_signals &operator=(const deferred_signals &) = delete;

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
  struct sigaction saved_[std::size(kSignals)] = {};
};

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
  return ::remove(path);
}

class scratch_dir {
 public:
  scratch_dir() {
    std::string base = "/tmp";
    if (vexo_string tmpdir{vexo_get_system_property_allocate("TMPDIR", 0)}; tmpdir && *tmpdir != '\0')
      base = tmpdir.get();
    while (base.size() > 1 && base.back() == '/')
      base.pop_back();
    std::string path = base + "/vexo-tour-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr)
      throw std::system_error(errno, std::generic_category(), "cannot make a scratch directory in " + base);
    path_ = std::move(path);
  }
  ~scratch_dir() { remove(); }
  scratch_dir(const scratch_dir &) = delete;
  scratch_dir &operator=(const scratch_dir &) = delete;

  const std::string &path() const { return path_; }

  // Depth first, so later sections may leave subdirectories behind.
  bool remove() {
    if (path_.empty())
      return true;
    const bool removed = ::nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS) == 0;
    if (!removed)
      std::cerr << "vexo: could not remove the scratch directory " << path_ << ": " << std::strerror(errno)
                << '\n';
    path_.clear();
    return removed;
  }

 private:
  std::string path_;
};

// ---- Presentation --------------------------------------------------------

struct tour {
  std::string dir;
  int step = 0;
};

void paragraph(const std::string &text, size_t indent = 4, size_t width = 78) {
  std::string line;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find(' ', pos);
    if (end == std::string::npos)
      end = text.size();
    const std::string word = text.substr(pos, end - pos);
    if (!line.empty() && indent + line.size() + 1 + word.size() > width) {
      std::cout << std::string(indent, ' ') << line << '\n';
      line.clear();
    }
    line += line.empty() ? word : " " + word;
    pos = end + 1;
  }
  if (!line.empty())
    std::cout << std::string(indent, ' ') << line << '\n';
}

void section(tour &t, const char *title, const std::string &why) {
  std::cout << '\n' << ++t.step << ". " << title << '\n';
  paragraph(why);
  std::cout << '\n';
}

void row(const std::string &label, const std::string &value, int width = 26) {
  std::cout << "    " << std::left << std::setw(width) << label << value << '\n';
}

// Always leaves at least one space between columns.
std::string padded(std::string text, size_t width) {
  text.resize(text.size() < width ? width : text.size() + 1, ' ');
  return text;
}

// ---- Sections --------------------------------------------------------------

void show_charset(tour &t) {
  section(t, "The locale's character set",
          "vexo_unix_default_charset asks the locale which character set text on this system is in: "
          "nl_langinfo(CODESET), or when that is empty the part after the last '.' of the LC_CTYPE locale "
          "name. "
          "File names on disk are only bytes; this is how the user expects them to read.");
  const char *locale = std::setlocale(LC_CTYPE, nullptr);
  row("LC_CTYPE locale", locale != nullptr ? locale : "(none)");
  char *charset = nullptr;
  const vexo_t_error_code rc = vexo_unix_default_charset(&charset, 0);
  if (rc < 0)
    throw failure("vexo_unix_default_charset", rc);
  vexo_string owner(charset);
  row("character set", charset);
}

struct sample_name {
  const char *label;
  const char *bytes;
};

constexpr sample_name kSampleNames[] = {
    {"composed (U+00E9)", "caf\xC3\xA9"},
    {"decomposed (e U+0301)", "cafe\xCC\x81"},
    {"ASCII", "cafe"},
    {"Latin-1 byte 0xE9", "caf\xE9"},
};

void create_files(tour &t) {
  section(t, "Four files whose names look alike",
          "Created with plain open(2): the word cafe with a precomposed e-acute (U+00E9), with e followed "
          "by a combining acute accent (U+0301), in plain ASCII, and with the single byte 0xE9, which is "
          "e-acute in Latin-1 but is not UTF-8. The kernel keeps each name's bytes exactly as given, so "
          "these are four different files.");
  for (const sample_name &s : kSampleNames) {
    const std::string path = t.dir + "/" + s.bytes;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0 && errno != EILSEQ && errno != EINVAL)
      throw std::system_error(errno, std::generic_category(), "cannot create " + printable(s.bytes));
    const std::string outcome =
        fd >= 0 ? "created" : std::string("refused by the file system: ") + std::strerror(errno);
    if (fd >= 0)
      ::close(fd);
    row(s.label, padded(to_hex(s.bytes), 20) + outcome);
  }
}

void show_listing_names(const listing &l) {
  for (const std::string &name : l.names) {
    // setw counts bytes; a column lines up by characters.
    const std::string shown_name = printable(name);
    size_t continuation = 0;
    for (char c : shown_name)
      continuation += (static_cast<unsigned char>(c) & 0xC0) == 0x80;
    std::cout << "    " << padded(shown_name, 20 + continuation) << to_hex(name) << '\n';
  }
  for (const vexo_t_error_code rc : l.unnamed)
    row("?", unnamed_text(rc), 20);
}

void list_names(tour &t) {
  section(t, "Listing the directory",
          "vexo_open_directory_unix, vexo_read_directory_unix and vexo_dirent_name_unix list a directory "
          "one entry at a time, \".\" and \"..\" included. A name is converted only when asked for: ASCII "
          "comes back as the system's own text, other UTF-8 as a new string in NFC, so the decomposed "
          "name reads like the composed one; the Latin-1 byte is not UTF-8, and the name request fails "
          "while the listing goes on. Sorted here by their bytes.");
  const std::string subdir = t.dir + "/a-directory";
  if (::mkdir(subdir.c_str(), 0755) != 0)
    throw std::system_error(errno, std::generic_category(), "cannot create " + subdir);
  const listing all = list_directory(t.dir, 0);
  show_listing_names(all);

  std::map<std::string, int> listed_as;
  for (const std::string &name : all.names)
    ++listed_as[name];
  for (const auto &[utf8, count] : listed_as) {
    if (count < 2)
      continue;
    std::cout << '\n';
    paragraph(std::to_string(count) + " different files are listed under the same UTF-8 name " +
              printable(utf8) + "; opening that name reaches only the file whose bytes are exactly those.");
  }

  std::cout << '\n';
  paragraph(
      "Opened with VEXO_DIR_OPTION_DIRECTORIES_ONLY (vexo ls --dirs) or "
      "VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY (--files), the listing stats each entry, following links, "
      "and passes over the others.");
  std::cout << "\n  directories only\n";
  show_listing_names(list_directory(t.dir, VEXO_DIR_OPTION_DIRECTORIES_ONLY));
  std::cout << "  non-directories only\n";
  show_listing_names(list_directory(t.dir, VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY));
}

void show_root_lengths(tour &t) {
  section(t, "The root of a path",
          "vexo_unix_path_root_len gives the length of the root prefix of an absolute path: the one "
          "leading slash, however many follow it. A relative path has no root and gives "
          "VEXO_E_FILE_NOT_ABSOLUTE.");
  for (const std::string &path : {t.dir, std::string("//srv/share"), std::string("notes/today.txt"),
                                  std::string("./x"), std::string()}) {
    const vexo_t_error_code rc = vexo_unix_path_root_len(path.c_str());
    row(printable(path), rc < 0 ? code_name(rc) : std::to_string(rc), 40);
  }
}

void show_validator(tour &t) {
  section(t, "The UTF-8 validator",
          "vexo_is_legal_utf8_string decides what counts as UTF-8 for every conversion above: shortest "
          "forms only, no UTF-16 surrogates, nothing above U+10FFFF. It tests every byte of the size it "
          "is given, so a NUL inside a sized text is legal.");
  const std::pair<const char *, std::string> samples[] = {
      {"ASCII", "hello"},
      {"e-acute in UTF-8", "caf\xC3\xA9"},
      {"e-acute in Latin-1", "caf\xE9"},
      {"overlong '/'", "\xC0\xAF"},
      {"surrogate U+D800", "\xED\xA0\x80"},
      {"above U+10FFFF", "\xF4\x90\x80\x80"},
      {"cut-off euro sign", "\xE2\x82"},
      {"NUL inside", std::string("a\0b", 3)},
  };
  for (const auto &[label, bytes] : samples) {
    const vexo_t_error_code rc = vexo_is_legal_utf8_string(bytes.data(), bytes.size(), 0);
    row(label, padded(to_hex(bytes), 14) + (rc < 0 ? code_name(rc) : "legal"));
  }
}

std::string rc_text(vexo_t_error_code rc) {
  return rc == VEXO_S_NOERR ? "ok" : code_name(rc);
}

void show_status(const std::string &label, const std::string &path) {
  vexo_t_stat info = {};
  const vexo_t_error_code rc = vexo_stat_unix(path.c_str(), &info, kStatAllFields);
  if (rc < 0)
    throw failure("vexo_stat_unix on " + printable(path), rc);
  std::cout << "  " << label << '\n';
  row("type", (info.type & VEXO_STAT_TYPE_DIRECTORY) != 0 ? "directory" : "not a directory");
  row("permissions, your access", permissions_text(info.mode) + ", " + caller_access_text(info.mode));
  row("size", std::to_string(info.size) + " bytes");
  row("modified", local_time_text(info.modify_time));
  row("owner, group", user_text(info.owner) + ", " + group_text(info.group));
}

void show_file_system(tour &t) {
  section(t, "Files and directories",
          "vexo_unix_create_directory makes one directory (mode 0777, less the umask); a file is put in it "
          "with plain open(2). vexo_stat_unix fills only what its options ask for: permission bits one class "
          "at a time, execute shown as search (s) on a directory; the caller's own access, judged from the "
          "bits of the one class the process falls in (owner, group or other), never by asking the kernel, "
          "so root gets no favours; and the times, the third being the last status change, not a birth "
          "time.");
  const std::string dir = t.dir + "/fs-demo";
  const std::string file = dir + "/notes.txt";
  if (const vexo_t_error_code rc = vexo_unix_create_directory(dir.c_str(), 0); rc < 0)
    throw failure("vexo_unix_create_directory " + printable(dir), rc);
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
  if (fd < 0)
    throw std::system_error(errno, std::generic_category(), "cannot create " + file);
  static constexpr char kText[] = "a line of notes\n";
  const bool written = ::write(fd, kText, sizeof kText - 1) == static_cast<ssize_t>(sizeof kText - 1);
  const int write_errno = errno;
  ::close(fd);
  if (!written)
    throw std::system_error(write_errno, std::generic_category(), "cannot write " + file);
  show_status("fs-demo", dir);
  show_status("fs-demo/notes.txt (made with mode 0640)", file);

  std::cout << '\n';
  paragraph(
      "vexo_unix_test_file_access answers with its result code alone. A directory must be asked "
      "for with VEXO_ACCESS_OPTION_DIRECTORY; VEXO_ACCESS_OPTION_CREATE judges a missing file by "
      "whether its parent directory is writable.");
  std::cout << '\n';
  const std::string missing = dir + "/not-yet.txt";
  const struct {
    const char *label;
    const std::string &path;
    vexo_t_bits options;
  } tests[] = {
      {"notes.txt READ", file, VEXO_ACCESS_OPTION_READ},
      {"notes.txt WRITE", file, VEXO_ACCESS_OPTION_WRITE},
      {"notes.txt EXECUTE", file, VEXO_ACCESS_OPTION_EXECUTE},
      {"fs-demo (no options)", dir, 0},
      {"fs-demo DIRECTORY|SEARCH", dir, VEXO_ACCESS_OPTION_DIRECTORY | VEXO_ACCESS_OPTION_SEARCH},
      {"not-yet.txt READ", missing, VEXO_ACCESS_OPTION_READ},
      {"not-yet.txt CREATE", missing, VEXO_ACCESS_OPTION_CREATE},
  };
  for (const auto &test : tests) {
    const vexo_t_error_code rc = vexo_unix_test_file_access(test.path.c_str(), test.options);
    row(test.label, rc == VEXO_S_NOERR ? "yes" : code_name(rc));
  }

  std::cout << '\n';
  paragraph(
      "Rename is one rename(2); delete is unlink(2), or rmdir(2) with VEXO_DELETE_OPTION_DIRECTORY, "
      "which refuses a directory that still holds something.");
  std::cout << '\n';
  const std::string renamed = dir + "/renamed.txt";
  const auto step = [](const char *label, vexo_t_error_code rc) { row(label, rc_text(rc), 34); };
  step("rename notes.txt to renamed.txt", vexo_unix_rename_file(file.c_str(), renamed.c_str(), 0));
  step("stat notes.txt", vexo_stat_unix(file.c_str(), nullptr, 0));
  step("delete fs-demo, DIRECTORY", vexo_unix_delete_file(dir.c_str(), VEXO_DELETE_OPTION_DIRECTORY));
  step("delete fs-demo, no options", vexo_unix_delete_file(dir.c_str(), 0));
  step("delete renamed.txt", vexo_unix_delete_file(renamed.c_str(), 0));
  step("delete renamed.txt again", vexo_unix_delete_file(renamed.c_str(), 0));
  step("delete fs-demo (now empty)", vexo_unix_delete_file(dir.c_str(), VEXO_DELETE_OPTION_DIRECTORY));

  std::cout << '\n';
  paragraph(
      "The working directory comes back as a new UTF-8 string; the temporary directory is $TMPDIR, "
      "or /tmp, always ending in a slash.");
  std::cout << '\n';
  char *cwd = nullptr;
  const vexo_t_error_code crc =
      vexo_get_working_directory_unix(&cwd, VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK);
  vexo_string cwd_owner(crc >= 0 ? cwd : nullptr);
  row("working directory", crc >= 0 ? printable(cwd) : code_name(crc));
  char *tmp = nullptr;
  const vexo_t_error_code trc = vexo_unix_temp_directory(&tmp, 0);
  vexo_string tmp_owner(trc >= 0 ? tmp : nullptr);
  row("temporary directory", trc >= 0 ? printable(tmp) : code_name(trc));
}

std::string exit_status_row(const vexo_t_process_exit_status &status) {
  char numbers[48];
  std::snprintf(numbers, sizeof numbers, "(flags 0x%x, value %d)", static_cast<unsigned>(status.flags),
                static_cast<int>(status.value));
  return padded(exit_status_text(status), 30) + numbers;
}

// Starts a child with its streams on the null device, waits for it and
// returns how it ended.
vexo_t_process_exit_status run_quietly(const char *program, std::vector<std::string> args, const tour &t) {
  argument_lists params(std::move(args));
  vexo_t_os_process_handle child = 0;
  vexo_t_error_code rc = vexo_unix_process_create(
      program, params.get(), t.dir.c_str(), nullptr, nullptr, nullptr, nullptr, &child,
      VEXO_PROCESS_CREATE_OPTION_STDIN_NULL | VEXO_PROCESS_CREATE_OPTION_STDOUT_NULL |
          VEXO_PROCESS_CREATE_OPTION_STDERR_NULL);
  if (rc < 0)
    throw failure(std::string("vexo_unix_process_create ") + program, rc);
  vexo_t_process_exit_status status = {};
  rc = vexo_unix_process_wait(child, nullptr, &status, VEXO_PROCESS_WAIT_OPTION_EXIT);
  if (rc < 0)
    throw failure("vexo_unix_process_wait", rc);
  return status;
}

void show_child(tour &t) {
  section(t, "A child process",
          "vexo_unix_process_create starts a program by its path, each argument given as a property list, "
          "in the working directory it is given; each standard stream is inherited, the null device, or a "
          "pipe whose other end, close-on-exec, goes to the caller. Here /bin/sh -c runs in the scratch "
          "directory with its output through a pipe, which is read to its end; then "
          "vexo_unix_process_wait reaps the child and decodes how it ended.");
  static constexpr char kScript[] = "echo hello from a child";
  argument_lists params({"-c", kScript});
  vexo_t_os_file_handle out = -1;
  vexo_t_os_process_handle child = 0;
  vexo_t_error_code rc = vexo_unix_process_create(
      "/bin/sh", params.get(), t.dir.c_str(), nullptr, nullptr, &out, nullptr, &child,
      VEXO_PROCESS_CREATE_OPTION_STDIN_NULL | VEXO_PROCESS_CREATE_OPTION_STDOUT_PIPE |
          VEXO_PROCESS_CREATE_OPTION_STDERR_INHERIT);
  if (rc < 0)
    throw failure("vexo_unix_process_create /bin/sh", rc);
  // Read to the end before waiting: a child blocked on a full pipe would
  // never end.
  std::string text;
  char buffer[256];
  ssize_t n = 0;
  while ((n = ::read(out, buffer, sizeof buffer)) != 0) {
    if (n > 0)
      text.append(buffer, static_cast<size_t>(n));
    else if (errno != EINTR)
      break;
  }
  const int read_errno = n < 0 ? errno : 0;
  static_cast<void>(vexo_os_file_handle_close_unix(out, 0));
  vexo_t_process_exit_status status = {};
  rc = vexo_unix_process_wait(child, nullptr, &status, VEXO_PROCESS_WAIT_OPTION_EXIT);
  if (read_errno != 0)
    throw std::system_error(read_errno, std::generic_category(), "cannot read the child's output");
  if (rc < 0)
    throw failure("vexo_unix_process_wait", rc);
  row("command", std::string("/bin/sh -c ") + printable(kScript));
  row("read through the pipe", printable(text));
  row("how it ended", exit_status_row(status));

  std::cout << '\n';
  paragraph(
      "The wait decodes the status into flags and a value: an exit and its status, or the signal that "
      "ended the child. What fails between the fork and the exec, such as a program that does not exist, "
      "cannot be reported to the caller any more: the child ends with status 1.");
  std::cout << '\n';
  row("sh -c 'exit 3'", exit_status_row(run_quietly("/bin/sh", {"-c", "exit 3"}, t)));
  row("sh -c 'kill -TERM $$'", exit_status_row(run_quietly("/bin/sh", {"-c", "kill -TERM $$"}, t)));
  row("/no/such/program", exit_status_row(run_quietly("/no/such/program", {}, t)));
}

// Sets a variable in the live environment for as long as it lives, then
// puts back what was there before.
class scoped_variable {
 public:
  scoped_variable(const char *key, const char *value) : key_(key) {
    if (const char *old = std::getenv(key))
      saved_ = old;
    if (::setenv(key, value, 1) != 0)
      throw std::system_error(errno, std::generic_category(), std::string("cannot set ") + key);
  }
  ~scoped_variable() {
    if (saved_)
      ::setenv(key_, saved_->c_str(), 1);
    else
      ::unsetenv(key_);
  }
  scoped_variable(const scoped_variable &) = delete;
  scoped_variable &operator=(const scoped_variable &) = delete;

 private:
  const char *key_;
  std::optional<std::string> saved_;
};

void show_environment(tour &t) {
  static constexpr char kKey[] = "VEXO_TOUR_LATIN1";
  static constexpr char kValue[] = "caf\xE9";
  section(t, "A variable that is not UTF-8",
          "vexo_init_process_unix, called by the tool before any command, took a snapshot of the "
          "environment, the initial environment, with every entry made UTF-8. Only now does the tour set " +
              std::string(kKey) +
              " to caf and the byte 0xE9 with setenv(3), so only the live environment holds it; it is "
              "removed again at the end of this section.");
  scoped_variable variable(kKey, kValue);
  const auto show = [](const char *label, const std::string &result, const char *why) {
    row(label, padded(result, 18) + why, 32);
  };
  show("setenv(3)", to_hex(kValue), "0xE9 is e-acute in Latin-1, not UTF-8");

  std::string value;
  vexo_t_error_code rc = getenv_value(kKey, VEXO_GETENV_OPTION_INITIAL, value);
  show("vexo_unix_getenv INITIAL", rc < 0 ? code_name(rc) : to_hex(value),
       "the snapshot is older than setenv");

  char **copy = nullptr;
  rc = vexo_unix_get_environ(&copy, nullptr, VEXO_GET_ENVIRON_OPTION_CURRENT);
  if (rc < 0)
    throw failure("vexo_unix_get_environ CURRENT", rc);
  environ_copy owner(copy);
  const char *copied = nullptr;
  for (char **entry = copy; *entry != nullptr && copied == nullptr; ++entry)
    if (std::strcmp(*entry, kKey) == 0)
      copied = entry_value(*entry);
  show("vexo_unix_get_environ CURRENT", copied != nullptr ? to_hex(copied) : "(not in the copy)",
       "a new copy: the entry read as Latin-1");

  rc = getenv_value(kKey, VEXO_GETENV_OPTION_CURRENT, value);
  show("vexo_unix_getenv CURRENT", rc < 0 ? code_name(rc) : to_hex(value),
       "the live bytes, copied as they are");
}

using section_fn = void (*)(tour &);
constexpr section_fn sections[] = {show_charset,   create_files,     list_names, show_root_lengths,
                                   show_validator, show_file_system, show_child, show_environment};

int run_tour() {
  deferred_signals held;
  scratch_dir scratch;
  tour t{scratch.path()};
  std::cout << "A tour of vexo in the scratch directory " << t.dir << '\n';
  for (section_fn s : sections)
    s(t);
  std::cout << '\n';
  if (!scratch.remove())
    return 1;
  std::cout << "Removed " << t.dir << ".\n";
  return 0;
}

}  // namespace

void add_tour_command(CLI::App &app, int &status) {
  CLI::App *cmd = app.add_subcommand(
      "tour", "A short guided run of what vexo does, in a scratch directory under $TMPDIR (or /tmp).");
  cmd->callback([&status] { status = run_tour(); });
}

}  // namespace vexo_cli
