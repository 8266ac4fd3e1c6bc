// File status: permission and caller bits, the record's fields, the failure paths.
#include "fault.h"
#include "scratch.h"
#include "unix/unix_internal.h"

#include <cstring>
#include <tuple>

using scratch::kGid, scratch::kMe, scratch::kUid;
constexpr vexo_t_bits kR = VEXO_STAT_MODE_CALLER_READ, kW = VEXO_STAT_MODE_CALLER_WRITE,
                      kX = VEXO_STAT_MODE_CALLER_EXECUTE, kS = VEXO_STAT_MODE_CALLER_SEARCH;
constexpr vexo_t_bits kMode = VEXO_STAT_OPTION_MODE, kAccess = VEXO_STAT_OPTION_ACCESS;
constexpr vexo_t_bits kAll = 0x3f0eu, kNoRequire = kAll & ~0x6u;

// A record whose every byte shows whether the call wrote it.
const vexo_t_stat kFresh = [] {
  vexo_t_stat st;
  return std::memset(&st, 0xA5, sizeof st), st;
}();

// The mode bits, or the failure's code; a failure must leave the record untouched.
long mode_of(const std::string &p, vexo_t_bits options) {
  vexo_t_stat st = kFresh;
  const vexo_t_error_code rc = vexo_stat_unix(p.c_str(), &st, options);
  EXPECT_TRUE(rc >= 0 || std::memcmp(&st, &kFresh, sizeof st) == 0) << "a failure wrote the record";
  return rc < 0 ? static_cast<long>(rc) : static_cast<long>(st.mode);
}

class Stat : public fault::Test {
 protected:
  scratch::dir dir_;
};

TEST_F(Stat, PermissionAndCallerBitsByEffectiveIds) {
  NEEDS_ROOT();
  const gid_t eg = getegid();
  const std::tuple<char, mode_t, uid_t, gid_t, vexo_t_bits, vexo_t_bits> rows[] = {
      // clang-format off
      {'d', 0755, kMe, kMe, kMode, 0x99b}, {'f', 0755, kMe, kMe, kMode, 0x557},
      {'f', 0644, kMe, kMe, kMode, 0x113}, {'f', 04755, kMe, kMe, kMode, 0x557},
      {'f', 07777, kMe, kMe, kMode, 0x777}, {'d', 07777, kMe, kMe, kMode, 0xbbb},
      {'d', 0755, kMe, kMe, kMode | kAccess, 0x99b | kR | kW | kS},
      {'f', 0700, kMe, kMe, kAccess, kR | kW | kX}, {'d', 0001, kUid, kGid, kAccess, kS},
      {'f', 0077, kMe, kMe, kAccess, 0},  // the owner is judged by the owner bits alone
      {'f', 0470, kUid, eg, kAccess, kR | kW | kX}, {'f', 0707, kUid, eg, kAccess, 0},
      {'f', 0600, kUid, kGid, kAccess, 0},  // the superuser gets no exception
      {'f', 0675, kUid, kGid, kAccess, kR | kX},
      // clang-format on
  };
  int i = 0;
  for (const auto &[kind, mode, uid, gid, options, want] : rows) {
    const std::string p = dir_.make(std::to_string(++i), kind, mode, uid, gid);
    EXPECT_EQ(mode_of(p, options), static_cast<long>(want)) << "row " << i;
  }
  // With other effective ids (uid kUid and the gids given): the class follows them, not the real ones.
  const std::tuple<gid_t, std::vector<gid_t>, uid_t, mode_t, long> as_others[] = {
      {kGid, {}, 1111, 0070, kR | kW | kX},  // the egid counts though getgroups omits it
      {6000, {5000, kGid}, 1111, 0040, kR},
      {6000, {5000}, 1111, 0047, kR | kW | kX},
      {6000, {kGid}, kUid, 0477, kR},
  };
  for (const auto &[egid, groups, file_uid, mode, want] : as_others) {
    const std::string p = dir_.make(std::to_string(++i), 'f', mode, file_uid, kGid);
    EXPECT_EQ(scratch::as_ids(kUid, egid, groups, [&] { return mode_of(p, kAccess); }), want) << "row " << i;
  }
}

