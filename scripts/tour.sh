#!/usr/bin/env bash
# Sets up, builds, and runs the guided tour of the module through `ombrix`.
# Arguments select sections by name prefix: scripts/tour.sh 20 60
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
# A build folder that already exists keeps its configuration (tests included);
# a new one is made without the test suite, which the tour does not need.
if [ ! -f build/CMakeCache.txt ]; then
  cmake -S . -B build -G Ninja -DOMBRIX_TESTS=OFF >/dev/null
fi
cmake --build build --target ombrix Cryptography
exec build/ombrix examples/tour.lua "$@"
