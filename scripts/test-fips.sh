#!/usr/bin/env bash
# FIPS mode with a real FIPS provider. Builds OpenSSL's FIPS provider (the
# provider alone) from Debian's source package of the installed OpenSSL,
# installs it with `openssl fipsinstall` in a private folder beside an
# OPENSSL_CONF that activates it and the base provider, and runs
# tests/lua/fips.lua with the module asking for FIPS mode through the
# configuration key, then through OPENSSL_FORCE_FIPS_MODE.
# Usage: test-fips.sh [BUILD-DIR [WORK-DIR]]: BUILD-DIR holds ombrix and the
# module (default build), WORK-DIR the provider (default build-fips; a
# provider already built there for the installed version is reused).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(realpath -m "${2:-build-fips}")
provider=$work/provider
version=$(dpkg-query -W -f='${source:Version}' openssl)  # the installed openssl command's source
upstream=${version%%-*}
mkdir -p "$work"

fetch_source() {  # into $work/src: the installed version, else the newest of its series that downloads
  local apt=$work/apt
  rm -rf "$apt" "$work"/openssl_* "$work/src"
  mkdir -p "$apt/lists/partial"
  # deb-src twins of the system's Debian entries, in a private list that is
  # removed afterwards: the system's own sources and lists stay untouched.
  apt-cache policy | awk '$2 ~ /^https?:\/\/[^ ]*debian\.org\// && $3 ~ /\// {
      split($3, part, "/")
      print "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]", $2, part[1], part[2] }' |
    sort -u >"$apt/sources.list"
  local options=(-o "Dir::Etc::SourceList=$apt/sources.list" -o Dir::Etc::SourceParts=/nonexistent
                 -o "Dir::State::Lists=$apt/lists" -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=)
  apt-get -qq "${options[@]}" update
  local candidates candidate
  candidates=$( (echo "$version"
                 apt-cache "${options[@]}" showsrc openssl | awk '/^Version:/ { print $2 }' |
                   { grep -F "${upstream%.*}." || true; } | sort -Vru) | awk '!seen[$0]++')
  for candidate in $candidates; do
    if (cd "$work" && apt-get -qq "${options[@]}" source --download-only "openssl=$candidate" >/dev/null 2>&1); then
      [ "$candidate" = "$version" ] ||
        echo "the source of openssl $version could not be downloaded; building the provider of $candidate"
      rm -rf "$apt"
      dpkg-source -x "$work/openssl_${candidate#*:}.dsc" "$work/src" >/dev/null
      rm -f "$work"/openssl_*
      return
    fi
  done
  rm -rf "$apt"
  echo "no source of openssl $upstream series could be downloaded" >&2
  exit 1
}

if [ "$(cat "$provider/for-version" 2>/dev/null)" != "$version" ]; then
  start=$SECONDS
  fetch_source
  echo "source fetched in $((SECONDS - start)) s"
  start=$SECONDS
  (cd "$work/src" && ./Configure enable-fips no-tests >"$work/build.log" 2>&1 &&
     make -j"$(nproc)" build_generated >>"$work/build.log" 2>&1 &&
     make -j"$(nproc)" providers/fips.so >>"$work/build.log" 2>&1) ||
    { tail -30 "$work/build.log" >&2; exit 1; }
  echo "FIPS provider built in $((SECONDS - start)) s"
  rm -rf "$provider"
  mkdir -p "$provider"
  install -m 755 "$work/src/providers/fips.so" "$provider/fips.so"
  rm -rf "$work/src"
  openssl fipsinstall -module "$provider/fips.so" -out "$provider/fipsmodule.cnf" >"$work/fipsinstall.log" 2>&1 ||
    { cat "$work/fipsinstall.log" >&2; exit 1; }
  # fipsmodule.cnf holds the [fips_sect] of the installation (its checksum
  # and settings); the module path is added to that section here.
  cat >"$provider/openssl.cnf" <<EOF
config_diagnostics = 1
openssl_conf = openssl_init
.include $provider/fipsmodule.cnf

[openssl_init]
providers = provider_sect

[provider_sect]
fips = fips_sect
base = base_sect

[fips_sect]
module = $provider/fips.so

[base_sect]
activate = 1
EOF
  echo "$version" >"$provider/for-version"
fi

# Where the kernel's FIPS switch file exists it alone decides; the module
# built for the tests reads its switch file from the build tree instead, so
# the configuration key and the environment variable still decide there.
module=$build/libCryptography.so
if [ -e /proc/sys/crypto/fips_enabled ]; then
  module=$build/libCryptographyTestFips.so
  echo "/proc/sys/crypto/fips_enabled exists: running $module"
fi
export OPENSSL_CONF=$provider/openssl.cnf
openssl list -providers | grep -A3 '^  fips$'
echo "-- FIPS wanted by the configuration key"
"$build/ombrix" -m "$module" -c Cryptography.EnableFIPSMode=true tests/lua/fips.lua tests/data fips
echo "-- FIPS wanted by OPENSSL_FORCE_FIPS_MODE (the configuration key says false)"
OPENSSL_FORCE_FIPS_MODE=1 "$build/ombrix" -m "$module" -c Cryptography.EnableFIPSMode=false tests/lua/fips.lua tests/data fips
