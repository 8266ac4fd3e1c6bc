// A scratch directory that cleans up after itself, and a check run with other effective ids: what the
// file-system suites share.
#ifndef VEXO_TESTS_SCRATCH_H
#define VEXO_TESTS_SCRATCH_H

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <ftw.h>
#include <functional>
#include <grp.h>
#include <optional>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace scratch {

constexpr uid_t kMe = static_cast<uid_t>(-1);  // chown's "leave as created"
constexpr uid_t kUid = 4343;                   // ids nobody on the machine has
constexpr gid_t kGid = 4242;

#define NEEDS_ROOT()  \
  if (geteuid() != 0) \
  GTEST_SKIP() << "needs root to chown and change ids"

// A fresh directory under /tmp (resolved, as getcwd reports it), readable under other ids, removed with its
// contents.
class dir {
 public:
  dir() {
    char tmpl[] = "/tmp/vexo-XXXXXX";
    EXPECT_TRUE(mkdtemp(tmpl) != nullptr && chmod(tmpl, 0755) == 0) << "no scratch directory";
    path_ = std::filesystem::weakly_canonical(tmpl);
  }
  ~dir() {
    nftw(
        path_.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
  }
  dir(const dir &) = delete;
  dir &operator=(const dir &) = delete;

  const std::string &path() const { return path_; }
  std::string at(const std::string &name) const { return path_ + "/" + name; }
  // kind 'f' file, 'd' directory, 'p' fifo; chown goes first as it clears set-id bits.
  std::string make(const std::string &name, char kind, mode_t mode = 0755, uid_t uid = kMe,
                   gid_t gid = kMe) const {
    const std::string p = at(name);
    const int rc = kind == 'd'   ? mkdir(p.c_str(), 0700)
                   : kind == 'p' ? mkfifo(p.c_str(), 0600)
                                 : close(open(p.c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_TRUE(rc == 0 && chown(p.c_str(), uid, gid) == 0 && chmod(p.c_str(), mode) == 0) << p;
    return p;
  }

 private:
  std::string path_;
};

// `fn` run with these effective ids and supplementary groups, the test's own put back after it; LONG_MIN when
// the ids could not be taken.
inline long as_ids(uid_t euid, gid_t egid, const std::vector<gid_t> &groups,
                   const std::function<long()> &fn) {
  const uid_t own_euid = geteuid();
  const gid_t own_egid = getegid();
  std::vector<gid_t> own(static_cast<size_t>(getgroups(0, nullptr)));
  const bool taken = getgroups(static_cast<int>(own.size()), own.data()) == static_cast<int>(own.size()) &&
                     setgroups(groups.size(), groups.data()) == 0 && setegid(egid) == 0 && seteuid(euid) == 0;
  const long v = taken ? fn() : LONG_MIN;
  EXPECT_TRUE(seteuid(own_euid) == 0 && setegid(own_egid) == 0 && setgroups(own.size(), own.data()) == 0)
      << "the test's own ids could not be put back";
  return v;
}

}  // namespace scratch

#endif  // VEXO_TESTS_SCRATCH_H
