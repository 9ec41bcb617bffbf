#!/usr/bin/env bash
# Sets up, then builds and runs the whole test suite twice: a normal build and
# an AddressSanitizer + UndefinedBehaviorSanitizer build; FIPS mode with a real
# FIPS provider; then the suite under ThreadSanitizer (the clang build,
# warnings as errors), a short run of every fuzz target, and the suite on
# Debian 13 (GCC 14, OpenSSL 3.5) in a chroot. The tests-to-code ratio is
# checked first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/test-ratio.sh
scripts/setup.sh
jobs=$(nproc)

# The Debian 13 tree is made and set up meanwhile (mostly downloads), in its
# own session so that an early failure here can stop all of it. It needs root
# (debootstrap, chroot, mount).
as_root=()
[ "$(id -u)" -ne 0 ] && as_root=(sudo)
mkdir -p build-debian13
"${as_root[@]}" setsid scripts/test-debian13.sh prepare build-debian13 >build-debian13/prepare.log 2>&1 &
debian13=$!
trap 'kill -TERM -- -$debian13 2>/dev/null || true' EXIT

run_suite() {  # build-dir, extra cmake flags...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DOMBRIX_TESTS=ON -DOMBRIX_WERROR=ON "$@" >/dev/null
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
echo "== Debian 13: GCC 14, OpenSSL 3.5 (${SECONDS}s so far) =="
wait "$debian13" || { tail -40 build-debian13/prepare.log >&2; echo "Debian 13 tree: set-up failed" >&2; exit 1; }
trap - EXIT
"${as_root[@]}" scripts/test-debian13.sh test build-debian13
echo "== all stages passed (${SECONDS}s) =="
