// Look-ups of single variables in the initial or the live environment, and
// the order of environment keys.
#include "unix/unix_internal.h"

#include "fault.h"

#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <random>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

constexpr vexo_t_bits kInitial = VEXO_GETENV_OPTION_INITIAL;
constexpr vexo_t_bits kCurrent = VEXO_GETENV_OPTION_CURRENT;
constexpr size_t kCapacity = 32;

// The code, what the buffer holds up to its NUL, and *psize (kCapacity when untouched).
using found = std::tuple<vexo_t_error_code, std::string, size_t>;
found look(const char *key, vexo_t_bits options) {
  char buf[kCapacity] = {};
  size_t size = kCapacity;
  const vexo_t_error_code rc = vexo_unix_getenv(key, buf, &size, options);
  return {rc, std::string(buf, strnlen(buf, sizeof buf)), size};
}
found missing(vexo_t_error_code rc) {
  return {rc, "", kCapacity};
}

// Arrays of our own in place of the process environment.
class Getenv : public fault::Test {
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

TEST_F(Getenv, CapacityDecidesBetweenCopyAndSize) {
  use({"PATH=/bin"});
  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  const struct {
    size_t capacity;
    bool null_buf;
    vexo_t_error_code rc;
  } cases[] = {{6, false, VEXO_S_NOERR},
               {5, false, VEXO_S_NOERR},
               {4, false, VEXO_E_INSUFFICIENT_BUFFER},
               {0, true, VEXO_E_INSUFFICIENT_BUFFER}};
  for (vexo_t_bits options : {0u, kInitial, kCurrent}) {
    for (const auto &c : cases) {
      char buf[8];
      std::memset(buf, '#', sizeof buf);
      size_t size = c.capacity;
      EXPECT_EQ(vexo_unix_getenv("PATH", c.null_buf ? nullptr : buf, &size, options), c.rc);
      EXPECT_EQ(size, 5u);
      EXPECT_EQ(std::string(buf, sizeof buf), c.rc == VEXO_S_NOERR ? std::string("/bin\0###", 8) : "########")
          << "options " << options << ", capacity " << c.capacity;
    }
  }
}

TEST_F(Getenv, InitialOrLiveEnvironment) {
  use({"PATH=/bin"});
  const found live{VEXO_S_NOERR, "/usr", 5};
  const found at_start{VEXO_S_NOERR, "/bin", 5};
  const found invalid = missing(VEXO_E_INVALID_STATE);
  // Without an initial environment only the live one can answer.
  EXPECT_EQ(look("PATH", 0), at_start);
  EXPECT_EQ(look("PATH", kInitial), invalid);
  EXPECT_EQ(look("PATH", kInitial | kCurrent), invalid);

  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  use({"PATH=/usr", "NEW=1"});
  const found added{VEXO_S_NOERR, "1", 2};
  const found not_found = missing(VEXO_E_NOT_FOUND);
  const struct {
    vexo_t_bits options;
    found path, fresh;
  } cases[] = {{0, at_start, not_found},
               {kInitial, at_start, not_found},
               {kCurrent, live, added},
               {kInitial | kCurrent, live, added}};
  for (const auto &c : cases) {
    EXPECT_EQ(look("PATH", c.options), c.path) << "options " << c.options;
    EXPECT_EQ(look("NEW", c.options), c.fresh) << "options " << c.options;
  }

  ASSERT_EQ(vexo_init_process_unix(VEXO_INIT_PROCESS_OPTION_DEINIT), VEXO_S_NOERR);
  EXPECT_EQ(look("PATH", 0), live);
  EXPECT_EQ(look("PATH", kInitial), invalid);
  EXPECT_EQ(look("PATH", kInitial | kCurrent), invalid);
}

TEST_F(Getenv, KeysOfTheInitialEnvironment) {
  use({"A=b=c", "K=first", "K=second", "V=caf\xE9", "E=", "N"});
  ASSERT_EQ(vexo_init_process_unix(0), VEXO_S_NOERR);
  EXPECT_EQ(look("E", 0), (found{VEXO_S_NOERR, "", 1}));
  EXPECT_EQ(look("N", kInitial), (found{VEXO_S_NOERR, "", 1}));  // no '=' at all
  EXPECT_EQ(look("A", 0), (found{VEXO_S_NOERR, "b=c", 4}));
  EXPECT_EQ(look("A=b", 0), missing(VEXO_E_NOT_FOUND));  // keys end at the first '='
  EXPECT_EQ(look("K", 0), (found{VEXO_S_NOERR, "first", 6}));
  EXPECT_EQ(look("V", 0), (found{VEXO_S_NOERR, "caf\xC3\xA9", 6}));
  EXPECT_EQ(look("V", kCurrent), (found{VEXO_S_NOERR, "caf\xE9", 5}));  // live bytes as they are
}

int compare(const std::string &a, const std::string &b) {
  return vexo_unix_compare_environment_keys(a.c_str(), b.c_str());
}

TEST(EnvironmentKeyOrder, RulesAndTheirMirrors) {
  const struct {
    std::string a, b;
    int want;
  } cases[] = {
      {"AB", "AB", 0},
      {"", "", 0},
      {"A", "AB", -1},                   // a prefix first
      {"", "A", -1},                     //
      {"a", "\xE9", -1},                 // bytes unsigned
      {"A=", "AB", -1},                  // '=' is an ordinary byte
      {"\xC0\x80", "\x01", -1},          // the overlong NUL below every byte
      {"\xC0\x80", "\xFF", -1},          //
      {"A\xC0\x80", "A", 1},             // the end of skey2 before 0xC0 0x80 in skey1
      {"\xC0\x80", "\xC0\x81", -1},      // first bytes equal: 0x80 below 0x81
      {"\xC0\x80", "\xC0", 1},           // the shorter key is a prefix
      {"\xC0", "\x01", 1},               // a lone 0xC0 sorts by its value
      {"\xC0\xC0\x80", "\xC0\x01", -1},  // 0xC0 0x80 where the keys first differ
      {"\xC0\x41", "\xC0\x80", -1},      // 'A' below 0x80 when 0xC0 is shared
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.a) + " vs " + testing::PrintToString(c.b));
    EXPECT_EQ(compare(c.a, c.b), c.want);
    EXPECT_EQ(compare(c.b, c.a), -c.want);
  }
}

