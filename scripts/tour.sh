#!/usr/bin/env bash
# Sets up, builds, and runs the guided tour of the module through `ombrix`.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DOMBRIX_TESTS=OFF >/dev/null
cmake --build build --target ombrix Cryptography
exec build/ombrix examples/tour.lua "$@"
