// Name and text conversion, the locale's character set and the path root.
#include <gtest/gtest.h>

#include "fault.h"
#include "unix/unix_internal.h"

#include <cstring>
#include <functional>
#include <langinfo.h>
#include <optional>
#include <string>

namespace {

using namespace std::string_literals;

char g_untouched_byte;
char *const kUntouched = &g_untouched_byte;
constexpr auto kOk = VEXO_S_NOERR;
constexpr auto kLatin1Status = static_cast<vexo_t_error_code>(1);
constexpr vexo_t_bits kNoCopy = VEXO_FILE_NAME_OPTION_NO_COPY;
constexpr vexo_t_bits kLatin1 = VEXO_FILE_NAME_OPTION_LATIN1_FALLBACK;
constexpr vexo_t_bits kNoNfc = VEXO_FILE_NAME_OPTION_NO_NFC;

// A conversion as the caller sees it: the code, the result's bytes and
// whether the result is the caller's own pointer.
struct outcome {
  vexo_t_error_code rc;
  std::string bytes;
  bool lent;
  bool operator==(const outcome &) const = default;
};
void PrintTo(const outcome &o, std::ostream *os) {
  *os << "{" << o.rc << ", " << ::testing::PrintToString(o.bytes) << (o.lent ? ", lent}" : "}");
}

using conversion =
    std::function<vexo_t_error_code(const char *in, size_t size, char **out, size_t *out_size)>;

conversion for_os(vexo_t_bits o) {
  return [o](const char *in, size_t, char **out, size_t *n) {
    vexo_t_error_code rc = vexo_file_name_for_os_unix(in, out, o);
    if (rc >= 0)
      *n = std::strlen(*out);
    return rc;
  };
}
conversion from_name(vexo_t_bits o) {
  return [o](const char *in, size_t, char **out, size_t *n) {
    vexo_t_error_code rc = vexo_file_name_from_os_unix(in, out, o);
    if (rc >= 0)
      *n = std::strlen(*out);
    return rc;
  };
}
conversion from_sized(vexo_t_bits o) {
  return [o](const char *in, size_t size, char **out, size_t *n) {
    return vexo_from_os_unix(in, size, out, n, o);
  };
}

// Runs a conversion, checks that a failure wrote nothing, and frees the
// result the way a caller does: only when it is not its own input.
outcome run(const conversion &f, const char *in, size_t size) {
  char *out = kUntouched;
  size_t n = 777;
  vexo_t_error_code rc = f(in, size, &out, &n);
  if (rc < 0) {
    EXPECT_EQ(out, kUntouched);
    EXPECT_EQ(n, 777u);
    return {rc, "", false};
  }
  outcome r{rc, std::string(out, n), out == in};
  if (out != in)
    vexo_free(out);
  return r;
}

struct row {
  const char *what;
  conversion f;
  std::string in;
  outcome want;
  bool normalises = false;  // makes an NFC block whose failure is absorbed
};

const row kRows[] = {
    {"for_os lends any text", for_os(kNoCopy), "\xE9\xFF", {kOk, "\xE9\xFF", true}},
    {"for_os copies unchecked", for_os(0x2 | kNoNfc), "e\xCC\x81\xFF", {kOk, "e\xCC\x81\xFF", false}},
    {"empty name lent", from_name(kNoCopy), "", {kOk, "", true}},
    {"ascii lent", from_name(kNoCopy), "a.txt", {kOk, "a.txt", true}},
    {"ascii copied", from_name(0), "a\x7F", {kOk, "a\x7F", false}},
    {"nfc name is new under no-copy", from_name(kNoCopy), "caf\xC3\xA9", {kOk, "caf\xC3\xA9", false}, true},
    {"composed", from_name(0), "e\xCC\x81", {kOk, "\xC3\xA9", false}, true},
    {"composed under no-copy", from_name(kNoCopy | kLatin1), "e\xCC\x81", {kOk, "\xC3\xA9", false}, true},
    {"no-nfc lent", from_name(kNoCopy | kNoNfc), "e\xCC\x81", {kOk, "e\xCC\x81", true}},
    {"no-nfc copied", from_name(kNoNfc), "e\xCC\x81", {kOk, "e\xCC\x81", false}},
    {"not utf-8", from_name(kNoCopy | kNoNfc | 0x2), "\xE9", {VEXO_E_ENCODING_INVALID, "", false}},
    {"latin-1, never lent", from_name(kLatin1 | kNoCopy), "\xE9", {kLatin1Status, "\xC3\xA9", false}},
    {"latin-1 re-reads valid sequences",
     from_name(kLatin1),
     "\xC3\xA9\xFF",
     {kLatin1Status, "\xC3\x83\xC2\xA9\xC3\xBF", false}},
    {"latin-1 not normalised",
     from_name(kLatin1),
     "e\xCC\x81\xFF",
     {kLatin1Status, "e\xC3\x8C\xC2\x81\xC3\xBF", false}},
    {"sized keeps NULs", from_sized(0), "a\0b\xC3\xA9\0"s, {kOk, "a\0b\xC3\xA9\0"s, false}},
    {"sized lends legal text", from_sized(kNoCopy | kLatin1), "a\0\xC3\xA9"s, {kOk, "a\0\xC3\xA9"s, true}},
    {"sized empty", from_sized(0), "", {kOk, "", false}},
    {"sized tests bytes after a NUL",
     from_sized(kNoCopy),
     "abc\0\xFF"s,
     {VEXO_E_ENCODING_INVALID, "", false}},
    {"sized latin-1 after a NUL",
     from_sized(kNoCopy | kLatin1),
     "abc\0\xFF"s,
     {kLatin1Status, "abc\0\xC3\xBF"s, false}},
};

TEST(Conversions, ResultCodeBytesAndPointerIdentity) {
  for (const row &r : kRows)
    EXPECT_EQ(run(r.f, r.in.data(), r.in.size()), r.want) << r.what;
}

TEST(Conversions, EveryAllocationFailureIsCleanAndOnlyNfcAbsorbsOne) {
  for (const row &r : kRows) {
    if (r.want.rc < 0)
      continue;
    SCOPED_TRACE(r.what);
    int absorbed = 0;
    fault::alloc_sweep([&](fault::alloc_scope &scope) {
      // The input is a block of the harness too, so freeing it would show.
      auto *in = static_cast<char *>(vexo_alloc(r.in.size() + 1));
      if (in == nullptr)
        return;
      std::memcpy(in, r.in.c_str(), r.in.size() + 1);
      const outcome got = run(r.f, in, r.in.size());
      if (!scope.injected()) {
        EXPECT_EQ(got, r.want);
      } else if (got.rc >= 0) {
        // A failed normalisation hands back the raw name, status 0.
        ++absorbed;
        EXPECT_EQ(got.rc, kOk);
        EXPECT_EQ(got.bytes, r.in);
      } else {
        EXPECT_EQ(got.rc, VEXO_E_OUT_OF_MEMORY);
      }
      EXPECT_EQ(std::string(in, r.in.size()), r.in) << "input changed";
      EXPECT_EQ(scope.live(), 1) << "input freed or result leaked";
      vexo_free(in);
    });
    EXPECT_EQ(absorbed, r.normalises ? 1 : 0);
  }
}

TEST(Conversions, Latin1FallbackDecodesBackToEveryByte) {
  std::string all;
  for (int b = 0; b < 256; ++b)
    all.push_back(static_cast<char>(b));
  const outcome got = run(from_sized(kNoCopy | kLatin1), all.data(), all.size());
  ASSERT_EQ(got.rc, kLatin1Status);
  ASSERT_EQ(got.bytes.size(), 256u + 128u);
  EXPECT_EQ(got.bytes.substr(0, 128), all.substr(0, 128));
  for (unsigned b = 0x80; b < 256; ++b) {
    const auto hi = static_cast<unsigned char>(got.bytes[2 * b - 128]);
    const auto lo = static_cast<unsigned char>(got.bytes[2 * b - 127]);
    EXPECT_TRUE((hi & 0xE0u) == 0xC0 && (lo & 0xC0u) == 0x80 && (((hi & 0x1Fu) << 6) | (lo & 0x3Fu)) == b)
        << b;
  }
}

TEST(Conversions, NullArgumentsAndNullSizePointer) {
  char *out = kUntouched;
  EXPECT_EQ(vexo_file_name_for_os_unix(nullptr, &out, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_file_name_for_os_unix("x", nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_file_name_from_os_unix(nullptr, &out, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_file_name_from_os_unix("\xE9", nullptr, kLatin1), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_from_os_unix(nullptr, 0, &out, nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_from_os_unix("a", 1, nullptr, nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_unix_default_charset(nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_unix_path_root_len(nullptr), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(out, kUntouched);

  ASSERT_EQ(vexo_from_os_unix("\xE9", 1, &out, nullptr, kLatin1), kLatin1Status);
  EXPECT_EQ(std::string(out, 2), "\xC3\xA9");
  vexo_free(out);
}

TEST(Conversions, AsciiUnderNoCopyNeverAllocates) {
  fault::alloc_scope scope;
  char *out = kUntouched;
  const char name[] = "some/long/ascii/name.txt";
  EXPECT_EQ(vexo_file_name_from_os_unix(name, &out, kNoCopy), kOk);
  EXPECT_EQ(vexo_file_name_for_os_unix(name, &out, kNoCopy), kOk);
  EXPECT_EQ(out, name);
  EXPECT_EQ(scope.allocations(), 0);
}

// ---- Character set of the locale -------------------------------------------------

using DefaultCharset = fault::Test;

outcome charset() {
  char *cs = kUntouched;
  vexo_t_error_code rc = vexo_unix_default_charset(&cs, 0);
  if (rc < 0) {
    EXPECT_EQ(cs, kUntouched);
    return {rc, "", false};
  }
  outcome o{rc, cs, false};
  vexo_free(cs);
  return o;
}

TEST_F(DefaultCharset, CodesetFirstThenTheLocaleNameAfterItsLastDot) {
  struct answer {
    std::optional<const char *> codeset;
    const char *locale;
    outcome want;
  };
  const answer answers[] = {
      {"ISO-8859-15", "xx_XX.WRONG", {kOk, "ISO-8859-15", false}},
      {nullptr, "en_US.UTF-8", {kOk, "UTF-8", false}},
      {"", "en_US.UTF-8", {kOk, "UTF-8", false}},
      {"", "C", {kOk, "C", false}},
      {"", "en_US.", {kOk, "", false}},
      {"", "de_DE.ISO-8859-15@euro", {kOk, "ISO-8859-15@euro", false}},
      {"", "a.b.c", {kOk, "c", false}},
      {"", "", {VEXO_E_NOT_SUPPORTED, "", false}},
      {nullptr, "/usr/lib/locale/en_US.UTF-8", {VEXO_E_NOT_SUPPORTED, "", false}},
      {"", nullptr, {VEXO_E_NOT_FOUND, "", false}},
  };
  for (const answer &a : answers) {
    fault::reset();
    fault::fake_nl_langinfo(a.codeset);
    fault::fake_setlocale(a.locale);
    EXPECT_EQ(charset(), a.want) << (a.locale != nullptr ? a.locale : "(null)");
    EXPECT_EQ(fault::calls(fault::call::setlocale),
              a.codeset.value() != nullptr && *a.codeset.value() ? 0 : 1);
  }
}

TEST_F(DefaultCharset, RealLocaleAndAllocationFailure) {
  EXPECT_EQ(charset(), (outcome{kOk, nl_langinfo(CODESET), false}));
  fault::fail(fault::call::nl_langinfo, 0);
  fault::fail(fault::call::setlocale, 0);
  EXPECT_EQ(charset().rc, VEXO_E_NOT_FOUND);

  fault::fake_nl_langinfo("UTF-8");
  const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
    const vexo_t_error_code rc = charset().rc;
    EXPECT_EQ(rc, scope.injected() ? VEXO_E_OUT_OF_MEMORY : kOk);
  });
  EXPECT_EQ(made, 1);
}

// ---- Root of a path and the ASCII test ---------------------------------------------

TEST(PathRoot, OneSlashIsTheRootOfEveryAbsolutePath) {
  for (const char *p : {"/", "//", "//server/x", "/a/b"})
    EXPECT_EQ(vexo_unix_path_root_len(p), 1) << p;
  for (const char *p : {"", "a/b", "./x", " /x"})
    EXPECT_EQ(vexo_unix_path_root_len(p), VEXO_E_FILE_NOT_ABSOLUTE) << p;
}

TEST(IsAscii, StopsAtTheTerminatorAndRejectsAnyHighByte) {
  EXPECT_NE(is_ASCII(""), 0);
  EXPECT_NE(is_ASCII("\x01 ~\x7F"), 0);
  EXPECT_NE(is_ASCII("ab\0\xFF"), 0);
  EXPECT_EQ(is_ASCII("abc\x80"), 0);
  EXPECT_EQ(is_ASCII("\xFF"), 0);
}

}  // namespace
