// Look-ups of single variables, initial or live, and the order of environment keys.
#include "env_fixture.h"

#include <cstring>
#include <tuple>

constexpr vexo_t_bits kInitial = VEXO_GETENV_OPTION_INITIAL;
constexpr vexo_t_bits kCurrent = VEXO_GETENV_OPTION_CURRENT;

// The code, the buffer up to its NUL (32 '#' when untouched) and *psize; a capacity of 0 passes no buffer.
using found = std::tuple<vexo_t_error_code, std::string, size_t>;
found look(const char *key, vexo_t_bits options, size_t capacity = 32) {
  char buf[33] = "################################";
  size_t size = capacity;
  const vexo_t_error_code rc = vexo_unix_getenv(key, capacity == 0 ? nullptr : buf, &size, options);
  return {rc, buf, size};
}
const std::string kFill(32, '#');
const found kNotFound{VEXO_E_NOT_FOUND, kFill, 32}, kInvalid{VEXO_E_INVALID_STATE, kFill, 32};

using Getenv = EnvFixture;

// PATH and NEW with options 0, INITIAL, CURRENT and both, before start-up, started, after shutdown. What is
// found fits a buffer of its size exactly; one byte less, or no buffer, gives the size alone.
TEST_F(Getenv, InitialOrLiveEnvironmentAndTheCapacity) {
  use({"PATH=/bin", "A=b=c", "K=first", "K=second", "V=caf\xE9", "E=", "N"});
  const found bin{VEXO_S_NOERR, "/bin", 5}, usr{VEXO_S_NOERR, "/usr", 5}, one{VEXO_S_NOERR, "1", 2};
  const found want[3][4][2] = {
      {{bin, kNotFound}, {kInvalid, kInvalid}, {bin, kNotFound}, {kInvalid, kInvalid}},
      {{bin, kNotFound}, {bin, kNotFound}, {usr, one}, {usr, one}},
      {{usr, one}, {kInvalid, kInvalid}, {usr, one}, {kInvalid, kInvalid}}};
  for (int phase = 0; phase < 3; ++phase) {
    const vexo_t_bits step = phase == 1 ? 0 : VEXO_INIT_PROCESS_OPTION_DEINIT;
    ASSERT_EQ(phase == 0 ? VEXO_S_NOERR : vexo_init_process_unix(step), VEXO_S_NOERR);
    if (phase == 1)
      use({"PATH=/usr", "NEW=1", "V=caf\xE9"});
    for (vexo_t_bits o = 0; o < 4; ++o) {
      for (int k = 0; k < 2; ++k) {
        const char *key = k == 0 ? "PATH" : "NEW";
        const auto &[rc, value, size] = want[phase][o][k];
        SCOPED_TRACE(testing::Message() << "phase " << phase << ", options " << o << ", " << key);
        EXPECT_EQ(look(key, o, rc == VEXO_S_NOERR ? size : 32), want[phase][o][k]);
        if (rc == VEXO_S_NOERR) {
          EXPECT_EQ(look(key, o, size - 1), (found{VEXO_E_INSUFFICIENT_BUFFER, kFill, size}));
          EXPECT_EQ(look(key, o, 0), (found{VEXO_E_INSUFFICIENT_BUFFER, kFill, size}));
        }
      }
    }
    if (phase != 1)
      continue;
    EXPECT_EQ(look("E", 0), (found{VEXO_S_NOERR, "", 1}));
    EXPECT_EQ(look("N", kInitial), (found{VEXO_S_NOERR, "", 1}));  // no '=' at all
    EXPECT_EQ(look("A", 0), (found{VEXO_S_NOERR, "b=c", 4}));
    EXPECT_EQ(look("A=b", 0), kNotFound);  // keys end at the first '='
    EXPECT_EQ(look("K", 0), (found{VEXO_S_NOERR, "first", 6}));
    EXPECT_EQ(look("V", 0), (found{VEXO_S_NOERR, "caf\xC3\xA9", 6}));
    EXPECT_EQ(look("V", kCurrent), (found{VEXO_S_NOERR, "caf\xE9", 5}));  // live bytes as they are
  }
  size_t size = 4;
  EXPECT_TRUE(vexo_unix_getenv("PATH", nullptr, &size, 0) == VEXO_E_PARAMETER_ERROR && size == 4u);
  EXPECT_TRUE(vexo_unix_getenv(nullptr, &size, &size, 0) == VEXO_E_PARAMETER_ERROR && size == 4u);
  EXPECT_EQ(vexo_unix_getenv("PATH", &size, nullptr, 0), VEXO_E_PARAMETER_ERROR);
}

int compare(const std::string &a, const std::string &b) {
  return vexo_unix_compare_environment_keys(a.c_str(), b.c_str());
}

TEST(EnvironmentKeyOrder, RulesAndTheirMirrors) {
  // Each list ascending; a lone 0xC0 sorts by its value, so they cannot be merged into one.
  const std::vector<std::string> lists[] = {
      {"", "\xC0\x80", "\x01", "A", "A\xC0\x80", "A=", "AB", "a", "\xC0\x81", "\xE9"},
      {"\xC0", "\xC0\xC0\x80", "\xC0\x01", "\xC0\x41", "\xC0\x80"},
      {"\x01", "\xC0"}};
  for (const auto &keys : lists)
    for (size_t i = 0; i < keys.size(); ++i)
      for (size_t j = 0; j < keys.size(); ++j)
        EXPECT_EQ(compare(keys[i], keys[j]), (i > j) - (i < j))
            << testing::PrintToString(keys[i]) << " vs " << testing::PrintToString(keys[j]);
}
