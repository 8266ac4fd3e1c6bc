// User and group names of numeric ids.
#include "fault.h"
#include "unix/unix_internal.h"

#include <grp.h>
#include <pwd.h>
#include <tuple>

using fault::result;

const struct kind {
  const char *what;
  vexo_t_error_code (*op)(unsigned, char **, vexo_t_bits);
  fault::call lookup;
  bool (*exists)(unsigned);
} kKinds[] = {
    {"user", vexo_user_id_name_unix, fault::call::getpwuid_r, [](unsigned id) { return !!getpwuid(id); }},
    {"group", vexo_group_id_name_unix, fault::call::getgrgid_r, [](unsigned id) { return !!getgrgid(id); }},
};

result name_of(const kind &k, unsigned id, vexo_t_bits options = 0) {
  return fault::take([&](char **out) { return k.op(id, out, options); });
}

using IdNames = fault::Test;

TEST_F(IdNames, RootUnknownIdsFailuresAndAllocationSweep) {
  // Mapped, not retried. EBADMSG is not in the core's table, so it shows the fallback.
  const std::tuple<fault::call, int, vexo_t_error_code> failures[] = {
      {fault::call::sysconf, 0, VEXO_E_OS_ERROR},  // "no limit" still gives no size
      {fault::call::sysconf, EINVAL, VEXO_E_PARAMETER_ERROR},
      {fault::call::sysconf, EBADMSG, VEXO_E_OS_ERROR},
      {fault::call::count_, ERANGE, VEXO_E_OVERFLOW},  // count_: the lookup of the kind
      {fault::call::count_, EBADMSG, VEXO_E_OS_ERROR},
  };
  for (const kind &k : kKinds) {
    SCOPED_TRACE(k.what);
    EXPECT_EQ(name_of(k, 0, ~0u), (result{VEXO_S_NOERR, "root"}));
    unsigned unknown = 0x7FFFFFF0u;
    while (k.exists(unknown))
      --unknown;
    fault::reset();
    EXPECT_EQ(name_of(k, unknown), (result{VEXO_E_NOT_FOUND, ""}));
    EXPECT_EQ(fault::calls(k.lookup), 1);
    EXPECT_EQ(fault::oom_sweep([&] { return name_of(k, 0); }, {VEXO_S_NOERR, "root"}), 2)
        << "the lookup buffer and the name";
    for (const auto &[call, err, want] : failures) {
      const fault::call c = call == fault::call::count_ ? k.lookup : call;
      fault::reset();
      fault::fail(c, err);
      fault::alloc_scope scope;
      EXPECT_EQ(name_of(k, 0).rc, want) << "errno " << err;
      EXPECT_EQ(fault::calls(k.lookup), c == k.lookup ? 1 : 0) << "errno " << err;
      EXPECT_EQ(scope.live(), 0);
    }
  }
}
