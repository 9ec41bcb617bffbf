#!/usr/bin/env bash
# Checks a file encrypt_file.lua wrote: mode 0600, the self-describing header
# with PBKDF2-HMAC-SHA256 at 600000 rounds or more, a 16-byte salt, and a
# Base64 token longer than IV and tag alone.
#
#   check_sealed.sh FILE.enc
set -euo pipefail
file=$1
fail() { echo "check_sealed: $*" >&2; exit 1; }

[[ $(stat -c %a "$file") == 600 ]] || fail "$file has mode $(stat -c %a "$file"), not 600"
mapfile -t lines <"$file"
((${#lines[@]} == 6)) || fail "$file has ${#lines[@]} lines, not 6"
[[ ${lines[0]} == "ombrix-encrypted-file 1" ]] || fail "first line: ${lines[0]}"
[[ ${lines[1]} == "kdf PBKDF2-HMAC-SHA256" ]] || fail "kdf line: ${lines[1]}"
[[ ${lines[2]} =~ ^rounds\ ([0-9]+)$ ]] && ((BASH_REMATCH[1] >= 600000)) || fail "rounds line: ${lines[2]}"
[[ ${lines[3]} =~ ^salt\ [0-9a-f]{32}$ ]] || fail "salt line: ${lines[3]}"
[[ ${lines[4]} == "cipher AES-256-GCM" ]] || fail "cipher line: ${lines[4]}"
[[ ${lines[5]} =~ ^token\ ([A-Za-z0-9+/=]+)$ ]] || fail "token line: ${lines[5]:0:40}..."
# 12 bytes of IV and 16 of tag make 28; anything sealed adds to them.
(($(printf '%s' "${BASH_REMATCH[1]}" | base64 -d | wc -c) > 28)) || fail "the token holds no ciphertext"
echo "$file: mode 0600, ${lines[2]}, 16-byte salt, AES-256-GCM token"
