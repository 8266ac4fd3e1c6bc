#!/usr/bin/env bash
# The shared library exports exactly the vexo_* functions its headers declare;
# the static library, when given, defines no global name outside the library's
# own: a vexo_* C function, or a C++ name in namespace vexo (templates
# instantiated on the library's types included).
set -euo pipefail
lib=$1
incdir=$2
archive=${3:-}

exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sed 's/@.*//' | sort -u)
declared=$(grep -hv "^[[:space:]]*#" "$incdir"/*.h | tr '\n' ' ' | grep -oE 'VEXO_API[^;(]*\(' | sed -E 's/.*[^A-Za-z0-9_]([A-Za-z0-9_]+)[[:space:]]*\($/\1/' | sort -u)

status=0
stray=$(comm -23 <(echo "$exported") <(echo "$declared"))
missing=$(comm -13 <(echo "$exported") <(echo "$declared"))
if [ -n "$stray" ]; then
  echo "exported but not declared in the public headers:"; echo "$stray"; status=1
fi
if [ -n "$missing" ]; then
  echo "declared but not exported:"; echo "$missing"; status=1
fi
n=$(echo "$exported" | grep -c . || true)
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
case "$soname" in
  libvexo.so.[0-9]*) ;;
  *) echo "unexpected SONAME '$soname'"; status=1 ;;
esac
[ $status -eq 0 ] && echo "$n exported symbols, all declared; SONAME $soname"

if [ -n "$archive" ]; then
  # Strong names: C functions named vexo_*, or C++ names in namespace vexo.
  # Weak ones are template and inline instances; they may be std:: templates
  # as long as one of the library's types is in them.
  globals=$(nm --defined-only "$archive" | awk 'NF == 3 && $2 ~ /^[A-Z]$/ {print $2, $3}' | sort -u -k2)
  foreign=$( (echo "$globals" | awk '$1 !~ /^[VW]$/ && $2 !~ /^vexo_/ {print $2}' | c++filt | grep -v '^vexo::'
    echo "$globals" | awk '$1 ~ /^[VW]$/ {print $2}' | c++filt | grep -v 'vexo::') || true)
  if [ -n "$foreign" ]; then
    echo "global names in $(basename "$archive") outside the library's own:"; echo "$foreign"; status=1
  else
    echo "$(echo "$globals" | grep -c .) global names in $(basename "$archive"), all the library's own"
  fi
fi
exit $status
