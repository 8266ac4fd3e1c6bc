// Delete, rename, create directory, the working directory and the temporary
// directory, on a scratch directory and with injected failures.
#include <gtest/gtest.h>

#include "fault.h"
#include "unix/unix_internal.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <fstream>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

char g_untouched_byte;
char *const kUntouched = &g_untouched_byte;
constexpr auto kOk = VEXO_S_NOERR;
constexpr auto kLatin1Status = static_cast<vexo_t_error_code>(1);
constexpr vexo_t_bits kDir = VEXO_DELETE_OPTION_DIRECTORY;
constexpr vexo_t_bits kNotImpl = VEXO_DELETE_OPTION_NOT_IMPLEMENTED;
constexpr vexo_t_bits kLatin1 = VEXO_WORKING_DIRECTORY_OPTION_LATIN1_FALLBACK;

// What a string-returning operation gave: its code and, on success, the text.
struct outcome {
  vexo_t_error_code rc;
  std::string text;
  bool operator==(const outcome &) const = default;
};
void PrintTo(const outcome &o, std::ostream *os) {
  *os << "{" << o.rc << ", " << ::testing::PrintToString(o.text) << "}";
}

// Checks that a failure wrote nothing and frees what a success handed over.
outcome take(vexo_t_error_code (*op)(char **, vexo_t_bits), vexo_t_bits options) {
  char *out = kUntouched;
  const vexo_t_error_code rc = op(&out, options);
  if (rc < 0) {
    EXPECT_EQ(out, kUntouched) << "written on failure";
    return {rc, ""};
  }
  outcome o{rc, out};
  vexo_free(out);
  return o;
}

outcome cwd(vexo_t_bits options = 0) {
  return take(vexo_get_working_directory_unix, options);
}

class Paths : public fault::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vexo-paths-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = fs::canonical(tmpl).string();  // getcwd reports the resolved path
    home_ = fs::current_path().string();
    if (const char *t = std::getenv("TMPDIR"))
      tmpdir_ = t;
    fault::reset();
  }
  void TearDown() override {
    fault::reset();
    EXPECT_EQ(::chdir(home_.c_str()), 0);
    if (tmpdir_)
      setenv("TMPDIR", tmpdir_->c_str(), 1);
    else
      unsetenv("TMPDIR");
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  std::string at(const std::string &name) const { return dir_ + "/" + name; }
  std::string file(const std::string &name) const {
    std::ofstream(at(name)) << name;
    return at(name);
  }
  std::string dir(const std::string &name) const {
    fs::create_directory(at(name));
    return at(name);
  }
  // A directory whose absolute path is exactly `length` bytes long.
  std::string dir_of_length(size_t length) const {
    std::string p = dir_;
    while (p.size() < length) {
      const size_t room = length - p.size() - 1;
      p += "/" + std::string(room > 200 ? 100 : room, 'd');
      fs::create_directory(p);
    }
    EXPECT_EQ(p.size(), length);
    return p;
  }

  std::string dir_;
  std::string home_;
  std::optional<std::string> tmpdir_;
};

TEST_F(Paths, DeleteFilesAndDirectories) {
  const std::string f = file("f");
  EXPECT_EQ(vexo_unix_delete_file(f.c_str(), 0), kOk);
  EXPECT_FALSE(fs::exists(f));
  EXPECT_EQ(vexo_unix_delete_file(f.c_str(), 0), VEXO_E_FILE_NOT_FOUND);
  EXPECT_EQ(vexo_unix_delete_file(f.c_str(), kDir), vexo_map_unix_error(ENOENT, VEXO_E_FILE_ACCESS));

  const std::string g = file("g");
  EXPECT_EQ(vexo_unix_delete_file(g.c_str(), kNotImpl), kOk) << "0x4 alone is a plain delete";
  EXPECT_FALSE(fs::exists(g));

  const std::string d = dir("d");
  fault::reset();
  EXPECT_EQ(vexo_unix_delete_file(d.c_str(), kDir | kNotImpl), VEXO_E_NOT_IMPLEMENTED);
  EXPECT_EQ(vexo_unix_delete_file(at("missing").c_str(), kDir | kNotImpl), VEXO_E_NOT_IMPLEMENTED);
  EXPECT_EQ(fault::calls(fault::call::rmdir), 0);
  EXPECT_EQ(vexo_unix_delete_file(d.c_str(), 0), VEXO_E_FILE_IS_DIRECTORY);
  EXPECT_TRUE(fs::is_directory(d));
  EXPECT_EQ(vexo_unix_delete_file(d.c_str(), kDir | 0x2 | 0x8), kOk);
  EXPECT_FALSE(fs::exists(d));

  const std::string full = dir("full");
  file("full/x");
  EXPECT_EQ(vexo_unix_delete_file(full.c_str(), kDir), VEXO_E_DIR_NOT_EMPTY);
  EXPECT_EQ(vexo_unix_delete_file(file("h").c_str(), kDir), VEXO_E_FILE_NOT_DIRECTORY);
  EXPECT_TRUE(fs::exists(at("h")));
}

