#!/usr/bin/env bash
# One table of this project against raw OpenSSL (C) and luaossl (Lua 5.4),
# measured side by side in one run:
#
#   bench/compare.sh [BUILD_DIR]      (default: build-bench beside the sources)
#
# Builds the Release benchmarks, ombrix and the plain Lua C baseline in
# BUILD_DIR, installs lua5.4, lua-luaossl and time from Debian when missing,
# then prints every figure with its ratio and whether the target holds.
# Figures are medians of BENCH_REPS repetitions (default 5); per-call times
# are CPU time. Set BENCH_SKIP_MEMORY=1 to leave out the 1 GiB runs, and
# BENCH_ROUNDS to change how many turns the Lua sides take (default 3).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-bench}
reps=${BENCH_REPS:-5}
export BENCH_REPS=$reps

need=()
command -v lua5.4 >/dev/null || need+=(lua5.4)
lua5.4 -e 'require "openssl.digest"' >/dev/null 2>&1 || need+=(lua-luaossl)
[ -x /usr/bin/time ] || need+=(time)
if ((${#need[@]})); then
  echo "Installing: ${need[*]}" >&2
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${need[@]}"
fi

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DOMBRIX_BENCHMARKS=ON -DOMBRIX_TESTS=OFF \
  "${launcher[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)" --target cryptography_bench cryptography_bulk_bench ombrix ombrix_bench_baseline >&2

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

echo "C++ benchmarks..." >&2
# Runs whose rows carry different counters go to separate reports (the CSV
# reporter wants the same counters in every row). Repetitions of the
# benchmarks of one run are interleaved at random, so a module figure and the
# raw one it is held against are measured in the same stretches of time.
for run in 'cryptography_bench ^(HashDataRefThroughEngine|HashRawEvpDigest|HmacThroughEngine|HmacRaw)/64$|^HashRawEvpDigest/16777216$|^(EncryptSmall|RandomBytes|RoutineMix)' \
           'cryptography_bench ^CreateSSL' \
           'cryptography_bulk_bench ^RawOpenSSL/aes_256_cbc' 'cryptography_bulk_bench ^RawDecrypt/aes_256_cbc'; do
  "$build/bench/${run%% *}" --benchmark_filter="${run#* }" --benchmark_repetitions="$reps" \
    --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true --benchmark_format=csv >>"$scratch/cpp.csv" 2>/dev/null
done

# cpp NAME ns|Bps|ips: the median of one C++ benchmark, in ns per iteration
# (CPU time), bytes per second or items per second.
cpp() {
  awk -F, -v name="$1_median" -v what="$2" '
    { gsub(/"/, "", $1) }
    $1 == name {
      scale = ($5 == "ms") ? 1e6 : ($5 == "us") ? 1e3 : ($5 == "s") ? 1e9 : 1
      if (what == "ns") print $4 * scale
      else if (what == "Bps") print $6
      else print $7
    }' "$scratch/cpp.csv"
}

# The two Lua sides take turns, BENCH_ROUNDS times (default 3), and each
# figure is the median over the rounds: on a shared or virtual machine the
# speed drifts over minutes, and turns put both sides in the same windows.
rounds=${BENCH_ROUNDS:-3}
echo "Lua benchmarks (ombrix and lua5.4 with luaossl in turn, $rounds rounds)..." >&2
for ((round = 1; round <= rounds; round++)); do
  "$build/ombrix" "$root/bench/lua/compare.lua" project "$build/bench" >>"$scratch/project.txt"
  lua5.4 "$root/bench/lua/compare.lua" luaossl >>"$scratch/luaossl.txt"
done
lua() {
  awk -v name="$2" '$1 == name { v[n++] = $2 }
    END { if (n == 0) exit
          for (i = 0; i < n; i++) for (j = i + 1; j < n; j++) if (v[j] < v[i]) { t = v[i]; v[i] = v[j]; v[j] = t }
          print (n % 2) ? v[(n - 1) / 2] : (v[n / 2 - 1] + v[n / 2]) / 2 }' "$scratch/$1.txt"
}

rows=()
# row FIGURE RAW LUAOSSL PLAIN HERE AGAINST OP TARGET: the target holds when
# here/AGAINST OP TARGET, AGAINST naming a column (raw, luaossl, plain); with
# AGAINST "value" the figure itself is held against the target.
row() {
  local figure=$1 raw=$2 luaossl=$3 plain=$4 here=$5 against=$6 op=$7 target=$8
  local base="" measure shown
  case $against in raw) base=$raw ;; luaossl) base=$luaossl ;; plain) base=$plain ;; value) base=1 ;; esac
  measure=$(awk -v h="$here" -v b="$base" 'BEGIN { if (h != "" && b + 0 > 0) printf "%.2f", h / b; else print "-" }')
  shown="$measure vs $against"
  [ "$against" = value ] && shown="-"
  [ "$measure" = "-" ] && shown="-"
  local holds
  holds=$(awk -v r="$measure" -v op="$op" -v t="$target" 'BEGIN {
    if (r == "-" || t == "-") print "-"
    else if (op == "<=") print (r + 0 <= t + 0 ? "yes" : "NO")
    else print (r + 0 >= t + 0 ? "yes" : "NO") }')
  rows+=("$figure|$raw|$luaossl|$plain|$here|$shown|$op $target|$holds")
}
fmt() { [ -n "$1" ] && awk -v v="$1" -v d="${2:-0}" 'BEGIN { printf "%.*f", d, v }' || true; }
mbps() { [ -n "$1" ] && awk -v v="$1" 'BEGIN { printf "%.0f", v / 1e6 }' || true; }

row "SHA-256 64 B, engine from C++ (ns)" "$(fmt "$(cpp HashRawEvpDigest/64 ns)")" "" "" \
  "$(fmt "$(cpp HashDataRefThroughEngine/64 ns)")" raw "<=" 1.00
row "HMAC-SHA256 64 B, engine from C++ (ns)" "$(fmt "$(cpp HmacRaw/64 ns)")" "" "" \
  "$(fmt "$(cpp HmacThroughEngine/64 ns)")" raw "<=" 1.00
row "AES-256-CBC Encrypt 64 B, engine from C++ (ns)" "$(fmt "$(cpp EncryptSmallRaw ns)")" "" "" \
  "$(fmt "$(cpp EncryptSmallThroughEngine ns)")" raw "<=" 1.20
row "CreateRandomBytes(16), engine from C++ (ns)" "$(fmt "$(cpp RandomBytesRaw ns)")" "" "" \
  "$(fmt "$(cpp RandomBytesThroughEngine ns)")" raw "" "-"
row "SHA-256 64 B from Lua (ns)" "" "$(fmt "$(lua luaossl sha256_64)")" "" \
  "$(fmt "$(lua project sha256_64)")" luaossl "<=" 0.70
row "HMAC-SHA256 64 B from Lua (ns)" "" "$(fmt "$(lua luaossl hmac_64)")" "" \
  "$(fmt "$(lua project hmac_64)")" luaossl "<=" 0.70
row "CreateRandomBytes(16) from Lua (ns)" "" "$(fmt "$(lua luaossl rand_16)")" "" \
  "$(fmt "$(lua project rand_16)")" luaossl "<=" 1.00
row "Lookup3Hash 64 B from Lua (ns)" "" "" "$(fmt "$(lua project plain_lookup3_64)")" \
  "$(fmt "$(lua project lookup3_64)")" plain "<=" 1.50
row "FIPSSelfTestFailed() from Lua (ns)" "" "" "$(fmt "$(lua project plain_fips)")" \
  "$(fmt "$(lua project fips)")" plain "<=" 1.50
row "SHA-256 16 MiB from Lua (MB/s)" "$(mbps "$(cpp HashRawEvpDigest/16777216 Bps)")" \
  "$(fmt "$(lua luaossl sha256_16m)")" "" "$(fmt "$(lua project sha256_16m)")" raw ">=" 0.97
row "AES-256-CBC Encrypt 16 MiB from Lua (MB/s)" "$(mbps "$(cpp RawOpenSSL/aes_256_cbc Bps)")" \
  "$(fmt "$(lua luaossl aes_encrypt_16m)")" "" "$(fmt "$(lua project aes_encrypt_16m)")" raw ">=" 0.97
row "AES-256-CBC DataRefDecrypt 16 MiB from Lua (MB/s)" "$(mbps "$(cpp RawDecrypt/aes_256_cbc Bps)")" \
  "$(fmt "$(lua luaossl aes_decrypt_16m)")" "" "$(fmt "$(lua project aes_decrypt_16m)")" raw ">=" 0.97
one=$(cpp RoutineMix/real_time/threads:1 ips)
two=$(cpp RoutineMix/real_time/threads:2 ips)
row "Routine mix, 2 threads / 1 thread (calls/s ratio)" "" "" "" \
  "$(awk -v a="$two" -v b="$one" 'BEGIN { if (b > 0) printf "%.2f", a / b }')" value ">=" 1.90

row "CreateSSL with the default CA paths, once warm (ms CPU)" "" "" "" \
  "$(awk -v ns="$(cpp CreateSSLThroughEngine/default_ca_paths ns)" 'BEGIN { if (ns != "") printf "%.3f", ns / 1e6 }')" \
  value "<=" 1.00

if [ "${BENCH_SKIP_MEMORY:-0}" != 1 ]; then
  echo "Peak resident size over a 1 GiB Data.file..." >&2
  big="$scratch/one-gib"
  truncate -s 1G "$big"
  # peak STEP: the most resident memory of one ombrix run, in MiB.
  peak() {
    /usr/bin/time -v "$build/ombrix" "$root/bench/lua/memory.lua" "$1" "$big" "$scratch" 2>"$scratch/time.txt" >/dev/null \
      || { cat "$scratch/time.txt" >&2; return 1; }
    awk -F: '/Maximum resident set size/ { printf "%.0f", $2 / 1024 }' "$scratch/time.txt"
  }
  row "HMAC over 1 GiB Data.file, peak RSS (MiB)" "" "" "" "$(peak hmac)" value "<=" 64
  row "Sign over 1 GiB Data.file, peak RSS (MiB)" "" "" "" "$(peak sign)" value "<=" 64
  row "VerifySignature over 1 GiB Data.file, peak RSS (MiB)" "" "" "" "$(peak verify)" value "<=" 64
  row "Encrypt of 1 GiB Data.file, peak RSS (MiB)" "" "" "" "$(peak encrypt)" value "<=" 1126
  "$build/ombrix" "$root/bench/lua/memory.lua" prepare "$big" "$scratch"
  row "DataRefDecrypt of 1 GiB Data.file, peak RSS (MiB)" "" "" "" "$(peak decrypt)" value "<=" 1126
fi

echo
echo "| figure | raw OpenSSL (C) | luaossl (Lua 5.4) | plain Lua C function | here | ratio | target | holds |"
echo "|---|---|---|---|---|---|---|---|"
for r in "${rows[@]}"; do echo "| ${r//|/ | } |"; done
