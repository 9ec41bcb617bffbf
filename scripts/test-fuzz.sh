#!/usr/bin/env bash
# Fuzz smoke: builds every libFuzzer target (clang, AddressSanitizer +
# UndefinedBehaviorSanitizer) and runs each for a few seconds, starting with
# its committed corpus. A crash, a sanitizer report or a broken check fails.
#
#   scripts/test-fuzz.sh [BUILD_DIR] [SECONDS]     (default build-fuzz, 5)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build-fuzz}
seconds=${2:-5}
cmake -S . -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DOMBRIX_FUZZ=ON -DOMBRIX_TESTS=OFF -DOMBRIX_WERROR=ON \
  ${CMAKE_CXX_COMPILER_LAUNCHER:+-DCMAKE_CXX_COMPILER_LAUNCHER=$CMAKE_CXX_COMPILER_LAUNCHER} >/dev/null
targets=$(awk '/^set\(FUZZ_TARGETS/,/\)/' fuzz/CMakeLists.txt | sed 's/set(FUZZ_TARGETS//; s/)//' | xargs)
[ -n "$targets" ] || { echo "no fuzz targets found" >&2; exit 1; }
cmake --build "$dir" --target $(printf 'fuzz_%s ' $targets)
failed=0
for target in $targets; do
  work="$dir/fuzz/smoke/$target"
  rm -rf "$work" && mkdir -p "$work"
  # New inputs go to the scratch folder; the committed corpus is only read.
  if "$dir/fuzz/fuzz_$target" "$work" "fuzz/corpus/$target" -max_total_time="$seconds" -max_len=16384 \
      -timeout=20 -rss_limit_mb=4096 -artifact_prefix="$work/" >"$work.log" 2>&1; then
    echo "fuzz $target: ok ($(grep -oE '^#[0-9]+' "$work.log" | tail -1 | tr -d '#') runs)"
  else
    echo "fuzz $target: FAILED"; tail -40 "$work.log"; failed=1
  fi
done
exit $failed
