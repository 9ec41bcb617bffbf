#!/usr/bin/env bash
# Prints the tests-to-code ratio and fails above the limit (default 36 %):
# non-blank lines of C++ and Lua under tests/ (suites, Lua checks, helpers;
# tests/data excluded) against those under sdk/, Cryptography/, host/ and tools/.
set -euo pipefail
cd "$(dirname "$0")/.."
limit=${1:-36}

count() {  # folders... -> non-blank C++ and Lua lines
  find "$@" -path tests/data -prune -o -type f \
       \( -name '*.cpp' -o -name '*.cc' -o -name '*.h' -o -name '*.hpp' -o -name '*.cpp.in' -o -name '*.lua' \) -print0 |
    xargs -0 cat | grep -cv '^[[:space:]]*$'
}

tests=$(count tests)
code=$(count sdk Cryptography host tools)
percent=$((tests * 1000 / code))
printf 'tests-to-code ratio: %d test lines / %d code lines = %d.%d %% (limit %d %%)\n' \
  "$tests" "$code" $((percent / 10)) $((percent % 10)) "$limit"
if ((tests * 100 > limit * code)); then
  echo "the test suite has grown past ${limit} % of the code: merge or drop repeated tests" >&2
  exit 1
fi
