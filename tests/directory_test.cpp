// Directory listing: order and filters, entry names, and injected failures.
#include "fault.h"
#include "scratch.h"
#include "unix/unix_internal.h"

#include <map>
#include <set>
#include <tuple>

constexpr vexo_t_bits kDirs = VEXO_DIR_OPTION_DIRECTORIES_ONLY,
                      kNonDirs = VEXO_DIR_OPTION_NON_DIRECTORIES_ONLY;
const std::string kDecomposed = "e\xCC\x81", kComposed = "\xC3\xA9";
vexo_t_dir g_untouched_dir;
vexo_t_dirent g_untouched_ent;

class Listing : public fault::FdTest {
 protected:
  vexo_t_dir *open(const std::string &path, vexo_t_bits options = 0) {
    vexo_t_dir *dir = nullptr;
    EXPECT_EQ(vexo_open_directory_unix(path.c_str(), &dir, options), VEXO_S_NOERR) << path;
    return dir;
  }
  // The system names a listing delivers, in its order, each in the one record every read hands out; the end
  // repeats and leaves the pointer untouched.
  std::vector<std::string> names(const std::string &path, vexo_t_bits options) {
    std::vector<std::string> out;
    vexo_t_dir *dir = open(path, options);
    vexo_t_dirent *ent = &g_untouched_ent;
    for (; dir != nullptr && vexo_read_directory_unix(dir, &ent, 0) == VEXO_S_NOERR; ent = &g_untouched_ent)
      out.emplace_back(ent == &dir->ent && ent->dir == dir ? ent->os_ent->d_name : "(another record)");
    EXPECT_TRUE(dir && vexo_read_directory_unix(dir, &ent, 0) == VEXO_E_NO_MORE_ENTRIES && !dir->ent.os_ent);
    EXPECT_EQ(ent, &g_untouched_ent);
    vexo_close_directory_unix(dir);
    return out;
  }
  // The order readdir itself gives, kept to the names in `keep`.
  static std::vector<std::string> raw(const std::string &path, const std::set<std::string> &keep) {
    std::vector<std::string> out;
    DIR *d = opendir(path.c_str());
    while (dirent *e = readdir(d))
      if (keep.count(e->d_name) != 0)
        out.emplace_back(e->d_name);
    closedir(d);
    return out;
  }

  scratch::dir tmp_;
};

TEST_F(Listing, FiltersFollowLinksAndKeepTheSystemOrder) {
  tmp_.make("f", 'f'), tmp_.make("d", 'd');
  for (const auto &[target, link] : {std::pair{"d", "ld"}, {"f", "lf"}, {"missing", "dangling"}})
    ASSERT_EQ(symlink(target, tmp_.at(link).c_str()), 0);
  const std::pair<vexo_t_bits, std::set<std::string>> cases[] = {
      {0, {".", "..", "f", "d", "ld", "lf", "dangling"}},
      {kDirs, {".", "..", "d", "ld"}},
      {kNonDirs, {"f", "lf"}},
      {kDirs | kNonDirs, {}}};
  vexo_close_directory_unix(nullptr);
  for (const auto &[options, expected] : cases) {
    EXPECT_EQ(names(tmp_.path(), options), raw(tmp_.path(), expected)) << "options " << options;
    EXPECT_EQ(names(tmp_.path() + "/", options), raw(tmp_.path(), expected)) << "trailing slash";
  }
  // An entry gone before its status is read is passed over; no filter, no status.
  tmp_.make("d/x", 'd');
  std::vector<std::string> dirs = raw(tmp_.at("d"), {".", "..", "x"});
  fault::fail(fault::call::stat, ENOENT, 1);
  EXPECT_EQ(names(tmp_.at("d"), 0), dirs);
  dirs.erase(dirs.begin());
  EXPECT_EQ(names(tmp_.at("d"), kDirs), dirs);
  for (const auto &[path, err] : {std::pair(tmp_.at("f"), ENOTDIR), std::pair(tmp_.at("no"), ENOENT)}) {
    vexo_t_dir *dir = &g_untouched_dir;
    EXPECT_EQ(vexo_open_directory_unix(path.c_str(), &dir, kDirs), vexo_map_unix_error(err, VEXO_E_OS_ERROR));
    EXPECT_EQ(dir, &g_untouched_dir);
  }
}

