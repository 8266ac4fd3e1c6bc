#!/usr/bin/env bash
# Every check the project has: formatting, release and sanitizer builds with
# their test suites, the installed package used by a C and a C++ consumer,
# and short fuzzing runs. Ends with one "N passed, M failed" line.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD

bash scripts/deps.sh || { echo "dependency installation failed"; exit 1; }

passed=0
failed=0
failures=()
step() {  # step NAME COMMAND...: runs one check and counts it
  local name=$1
  shift
  echo "==== $name"
  if "$@"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    failures+=("$name")
  fi
}

# Each ctest case counts in the totals, not the run as a whole.
run_ctest() {
  local preset=$1 log line total nfail
  echo "==== $preset tests"
  log=$(mktemp)
  ctest --preset "$preset" -j2 2>&1 | tee "$log"
  line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -1)
  rm -f "$log"
  if [ -z "$line" ]; then
    failed=$((failed + 1))
    failures+=("$preset tests (no result)")
    return
  fi
  total=$(echo "$line" | sed -E 's/.* out of ([0-9]+).*/\1/')
  nfail=$(echo "$line" | sed -E 's/.*passed, ([0-9]+) tests failed.*/\1/')
  passed=$((passed + total - nfail))
  failed=$((failed + nfail))
  [ "$nfail" -eq 0 ] || failures+=("$preset tests ($nfail)")
}

check_format() {
  local files
  files=$(git ls-files '*.c' '*.cpp' '*.h' 2>/dev/null || find include src tools tests bench fuzz -name '*.[ch]' -o -name '*.cpp')
  # shellcheck disable=SC2086
  clang-format --dry-run -Werror $files
}

build() {  # build PRESET
  cmake --preset "$1" -DVEXO_WERROR=ON >/dev/null && cmake --build --preset "$1" -- -j2
}

# consume ROOT PREFIX NAME: builds the C consumer against the package
# installed under ROOT (as if at PREFIX) through find_package and through
# pkg-config, each shared and static, and runs them. Only ROOT's files are
# used: no library path is set, the run path comes from the link line.
consume() {
  local root=$1 prefix=$2 out=$root/../consumer-$3 pcdir libdir cflags libs
  pcdir=$(dirname "$(find "$root$prefix" -name vexo.pc | head -1)")
  libdir=$(dirname "$pcdir")
  rm -rf "$out"
  bash tests/check_exports.sh --archive "$libdir/libvexo.a" "$libdir/libvexo.so" "$root$prefix/include/vexo" \
    || return 1
  cmake -S tests/consumer -B "$out" -G Ninja -Dvexo_DIR="$libdir/cmake/vexo" -DCMAKE_BUILD_TYPE=Release \
    >/dev/null || return 1
  cmake --build "$out" >/dev/null || return 1
  "$out/consumer_c" && "$out/consumer_c_static" && "$out/consumer_cxx" || return 1
  # The same C file as a Makefile-based embedder builds it: shared, then
  # static with the libraries pkg-config lists for a static link.
  cflags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags vexo) || return 1
  libs=$(PKG_CONFIG_PATH=$pcdir pkg-config --libs vexo) || return 1
  # shellcheck disable=SC2086
  cc -std=c11 -Wall -Wextra -pedantic -Werror $cflags tests/consumer/consumer.c $libs -Wl,-rpath,"$libdir" \
    -o "$out/consumer_pc" && "$out/consumer_pc" || return 1
  libs=$(PKG_CONFIG_PATH=$pcdir pkg-config --static --libs vexo) || return 1
  # shellcheck disable=SC2086
  cc -std=c11 -Wall -Wextra -pedantic -Werror $cflags tests/consumer/consumer.c ${libs/-lvexo/-l:libvexo.a} \
    -o "$out/consumer_pc_static" && "$out/consumer_pc_static" || return 1
  # The guide's program, built the way the guide says.
  libs=$(PKG_CONFIG_PATH=$pcdir pkg-config --libs vexo) || return 1
  # shellcheck disable=SC2086
  cc -std=c11 -Wall -Wextra -pedantic -Werror $cflags examples/getting_started.c $libs -Wl,-rpath,"$libdir" \
    -o "$out/getting_started" && "$out/getting_started" "$root$prefix/include/vexo"
}

