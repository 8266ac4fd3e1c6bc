// The access test: type rules, permissions by class, creation judged by the parent.
#include "fault.h"
#include "scratch.h"
#include "unix/unix_internal.h"

#include <tuple>

using scratch::kGid, scratch::kMe, scratch::kUid;
constexpr vexo_t_bits kX = VEXO_ACCESS_OPTION_EXECUTE, kW = VEXO_ACCESS_OPTION_WRITE,
                      kR = VEXO_ACCESS_OPTION_READ, kCreate = VEXO_ACCESS_OPTION_CREATE,
                      kS = VEXO_ACCESS_OPTION_SEARCH, kDir = VEXO_ACCESS_OPTION_DIRECTORY,
                      kReg = VEXO_ACCESS_OPTION_REGULAR;
constexpr auto kOk = VEXO_S_NOERR, kDenied = VEXO_E_FILE_ACCESS, kNotFound = VEXO_E_FILE_NOT_FOUND,
               kIsDir = VEXO_E_FILE_IS_DIRECTORY, kNotDir = VEXO_E_FILE_NOT_DIRECTORY;

// The call as the caller sees it, also checking that its string survived.
vexo_t_error_code test_access(const std::string &path, vexo_t_bits options) {
  std::string mine(path.c_str(), path.size() + 1);
  const vexo_t_error_code rc = vexo_unix_test_file_access(mine.data(), options);
  EXPECT_EQ(mine, std::string(path.c_str(), path.size() + 1)) << "caller's string changed";
  return rc;
}

class Access : public fault::Test {
 protected:
  void SetUp() override {
    fault::Test::SetUp();
    NEEDS_ROOT();
    // Root owns what it makes (owner class), is in its egid (group class) and in neither kUid nor kGid (other
    // class).
    const gid_t eg = getegid();
    const std::tuple<const char *, char, mode_t, uid_t, gid_t> entries[] = {
        {"f", 'f', 0644, kMe, kMe},      {"x", 'f', 0100, kMe, kMe},    {"ro", 'f', 0444, kMe, kMe},
        {"own77", 'f', 0077, kMe, kMe},  {"zero", 'f', 0, kUid, kGid},  {"o600", 'f', 0600, kUid, kGid},
        {"o004", 'f', 0004, kUid, kGid}, {"g040", 'f', 0040, kUid, eg}, {"g400", 'f', 0400, kUid, eg},
        {"fifo", 'p', 0666, kMe, kMe},   {"d", 'd', 0700, kMe, kMe},    {"d0", 'd', 0, kUid, kGid},
        {"w", 'd', 0200, kMe, kMe},      {"rx", 'd', 0500, kMe, kMe},   {"rw", 'd', 0600, kMe, kMe},
        {"gw", 'd', 0020, kUid, eg},     {"og", 'd', 0770, kUid, kGid},
    };
    for (const auto &[name, kind, mode, uid, gid] : entries)
      dir_.make(name, kind, mode, uid, gid);
  }
  std::string at(const char *name) const { return dir_.at(name); }
  scratch::dir dir_;
};

