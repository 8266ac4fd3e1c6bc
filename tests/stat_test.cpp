// File status: permission and caller bits, the record's fields, and the
// failure paths (interrupted and failing stat, getgroups, allocation).
#include <gtest/gtest.h>

#include "fault.h"
#include "unix/unix_internal.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <functional>
#include <grp.h>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uid_t kMe = static_cast<uid_t>(-1);  // chown's "leave as created"
constexpr uid_t kUid = 4343;
constexpr gid_t kGid = 4242;
constexpr vexo_t_bits kR = VEXO_STAT_MODE_CALLER_READ, kW = VEXO_STAT_MODE_CALLER_WRITE,
                      kX = VEXO_STAT_MODE_CALLER_EXECUTE, kS = VEXO_STAT_MODE_CALLER_SEARCH;
constexpr vexo_t_bits kMode = VEXO_STAT_OPTION_MODE, kAccess = VEXO_STAT_OPTION_ACCESS;
constexpr vexo_t_bits kAll = 0x3f0eu;

#define NEEDS_ROOT()  \
  if (geteuid() != 0) \
  GTEST_SKIP() << "needs root to chown and change ids"

// A record whose every byte shows whether the call wrote it.
struct record {
  vexo_t_stat st;
  record() { std::memset(&st, 0xA5, sizeof st); }
  bool untouched() const {
    record fresh;
    return std::memcmp(&st, &fresh.st, sizeof st) == 0;
  }
};

