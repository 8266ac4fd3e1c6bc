// Delete, rename, create directory, the working and the temporary directory.
#include "fault.h"
#include "scratch.h"
#include "unix/unix_internal.h"

#include <algorithm>
#include <tuple>

namespace fs = std::filesystem;
using fault::result;
constexpr auto kOk = VEXO_S_NOERR;
constexpr vexo_t_bits kDir = VEXO_DELETE_OPTION_DIRECTORY, kNotImpl = VEXO_DELETE_OPTION_NOT_IMPLEMENTED,
                      kLatin1 = VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK;

result cwd(vexo_t_bits options = 0) {
  return fault::take([=](char **out) { return vexo_get_working_directory_unix(out, options); });
}
result tmp(vexo_t_bits options = 0) {
  return fault::take([=](char **out) { return vexo_unix_temp_directory(out, options); });
}

class Paths : public fault::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(::chdir(home_.c_str()), 0);
    tmpdir_.empty() ? unsetenv("TMPDIR") : setenv("TMPDIR", tmpdir_.c_str(), 1);
    fault::Test::TearDown();
  }
  std::string at(const std::string &name) const { return dir_.at(name); }
  std::string file(const std::string &name) const { return dir_.make(name, 'f'); }
  std::string dir(const std::string &name) const { return dir_.make(name, 'd'); }

  const fs::path home_ = fs::current_path();
  const std::string tmpdir_ = std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "";  // empty: unset
  scratch::dir dir_;
};

