// NFC normalisation, checked against Unicode's own conformance data.
#include <gtest/gtest.h>

#include "fault.h"
#include "unix/unix_internal.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

char g_untouched_byte;
char *const kUntouched = &g_untouched_byte;

std::string utf8(char32_t c) {
  if (c < 0x80)
    return std::string(1, static_cast<char>(c));
  const int extra = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
  std::string s(1, static_cast<char>(((0xFF00u >> (extra + 1)) & 0xFFu) | (c >> (6 * extra))));
  for (int i = extra - 1; i >= 0; --i)
    s += static_cast<char>(0x80u | ((c >> (6 * i)) & 0x3Fu));
  return s;
}

// The NFC form through utf8_to_nfc, or "<code>" on failure.
std::string nfc(const std::string &in) {
  char *out = kUntouched;
  const vexo_t_error_code rc = utf8_to_nfc(in.c_str(), &out, 0);
  if (rc != VEXO_S_NOERR) {
    EXPECT_EQ(out, kUntouched);
    return "<" + std::to_string(rc) + ">";
  }
  std::string r(out);
  vexo_free(out);
  return r;
}

struct conformance_line {
  int part;
  std::string c[5];
};

// Debian ships the file compressed; either form is accepted.
std::vector<conformance_line> read_conformance() {
  const std::string base = VEXO_UNICODE_DATA_DIR "/NormalizationTest.txt";
  const std::string command = std::ifstream(base) ? "cat '" + base + "'" : "bzip2 -dc '" + base + ".bz2'";
  std::string text;
  if (FILE *p = popen(command.c_str(), "r")) {
    char chunk[65536];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, p)) > 0;)
      text.append(chunk, n);
    if (pclose(p) != 0)
      text.clear();  // a partial file would hide lines
  }
  std::vector<conformance_line> lines;
  std::istringstream in(text);
  int part = -1;
  for (std::string line; std::getline(in, line);) {
    line = line.substr(0, line.find('#'));
    if (line.empty() || line[0] == '@') {
      part = line.empty() ? part : std::atoi(line.c_str() + 5);
      continue;
    }
    conformance_line l{part, {}};
    std::istringstream fields(line);
    for (std::string &column : l.c) {
      std::string field, hex;
      std::getline(fields, field, ';');
      for (std::istringstream cps(field); cps >> hex;)
        column += utf8(static_cast<char32_t>(std::stoul(hex, nullptr, 16)));
    }
    lines.push_back(std::move(l));
  }
  return lines;
}

const std::vector<conformance_line> &conformance() {
  static const std::vector<conformance_line> lines = read_conformance();  // read once, and only when run
  return lines;
}

class Conformance : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GT(lines.size(), 10000u) << "NormalizationTest.txt(.bz2) is missing in " VEXO_UNICODE_DATA_DIR;
  }
  const std::vector<conformance_line> &lines = conformance();
  int bad = 0;
  // Reports the first few mismatches, not thousands of lines.
  void expect_same(const std::string &got, const std::string &want, const std::string &what) {
    if (got != want && ++bad <= 10)
      ADD_FAILURE() << what << ": got " << ::testing::PrintToString(got) << ", want "
                    << ::testing::PrintToString(want);
  }
};

TEST_F(Conformance, EveryColumnNormalisesToItsNfcColumn) {
  for (const conformance_line &l : lines) {
    for (int i = 0; i < 5; ++i) {
      const std::string &want = i < 3 ? l.c[1] : l.c[3];
      expect_same(nfc(l.c[i]), want, "utf8_to_nfc of column " + std::to_string(i + 1));
      char *out = kUntouched;
      ASSERT_EQ(vexo_file_name_from_os_unix(l.c[i].c_str(), &out, 0), VEXO_S_NOERR);
      expect_same(out, want, "file name of column " + std::to_string(i + 1));
      vexo_free(out);
    }
  }
  EXPECT_EQ(bad, 0);
}

TEST_F(Conformance, EveryCodePointNotListedIsItsOwnNfc) {
  std::unordered_set<std::string> listed;
  for (const conformance_line &l : lines) {
    if (l.part == 1)
      listed.insert(l.c[0]);
  }
  ASSERT_GT(listed.size(), 10000u);
  for (char32_t c = 1; c <= 0x10FFFF; c = c == 0xD7FF ? 0xE000 : c + 1) {
    const std::string x = utf8(c);
    if (listed.count(x) == 0)
      expect_same(nfc(x), x, "code point " + std::to_string(static_cast<unsigned long>(c)));
  }
  EXPECT_EQ(bad, 0);
}

TEST(Nfc, TextThatCannotBeReadAsUtf8Fails) {
  for (const char *bad : {"", "\xC3", "a\xE9z", "\xED\xA0\x80", "\xC0\xAF", "\xF4\x90\x80\x80"})
    EXPECT_EQ(nfc(bad), "<" + std::to_string(VEXO_E_ENCODING_INVALID) + ">");
  char *out = kUntouched;
  EXPECT_EQ(utf8_to_nfc(nullptr, &out, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(utf8_to_nfc("a", nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(out, kUntouched);
}

// Sizes around the on-stack first pass (fitting, exactly full, larger) for
// text that shrinks, grows and stays the same under NFC: one allocation of
// the result, and its failure leaves nothing behind.
TEST(Nfc, OneExactAllocationWhateverTheSize) {
  const std::pair<std::string, std::string> shapes[] = {
      {"e\xCC\x81", "\xC3\xA9"}, {utf8(0x0958), utf8(0x0915) + utf8(0x093C)}, {"\xC3\xA9", "\xC3\xA9"}};
  const std::string oom = "<" + std::to_string(VEXO_E_OUT_OF_MEMORY) + ">";
  for (const auto &[unit, nfc_unit] : shapes) {
    for (size_t out_size : {2u, 1022u, 1023u, 1024u, 1025u, 1026u, 5000u}) {
      std::string in(out_size % nfc_unit.size(), 'x'), want = in;
      for (size_t i = 0; i < out_size / nfc_unit.size(); ++i)
        in.insert(0, unit), want.insert(0, nfc_unit);
      SCOPED_TRACE(::testing::PrintToString(unit) + ", " + std::to_string(want.size()) + " bytes out");
      const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
        const std::string got = nfc(in);
        EXPECT_EQ(got, scope.injected() ? oom : want);
      });
      EXPECT_EQ(made, 1);
    }
  }
}

}  // namespace
