// NFC normalisation, checked against Unicode's own conformance data.
#include "fault.h"
#include "unix/unix_internal.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <unicode/unistr.h>
#include <unordered_set>

std::string utf8(char32_t c) {
  std::string s;
  return icu::UnicodeString(static_cast<UChar32>(c)).toUTF8String(s);
}

fault::result nfc(const std::string &in) {
  return fault::take([&](char **out) { return vexo::utf8_to_nfc(in.c_str(), out, 0); });
}

// Every column of each NormalizationTest line (Debian ships the file compressed; either form is read) against
// its NFC column, directly and as a file name; then every code point that part 1 does not list is its own
// NFC. Only the first few mismatches are reported.
TEST(Nfc, Conformance) {
  const std::string base = VEXO_UNICODE_DATA_DIR "/NormalizationTest.txt";
  FILE *p = popen(("cat '" + base + "' 2>/dev/null || bzip2 -dc '" + base + ".bz2'").c_str(), "r");
  ASSERT_NE(p, nullptr);
  int bad = 0;
  auto expect_same = [&](const fault::result &got, const std::string &want, const std::string &what) {
    if (got != fault::result{VEXO_S_NOERR, want} && ++bad <= 10)
      ADD_FAILURE() << what << ": got " << testing::PrintToString(got) << ", want "
                    << testing::PrintToString(want);
  };
  std::unordered_set<std::string> listed;
  size_t capacity = 0;
  char *line = nullptr;
  for (int part = -1; getline(&line, &capacity, p) > 0;) {
    part = line[0] == '@' ? std::atoi(line + 5) : part;
    if (!std::isxdigit(static_cast<unsigned char>(line[0])))
      continue;
    std::string c[5];
    char *at = line;
    for (std::string &column : c)
      for (; *at++ != ';';)  // code points separated by spaces, columns by ';'
        column += utf8(static_cast<char32_t>(std::strtoul(at - 1, &at, 16)));
    for (size_t i = 0; i < 5; ++i) {
      const std::string &in = c[i], &want = i < 3 ? c[1] : c[3];
      expect_same(nfc(in), want, "column " + std::to_string(i + 1));
      expect_same(fault::take([&](char **out) { return vexo_file_name_from_os_unix(in.c_str(), out, 0); }),
                  want, "file name of column " + std::to_string(i + 1));
    }
    if (part == 1)
      listed.insert(c[0]);
  }
  std::free(line);
  ASSERT_TRUE(pclose(p) == 0 && listed.size() > 10000u)
      << "NormalizationTest.txt(.bz2) is missing or cut short in " VEXO_UNICODE_DATA_DIR;
  for (char32_t c = 1; c <= 0x10FFFF; c = c == 0xD7FF ? 0xE000 : c + 1) {
    if (listed.count(utf8(c)) == 0)
      expect_same(nfc(utf8(c)), utf8(c), "code point " + std::to_string(static_cast<unsigned long>(c)));
  }
  EXPECT_EQ(bad, 0);
}

TEST(Nfc, TextThatCannotBeReadAsUtf8Fails) {
  for (const char *bad : {"", "\xC3", "a\xE9z", "\xED\xA0\x80", "\xC0\xAF", "\xF4\x90\x80\x80"})
    EXPECT_EQ(nfc(bad), (fault::result{VEXO_E_ENCODING_INVALID, ""}));
  EXPECT_EQ(vexo::utf8_to_nfc(nullptr, nullptr, 0), VEXO_E_PARAMETER_ERROR);
}

// Sizes around the on-stack first pass (fitting, exactly full, larger) for text that shrinks, grows and stays
// the same under NFC: one allocation of the result, its failure leaves nothing.
TEST(Nfc, OneExactAllocationWhateverTheSize) {
  const std::pair<std::string, std::string> shapes[] = {
      {"e\xCC\x81", "\xC3\xA9"}, {utf8(0x0958), utf8(0x0915) + utf8(0x093C)}, {"\xC3\xA9", "\xC3\xA9"}};
  for (const auto &[unit, nfc_unit] : shapes) {
    for (size_t out_size : {2u, 1022u, 1023u, 1024u, 1025u, 1026u, 5000u}) {
      std::string in(out_size % nfc_unit.size(), 'x'), want = in;
      for (size_t i = 0; i < out_size / nfc_unit.size(); ++i)
        in.insert(0, unit), want.insert(0, nfc_unit);
      EXPECT_EQ(fault::oom_sweep([&] { return nfc(in); }, {VEXO_S_NOERR, want}), 1)
          << testing::PrintToString(unit) << ", " << want.size() << " bytes out";
    }
  }
}
