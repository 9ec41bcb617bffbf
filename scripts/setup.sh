#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, when missing.
set -euo pipefail
# libedit-dev: the prompt's line editing; python3: the prompt's terminal test;
# dpkg-dev, file, lintian, devscripts (hardening-check): building and checking
# the Debian packages; debootstrap: the Debian 13 tree of scripts/test-debian13.sh.
# The same names work on Debian 12 and 13.
packages=(build-essential cmake ninja-build pkg-config libssl-dev openssl nlohmann-json3-dev liblua5.4-dev
          libgtest-dev googletest libbenchmark-dev libedit-dev python3 dpkg-dev file lintian devscripts
          debootstrap clang libclang-rt-dev llvm)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
