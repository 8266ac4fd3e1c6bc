// Name and text conversion, the locale's character set, the path root and the ASCII scan.
#include "fault.h"
#include "unix/unix_internal.h"

#include <cstring>
#include <langinfo.h>
#include <tuple>

using namespace std::string_literals;

char g_untouched_byte;
char *const kUntouched = &g_untouched_byte;
constexpr auto kOk = VEXO_S_NOERR;
constexpr auto kLatin1Status = static_cast<vexo_t_error_code>(1);
constexpr vexo_t_bits kNoCopy = VEXO_FILE_NAME_OPTION_NO_COPY,
                      kLatin1 = VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK, kNoNfc = VEXO_FILE_NAME_OPTION_NO_NFC;

struct outcome {  // the code, the result's bytes, whether it is the caller's own pointer
  vexo_t_error_code rc;
  std::string bytes;
  bool lent = false;
  bool operator==(const outcome &) const = default;
};

enum kind { for_os, from_name, from_sized };

// Runs a conversion, checks a failure wrote nothing, frees the result unless it is the input.
outcome run(kind k, vexo_t_bits o, const char *in, size_t size) {
  char *out = kUntouched;
  size_t n = 777;
  vexo_t_error_code rc = k == from_sized ? vexo::vexo_from_os_unix(in, size, &out, &n, o)
                         : k == for_os   ? vexo_file_name_for_os_unix(in, &out, o)
                                         : vexo_file_name_from_os_unix(in, &out, o);
  if (rc < 0) {
    EXPECT_TRUE(out == kUntouched && n == 777u);
    return {rc, ""};
  }
  outcome r{rc, std::string(out, k == from_sized ? n : std::strlen(out)), out == in};
  if (out != in)
    vexo_free(out);
  return r;
}

struct row {
  kind k;
  vexo_t_bits options;
  std::string in;
  outcome want;
  bool normalises = false;  // makes an NFC block whose failure is absorbed
};

// clang-format off
const row kRows[] = {
    {for_os, kNoCopy, "\xE9\xFF", {kOk, "\xE9\xFF", true}},  // lends any text
    {for_os, 0x2 | kNoNfc, "e\xCC\x81\xFF", {kOk, "e\xCC\x81\xFF"}},  // copies unchecked
    {from_name, kNoCopy, "", {kOk, "", true}},
    {from_name, kNoCopy, "a.txt", {kOk, "a.txt", true}},
    {from_name, kNoCopy, "caf\xC3\xA9", {kOk, "caf\xC3\xA9"}, true},  // NFC result: new under no-copy
    {from_name, 0, "e\xCC\x81", {kOk, "\xC3\xA9"}, true},
    {from_name, kNoCopy | kLatin1, "e\xCC\x81", {kOk, "\xC3\xA9"}, true},
    {from_name, kNoCopy | kNoNfc, "e\xCC\x81", {kOk, "e\xCC\x81", true}},
    {from_name, kNoNfc, "e\xCC\x81", {kOk, "e\xCC\x81"}},
    {from_name, kNoCopy | kNoNfc | 0x2, "\xE9", {VEXO_E_ENCODING_INVALID, ""}},
    {from_name, kLatin1 | kNoCopy, "\xE9", {kLatin1Status, "\xC3\xA9"}},  // never lent
    {from_name, kLatin1, "\xC3\xA9\xFF", {kLatin1Status, "\xC3\x83\xC2\xA9\xC3\xBF"}},  // re-reads UTF-8 too
    {from_name, kLatin1, "e\xCC\x81\xFF", {kLatin1Status, "e\xC3\x8C\xC2\x81\xC3\xBF"}},  // not normalised
    {from_sized, 0, "a\0b\xC3\xA9\0"s, {kOk, "a\0b\xC3\xA9\0"s}},
    {from_sized, kNoCopy | kLatin1, "a\0\xC3\xA9"s, {kOk, "a\0\xC3\xA9"s, true}},
    {from_sized, kNoCopy, "abc\0\xFF"s, {VEXO_E_ENCODING_INVALID, ""}},  // bytes after a NUL are checked
    {from_sized, kNoCopy | kLatin1, "abc\0\xFF"s, {kLatin1Status, "abc\0\xC3\xBF"s}},
};
// clang-format on

TEST(Conversions, ResultsAndEveryAllocationFailure) {
  for (const row &r : kRows) {
    SCOPED_TRACE(::testing::PrintToString(r.in) + ", options " + std::to_string(r.options));
    int absorbed = 0;
    const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
      auto *in = static_cast<char *>(vexo_alloc(r.in.size() + 1));
      if (in == nullptr)
        return;
      std::memcpy(in, r.in.c_str(), r.in.size() + 1);  // a harness block, so freeing it would show
      const outcome got = run(r.k, r.options, in, r.in.size());
      absorbed += scope.injected() && got.rc >= 0;
      // a failed normalisation hands back the raw name, status 0
      EXPECT_TRUE(!scope.injected() ? got == r.want
                  : got.rc >= 0     ? got.rc == kOk && got.bytes == r.in
                                    : got.rc == VEXO_E_OUT_OF_MEMORY)
          << got.rc << ", " << ::testing::PrintToString(got.bytes) << (got.lent ? " lent" : "");
      EXPECT_TRUE(std::string(in, r.in.size()) == r.in && scope.live() == 1)
          << "input changed, freed or leaked";
      vexo_free(in);
    });
    EXPECT_TRUE(absorbed == (r.normalises ? 1 : 0) && (!r.want.lent || made == 1))
        << absorbed << " normalisation failures absorbed; a lent result allocates nothing";
  }
}