TEST_F(Listing, InterruptionsRepeatAndAReadFailureKeepsTheEntry) {
  fault::fail(fault::call::opendir, EINTR, 3);
  vexo_t_dir *dir = open(tmp_.path());
  ASSERT_TRUE(dir != nullptr && fault::calls(fault::call::opendir) == 4);
  fault::fail(fault::call::readdir, EINTR, 2);
  vexo_t_dirent *ent = nullptr;
  ASSERT_TRUE(vexo_read_directory_unix(dir, &ent, 0) == VEXO_S_NOERR &&
              fault::calls(fault::call::readdir) == 3);
  const struct dirent *before = ent->os_ent;
  const std::string first = before->d_name;
  fault::fail(fault::call::readdir, EIO, 1);
  ent = &g_untouched_ent;
  EXPECT_EQ(vexo_read_directory_unix(dir, &ent, 0), vexo_map_unix_error(EIO, VEXO_E_OS_ERROR));
  EXPECT_TRUE(ent == &g_untouched_ent && dir->ent.os_ent == before) << "a failed read changes nothing";
  ASSERT_EQ(vexo_read_directory_unix(dir, &ent, 0), VEXO_S_NOERR);
  EXPECT_NE(ent->os_ent->d_name, first);
  vexo_close_directory_unix(dir);
  EXPECT_EQ(fault::calls(fault::call::closedir), 1);
}

// Open, filtered reads (one growing the path buffer) and every entry's name under each allocation failure:
// names are lent, converted (a failed normalisation lends the system name instead) or refused, and the record
// holds one name at a time.
TEST_F(Listing, NamesUnderEveryAllocationFailure) {
  std::string sub, composed;
  for (int i = 0; i < 60; ++i)
    sub += kDecomposed, composed += kComposed;
  // Per system name: the code, the name handed out, whether the record owns it.
  const std::map<std::string, std::tuple<vexo_t_error_code, std::string, bool>> want = {
      {".", {VEXO_S_NOERR, ".", false}},
      {"..", {VEXO_S_NOERR, "..", false}},
      {"plain", {VEXO_S_NOERR, "plain", false}},
      {sub, {VEXO_S_NOERR, composed, true}},
      {"bad\xE9", {VEXO_E_INVALID_NAME, "untouched", false}}};
  for (const std::string n : {"plain", "bad\xE9", sub.c_str()})
    tmp_.make(n, 'd');
  tmp_.make("file", 'f');
  const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
    vexo_t_dir *dir = &g_untouched_dir;
    vexo_t_error_code rc = vexo_open_directory_unix(tmp_.path().c_str(), &dir, kDirs);
    if (rc < 0) {
      EXPECT_TRUE(rc == VEXO_E_OUT_OF_MEMORY && dir == &g_untouched_dir) << rc;
      return;
    }
    vexo_t_dirent *ent = nullptr;
    size_t seen = 0;
    for (; (rc = vexo_read_directory_unix(dir, &ent, 0)) == VEXO_S_NOERR; ++seen) {
      const char *name = "untouched";
      const vexo_t_error_code got = vexo_dirent_name_unix(ent, &name);
      const bool owned = got == VEXO_S_NOERR && (ent->flags & VEXO_DIRENT_FLAG_UTF8_NAME_OWNED) != 0;
      const bool lent = got == VEXO_S_NOERR && !owned;
      ASSERT_EQ(want.count(ent->os_ent->d_name), 1u) << ent->os_ent->d_name;
      const auto &expected = want.at(ent->os_ent->d_name);
      EXPECT_TRUE(std::tuple(got, std::string(name), owned) == expected ||
                  (scope.injected() && std::get<2>(expected) && lent))
          << ent->os_ent->d_name << ": " << got << ", " << name;
      EXPECT_EQ(name == ent->os_ent->d_name, lent) << "lent";
      EXPECT_EQ(scope.live(), owned ? 3 : 2) << "the record, its path buffer, and the one name it owns";
    }
    EXPECT_TRUE(rc == VEXO_E_NO_MORE_ENTRIES ? seen == want.size() : rc == VEXO_E_OUT_OF_MEMORY) << rc;
    vexo_close_directory_unix(dir);
  });
  EXPECT_GE(made, 4) << "record, path buffer, its growth, a name";
}