TEST(EnvironmentKeyOrder, BehavesAsAnOrderOnRandomKeys) {
  std::mt19937 rng(20240611);
  const char alphabet[] = {'\xC0', '\x80', '\x01', 'A', '\xFF'};
  // paired: 0xC0 only as the start of 0xC0 0x80. A lone 0xC0 shared by both keys just before their
  // difference hides the pair, and then the order has cycles: "\xC0\x80" < "\x01" < "\xC0" < "\xC0\x80".
  auto keys = [&](bool paired) {
    std::vector<std::string> out(3000);
    for (std::string &k : out) {
      for (size_t n = rng() % 5; n > 0; --n) {
        k += alphabet[rng() % sizeof alphabet];
        if (paired && k.back() == '\xC0')
          k += '\x80';
      }
    }
    return out;
  };
  std::string bad;
  const std::vector<std::string> any = keys(false);
  for (size_t i = 0; i < any.size() * 10 && bad.empty(); ++i) {
    const std::string &a = any[i % any.size()];
    const std::string &b = any[rng() % any.size()];
    const int r = compare(a, b);
    if ((r != -1 && r != 0 && r != 1) || compare(b, a) != -r || (r == 0) != (a == b))
      bad = testing::PrintToString(a) + " vs " + testing::PrintToString(b);
  }
  EXPECT_EQ(bad, "");
  const std::vector<std::string> paired = keys(true);
  for (int i = 0; i < 100000 && bad.empty(); ++i) {
    const std::string &a = paired[rng() % paired.size()];
    const std::string &b = paired[rng() % paired.size()];
    const std::string &c = paired[rng() % paired.size()];
    if (compare(a, b) <= 0 && compare(b, c) <= 0 && compare(a, c) > 0)
      bad =
          testing::PrintToString(a) + " <= " + testing::PrintToString(b) + " <= " + testing::PrintToString(c);
  }
  EXPECT_EQ(bad, "");
}

}  // namespace