TEST(Conversions, NullArgumentsAndNullSizePointer) {
  char *out = kUntouched;
  EXPECT_TRUE(vexo_file_name_for_os_unix(nullptr, &out, 0) == VEXO_E_PARAMETER_ERROR &&
              vexo_file_name_from_os_unix("\xE9", nullptr, kLatin1) == VEXO_E_PARAMETER_ERROR &&
              vexo::vexo_from_os_unix(nullptr, 0, &out, nullptr, 0) == VEXO_E_PARAMETER_ERROR &&
              out == kUntouched);
  ASSERT_EQ(vexo::vexo_from_os_unix("\xE9", 1, &out, nullptr, kLatin1), kLatin1Status)
      << "a null size is allowed";
  EXPECT_EQ(std::string(out, 2), "\xC3\xA9");
  vexo_free(out);
}

using DefaultCharset = fault::Test;

fault::result charset() {
  return fault::take([](char **cs) { return vexo_unix_default_charset(cs, 0); });
}

TEST_F(DefaultCharset, CodesetFirstThenTheLocaleNameAfterItsLastDotAndAllocationFailure) {
  // clang-format off
  const struct { std::optional<const char *> codeset; const char *locale; fault::result want; } answers[] = {
      {"ISO-8859-15", "xx_XX.WRONG", {kOk, "ISO-8859-15"}}, {nullptr, "en_US.UTF-8", {kOk, "UTF-8"}},
      {"", "en_US.UTF-8", {kOk, "UTF-8"}}, {"", "C", {kOk, "C"}}, {"", "en_US.", {kOk, ""}},
      {"", "de_DE.ISO-8859-15@euro", {kOk, "ISO-8859-15@euro"}}, {"", "a.b.c", {kOk, "c"}},
      {"", "", {VEXO_E_NOT_SUPPORTED, ""}}, {"", nullptr, {VEXO_E_NOT_FOUND, ""}},
      {nullptr, "/usr/lib/locale/en_US.UTF-8", {VEXO_E_NOT_SUPPORTED, ""}}};
  // clang-format on
  for (const auto &a : answers) {
    fault::reset();
    fault::nl_langinfo_answer = a.codeset, fault::setlocale_answer = a.locale;
    EXPECT_EQ(charset(), a.want) << (a.locale != nullptr ? a.locale : "(null)");
    EXPECT_EQ(fault::calls(fault::call::setlocale), *a.codeset && **a.codeset ? 0 : 1);
  }
  fault::reset();
  EXPECT_EQ(charset(), (fault::result{kOk, nl_langinfo(CODESET)}));
  fault::fail(fault::call::nl_langinfo, 0);
  fault::fail(fault::call::setlocale, 0);
  EXPECT_EQ(charset().rc, VEXO_E_NOT_FOUND);
  fault::nl_langinfo_answer = "UTF-8";
  EXPECT_EQ(fault::oom_sweep(charset, {kOk, "UTF-8"}), 1);
}

// The core's root length and the Unix one, which also tells a relative path.
TEST(PathRoot, OneLeadingSlash) {
  constexpr int kRel = VEXO_E_FILE_NOT_ABSOLUTE, kNull = VEXO_E_PARAMETER_ERROR;
  const std::tuple<const char *, int, int> rows[] = {
      {"/", 1, 1},      {"//server/x", 1, 1}, {"/a/b", 1, 1},         {"", 0, kRel},
      {"a/b", 0, kRel}, {" /x", 0, kRel},     {nullptr, kNull, kNull}};
  for (const auto &[p, core, os] : rows) {
    EXPECT_EQ(vexo_path_root_len(p), core) << (p ? p : "(null)");
    EXPECT_EQ(vexo_unix_path_root_len(p), os) << (p ? p : "(null)");
  }
}

// The NUL at every distance from every start offset in the aligned 64 bytes, with a high byte (0x80 or 0xFF)
// at every place before it or none, in text of 0x7F. Bytes before the start alternate between NUL and 0xFF,
// bytes after the NUL are 0xFF: a scan that looks at either gets a wrong answer. The aligned-block scans
// behind is_ASCII are run from every block of the 64 too, so each vector width is judged here.
TEST(IsAscii, EveryOffsetNulAndHighByte) {
  alignas(64) static char buf[64 * 6];
  using scan = int (*)(const char *);
  std::vector<std::pair<scan, size_t>> scans = {{vexo::is_ASCII, 1}};
#if defined(__SSE2__)
  scans.emplace_back(vexo::ascii_through_nul_sse2, 16);
  if (__builtin_cpu_supports("avx2"))
    scans.emplace_back(vexo::ascii_through_nul_avx2, 16);
#endif
  long wrong = 0;
  for (size_t k = 0; k < scans.size(); ++k) {
    for (size_t off = 0; off < 64; off += scans[k].second) {
      char *s = buf + 64 + off;
      for (size_t len = 0; len <= 160; ++len) {
        for (size_t i = 0; i < sizeof buf; ++i)
          buf[i] = buf + i < s ? static_cast<char>(i % 2 == 0 ? 0 : 0xFF) : '\xFF';
        std::memset(s, 0x7F, len);
        s[len] = 0;
        for (size_t high = 0; high <= len; ++high) {
          s[high] = high == len ? 0 : high % 2 ? '\x80' : '\xFF';
          if (scans[k].first(s) != (high == len ? 1 : 0) && wrong++ == 0)
            ADD_FAILURE() << "scan " << k << ", offset " << off << ", NUL at " << len << ", high byte at "
                          << high;
          s[high] = high < len ? 0x7F : 0;
        }
      }
    }
  }
  EXPECT_EQ(wrong, 0);
}
