#!/usr/bin/env bash
# Sets up, then builds and runs the whole test suite twice: a normal build and
# an AddressSanitizer + UndefinedBehaviorSanitizer build; FIPS mode with a real
# FIPS provider; then the suite under ThreadSanitizer and a short run of every
# fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/test-ratio.sh
scripts/setup.sh
jobs=$(nproc)

run_suite() {  # build-dir, extra cmake flags...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DOMBRIX_TESTS=ON "$@" >/dev/null
  cmake --build "$dir"
  (cd "$dir" && ctest --output-on-failure --no-tests=error -j "$jobs")
}

echo "== normal build =="
run_suite build
echo "== install and packages =="
scripts/test-install.sh build
echo "== FIPS mode with OpenSSL's FIPS provider =="
scripts/test-fips.sh build
echo "== sanitizer build (ASan + UBSan) =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-sanitize -DOMBRIX_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
echo "== ThreadSanitizer build =="
scripts/test-tsan.sh build-tsan
echo "== fuzz smoke =="
scripts/test-fuzz.sh build-fuzz 5