TEST_F(Paths, InterceptedErrnosThenTheMappingWithEachOperationsFallback) {
  const std::string p = file("p");
  const auto rm = [&] { return vexo_unix_delete_file(p.c_str(), kDir); };
  const auto un = [&] { return vexo_unix_delete_file(p.c_str(), 0); };
  const auto mv = [&] { return vexo_unix_rename_file(p.c_str(), at("q").c_str(), 0); };
  const auto md = [&] { return vexo_unix_create_directory(at("new").c_str(), 0); };
  const auto cd = [&] { return vexo_set_working_directory_unix(dir_.c_str(), 0); };
  const auto wd = [&] { return cwd().rc; };
  using fault::call;
  // EBADMSG is not in the core's table, so it shows the fallback.
  const struct {
    call c;
    std::function<vexo_t_error_code()> op;
    int err;
    vexo_t_error_code want;
  } rows[] = {
      // clang-format off
      {call::rmdir, rm, EEXIST, VEXO_E_DIR_NOT_EMPTY}, {call::rmdir, rm, ENOTEMPTY, VEXO_E_DIR_NOT_EMPTY},
      {call::rmdir, rm, ENOTDIR, VEXO_E_FILE_NOT_DIRECTORY}, {call::rmdir, rm, EPERM, VEXO_E_PERMISSION_ERROR},
      {call::rmdir, rm, EBADMSG, VEXO_E_FILE_ACCESS}, {call::unlink, un, EISDIR, VEXO_E_FILE_IS_DIRECTORY},
      {call::unlink, un, EPERM, VEXO_E_PERMISSION_ERROR}, {call::unlink, un, ENOENT, VEXO_E_FILE_NOT_FOUND},
      {call::unlink, un, EBADMSG, VEXO_E_FILE_ACCESS}, {call::rename, mv, EEXIST, VEXO_E_FILE_EXISTS},
      {call::rename, mv, EBADMSG, VEXO_E_FILE_ACCESS}, {call::mkdir, md, EBADMSG, VEXO_E_OS_ERROR},
      {call::chdir, cd, EBADMSG, VEXO_E_OS_ERROR}, {call::chdir, cd, EINTR, VEXO_E_INTERRUPTED},
      {call::getcwd, wd, EBADMSG, VEXO_E_OS_ERROR}, {call::getcwd, wd, EINTR, VEXO_E_INTERRUPTED},
      // clang-format on
  };
  for (const auto &r : rows) {
    fault::reset();
    fault::fail(r.c, r.err);
    fault::alloc_scope scope;
    EXPECT_EQ(r.op(), r.want) << "call " << static_cast<int>(r.c) << " errno " << r.err;
    EXPECT_EQ(fault::calls(r.c), 1) << "call " << static_cast<int>(r.c) << " errno " << r.err;
    EXPECT_EQ(scope.live(), 0);
  }
  EXPECT_TRUE(fs::exists(p));
  EXPECT_EQ(fs::current_path(), home_);

  EXPECT_EQ(vexo_unix_rename_file("x", nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_set_working_directory_unix(nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_get_working_directory_unix(nullptr, 0), VEXO_E_PARAMETER_ERROR);
  EXPECT_EQ(vexo_unix_temp_directory(nullptr, 0), VEXO_E_PARAMETER_ERROR);
}

TEST_F(Paths, InterruptedDeleteRenameAndMkdirAreRepeatedUntilDone) {
  constexpr int n = 5;
  const std::string f = file("f");
  const struct {
    fault::call c;
    std::function<vexo_t_error_code()> op;
  } steps[] = {
      {fault::call::mkdir, [&] { return vexo_unix_create_directory(at("d").c_str(), 0); }},
      {fault::call::rename, [&] { return vexo_unix_rename_file(at("d").c_str(), at("e").c_str(), 0); }},
      {fault::call::rmdir, [&] { return vexo_unix_delete_file(at("e").c_str(), kDir); }},
      {fault::call::unlink, [&] { return vexo_unix_delete_file(f.c_str(), 0); }}};
  for (const auto &s : steps) {
    fault::fail(s.c, EINTR, n);
    EXPECT_EQ(s.op(), kOk);
    EXPECT_EQ(fault::calls(s.c), n + 1);
  }
  EXPECT_TRUE(fs::is_empty(dir_)) << "every step took effect";
}

TEST_F(Paths, RenameCreateDirectoryAndSetWorkingDirectory) {
  const std::string a = file("a");
  file("b");
  EXPECT_EQ(vexo_unix_rename_file(a.c_str(), at("b").c_str(), ~0u), kOk) << "replaces, as rename does";
  EXPECT_FALSE(fs::exists(a));
  EXPECT_EQ(std::ifstream(at("b")).get(), 'a');
  EXPECT_EQ(vexo_unix_rename_file(a.c_str(), at("c").c_str(), 0), VEXO_E_FILE_NOT_FOUND);

  const mode_t saved = umask(022);
  EXPECT_EQ(vexo_unix_create_directory(at("m755").c_str(), ~0u), kOk);
  umask(0);
  EXPECT_EQ(vexo_unix_create_directory(at("m777").c_str(), 0), kOk);
  umask(saved);
  EXPECT_EQ(fs::status(at("m755")).permissions(), static_cast<fs::perms>(0755));
  EXPECT_EQ(fs::status(at("m777")).permissions(), static_cast<fs::perms>(0777));
  EXPECT_EQ(vexo_unix_create_directory(at("m777").c_str(), 0), vexo_map_unix_error(EEXIST, VEXO_E_OS_ERROR));
  EXPECT_EQ(vexo_unix_create_directory(at("no/parent").c_str(), 0), VEXO_E_FILE_NOT_FOUND);

  EXPECT_EQ(vexo_set_working_directory_unix(dir("w").c_str(), ~0u), kOk);
  EXPECT_EQ(fs::current_path(), at("w"));
  EXPECT_EQ(vexo_set_working_directory_unix("..", 0), kOk);
  EXPECT_EQ(fs::current_path(), dir_);
  EXPECT_EQ(vexo_set_working_directory_unix(at("missing").c_str(), 0), VEXO_E_FILE_NOT_FOUND);
  EXPECT_EQ(vexo_set_working_directory_unix(file("f").c_str(), 0), VEXO_E_FILE_NOT_DIRECTORY);
  EXPECT_EQ(fs::current_path(), dir_);
}

TEST_F(Paths, WorkingDirectoryBufferStartsAt257BytesAndDoubles) {
  const struct {
    size_t length;
    std::vector<size_t> sizes;
  } rows[] = {{256, {257}}, {257, {257, 513}}, {300, {257, 513}}};
  for (const auto &r : rows) {
    const std::string p = dir_of_length(r.length);
    ASSERT_EQ(::chdir(p.c_str()), 0);
    fault::reset();
    EXPECT_EQ(cwd(), (outcome{kOk, p}));
    EXPECT_EQ(fault::getcwd_sizes(), r.sizes) << r.length;
  }

  std::vector<size_t> nine;
  for (size_t n = 256; n <= 65536; n *= 2)
    nine.push_back(n + 1);
  fault::reset();
  fault::fail(fault::call::getcwd, ERANGE, 8);
  EXPECT_EQ(cwd().rc, kOk) << "the ninth attempt is still made";
  EXPECT_EQ(fault::getcwd_sizes(), nine);

  fault::reset();
  fault::fail(fault::call::getcwd, ERANGE, 9);
  fault::alloc_scope scope;
  EXPECT_EQ(cwd().rc, vexo_map_unix_error(ERANGE, VEXO_E_OS_ERROR));
  EXPECT_EQ(fault::getcwd_sizes(), nine);
  EXPECT_EQ(scope.allocations(), 9) << "a fresh buffer per attempt";
  EXPECT_EQ(scope.live(), 0);
}

TEST_F(Paths, WorkingDirectoryIsConvertedAsAFileName) {
  ASSERT_EQ(::chdir(dir("caf\xE9").c_str()), 0);
  EXPECT_EQ(cwd(), (outcome{VEXO_E_ENCODING_INVALID, ""}));
  EXPECT_EQ(cwd(kLatin1), (outcome{kLatin1Status, dir_ + "/caf\xC3\xA9"}));

  // Only the Latin-1 bit is passed on: no-copy and no-NFC bits of the
  // caller's word do not reach the conversion.
  ASSERT_EQ(::chdir(dir("e\xCC\x81").c_str()), 0);
  EXPECT_EQ(cwd(VEXO_FILE_NAME_OPTION_NO_COPY | VEXO_FILE_NAME_OPTION_NO_NFC),
            (outcome{kOk, dir_ + "/\xC3\xA9"}));
}

TEST_F(Paths, TempDirectoryEndsInOneSlashAndIsOtherwiseUnchanged) {
  const struct {
    const char *value;
    const char *want;
  } rows[] = {{nullptr, "/tmp/"}, {"", "/tmp/"}, {"/var/tmp/", "/var/tmp/"},      {"/", "/"},
              {"tmp", "tmp/"},    {"/x", "/x/"}, {"/no\xE9utf8", "/no\xE9utf8/"}, {"a//", "a//"}};
  for (const auto &r : rows) {
    if (r.value != nullptr)
      setenv("TMPDIR", r.value, 1);
    else
      unsetenv("TMPDIR");
    EXPECT_EQ(take(vexo_unix_temp_directory, ~0u), (outcome{kOk, r.want}))
        << (r.value != nullptr ? r.value : "(unset)");
  }
}

TEST_F(Paths, AllocationSweeps) {
  // Names go to the system as the caller's own strings: nothing to allocate.
  const std::string f = file("f");
  const long none = fault::alloc_sweep([&](fault::alloc_scope &) {
    EXPECT_EQ(vexo_unix_create_directory(at("d").c_str(), 0), kOk);
    EXPECT_EQ(vexo_unix_rename_file(at("d").c_str(), at("e").c_str(), 0), kOk);
    EXPECT_EQ(vexo_set_working_directory_unix(at("e").c_str(), 0), kOk);
    EXPECT_EQ(vexo_unix_delete_file(at("e").c_str(), kDir), kOk);
    EXPECT_EQ(vexo_unix_delete_file(f.c_str(), 0), kOk);
  });
  EXPECT_EQ(none, 0);

  for (const char *name : {"ascii", "caf\xE9"}) {
    ASSERT_EQ(::chdir(dir(name).c_str()), 0);
    const outcome want = cwd(kLatin1);
    ASSERT_GE(want.rc, kOk);
    const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
      const outcome got = cwd(kLatin1);
      EXPECT_EQ(got, (scope.injected() ? outcome{VEXO_E_OUT_OF_MEMORY, ""} : want)) << name;
    });
    EXPECT_EQ(made, 2) << "the buffer and the converted name";
  }

  setenv("TMPDIR", "/var/tmp", 1);
  long k = 0;
  const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
    ++k;
    const outcome got = take(vexo_unix_temp_directory, 0);
    // The core reports a property it could not copy as unset.
    const outcome want = !scope.injected() ? outcome{kOk, "/var/tmp/"}
                         : k == 1          ? outcome{kOk, "/tmp/"}
                                           : outcome{VEXO_E_OUT_OF_MEMORY, ""};
    EXPECT_EQ(got, want);
  });
  EXPECT_EQ(made, 2);
}

}  // namespace
