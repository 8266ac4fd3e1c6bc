// The access test: type rules, permissions by class, the creation test on
// the parent directory, and its failure paths.
#include <gtest/gtest.h>

#include "fault.h"
#include "unix/unix_internal.h"

#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <string>
#include <unistd.h>

namespace {

constexpr uid_t kMe = static_cast<uid_t>(-1);  // chown's "leave as created"
constexpr uid_t kUid = 4343;
constexpr gid_t kGid = 4242;
constexpr vexo_t_bits kX = VEXO_ACCESS_OPTION_EXECUTE, kW = VEXO_ACCESS_OPTION_WRITE,
                      kR = VEXO_ACCESS_OPTION_READ, kCreate = VEXO_ACCESS_OPTION_CREATE,
                      kS = VEXO_ACCESS_OPTION_SEARCH, kDir = VEXO_ACCESS_OPTION_DIRECTORY,
                      kReg = VEXO_ACCESS_OPTION_REGULAR;
constexpr auto kOk = VEXO_S_NOERR, kDenied = VEXO_E_FILE_ACCESS, kNotFound = VEXO_E_FILE_NOT_FOUND,
               kIsDir = VEXO_E_FILE_IS_DIRECTORY, kNotDir = VEXO_E_FILE_NOT_DIRECTORY;

// The call as the caller sees it, also checking that its string survived.
vexo_t_error_code test_access(const std::string &path, vexo_t_bits options) {
  std::string mine(path.c_str(), path.size() + 1);
  vexo_t_error_code rc = vexo_unix_test_file_access(mine.data(), options);
  EXPECT_EQ(mine, std::string(path.c_str(), path.size() + 1)) << "caller's string changed";
  return rc;
}

class Access : public fault::Test {
 protected:
  void SetUp() override {
    fault::Test::SetUp();
    if (geteuid() != 0)
      GTEST_SKIP() << "needs root to chown to other ids";
    char tmpl[] = "/tmp/vexo-access-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    const gid_t eg = getegid();
    // Root owns what it makes (owner class), is in `eg` (group class) and in
    // neither kUid nor kGid (other class).
    make("f", 'f', 0644);
    make("x", 'f', 0100);
    make("ro", 'f', 0444);
    make("own77", 'f', 0077);
    make("zero", 'f', 0000, kUid, kGid);
    make("as-other-0600", 'f', 0600, kUid, kGid);
    make("as-other-0004", 'f', 0004, kUid, kGid);
    make("as-group-0040", 'f', 0040, kUid, eg);
    make("as-group-0400", 'f', 0400, kUid, eg);
    make("fifo", 'p', 0666);
    make("d", 'd', 0700);
    make("d0", 'd', 0000, kUid, kGid);
    make("w", 'd', 0200);
    make("rx", 'd', 0500);
    make("rw", 'd', 0600);
    make("gw", 'd', 0020, kUid, eg);
    make("ow", 'd', 0002, kUid, kGid);
    make("og", 'd', 0770, kUid, kGid);
  }
  void TearDown() override {
    if (!dir_.empty())
      nftw(
          dir_.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); }, 16,
          FTW_DEPTH | FTW_PHYS);
    fault::Test::TearDown();
  }
  void make(const char *name, char kind, mode_t mode, uid_t uid = kMe, gid_t gid = kMe) {
    std::string p = at(name);
    int rc = kind == 'd'   ? mkdir(p.c_str(), 0700)
             : kind == 'p' ? mkfifo(p.c_str(), 0600)
                           : close(open(p.c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_EQ(rc, 0) << name;
    ASSERT_EQ(chown(p.c_str(), uid, gid), 0);
    ASSERT_EQ(chmod(p.c_str(), mode), 0);
  }
  std::string at(const char *name) const { return dir_ + "/" + name; }
  std::string dir_;
};

struct row {
  const char *path;  // inside the scratch directory
  vexo_t_bits options;
  vexo_t_error_code want;
  int stats;  // stat calls: 2 when the parent was examined
};

// clang-format off
const row kRows[] = {
    // options 0 and the type rules
    {"f", 0, kOk, 1},
    {"fifo", 0, kOk, 1},
    {"d", 0, kIsDir, 1},
    {"none", 0, kNotFound, 1},
    {"f/x", 0, kNotDir, 1},
    {"d0", kDir, kOk, 1},
    {"d0", kDir | kX, kOk, 1},
    {"d0", kDir | kS, kDenied, 1},
    {"zero", kS, kOk, 1},
    {"zero", kX, kDenied, 1},
    {"d", kDir | kReg, kDenied, 1},
    {"f", kDir | kReg, kNotDir, 1},
    {"fifo", kReg, kDenied, 1},
    {"none", kReg, kNotFound, 1},
    {"f/x", kReg, kNotFound, 1},
    {"none", kReg | kCreate, kNotFound, 1},
    // permissions by class
    {"f", kR | kW, kOk, 1},
    {"f", kX, kDenied, 1},
    {"x", kX, kOk, 1},
    {"x", kR, kDenied, 1},
    {"own77", kR, kDenied, 1},
    {"as-other-0600", kR, kDenied, 1},
    {"as-other-0004", kR, kOk, 1},
    {"as-other-0004", kW, kDenied, 1},
    {"as-group-0040", kR, kOk, 1},
    {"as-group-0400", kR, kDenied, 1},
    // creation on an existing path means writing it
    {"f", kCreate, kOk, 1},
    {"ro", kCreate, kDenied, 1},
    {"d", kCreate, kIsDir, 1},
    {"rx", kCreate | kDir, kDenied, 1},
    {"w", kCreate | kDir, kOk, 1},
    // creation of a missing path is judged by its parent
    {"w/new", kCreate, kOk, 2},
    {"w/new", kCreate | kS | kX | kDir, kOk, 2},
    {"w/new/", kCreate, kOk, 2},
    {"w/new//", kCreate, kNotFound, 2},
    {"rx/new", kCreate, kDenied, 2},
    {"w/new", kCreate | kR, kDenied, 2},
    {"rw/new", kCreate | kR, kOk, 2},
    {"gw/new", kCreate, kOk, 2},
    {"ow/new", kCreate, kOk, 2},
    {"og/new", kCreate, kDenied, 2},
    {"none/new", kCreate, kNotFound, 2},
    {"f/new", kCreate, kNotDir, 1},
};
// clang-format on

TEST_F(Access, Rules) {
  for (const row &r : kRows) {
    fault::reset();
    EXPECT_EQ(test_access(at(r.path), r.options), r.want) << r.path << " options " << r.options;
    EXPECT_EQ(fault::calls(fault::call::stat), r.stats) << r.path << " options " << r.options;
  }
  // Without a permission to check, a non-owner's class is never asked for.
  fault::reset();
  EXPECT_EQ(test_access(at("d0"), kDir | kX), kOk);
  EXPECT_EQ(test_access(at("zero"), kS), kOk);
  EXPECT_EQ(fault::calls(fault::call::getgroups), 0);
}

TEST_F(Access, CreationNeedsAnAbsoluteParent) {
  // The root exists; pretend it does not to reach the creation test.
  fault::fail(fault::call::stat, ENOENT);
  EXPECT_EQ(test_access("/", kCreate), kNotFound);
  EXPECT_EQ(fault::calls(fault::call::stat), 1);
  for (const char *relative : {"vexo-no-such-name", "vexo-no-such-dir/new", "./vexo-no-such-name"}) {
    fault::reset();
    EXPECT_EQ(test_access(relative, kCreate), kNotFound) << relative;
    EXPECT_EQ(fault::calls(fault::call::stat), 1);
  }
  // The parent of /x is the root itself.
  struct stat root {};
  ASSERT_EQ(stat("/", &root), 0);
  if (root.st_uid == geteuid()) {
    EXPECT_EQ(test_access("/vexo-no-such-name-" + std::to_string(getpid()), kCreate),
              (root.st_mode & S_IWUSR) != 0 ? kOk : kDenied);
  }
}

TEST_F(Access, ParentThatIsNoDirectory) {
  // The parent keeps its slash, so the system itself refuses a non-directory.
  fault::fail(fault::call::stat, ENOENT);
  EXPECT_EQ(test_access(at("f/new"), kCreate), vexo_map_unix_error(ENOTDIR, kNotFound));
  EXPECT_EQ(fault::calls(fault::call::stat), 2);
}

TEST_F(Access, InterruptedStatsAreRepeated) {
  fault::fail(fault::call::stat, EINTR, 3);
  EXPECT_EQ(test_access(at("w/new"), kCreate), kOk);
  EXPECT_EQ(fault::calls(fault::call::stat), 5);
}

TEST_F(Access, ClassFailures) {
  fault::fail(fault::call::getgroups, ESTALE);
  EXPECT_EQ(test_access(at("zero"), kR), VEXO_E_OS_ERROR);
  for (const char *path : {"zero", "og/new"}) {
    long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
      vexo_t_error_code rc = test_access(at(path), kCreate | kR);
      EXPECT_EQ(rc, scope.injected() ? VEXO_E_OUT_OF_MEMORY : kDenied) << path;
    });
    EXPECT_EQ(made, 2) << path;  // the private name and the group list
  }
}

}  // namespace