# The release build installed as a distribution would: prefix /usr (so the
# multiarch library directory), into a staging root with DESTDIR. The same
# tree is then moved, and its tool must still run from its relative run path.
install_and_consume() {
  local stage=$root/build/stage/root moved=$root/build/stage/moved version c
  rm -rf "$root/build/stage"
  # A new prefix changes the run path the tool is linked with: relink
  # before installing.
  cmake --preset release -DCMAKE_INSTALL_PREFIX=/usr >/dev/null || return 1
  cmake --build --preset release -- -j2 >/dev/null || return 1
  DESTDIR=$stage cmake --install build/release >/dev/null || return 1
  consume "$stage" /usr staged || return 1
  mv "$stage" "$moved"
  version=$(sed -n 's/^#define VEXO_VERSION_STRING "\(.*\)"$/\1/p' build/release/include/vexo/vexo_version.h)
  [ "$(env -u LD_LIBRARY_PATH "$moved/usr/bin/vexo" --version)" = "vexo $version" ] \
    || { echo "the moved tool does not run"; return 1; }
  for c in $("$moved/usr/bin/vexo" --help | sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p'); do
    grep -q "^\.SS $c\$" "$moved/usr/share/man/man1/vexo.1" || { echo "vexo(1) lacks '$c'"; return 1; }
  done
}

# An embedding project that add_subdirectory()s the source tree gets both
# targets and none of the tests, tools or benchmarks.
subproject() {
  local out=$root/build/subproject
  rm -rf "$out"
  cmake -S tests/subproject -B "$out" -G Ninja -DVEXO_SOURCE_DIR="$root" >/dev/null || return 1
  cmake --build "$out" -- -j2 >/dev/null || return 1
  "$out/sub_shared" && "$out/sub_static"
}

# The three Debian packages, their contents, and the consumers built against
# nothing but the packages unpacked into a scratch root.
debian_packages() {
  local pkgdir=$root/build/release/packages debroot=$root/build/debroot p
  rm -rf "$pkgdir" "$debroot"
  (cd build/release && cpack -G DEB >/dev/null) || return 1
  mkdir -p "$debroot/root"
  for p in "$pkgdir"/*.deb; do
    echo "-- $(basename "$p")"
    dpkg-deb -f "$p" Package Depends
    dpkg-deb -c "$p" | awk '{print "   " $6 ($7 ? " " $7 " " $8 : "")}'
    dpkg-deb -x "$p" "$debroot/root"
  done
  [ "$(find "$pkgdir" -maxdepth 1 -name '*.deb' | wc -l)" -eq 3 ] || { echo "expected three packages"; return 1; }
  consume "$debroot/root" /usr deb && env -u LD_LIBRARY_PATH "$debroot/root/usr/bin/vexo" --version
}

# The reference from the headers and docs/, every warning an error; the
# guide shows the example program exactly as it is built and run.
reference() {
  cmake --build build/release --target docs || return 1
  sed -n '/^```c$/,/^```$/p' docs/guide.md | sed '1d;$d' | diff - examples/getting_started.c \
    || { echo "docs/guide.md and examples/getting_started.c differ"; return 1; }
}

fuzz_briefly() {
  local ok=0 t corpus
  for t in build/fuzz/fuzz/fuzz_*; do
    [ -x "$t" ] || continue
    corpus=$(mktemp -d)
    # Inputs that once found a fault run first, every time.
    [ -d "fuzz/corpus/$(basename "$t")" ] && cp "fuzz/corpus/$(basename "$t")"/* "$corpus"/
    echo "-- $(basename "$t")"
    "$t" -max_total_time=5 "$corpus" >"$corpus.log" 2>&1 || { ok=1; tail -30 "$corpus.log"; }
    grep -E '^Done [0-9]+ runs' "$corpus.log" || true
    rm -f "$corpus.log"
    rm -rf "$corpus"
  done
  return $ok
}

step "format" check_format
step "release build" build release
run_ctest release
step "asan build" build asan
run_ctest asan
step "install and consumers" install_and_consume
step "subproject" subproject
step "debian packages" debian_packages
step "reference" reference
step "fuzz build" build fuzz
step "fuzz runs" fuzz_briefly

echo
for f in "${failures[@]}"; do echo "FAILED: $f"; done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