class Stat : public fault::Test {
 protected:
  void SetUp() override {
    fault::Test::SetUp();
    char tmpl[] = "/tmp/vexo-stat-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    ASSERT_EQ(chmod(tmpl, 0755), 0);  // children with other ids look inside
  }
  void TearDown() override {
    nftw(
        dir_.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
    fault::Test::TearDown();
  }
  // chown before chmod: chown clears the set-id bits.
  std::string make(const char *name, bool dir, mode_t mode, uid_t uid = kMe, gid_t gid = kMe) {
    std::string p = dir_ + "/" + name;
    if (dir)
      EXPECT_EQ(mkdir(p.c_str(), 0700), 0);
    else
      EXPECT_EQ(close(open(p.c_str(), O_CREAT | O_WRONLY, 0600)), 0);
    EXPECT_EQ(chown(p.c_str(), uid, gid), 0);
    EXPECT_EQ(chmod(p.c_str(), mode), 0);
    return p;
  }
  std::string dir_;
};

long mode_of(const std::string &p, vexo_t_bits options) {
  record r;
  vexo_t_error_code rc = vexo_stat_unix(p.c_str(), &r.st, options);
  return rc < 0 ? static_cast<long>(rc) : static_cast<long>(r.st.mode);
}

// `fn` in a child with the given effective ids and supplementary groups;
// its answer comes back through a pipe. A hung child is killed.
std::optional<long> as_ids(uid_t euid, gid_t egid, const std::vector<gid_t> &groups,
                           const std::function<long()> &fn) {
  int fds[2];
  if (pipe(fds) != 0)
    return std::nullopt;
  const pid_t pid = fork();
  if (pid == 0) {
    long v = LONG_MIN;
    if (setgroups(groups.size(), groups.data()) == 0 && setegid(egid) == 0 && seteuid(euid) == 0)
      v = fn();
    _exit(write(fds[1], &v, sizeof v) == sizeof v ? 0 : 1);
  }
  close(fds[1]);
  std::optional<long> answer;
  long v = 0;
  pollfd p{fds[0], POLLIN, 0};
  if (pid > 0 && poll(&p, 1, 10000) == 1 && read(fds[0], &v, sizeof v) == sizeof v)
    answer = v;
  close(fds[0]);
  int status = 0;
  for (int i = 0; pid > 0 && waitpid(pid, &status, WNOHANG) == 0; ++i) {
    if (i == 300) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    usleep(10000);
  }
  return answer;
}

// ---- mode and caller bits ---------------------------------------------------

struct mode_row {
  const char *what;
  bool dir;
  mode_t mode;
  uid_t uid;
  gid_t gid;
  vexo_t_bits options;
  vexo_t_bits want;
};

TEST_F(Stat, PermissionAndCallerBits) {
  NEEDS_ROOT();
  const gid_t eg = getegid();
  const mode_row rows[] = {
      {"dir 0755", true, 0755, kMe, kMe, kMode, 0x99b},
      {"file 0755", false, 0755, kMe, kMe, kMode, 0x557},
      {"file 0644", false, 0644, kMe, kMe, kMode, 0x113},
      {"set-uid file", false, 04755, kMe, kMe, kMode, 0x557},
      {"every special bit, file", false, 07777, kMe, kMe, kMode, 0x777},
      {"every special bit, dir", true, 07777, kMe, kMe, kMode, 0xbbb},
      {"both halves", true, 0755, kMe, kMe, kMode | kAccess, 0x99b | kR | kW | kS},
      {"owner file 0700", false, 0700, kMe, kMe, kAccess, kR | kW | kX},
      {"owner dir 0500", true, 0500, kMe, kMe, kAccess, kR | kS},
      {"owner by owner bits alone", false, 0077, kMe, kMe, kAccess, 0},
      {"group", false, 0470, kUid, eg, kAccess, kR | kW | kX},
      {"group by group bits alone", false, 0707, kUid, eg, kAccess, 0},
      {"root as other, 0600", false, 0600, kUid, kGid, kAccess, 0},
      {"root as other, 0675", false, 0675, kUid, kGid, kAccess, kR | kX},
      {"other dir", true, 0001, kUid, kGid, kAccess, kS},
  };
  int i = 0;
  for (const mode_row &r : rows) {
    std::string p = make(std::to_string(i++).c_str(), r.dir, r.mode, r.uid, r.gid);
    EXPECT_EQ(mode_of(p, r.options), static_cast<long>(r.want)) << r.what;
  }
}

struct ids_row {
  const char *what;
  gid_t egid;
  std::vector<gid_t> groups;
  uid_t file_uid;
  gid_t file_gid;
  mode_t mode;
  long want;
};

TEST_F(Stat, CallerClassFromEffectiveIds) {
  NEEDS_ROOT();
  const ids_row rows[] = {
      {"egid not listed by getgroups", kGid, {}, 1111, kGid, 0070, kR | kW | kX},
      {"supplementary group", 6000, {5000, kGid}, 1111, kGid, 0040, kR},
      {"in no group", 6000, {5000}, 1111, kGid, 0047, kR | kW | kX},
      {"group bits alone", 6000, {kGid}, 1111, kGid, 0007, 0},
      {"non-root owner", 6000, {kGid}, kUid, kGid, 0477, kR},
  };
  int i = 0;
  for (const ids_row &r : rows) {
    std::string p = make(std::to_string(i++).c_str(), false, r.mode, r.file_uid, r.file_gid);
    const bool listed = !r.groups.empty();
    auto got = as_ids(kUid, r.egid, r.groups, [&]() -> long {
      if (!listed && getgroups(0, nullptr) != 0)
        return -2;
      return mode_of(p, kAccess);
    });
    EXPECT_EQ(got, r.want) << r.what;
  }
}

// ---- fields -------------------------------------------------------------------

TEST_F(Stat, NoOptionsZeroesFieldsAndKeepsCallersOwn) {
  std::string p = make("f", false, 0755);
  record r;
  r.st.flags = 0x1234;
  r.st.deiniters_count = 3;
  auto *const deiniters = r.st.deiniters;
  ASSERT_EQ(vexo_stat_unix(p.c_str(), &r.st, 0x1 | 0xf0 | 0x8000), VEXO_S_NOERR);
  EXPECT_EQ(r.st.flags, 0x1234u);
  EXPECT_EQ(r.st.deiniters_count, 3u);
  EXPECT_EQ(r.st.deiniters, deiniters);
  EXPECT_EQ(r.st.mode | r.st.type | r.st.size | r.st.owner | r.st.group, 0u);
  EXPECT_EQ(r.st.access_time | r.st.modify_time | r.st.create_time, 0);
}

TEST_F(Stat, NullInfoTestsExistenceAndType) {
  std::string f = make("f", false, 0), d = make("d", true, 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(f.c_str(), kUid, kGid), 0);  // a class would need the groups
  }
  EXPECT_EQ(vexo_stat_unix(f.c_str(), nullptr, kAll), VEXO_E_FILE_NOT_DIRECTORY);
  EXPECT_EQ(vexo_stat_unix(d.c_str(), nullptr, kAll), VEXO_E_FILE_IS_DIRECTORY);
  EXPECT_EQ(vexo_stat_unix(f.c_str(), nullptr, kAll & ~0x2u), VEXO_S_NOERR);
  EXPECT_EQ(vexo_stat_unix(d.c_str(), nullptr, kAll & ~0x4u), VEXO_S_NOERR);
  EXPECT_EQ(vexo_stat_unix((dir_ + "/none").c_str(), nullptr, 0), VEXO_E_FILE_NOT_FOUND);
  EXPECT_EQ(fault::calls(fault::call::getgroups), 0);

