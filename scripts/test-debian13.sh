#!/usr/bin/env bash
# The test suite on Debian 13 (trixie: GCC 14, OpenSSL 3.5), in a chroot made
# with debootstrap from the Debian archive. A normal build with warnings as
# errors and FIPS mode with a real provider; the sanitizer builds stay on the
# host's side.
#
#   scripts/test-debian13.sh [prepare|test|all] [DIR]     (default all, build-debian13)
#
# prepare: makes the Debian 13 tree in DIR/root (kept for later runs) and
#          installs the build dependencies there with scripts/setup.sh;
# test:    copies the working tree to DIR/root/src, builds it in
#          DIR/root/build, runs ctest there, then the FIPS suite with the
#          FIPS provider of Debian 13's OpenSSL (scripts/test-fips.sh).
# Needs root. /proc and /dev are mounted in the tree only while a step runs
# and are unmounted on any exit, failures included.
set -euo pipefail
cd "$(dirname "$0")/.."
step=${1:-all}
dir=${2:-build-debian13}
case $step in prepare | test | all) ;; *) echo "usage: $0 [prepare|test|all] [DIR]" >&2; exit 2 ;; esac
[ "$(id -u)" -eq 0 ] || { echo "test-debian13: needs root (debootstrap, chroot, mount)" >&2; exit 1; }
mkdir -p "$dir"
root=$(cd "$dir" && pwd)/root
mirror=http://deb.debian.org/debian

# Mount points below the tree, deepest first.
mounts_below() { findmnt -rn -o TARGET | awk -v r="$root/" 'index($0, r) == 1' | sort -r; }
unmount_all() {
  local m
  for m in $(mounts_below); do umount "$m" 2>/dev/null || umount -l "$m"; done
}
trap unmount_all EXIT
trap 'exit 130' INT TERM

# Runs a command in the tree with a clean environment.
in_root() {
  chroot "$root" /usr/bin/env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
    LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
mount_system() {
  [ -n "$(mounts_below)" ] && unmount_all
  mount -t proc proc "$root/proc"
  mount --rbind /dev "$root/dev"
  mount --make-rslave "$root/dev"  # unmounting it later leaves the host's /dev alone
}

prepare() {
  if [ ! -f "$root/.debootstrap-done" ]; then
    unmount_all
    [ -z "$(mounts_below)" ] || { echo "test-debian13: cannot unmount below $root" >&2; exit 1; }
    rm -rf "$root"
    command -v debootstrap >/dev/null || { echo "test-debian13: debootstrap is missing: run scripts/setup.sh" >&2; exit 1; }
    echo "test-debian13: debootstrap trixie into $root"
    debootstrap --variant=minbase trixie "$root" "$mirror" >"$root.debootstrap.log" 2>&1 ||
      { tail -30 "$root.debootstrap.log" >&2; exit 1; }
    touch "$root/.debootstrap-done"
  fi
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  install -m 755 scripts/setup.sh "$root/usr/local/sbin/ombrix-setup"
  mount_system
  in_root dpkg --configure -a  # finishes an installation an earlier run was stopped in
  in_root ombrix-setup
  unmount_all
}

run_tests() {
  [ -f "$root/.debootstrap-done" ] || { echo "test-debian13: no tree in $root: run the prepare step" >&2; exit 1; }
  # The working tree as it is (uncommitted changes included), without build
  # folders; modification times kept so a second run rebuilds only changes.
  rm -rf "$root/src" && mkdir -p "$root/src"
  tar -cf - --exclude=./.git --exclude='./build*' --exclude=./.cache . | tar -xf - -C "$root/src"
  mount_system
  in_root sh -c 'gcc --version | head -1; openssl version'
  in_root cmake -S /src -B /build -G Ninja -DOMBRIX_TESTS=ON -DOMBRIX_WERROR=ON >/dev/null
  in_root cmake --build /build
  in_root sh -c 'cd /build && ctest --output-on-failure --no-tests=error -j "$(nproc)"'
  # FIPS mode with the FIPS provider of Debian 13's OpenSSL, built from its
  # source package (kept in /build-fips for later runs).
  in_root sh -c 'cd /src && scripts/test-fips.sh /build /build-fips'
  unmount_all
}

case $step in
  prepare) prepare ;;
  test) run_tests ;;
  all) prepare && run_tests ;;
esac
