// Arrays of our own in place of the process environment, restored after each test with the back end shut down
// and every descriptor accounted for.
#ifndef VEXO_TESTS_ENV_FIXTURE_H
#define VEXO_TESTS_ENV_FIXTURE_H

#include "unix/unix_internal.h"

#include "compact_block.h"
#include "fault.h"

#include <list>
#include <string>
#include <unistd.h>
#include <vector>

char **const kUnwrittenEnv = reinterpret_cast<char **>(0x1);  // never written by a failure

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

inline pairs read_block(char **env, size_t size, bool packed) {
  const std::optional<pairs> got = compact_entries(env, size, packed);
  EXPECT_TRUE(got) << "an entry misplaced, empty or unterminated, or the block not filled";
  return got.value_or(pairs{});
}

#endif  // VEXO_TESTS_ENV_FIXTURE_H
