#!/usr/bin/env bash
# The test suite and the benchmarks built with clang and ThreadSanitizer, with
# warnings as errors (this build is also CI's check that clang compiles the
# whole tree without a warning). Every GoogleTest suite (the eight-thread
# first-call stress test among them), the Lua checks and the terminal check
# run with a race report failing the run. Left out: the peak-memory Lua check,
# whose bound is for an uninstrumented process (ThreadSanitizer's shadow
# memory multiplies the resident size), and the pseudo-terminal prompt test,
# whose keystrokes ThreadSanitizer slows past its time limit (it runs in the
# normal and the ASan builds).
#
#   scripts/test-tsan.sh [BUILD_DIR]      (default build-tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build-tsan}
cmake -S . -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DOMBRIX_TSAN=ON -DOMBRIX_TESTS=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOMBRIX_BENCHMARKS=ON -DOMBRIX_WERROR=ON \
  ${CMAKE_CXX_COMPILER_LAUNCHER:+-DCMAKE_CXX_COMPILER_LAUNCHER=$CMAKE_CXX_COMPILER_LAUNCHER} >/dev/null
cmake --build "$dir"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp"
(cd "$dir" && ctest --output-on-failure --no-tests=error -j "$(nproc)" -E '^(lua\.outside_memory|cli\.prompt)$')