// Each operation with a failure injected into its call. Interrupted five times, a call is repeated until done
// (0x4 alone is a plain delete; rename replaces an existing target); chdir and getcwd are not repeated;
// EBADMSG is not in the core's table, so it shows each operation's fallback. Names go to the system as the
// caller's own strings: only getcwd's buffer is allocated, and nothing stays allocated.
TEST_F(Paths, OperationsUnderInjectedFailures) {
  const std::string f = file("f"), d = dir("d"), a = file("a"), b = file("b"), p = file("p");
  EXPECT_EQ(vexo_unix_delete_file(d.c_str(), kDir | kNotImpl), VEXO_E_NOT_IMPLEMENTED);
  EXPECT_EQ(fault::calls(fault::call::rmdir), 0);
  const auto rm = [&] { return vexo_unix_delete_file(p.c_str(), kDir); };
  const auto un = [&] { return vexo_unix_delete_file(p.c_str(), 0); };
  const auto mv = [&] { return vexo_unix_rename_file(p.c_str(), at("q").c_str(), 0); };
  const auto md = [&] { return vexo_unix_create_directory(at("new").c_str(), 0); };
  const auto cd = [&] { return vexo_set_working_directory_unix(dir_.path().c_str(), 0); };
  const auto wd = [&] { return cwd().rc; };
  using fault::call;
  const std::tuple<call, std::function<vexo_t_error_code()>, int, vexo_t_error_code> rows[] = {
      // clang-format off
      {call::unlink, [&] { return vexo_unix_delete_file(f.c_str(), kNotImpl); }, EINTR, kOk},
      {call::rmdir, [&] { return vexo_unix_delete_file(d.c_str(), kDir | 0x2 | 0x8); }, EINTR, kOk},
      {call::rename, [&] { return vexo_unix_rename_file(a.c_str(), b.c_str(), ~0u); }, EINTR, kOk},
      {call::mkdir, [&] { return vexo_unix_create_directory(at("m").c_str(), ~0u); }, EINTR, kOk},
      {call::rmdir, rm, EEXIST, VEXO_E_DIR_NOT_EMPTY}, {call::rmdir, rm, EBADMSG, VEXO_E_FILE_ACCESS},
      {call::rmdir, rm, ENOTEMPTY, VEXO_E_DIR_NOT_EMPTY}, {call::unlink, un, EBADMSG, VEXO_E_FILE_ACCESS},
      {call::rmdir, rm, EPERM, VEXO_E_PERMISSION_ERROR}, {call::unlink, un, EPERM, VEXO_E_PERMISSION_ERROR},
      {call::unlink, un, EISDIR, VEXO_E_FILE_IS_DIRECTORY}, {call::rename, mv, EEXIST, VEXO_E_FILE_EXISTS},
      {call::rename, mv, EBADMSG, VEXO_E_FILE_ACCESS}, {call::mkdir, md, EBADMSG, VEXO_E_OS_ERROR},
      {call::chdir, cd, EBADMSG, VEXO_E_OS_ERROR}, {call::chdir, cd, EINTR, VEXO_E_INTERRUPTED},
      {call::getcwd, wd, EBADMSG, VEXO_E_OS_ERROR}, {call::getcwd, wd, EINTR, VEXO_E_INTERRUPTED},
      // clang-format on
  };
  const mode_t saved = umask(0);
  for (const auto &[c, op, err, want] : rows) {
    SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(c) << " errno " << err);
    fault::reset();
    fault::fail(c, err, want == kOk ? 5 : 1);
    fault::alloc_scope scope;
    EXPECT_EQ(op(), want);
    EXPECT_EQ(fault::calls(c), want == kOk ? 6 : 1);
    EXPECT_TRUE(scope.live() == 0 && scope.allocations() == (c == call::getcwd ? 1 : 0));
  }
  umask(saved);
  EXPECT_TRUE(!fs::exists(f) && !fs::exists(d) && !fs::exists(a) && fs::exists(p));
  EXPECT_EQ(fs::status(at("m")).permissions(), fs::perms::all);
  EXPECT_EQ(vexo_unix_create_directory(at("m").c_str(), 0), vexo_map_unix_error(EEXIST, VEXO_E_OS_ERROR));
  EXPECT_EQ(fs::current_path(), home_);
  EXPECT_EQ(vexo_set_working_directory_unix(at("m").c_str(), ~0u), kOk);
  EXPECT_EQ(fs::current_path(), at("m"));
  EXPECT_EQ(vexo_set_working_directory_unix(at("b").c_str(), 0), VEXO_E_FILE_NOT_DIRECTORY);
  EXPECT_EQ(fs::current_path(), at("m"));
  EXPECT_EQ(vexo_unix_rename_file("x", nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_set_working_directory_unix(nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_get_working_directory_unix(nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_unix_temp_directory(nullptr, 0), VEXO_E_PARAMETER_ERROR);
}

TEST_F(Paths, WorkingDirectoryBufferScheduleAndConversion) {
  const std::string p = dir(std::string(255, 'd'));  // longer than the first buffer's 256 bytes
  ASSERT_EQ(::chdir(p.c_str()), 0);
  EXPECT_EQ(cwd(), (result{kOk, p}));
  EXPECT_EQ(fault::getcwd_sizes, (std::vector<size_t>{257, 513}));
  EXPECT_EQ(fault::oom_sweep([] { return cwd(kLatin1); }, {kOk, p}), 3) << "two buffers and the name";

  const std::vector<size_t> nine = {257, 513, 1025, 2049, 4097, 8193, 16385, 32769, 65537};
  for (const int failures : {8, 9}) {
    fault::reset();
    fault::fail(fault::call::getcwd, ERANGE, failures);
    fault::alloc_scope scope;
    EXPECT_EQ(cwd().rc, failures == 8 ? kOk : vexo_map_unix_error(ERANGE, VEXO_E_OS_ERROR));
    EXPECT_EQ(fault::getcwd_sizes, nine);
    EXPECT_EQ(scope.live(), 0);
  }

  // Converted as a file name; only the Latin-1 bit is passed on.
  ASSERT_EQ(::chdir(dir("caf\xE9").c_str()), 0);
  EXPECT_EQ(cwd(), (result{VEXO_E_ENCODING_INVALID, ""}));
  EXPECT_EQ(
      fault::oom_sweep([] { return cwd(kLatin1); }, {static_cast<vexo_t_error_code>(1), at("caf\xC3\xA9")}),
      2);
  ASSERT_EQ(::chdir(dir("e\xCC\x81").c_str()), 0);
  EXPECT_EQ(cwd(VEXO_FILE_NAME_OPTION_NO_COPY | VEXO_FILE_NAME_OPTION_NO_NFC), (result{kOk, at("\xC3\xA9")}));
}

TEST_F(Paths, TempDirectoryEndsInOneSlashAndIsOtherwiseUnchanged) {
  const std::pair<const char *, const char *> rows[] = {
      {nullptr, "/tmp/"}, {"", "/tmp/"}, {"/var/tmp/", "/var/tmp/"},      {"/", "/"},
      {"tmp", "tmp/"},    {"/x", "/x/"}, {"/no\xE9utf8", "/no\xE9utf8/"}, {"a//", "a//"}};
  for (const auto &[value, want] : rows) {
    value != nullptr ? setenv("TMPDIR", value, 1) : unsetenv("TMPDIR");
    EXPECT_EQ(tmp(~0u), (result{kOk, want})) << (value ? value : "(unset)");
  }
  setenv("TMPDIR", "/var/tmp", 1);
  long k = 0;
  EXPECT_EQ(fault::alloc_sweep([&](fault::alloc_scope &scope) {
              const result got = tmp();
              // The core reports a property it could not copy as unset.
              EXPECT_EQ(got, (!scope.injected() ? result{kOk, "/var/tmp/"}
                              : ++k == 1        ? result{kOk, "/tmp/"}
                                                : result{VEXO_E_OUT_OF_MEMORY, ""}));
            }),
            2);
}
