// How the tool writes: standard output through a buffer that remembers a
// failed write, text made safe for a terminal, JSON documents and help text
// wrapped to the width of a terminal.
#include "cli_common.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <streambuf>

namespace vexo_cli {

namespace {

// Standard output, written with write(2) so that a full device or a closed
// pipe is seen with its errno; after the first failure, output is dropped.
class fd_output : public std::streambuf {
 public:
  fd_output() { setp(buffer_, buffer_ + sizeof buffer_); }
  int error() const { return error_; }

 protected:
  int_type overflow(int_type c) override {
    if (drain() != 0)
      return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
      *pptr() = traits_type::to_char_type(c);
      pbump(1);
    }
    return traits_type::not_eof(c);
  }
  int sync() override { return drain(); }

 private:
  int drain() {
    const char *p = pbase();
    while (error_ == 0 && p < pptr()) {
      const ssize_t n = ::write(STDOUT_FILENO, p, static_cast<size_t>(pptr() - p));
      if (n >= 0)
        p += n;
      else if (errno != EINTR)
        error_ = errno;
    }
    setp(buffer_, buffer_ + sizeof buffer_);
    return error_ == 0 ? 0 : -1;
  }

  char buffer_[64 * 1024];
  int error_ = 0;
};

fd_output g_output;
bool g_stdout_terminal = false;
struct sigaction g_inherited_sigpipe = {};

bool is_control(char32_t cp) {
  return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F);
}

// Overrides and isolates reorder what follows them on the screen, so a name
// holding one could pass for another.
bool is_bidi_control(char32_t cp) {
  return (cp >= 0x202A && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069);
}

constexpr size_t kHelpWidth = 80;

// Breaks one help line at blanks; continuation lines start at the column
// where the line's text (or the option's description) starts.
void wrap_line(const std::string &line, size_t desc_column, std::string &out) {
  if (line.size() <= kHelpWidth) {
    out += line + '\n';
    return;
  }
  size_t indent = line.find_first_not_of(' ');
  if (indent == std::string::npos)
    indent = 0;
  if (line.size() > desc_column && line[desc_column - 1] == ' ' && line[desc_column] != ' ' && indent == 2)
    indent = desc_column;
  std::string rest = line;
  bool first = true;
  while (rest.size() > kHelpWidth) {
    size_t cut = rest.rfind(' ', kHelpWidth);
    if (cut == std::string::npos || cut <= (first ? line.find_first_not_of(' ') : indent))
      cut = rest.find(' ', kHelpWidth);
    if (cut == std::string::npos)
      break;
    out += rest.substr(0, cut) + '\n';
    const size_t next = rest.find_first_not_of(' ', cut);
    rest = std::string(indent, ' ') + (next == std::string::npos ? "" : rest.substr(next));
    first = false;
  }
  out += rest + '\n';
}

class wrapping_formatter : public CLI::Formatter {
 public:
  // A command that leaves its arguments to a program (`run`) says so.
  std::string make_usage(const CLI::App *app, std::string name) const override {
    std::string usage = CLI::Formatter::make_usage(app, std::move(name));
    if (app->get_prefix_command() && app->get_parent() != nullptr && !usage.empty() && usage.back() == '\n')
      usage.insert(usage.size() - 1, " [--] PROGRAM [ARGS]...");
    return usage;
  }

  std::string make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const override {
    const std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
    std::string out;
    size_t start = 0;
    while (start < text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos)
        end = text.size();
      wrap_line(text.substr(start, end - start), get_column_width(), out);
      start = end + 1;
    }
    return out;
  }
};

}  // namespace

void install_output() {
  // A closed pipe shows up as EPIPE, reported like any other write error.
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, &g_inherited_sigpipe);
  std::cout.rdbuf(&g_output);
  g_stdout_terminal = ::isatty(STDOUT_FILENO) == 1;
}

int finish_output(int status) {
  std::cout.flush();
  if (g_output.error() == 0)
    return status;
  std::cerr << "vexo: write error: " << std::strerror(g_output.error()) << '\n';
  return status != 0 ? status : 1;
}

inherited_sigpipe::inherited_sigpipe() {
  sigaction(SIGPIPE, &g_inherited_sigpipe, nullptr);
}

inherited_sigpipe::~inherited_sigpipe() {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, nullptr);
}

bool stdout_is_terminal() {
  return g_stdout_terminal;
}

bool needs_escape(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    const auto b = static_cast<unsigned char>(bytes[i]);
    if (b < 0x80) {
      if (is_control(b))
        return true;
      ++i;
      continue;
    }
    const size_t n = utf8_length(bytes.substr(i));
    if (n == 0 || !terminal_is_utf8())
      return true;
    if (const char32_t cp = decode_utf8(bytes.substr(i, n)); is_control(cp) || is_bidi_control(cp))
      return true;
    i += n;
  }
  return false;
}

bool must_escape(char32_t cp) {
  return is_control(cp) || is_bidi_control(cp);
}

std::string shown(std::string_view bytes) {
  return g_stdout_terminal && needs_escape(bytes) ? printable(bytes) : std::string(bytes);
}

void print_json(const nlohmann::ordered_json &doc) {
  // On a terminal every character beyond ASCII is written as \uXXXX, which
  // leaves no control character for the terminal to act on.
  std::cout << doc.dump(2, ' ', g_stdout_terminal, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

std::shared_ptr<CLI::FormatterBase> help_formatter() {
  auto formatter = std::make_shared<wrapping_formatter>();
  formatter->column_width(28);
  return formatter;
}

}  // namespace vexo_cli
