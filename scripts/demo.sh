#!/usr/bin/env bash
# The main job: build the library and the vexo tool, then take the tour.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target vexo
exec build/release/tools/vexo/vexo tour "$@"