TEST_F(Access, Rules) {
  // path in the scratch directory, options, result, stat calls (2 when the parent was examined)
  const std::tuple<const char *, vexo_t_bits, vexo_t_error_code, int> rows[] = {
      // clang-format off
      // options 0 and the type rules
      {"f", 0, kOk, 1}, {"fifo", 0, kOk, 1}, {"d", 0, kIsDir, 1}, {"none", 0, kNotFound, 1},
      {"f/x", 0, kNotDir, 1}, {"d0", kDir, kOk, 1}, {"d0", kDir | kX, kOk, 1}, {"d0", kDir | kS, kDenied, 1},
      {"zero", kS, kOk, 1}, {"zero", kX, kDenied, 1}, {"d", kDir | kReg, kDenied, 1},
      {"f", kDir | kReg, kNotDir, 1}, {"fifo", kReg, kDenied, 1}, {"f/x", kReg, kNotFound, 1},
      {"none", kReg | kCreate, kNotFound, 1},
      // permissions by class
      {"f", kR | kW, kOk, 1}, {"f", kX, kDenied, 1}, {"x", kX, kOk, 1}, {"own77", kR, kDenied, 1},
      {"o600", kR, kDenied, 1}, {"o004", kR, kOk, 1}, {"g040", kR, kOk, 1}, {"g400", kR, kDenied, 1},
      // creation on an existing path means writing it
      {"f", kCreate, kOk, 1}, {"ro", kCreate, kDenied, 1}, {"d", kCreate, kIsDir, 1},
      {"rx", kCreate | kDir, kDenied, 1},
      // creation of a missing path is judged by its parent
      {"w/new", kCreate, kOk, 2}, {"w/new", kCreate | kS | kX | kDir, kOk, 2}, {"w/new/", kCreate, kOk, 2},
      {"w/new//", kCreate, kNotFound, 2}, {"rx/new", kCreate, kDenied, 2}, {"w/new", kCreate | kR, kDenied, 2},
      {"rw/new", kCreate | kR, kOk, 2}, {"gw/new", kCreate, kOk, 2}, {"og/new", kCreate, kDenied, 2},
      {"none/new", kCreate, kNotFound, 2}, {"f/new", kCreate, kNotDir, 1},
      // clang-format on
  };
  for (const auto &[path, options, want, stats] : rows) {
    SCOPED_TRACE(testing::Message() << path << " options " << options);
    fault::reset();
    EXPECT_EQ(test_access(at(path), options), want);
    EXPECT_EQ(fault::calls(fault::call::stat), stats);
  }
  // Without a permission to check, a non-owner's class is never asked for.
  fault::reset();
  EXPECT_TRUE(test_access(at("d0"), kDir | kX) == kOk && test_access(at("zero"), kS) == kOk &&
              fault::calls(fault::call::getgroups) == 0);
}

TEST_F(Access, CreationTestEdgesAndClassFailures) {
  // path, stat failures injected (errno, times), result, stat calls
  const std::tuple<std::string, int, int, vexo_t_error_code, int> rows[] = {
      {"/", ENOENT, 1, kNotFound, 1},  // the root exists; pretend it does not to reach the creation test
      {"vexo-no-such-name", 0, 0, kNotFound, 1},
      {"vexo-no-such-dir/new", 0, 0, kNotFound, 1},
      {"./vexo-no-such-name", 0, 0, kNotFound, 1},
      // The parent keeps its slash, so the system itself refuses a non-directory.
      {at("f/new"), ENOENT, 1, vexo_map_unix_error(ENOTDIR, kNotFound), 2},
      {at("w/new"), EINTR, 3, kOk, 5}};
  for (const auto &[path, err, times, want, stats] : rows) {
    fault::reset();
    fault::fail(fault::call::stat, err, times);
    EXPECT_EQ(test_access(path, kCreate), want) << path;
    EXPECT_EQ(fault::calls(fault::call::stat), stats) << path;
  }
  struct stat root {};
  ASSERT_EQ(stat("/", &root), 0);
  EXPECT_TRUE(root.st_uid != geteuid() ||  // the parent of /x is the root itself
              test_access("/vexo-no-such-name-" + std::to_string(getpid()), kCreate) ==
                  ((root.st_mode & S_IWUSR) != 0 ? kOk : kDenied));
  fault::reset();
  fault::fail(fault::call::getgroups, ESTALE);
  EXPECT_EQ(test_access(at("zero"), kR), VEXO_E_OS_ERROR);
  for (const char *path : {"zero", "og/new"}) {
    const auto op = [&] { return fault::result{test_access(at(path), kCreate | kR), ""}; };
    EXPECT_EQ(fault::oom_sweep(op, {kDenied, ""}), 2) << path << ": the private name and the group list";
  }
}
