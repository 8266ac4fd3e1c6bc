// Arrays of our own in place of the process environment, restored after each
// test with the back end shut down and every descriptor accounted for, and a
// reader of compact environments.
#ifndef VEXO_TESTS_ENV_FIXTURE_H
#define VEXO_TESTS_ENV_FIXTURE_H

#include "unix/unix_internal.h"

#include "fault.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <string>
#include <unistd.h>
#include <vector>

class EnvFixture : public fault::FdTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
    environ = saved_;
    fault::FdTest::TearDown();
  }
  void use(std::vector<std::string> entries) {
    auto &[text, ptrs] = envs_.emplace_back(std::move(entries), std::vector<char *>{});
    for (std::string &s : text)
      ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
    environ = ptrs.data();
  }

 private:
  char **saved_ = environ;
  std::list<std::pair<std::vector<std::string>, std::vector<char *>>> envs_;
};

// The entries of a compact block: its pointers up to their null, then each
// entry as a non-empty key, NUL, value, NUL, inside the block and behind the
// one before; `packed`: right behind it, the last one ending the block.
using pairs = std::vector<std::pair<std::string, std::string>>;
inline pairs read_block(char **env, size_t size, bool packed) {
  const char *p = reinterpret_cast<const char *>(std::find(env, env + size / sizeof *env, nullptr) + 1);
  const char *const end = reinterpret_cast<const char *>(env) + size;
  auto nul = [end](const char *s) { return static_cast<const char *>(std::memchr(s, 0, size_t(end - s))); };
  pairs out;
  for (size_t i = 0; env[i] != nullptr; ++i, ++p) {
    const char *key = env[i], *mid = key >= p && key < end && (key == p || !packed) ? nul(key) : nullptr;
    if ((p = mid == nullptr || mid == key ? nullptr : nul(mid + 1)) == nullptr)
      return ADD_FAILURE() << "entry " << i << " misplaced, empty or unterminated", out;
    out.emplace_back(std::string(key, mid), std::string(mid + 1, p));
  }
  EXPECT_TRUE(!packed || p == end) << "the entries do not fill the block";
  return out;
}

#endif  // VEXO_TESTS_ENV_FIXTURE_H
