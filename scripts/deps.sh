#!/usr/bin/env bash
# Installs the Debian packages the build, tests, tool and benchmarks need,
# and only those that are missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ make pkgconf binutils
  clang-14 libclang-rt-14-dev clang-format
  libicu-dev unicode-data bzip2
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev nlohmann-json3-dev
  doxygen help2man dpkg-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
