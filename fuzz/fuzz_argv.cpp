// One argument string from a fuzzed property list: the concatenation of the "string" and "file" entries'
// texts, or null when any other key appears or an allocation fails (the first byte picks one), with nothing
// left allocated.
#include "fuzz_util.h"
#include "unix/unix_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 4096)
    return 0;
  fuzz::allocations::install();
  // Each piece is one entry; its first byte picks the key.
  const std::vector<std::string> pieces = fuzz::split(data + 1, size - 1, '\n');
  static const char *const others[] = {"String", "", "strings", "str", "files", "fil"};
  std::vector<vexo_t_property> list;
  std::string want;
  bool known = true;
  for (const std::string &p : pieces) {
    if (p.empty())
      continue;
    const unsigned pick = static_cast<unsigned char>(p[0]) % 16;
    vexo_t_property &e = list.emplace_back();
    e.key = pick < 10 ? (pick % 2 != 0 ? "file" : "string") : others[pick - 10];
    e.v.u.string = p.c_str() + 1;
    known = known && pick < 10;
    want += e.v.u.string;
  }
  list.emplace_back();
  const long live = fuzz::allocations::live;
  char *got = nullptr;
  const bool failed_alloc = fuzz::allocations::failing(
      data[0] % 4, [&] { got = vexo::vexo_unix_alloc_argv_entry_string(list.data()); });
  fuzz::check((got != nullptr) == (known && !failed_alloc) && (got == nullptr || want == got));
  vexo_free(got);
  fuzz::check(fuzz::allocations::live == live);
  return 0;
}
