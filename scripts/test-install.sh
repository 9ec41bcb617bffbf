#!/usr/bin/env bash
# Checks what a build installs and packages, the way a new user and a host
# author meet it: the installed tree (run from elsewhere, then moved to
# another prefix), the out-of-tree host built against it with CMake and with
# pkg-config as examples/host/README.md shows, a module built with pkg-config
# as docs/host-sdk.md shows, the Debian packages unpacked and run, and lintian on them.
# Usage: scripts/test-install.sh [BUILD-DIR]   (default: build, already built)
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
build=$(cd "${1:-build}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset OMBRIX_MODULE_PATH  # only the installed folders may be searched
digest=ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  # SHA-256 of "abc"
multiarch=$(gcc -print-multiarch)

fail() { echo "test-install: FAILED: $*" >&2; exit 1; }
ok() { echo "test-install: ok: $* (${SECONDS}s)"; }

# A prefix's ombrix, run from a folder outside the source and build trees,
# with no -m: the hash, the module it found, and the guided tour installed
# with the examples.
check_tree() {  # label, prefix
  local label=$1 prefix=$2 out
  mkdir -p "$work/elsewhere"
  out=$(cd "$work/elsewhere" && "$prefix/bin/ombrix" -e 'print(Cryptography.Hash("SHA256","abc"):hex())') ||
    fail "$label: ombrix exited $?"
  [ "$out" = "$digest" ] || fail "$label: printed '$out'"
  out=$(cd "$work/elsewhere" && "$prefix/bin/ombrix" --version)
  grep -qx "Cryptography [0-9.]* $prefix/lib/$multiarch/ombrix/modules/libCryptography.so" <<<"$out" ||
    fail "$label: --version names another module: $out"
  (cd "$work/elsewhere" && "$prefix/bin/ombrix" "$prefix/share/doc/ombrix/examples/tour.lua" >"$work/tour.out" 2>&1) ||
    { cat "$work/tour.out" >&2; fail "$label: the tour failed"; }
  check_docs "$label" "$prefix"
  ok "$label"
}

# Installed examples that start with "#!" are commands (0755), the other files
# 0644; the installed documents speak of the installed command, not build/ombrix.
check_docs() {  # label, prefix
  local label=$1 prefix=$2 file want have
  while IFS= read -r -d '' file; do
    want=644
    [ "$(head -c 2 "$file")" = '#!' ] && want=755
    have=$(stat -c %a "$file")
    [ "$have" = "$want" ] || fail "$label: ${file#"$prefix"/} has mode $have, not $want"
  done < <(find "$prefix/share/doc/ombrix/examples" -type f -print0)
  ! grep -rl 'build/ombrix' "$prefix/share/doc" || fail "$label: these documents say build/ombrix"
}

# --- cmake --install ----------------------------------------------------------
cmake --install "$build" --prefix "$work/prefix" >/dev/null
unwanted=$(cd "$work/prefix" && find . -path '*test*' -o -path '*fuzz*' -o -path '*bench*' -o -name '*.pem' -o -name '*.json')
[ -z "$unwanted" ] || fail "test, fuzz or bench files installed: $unwanted"
for f in bin/ombrix "lib/$multiarch/ombrix/modules/libCryptography.so" include/Ombrix/Interfaces.h \
         include/Ombrix/Host/Engine.h "lib/$multiarch/libombrix_sdk.a" "lib/$multiarch/libombrix_host.a" \
         "lib/$multiarch/cmake/OmbrixSDK/OmbrixSDKConfig.cmake" "lib/$multiarch/pkgconfig/ombrix-sdk.pc" \
         "lib/$multiarch/pkgconfig/ombrix-host.pc" share/doc/ombrix/README.md share/doc/ombrix/copyright \
         share/doc/ombrix/examples/tour.lua share/doc/libombrix-sdk-dev/examples/host/main.cpp \
         share/man/man1/ombrix.1.gz; do
  [ -f "$work/prefix/$f" ] || fail "not installed: $f"
done
# The packages are made meanwhile (cpack installs the build again, stripped).
(cd "$work" && exec cpack -G DEB -B "$work/deb" --config "$build/CPackConfig.cmake" >"$work/cpack.log" 2>&1) &
cpack=$!
check_tree "installed tree" "$work/prefix"
mv "$work/prefix" "$work/moved"
check_tree "installed tree moved to another prefix" "$work/moved"

# --- the out-of-tree host, against the moved tree ---------------------------------
cmake -S examples/host -B "$work/host-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/moved" >/dev/null
cmake --build "$work/host-cmake" >/dev/null
out=$(cd "$work/elsewhere" && "$work/host-cmake/hash_abc" 2>/dev/null) || fail "CMake-built host exited $?"
[ "$out" = "$digest" ] || fail "CMake-built host printed '$out'"
ok "host built with find_package(OmbrixSDK)"
# The same host and the guide's module with pkg-config alone, compiled by the
# commands the documents give (no -std of our own: the flags must carry it).
# Run without arguments, the host loads the module from pkg-config's moduledir.
export PKG_CONFIG_PATH="$work/moved/lib/$multiarch/pkgconfig"
# shellcheck disable=SC2046  # the flags are words
g++ -o "$work/hash_abc_pc" examples/host/main.cpp $(pkg-config --cflags --libs ombrix-host) \
    -DOMBRIX_MODULE_DIR="\"$(pkg-config --variable=moduledir ombrix-host)\"" || fail "g++ with pkg-config ombrix-host"
out=$(cd "$work/elsewhere" && "$work/hash_abc_pc" 2>/dev/null) || fail "pkg-config-built host exited $?"
[ "$out" = "$digest" ] || fail "pkg-config-built host printed '$out'"
ok "host built with pkg-config ombrix-host"
mkdir -p "$work/greeting"
awk '/^```cpp$/ { getline first; if (first == "// greeting.cpp") { keep = 1; print first }; next }
     keep && /^```$/ { exit } keep' docs/host-sdk.md >"$work/greeting/greeting.cpp"
# shellcheck disable=SC2046
(cd "$work/greeting" &&
  g++ -shared -fPIC -fvisibility=hidden greeting.cpp $(pkg-config --cflags --libs ombrix-sdk) -o libGreeting.so) ||
  fail "g++ with pkg-config ombrix-sdk"
out=$(cd "$work/greeting" && "$work/moved/bin/ombrix" -m ./libGreeting.so -e 'print(Greeting.Hello("Ada"))') ||
  fail "the pkg-config-built module failed"
[ "$out" = "Hello, Ada!" ] || fail "the pkg-config-built module printed '$out'"
ok "module built with pkg-config ombrix-sdk"

# --- Debian packages --------------------------------------------------------------
wait "$cpack" || { cat "$work/cpack.log" >&2; fail "cpack"; }
debs=("$work"/deb/*.deb)
[ "${#debs[@]}" -eq 2 ] || fail "expected two packages, got: ${debs[*]}"
for deb in "${debs[@]}"; do
  dpkg-deb -x "$deb" "$work/root"
  leaked=$(dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '^\./$' | grep -v '^\./usr/' || true)
  [ -z "$leaked" ] || fail "$(basename "$deb") has files outside /usr: $leaked"
done
dpkg-deb -f "$work"/deb/ombrix_*.deb Depends | grep -q 'libssl3' || fail "ombrix's dependencies were not computed"
check_tree "unpacked package" "$work/root/usr"
if command -v lintian >/dev/null; then
  status=0
  report=$(lintian --fail-on error "${debs[@]}" 2>&1) || status=$?
  grep -v 'running with root privileges' <<<"$report" || true
  [ "$status" -eq 0 ] || fail "lintian reports errors (status $status)"
  ! grep 'doc/ombrix/examples/' <<<"$report" || fail "lintian reports on the installed examples"
  ok "lintian: no errors"
else
  echo "test-install: lintian is not installed; the packages were not checked by it"
fi

# --- hardening --------------------------------------------------------------------
# The command and the module, as built and as packaged, have the flags of
# cmake/Hardening.cmake, and lintian (whose hardening tags are info-level)
# finds none missing. hardening-check's control-flow test wants the linked
# file's IBT/SHSTK property, which Debian's glibc start files (built without
# CET) take away from every program; our code's endbr64 instructions show it
# was compiled with -fcf-protection.
for f in "$build/ombrix" "$build/libCryptography.so" "$work/root/usr/bin/ombrix" \
         "$work/root/usr/lib/$multiarch/ombrix/modules/libCryptography.so"; do
  hardening-check --quiet --nocfprotection "$f" || fail "hardening-check: $f"
  objdump -d "$f" | grep -c endbr64 >/dev/null || fail "no control-flow protection in $f"
done
tags=$(lintian -I --tags hardening-no-bindnow,hardening-no-fortify-functions,hardening-no-pie,hardening-no-relro \
  "${debs[@]}" 2>&1 | grep -v 'running with root privileges' || true)
[ -z "$tags" ] || fail "lintian: $tags"
ok "hardening-check and lintian: hardened"
