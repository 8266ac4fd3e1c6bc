#!/usr/bin/env bash
# check_exports.sh [--archive LIBVEXO_A] LIBVEXO_SO HEADER_DIR...
# The shared library exports exactly the vexo_* functions its headers declare;
# the static library, when given, defines no global name outside the library's
# own: a vexo_* C function, or a C++ name in namespace vexo.
set -euo pipefail
archive=
if [ "$1" = --archive ]; then
  archive=$2
  shift 2
fi
lib=$1
shift  # then the directories of the public headers

exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sed 's/@.*//' | sort -u)
declared=$(for d in "$@"; do cat "$d"/*.h; done | grep -v "^[[:space:]]*#" | tr '\n' ' ' | grep -oE 'VEXO_API[^;(]*\(' | sed -E 's/.*[^A-Za-z0-9_]([A-Za-z0-9_]+)[[:space:]]*\($/\1/' | sort -u)

status=0
fail() { [ -z "$2" ] || { echo "$1"; echo "$2"; status=1; }; }  # fail HEADING NAMES: reports NAMES if any
fail "exported but not declared in the public headers:" "$(comm -23 <(echo "$exported") <(echo "$declared"))"
fail "declared but not exported:" "$(comm -13 <(echo "$exported") <(echo "$declared"))"
n=$(echo "$exported" | grep -c . || true)
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
case "$soname" in
  libvexo.so.[0-9]*) ;;
  *) echo "unexpected SONAME '$soname'"; status=1 ;;
esac
[ $status -eq 0 ] && echo "$n exported symbols, all declared; SONAME $soname"

if [ -n "$archive" ]; then
  # Strong names: C functions named vexo_*, or C++ names in namespace vexo.
  # Weak ones are inline and template instances, merged with any equal
  # definition; only a weak plain global (an unmangled name, or a function of
  # the global namespace) could stand in for an embedder's own.
  globals=$(nm --defined-only "$archive" | awk 'NF == 3 && $2 ~ /^[A-Z]$/ {print $2, $3}' | sort -u -k2)
  foreign=$( (echo "$globals" | awk '$1 !~ /^[VW]$/ && $2 !~ /^vexo_/ && $2 !~ /^_Z(TV|TI|TS|GV)?N[KVRO]*4vexo/ {print $2}'
    echo "$globals" | awk '$1 ~ /^[VW]$/ && $2 !~ /^vexo_/ && ($2 !~ /^_Z/ || $2 ~ /^_Z[0-9]/) {print $2}') | c++filt)
  fail "global names in $(basename "$archive") outside the library's own:" "$foreign"
  [ -n "$foreign" ] ||
    echo "$(echo "$globals" | grep -c .) global names in $(basename "$archive"), none that could stand for an embedder's own"
fi
exit $status
