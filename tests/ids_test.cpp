// User and group names of numeric ids.
#include <gtest/gtest.h>

#include "fault.h"
#include "unix/unix_internal.h"

#include <grp.h>
#include <pwd.h>
#include <string>
#include <tuple>

namespace {

char g_untouched_byte;
char *const kUntouched = &g_untouched_byte;

const struct kind {
  const char *what;
  vexo_t_error_code (*op)(unsigned, char **, vexo_t_bits);
  fault::call lookup;
  bool (*exists)(unsigned);
} kKinds[] = {
    {"user", vexo_user_id_name_unix, fault::call::getpwuid_r,
     [](unsigned id) { return getpwuid(id) != nullptr; }},
    {"group", vexo_group_id_name_unix, fault::call::getgrgid_r,
     [](unsigned id) { return getgrgid(id) != nullptr; }},
};

struct outcome {
  vexo_t_error_code rc;
  std::string name;
  bool operator==(const outcome &) const = default;
};
void PrintTo(const outcome &o, std::ostream *os) {
  *os << "{" << o.rc << ", " << ::testing::PrintToString(o.name) << "}";
}

// Checks that a failure wrote nothing and frees what a success handed over.
outcome name_of(const kind &k, unsigned id, vexo_t_bits options = 0) {
  char *name = kUntouched;
  const vexo_t_error_code rc = k.op(id, &name, options);
  if (rc < 0) {
    EXPECT_EQ(name, kUntouched) << "written on failure";
    return {rc, ""};
  }
  outcome o{rc, name};
  vexo_free(name);
  return o;
}

using IdNames = fault::Test;

TEST_F(IdNames, RootAndUnknownIds) {
  for (const kind &k : kKinds) {
    EXPECT_EQ(name_of(k, 0, ~0u), (outcome{VEXO_S_NOERR, "root"})) << k.what;
    unsigned unknown = 0x7FFFFFF0u;
    while (k.exists(unknown))
      --unknown;
    fault::reset();
    EXPECT_EQ(name_of(k, unknown), (outcome{VEXO_E_NOT_FOUND, ""})) << k.what;
    EXPECT_EQ(fault::calls(k.lookup), 1);
  }
}

TEST_F(IdNames, SizeQueryAndLookupFailuresAreMappedNotRetried) {
  // EBADMSG is not in the core's table, so it shows the fallback.
  const std::tuple<fault::call, int, vexo_t_error_code> rows[] = {
      {fault::call::sysconf, 0, VEXO_E_OS_ERROR},  // "no limit" still gives no size
      {fault::call::sysconf, EINVAL, VEXO_E_PARAMETER_ERROR},
      {fault::call::sysconf, EBADMSG, VEXO_E_OS_ERROR},
      {fault::call::count_, ERANGE, VEXO_E_OVERFLOW},  // count_: the lookup of the kind
      {fault::call::count_, EBADMSG, VEXO_E_OS_ERROR},
  };
  for (const kind &k : kKinds) {
    for (const auto &[call, err, want] : rows) {
      const fault::call c = call == fault::call::count_ ? k.lookup : call;
      SCOPED_TRACE(testing::Message() << k.what << " errno " << err);
      fault::reset();
      fault::fail(c, err);
      fault::alloc_scope scope;
      EXPECT_EQ(name_of(k, 0).rc, want);
      EXPECT_EQ(fault::calls(k.lookup), c == k.lookup ? 1 : 0);
      EXPECT_EQ(scope.live(), 0);
    }
  }
}

TEST_F(IdNames, AllocationSweep) {
  for (const kind &k : kKinds) {
    const long made = fault::alloc_sweep([&](fault::alloc_scope &scope) {
      const outcome got = name_of(k, 0);  // before asking whether the failure was reached
      EXPECT_EQ(got, (scope.injected() ? outcome{VEXO_E_OUT_OF_MEMORY, ""} : outcome{VEXO_S_NOERR, "root"}));
    });
    EXPECT_EQ(made, 2) << k.what << ": the lookup buffer and the name";
  }
}

}  // namespace
