// Arrays of our own in place of the process environment; after each test the
// back end is shut down and the real array put back.
#ifndef VEXO_TESTS_ENV_FIXTURE_H
#define VEXO_TESTS_ENV_FIXTURE_H

#include "unix/unix_internal.h"

#include "fault.h"

#include <list>
#include <string>
#include <unistd.h>
#include <vector>

class EnvFixture : public fault::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
    environ = saved_;
    fault::Test::TearDown();
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

#endif  // VEXO_TESTS_ENV_FIXTURE_H
