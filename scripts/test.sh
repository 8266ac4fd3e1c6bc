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

install_and_consume() {
  local stage=$root/build/stage
  rm -rf "$stage" "$root/build/consumer"
  cmake --install build/release --prefix "$stage" >/dev/null || return 1
  bash tests/check_exports.sh "$stage"/lib/libvexo.so "$stage"/include/vexo "$stage"/lib/libvexo.a || return 1
  cmake -S tests/consumer -B build/consumer -G Ninja -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_BUILD_TYPE=Release \
    >/dev/null || return 1
  cmake --build build/consumer || return 1
  build/consumer/consumer_c && build/consumer/consumer_cxx || return 1
  # The same C file through pkg-config, as a Makefile-based embedder would build it.
  local cflags libs
  cflags=$(PKG_CONFIG_PATH=$stage/lib/pkgconfig pkg-config --cflags vexo) || return 1
  libs=$(PKG_CONFIG_PATH=$stage/lib/pkgconfig pkg-config --libs vexo) || return 1
  # shellcheck disable=SC2086
  cc -std=c11 -Wall -Wextra -pedantic -Werror $cflags tests/consumer/consumer.c $libs -o build/consumer/consumer_pc \
    && LD_LIBRARY_PATH=$stage/lib build/consumer/consumer_pc
}

fuzz_briefly() {
  local ok=0 t corpus
  for t in build/fuzz/fuzz/fuzz_*; do
    [ -x "$t" ] || continue
    corpus=$(mktemp -d)
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
step "fuzz build" build fuzz
step "fuzz runs" fuzz_briefly

echo
for f in "${failures[@]}"; do echo "FAILED: $f"; done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
