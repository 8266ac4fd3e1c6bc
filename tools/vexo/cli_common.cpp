#include "cli_common.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>

namespace vexo_cli {

namespace {

bool g_terminal_utf8 = false;

int hex_value(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

std::string escaped_byte(unsigned char b) {
  char text[8];
  std::snprintf(text, sizeof text, "\\x%02x", b);
  return text;
}

// Length of the UTF-8 sequence announced by a lead byte, 0 for a byte that
// cannot start one; whether the sequence is legal is the library's call.
size_t announced_length(unsigned char b) {
  if (b >= 0xC0 && b < 0xE0)
    return 2;
  if (b >= 0xE0 && b < 0xF0)
    return 3;
  if (b >= 0xF0 && b < 0xF8)
    return 4;
  return 0;
}

}  // namespace

failure::failure(const std::string &what_failed, vexo_t_error_code code)
    : std::runtime_error(what_failed), code_(code) {}

std::string code_name(vexo_t_error_code code) {
  const char *name = vexo_error_name(code);
  return name != nullptr ? name : "result code " + std::to_string(code);
}

std::string describe(vexo_t_error_code code) {
  return code_name(code) + ": " + vexo_error_message(code);
}

void report_failure(std::string_view context, vexo_t_error_code code) {
  std::cout.flush();
  std::cerr << "vexo: " << context << ": " << describe(code) << '\n';
}

std::string to_hex(std::string_view bytes) {
  if (bytes.empty())
    return "(empty)";
  static constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  for (char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    if (!hex.empty())
      hex += ' ';
    hex += digits[b >> 4];
    hex += digits[b & 0xF];
  }
  return hex;
}

std::string parse_hex(std::string_view text, const std::string &option) {
  std::string bytes;
  size_t i = 0;
  while (i < text.size()) {
    if (is_blank(text[i])) {
      ++i;
      continue;
    }
    const int hi = hex_value(text[i]);
    if (hi < 0)
      throw CLI::ValidationError(option, "'" + std::string(text) + "': '" + text[i] + "' is not a hex digit");
    if (i + 1 == text.size() || is_blank(text[i + 1]))
      throw CLI::ValidationError(option, "'" + std::string(text) + "': a byte needs two hex digits");
    const int lo = hex_value(text[i + 1]);
    if (lo < 0)
      throw CLI::ValidationError(option,
                                 "'" + std::string(text) + "': '" + text[i + 1] + "' is not a hex digit");
    bytes += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return bytes;
}

bool is_ascii(std::string_view bytes) {
  for (char c : bytes)
    if (static_cast<unsigned char>(c) >= 0x80)
      return false;
  return true;
}

size_t utf8_length(std::string_view bytes) {
  if (bytes.empty())
    return 0;
  const size_t n = announced_length(static_cast<unsigned char>(bytes[0]));
  return n != 0 && n <= bytes.size() && is_legal_utf8(bytes.substr(0, n)) ? n : 0;
}

char32_t decode_utf8(std::string_view seq) {
  auto byte = [&](size_t i) { return static_cast<char32_t>(static_cast<unsigned char>(seq[i])); };
  static constexpr char32_t lead_mask[] = {0, 0, 0x1F, 0x0F, 0x07};
  char32_t cp = byte(0) & lead_mask[seq.size()];
  for (size_t i = 1; i < seq.size(); ++i)
    cp = (cp << 6) | (byte(i) & 0x3F);
  return cp;
}

bool is_legal_utf8(std::string_view bytes) {
  return vexo_is_legal_utf8_string(bytes.data(), bytes.size(), 0) >= 0;
}

void set_terminal_utf8(bool utf8) {
  g_terminal_utf8 = utf8;
}
bool terminal_is_utf8() {
  return g_terminal_utf8;
}

bool charset_is_utf8(std::string_view charset) {
  std::string letters;
  for (char c : charset)
    if (c != '-' && c != '_')
      letters += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return letters == "utf8";
}

namespace {

void append_escaped(std::string &text, std::string_view bytes, bool quoted) {
  size_t i = 0;
  while (i < bytes.size()) {
    const auto b = static_cast<unsigned char>(bytes[i]);
    if (b < 0x80) {
      if (b < 0x20 || b == 0x7F)
        text += escaped_byte(b);
      else if (quoted && (b == '"' || b == '\\'))
        text += std::string("\\") + static_cast<char>(b);
      else
        text += static_cast<char>(b);
      ++i;
      continue;
    }
    const size_t n = utf8_length(bytes.substr(i));
    if (n == 0) {
      text += escaped_byte(b);
      ++i;
      continue;
    }
    const std::string_view seq = bytes.substr(i, n);
    const char32_t cp = decode_utf8(seq);
    if (g_terminal_utf8 && !must_escape(cp)) {
      text += seq;
    } else {
      char code[16];
      std::snprintf(code, sizeof code, "\\u{%04x}", static_cast<unsigned>(cp));
      text += code;
    }
    i += n;
  }
}

}  // namespace

std::string printable(std::string_view bytes) {
  std::string text = "\"";
  append_escaped(text, bytes, true);
  return text + "\"";
}

std::string escaped(std::string_view bytes) {
  std::string text;
  append_escaped(text, bytes, false);
  return text;
}

int print_library_string(std::string_view name, vexo_t_error_code (*fn)(char **, vexo_t_bits)) {
  char *text = nullptr;
  const vexo_t_error_code rc = fn(&text, 0);
  if (rc < 0) {
    report_failure(name, rc);
    return 1;
  }
  vexo_string owner(text);
  std::cout << text << '\n';
  return 0;
}

}  // namespace vexo_cli