  record r;  // with a record, both requirements still fail and write nothing
  EXPECT_EQ(vexo_stat_unix(f.c_str(), &r.st, kAll), VEXO_E_FILE_NOT_DIRECTORY);
  EXPECT_EQ(vexo_stat_unix(d.c_str(), &r.st, kAll), VEXO_E_FILE_IS_DIRECTORY);
  EXPECT_TRUE(r.untouched());
}

TEST_F(Stat, TimesSizeOwnerGroup) {
  NEEDS_ROOT();
  std::string p = make("f", false, 0644, kUid, kGid);
  ASSERT_EQ(truncate(p.c_str(), 12345), 0);
  const timespec times[2] = {{2000, 999999999}, {1000, 900000000}};
  ASSERT_EQ(utimensat(AT_FDCWD, p.c_str(), times, 0), 0);
  struct stat sys {};
  ASSERT_EQ(stat(p.c_str(), &sys), 0);
  record r;
  ASSERT_EQ(vexo_stat_unix(p.c_str(), &r.st, kAll & ~0x6u), VEXO_S_NOERR);
  EXPECT_EQ(r.st.access_time, 2000);  // truncated, not rounded
  EXPECT_EQ(r.st.modify_time, 1000);
  EXPECT_EQ(r.st.create_time, sys.st_ctim.tv_sec);
  EXPECT_EQ(r.st.size, 12345u);
  EXPECT_EQ(r.st.owner, kUid);
  EXPECT_EQ(r.st.group, kGid);
  EXPECT_EQ(r.st.type, 0u);
}

TEST_F(Stat, CreateTimeIsStatusChangeTime) {
  std::string p = make("f", false, 0644);
  struct stat before {};
  ASSERT_EQ(stat(p.c_str(), &before), 0);
  // File times come from a coarse clock; wait past the next second for it.
  timespec now{};
  do {
    usleep(20000);
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
  } while (now.tv_sec <= before.st_ctim.tv_sec);
  ASSERT_EQ(chmod(p.c_str(), 0600), 0);
  record r;
  ASSERT_EQ(vexo_stat_unix(p.c_str(), &r.st, VEXO_STAT_OPTION_TIMES), VEXO_S_NOERR);
  EXPECT_GT(r.st.create_time, before.st_ctim.tv_sec);
  EXPECT_EQ(r.st.modify_time, before.st_mtim.tv_sec);
}

TEST_F(Stat, SymlinksAreFollowed) {
  NEEDS_ROOT();
  std::string d = make("d", true, 0751, kUid, kGid);
  std::string link = dir_ + "/link", dangling = dir_ + "/dangling";
  ASSERT_EQ(symlink(d.c_str(), link.c_str()), 0);
  ASSERT_EQ(symlink((dir_ + "/none").c_str(), dangling.c_str()), 0);
  record via_link, direct;
  ASSERT_EQ(vexo_stat_unix(link.c_str(), &via_link.st, kAll), VEXO_E_FILE_IS_DIRECTORY);
  ASSERT_EQ(vexo_stat_unix(link.c_str(), &via_link.st, kAll & ~0x4u), VEXO_S_NOERR);
  ASSERT_EQ(vexo_stat_unix(d.c_str(), &direct.st, kAll & ~0x4u), VEXO_S_NOERR);
  EXPECT_EQ(std::memcmp(&via_link.st, &direct.st, sizeof direct.st), 0);
  EXPECT_EQ(via_link.st.type, VEXO_STAT_TYPE_DIRECTORY);
  EXPECT_EQ(via_link.st.mode, 0x89bu | kS);
  EXPECT_EQ(via_link.st.owner, kUid);

  record r;
  EXPECT_EQ(vexo_stat_unix(dangling.c_str(), &r.st, kAll & ~0x6u), VEXO_E_FILE_NOT_FOUND);
  EXPECT_TRUE(r.untouched());
}

