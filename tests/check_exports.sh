#!/usr/bin/env bash
# The shared library exports exactly the vexo_* functions its headers declare.
set -euo pipefail
lib=$1
shift  # then the directories of the public headers

exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sed 's/@.*//' | sort -u)
declared=$(for d in "$@"; do cat "$d"/*.h; done | grep -v "^[[:space:]]*#" | tr '\n' ' ' | grep -oE 'VEXO_API[^;(]*\(' | sed -E 's/.*[^A-Za-z0-9_]([A-Za-z0-9_]+)[[:space:]]*\($/\1/' | sort -u)

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
exit $status