TEST_F(Stat, FieldsOnlyWhenAskedAndCallersOwnKept) {
  NEEDS_ROOT();
  const std::string p = dir_.make("f", 'f', 0644, kUid, kGid);
  vexo_t_stat st = kFresh;
  st.flags = 0x1234;
  st.deiniters_count = 3;
  auto *const deiniters = st.deiniters;
  ASSERT_EQ(vexo_stat_unix(p.c_str(), &st, 0x1 | 0xf0 | 0x8000), VEXO_S_NOERR);
  EXPECT_TRUE(st.flags == 0x1234u && st.deiniters_count == 3u && st.deiniters == deiniters);
  EXPECT_TRUE((st.mode | st.type | st.size | st.owner | st.group) == 0u &&
              (st.access_time | st.modify_time | st.create_time) == 0);

  const timespec times[2] = {{2000, 999999999}, {1000, 900000000}};
  struct stat sys {};
  ASSERT_TRUE(truncate(p.c_str(), 12345) == 0 && utimensat(AT_FDCWD, p.c_str(), times, 0) == 0 &&
              stat(p.c_str(), &sys) == 0);
  ASSERT_EQ(vexo_stat_unix(p.c_str(), &st, kNoRequire), VEXO_S_NOERR);
  // Times are truncated, not rounded.
  EXPECT_EQ(std::tuple(st.access_time, st.modify_time, st.create_time, st.size, st.owner, st.group, st.type),
            std::tuple(2000, 1000, sys.st_ctim.tv_sec, 12345u, kUid, kGid, 0u));
}

TEST_F(Stat, RequirementsInterruptionAndStatFailures) {
  const std::string f = dir_.make("f", 'f', 0644), d = dir_.make("d", 'd', 0);
  EXPECT_EQ(vexo_stat_unix(f.c_str(), nullptr, kAll), VEXO_E_FILE_NOT_DIRECTORY);
  EXPECT_EQ(vexo_stat_unix(d.c_str(), nullptr, kAll), VEXO_E_FILE_IS_DIRECTORY);
  EXPECT_EQ(vexo_stat_unix(f.c_str(), nullptr, kAll & ~0x2u), VEXO_S_NOERR);
  EXPECT_EQ(vexo_stat_unix(d.c_str(), nullptr, kAll & ~0x4u), VEXO_S_NOERR);
  EXPECT_EQ(vexo_stat_unix(dir_.at("none").c_str(), nullptr, 0), VEXO_E_FILE_NOT_FOUND);
  EXPECT_EQ(mode_of(f, kAll), VEXO_E_FILE_NOT_DIRECTORY);
  EXPECT_EQ(mode_of(d, kAll), VEXO_E_FILE_IS_DIRECTORY);
  fault::reset();
  fault::fail(fault::call::stat, EINTR, 7);
  EXPECT_TRUE(mode_of(f, kMode) == 0x113 && fault::calls(fault::call::stat) == 8);
  const std::pair<int, vexo_t_error_code> rows[] = {
      {EACCES, VEXO_E_FILE_ACCESS}, {ELOOP, VEXO_E_INVALID_NAME}, {ESTALE, VEXO_E_FILE_NOT_FOUND}};
  for (auto [err, want] : rows) {
    fault::reset();
    fault::fail(fault::call::stat, err);
    EXPECT_TRUE(mode_of(f, kNoRequire) == want && fault::calls(fault::call::stat) == 1) << err;
  }
}

// getgroups fails when first asked for the size, or when asked again after the list was allocated; the list
// must not leak, nor when it cannot be allocated.
TEST_F(Stat, GetgroupsAndAllocationFailuresAreMappedAndLeakNothing) {
  NEEDS_ROOT();
  const std::string p = dir_.make("f", 'f', 0644, kUid, kGid);
  for (auto [err, want] : {std::pair{EINVAL, VEXO_E_PARAMETER_ERROR}, {ESTALE, VEXO_E_OS_ERROR}}) {
    for (const bool second : {false, true}) {
      fault::reset();
      fault::fail(fault::call::getgroups, err, second ? 0 : 1);
      fault::alloc_scope scope;
      scope.on_allocation([err = err](long) { fault::fail(fault::call::getgroups, err); });
      EXPECT_EQ(mode_of(p, kNoRequire), want) << err << " second " << second;
      EXPECT_TRUE(fault::calls(fault::call::getgroups) == (second ? 2 : 1) && scope.live() == 0);
    }
  }
  fault::reset();
  EXPECT_EQ(fault::alloc_sweep([&](fault::alloc_scope &scope) {
              const long got = mode_of(p, kMode | kAccess);
              EXPECT_EQ(got, scope.injected() ? long{VEXO_E_OUT_OF_MEMORY} : long{0x113 | kR});
            }),
            1);
}