// ---- injected failures --------------------------------------------------------

TEST_F(Stat, InterruptedStatIsRepeated) {
  std::string p = make("f", false, 0644);
  fault::fail(fault::call::stat, EINTR, 7);
  EXPECT_EQ(mode_of(p, kMode), 0x113);
  EXPECT_EQ(fault::calls(fault::call::stat), 8);
}

TEST_F(Stat, StatFailureIsMappedAndWritesNothing) {
  std::string p = make("f", false, 0644);
  const std::pair<int, vexo_t_error_code> rows[] = {
      {EACCES, VEXO_E_FILE_ACCESS}, {ELOOP, VEXO_E_INVALID_NAME}, {ESTALE, VEXO_E_FILE_NOT_FOUND}};
  for (auto [err, want] : rows) {
    fault::reset();
    fault::fail(fault::call::stat, err);
    record r;
    EXPECT_EQ(vexo_stat_unix(p.c_str(), &r.st, kAll & ~0x6u), want) << err;
    EXPECT_TRUE(r.untouched());
    EXPECT_EQ(fault::calls(fault::call::stat), 1);
  }
}

// An allocator that arms a getgroups failure when asked for the group list,
// so that the second getgroups call, the one after it, fails.
int g_live = 0;
int g_second_errno = 0;
void *arming_malloc(size_t n) {
  fault::fail(fault::call::getgroups, g_second_errno);
  ++g_live;
  return std::malloc(n);
}
void *no_realloc(void *, size_t) {
  return nullptr;
}
void counting_free(void *p) {
  g_live -= p != nullptr;
  std::free(p);
}

TEST_F(Stat, GetgroupsFailureIsMappedAndLeaksNothing) {
  NEEDS_ROOT();
  std::string p = make("f", false, 0644, kUid, kGid);
  // A mapped errno, and one that leaves the fallback.
  const std::pair<int, vexo_t_error_code> rows[] = {{EINVAL, VEXO_E_PARAMETER_ERROR},
                                                    {ESTALE, VEXO_E_OS_ERROR}};
  for (auto [err, want] : rows) {
    {
      fault::reset();
      fault::alloc_scope scope;
      fault::fail(fault::call::getgroups, err);
      record r;
      EXPECT_EQ(vexo_stat_unix(p.c_str(), &r.st, kAll & ~0x6u), want) << "first call, " << err;
      EXPECT_TRUE(r.untouched());
      EXPECT_EQ(fault::calls(fault::call::getgroups), 1);
      EXPECT_EQ(scope.allocations(), 0);
    }
    fault::reset();
    g_second_errno = err;
    ASSERT_EQ(vexo_replace_allocator(arming_malloc, no_realloc, counting_free), VEXO_S_NOERR);
    record r;
    EXPECT_EQ(vexo_stat_unix(p.c_str(), &r.st, kAll & ~0x6u), want) << "second call, " << err;
    vexo_replace_allocator(nullptr, nullptr, nullptr);
    EXPECT_TRUE(r.untouched());
    EXPECT_EQ(fault::calls(fault::call::getgroups), 2);
    EXPECT_EQ(g_live, 0);
  }
}

TEST_F(Stat, AllocationSweepAsNonOwner) {
  NEEDS_ROOT();
  std::string p = make("f", false, 0644, kUid, kGid);
  long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
    record r;
    vexo_t_error_code rc = vexo_stat_unix(p.c_str(), &r.st, kMode | kAccess);
    if (scope.injected()) {
      EXPECT_EQ(rc, VEXO_E_OUT_OF_MEMORY);
      EXPECT_TRUE(r.untouched());
    } else {
      EXPECT_EQ(rc, VEXO_S_NOERR);
      EXPECT_EQ(r.st.mode, 0x113u | kR);
    }
  });
  EXPECT_EQ(made, 1);
}

}  // namespace
