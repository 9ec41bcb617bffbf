#!/usr/bin/env bash
# Checks what make_ca.lua wrote into DIR against the practice it claims:
# private keys mode 0600, EC P-256 keys, a chain that openssl verify
# -x509_strict accepts for the server name, a CA valid for at most five years
# (1825 days) and a server certificate for at most 397 days, distinct serials
# from 1 to 2^31-1.
#
#   check_pki.sh DIR SERVER-NAME
set -euo pipefail
dir=$1 name=$2
fail() { echo "check_pki: $*" >&2; exit 1; }

for key in ca-key.pem server-key.pem; do
  [[ $(stat -c %a "$dir/$key") == 600 ]] || fail "$key has mode $(stat -c %a "$dir/$key"), not 600"
  openssl pkey -in "$dir/$key" -noout -text | grep -q 'ASN1 OID: prime256v1' || fail "$key is no P-256 key"
done
# -x509_strict wants, among others, the server certificate's authority key
# identifier, which make_ca.lua must supply as literal data. (Python's ssl with
# VERIFY_X509_STRICT sets the same OpenSSL flag.)
openssl verify -x509_strict -CAfile "$dir/ca.pem" -verify_hostname "$name" -purpose sslserver "$dir/server.pem" >/dev/null ||
  fail "openssl verify -x509_strict does not accept server.pem for $name"

days() {  # certificate: its validity in whole days, rounded up
  local start end
  start=$(date -d "$(openssl x509 -in "$1" -noout -startdate | cut -d= -f2)" +%s)
  end=$(date -d "$(openssl x509 -in "$1" -noout -enddate | cut -d= -f2)" +%s)
  echo $(((end - start + 86399) / 86400))
}
serial() { echo $((16#$(openssl x509 -in "$1" -noout -serial | cut -d= -f2))); }

(($(days "$dir/ca.pem") <= 1825)) || fail "the CA is valid for $(days "$dir/ca.pem") days"
(($(days "$dir/server.pem") <= 397)) || fail "the server certificate is valid for $(days "$dir/server.pem") days"
ca_serial=$(serial "$dir/ca.pem") server_serial=$(serial "$dir/server.pem")
for s in "$ca_serial" "$server_serial"; do
  ((s >= 1 && s <= 2147483647)) || fail "serial $s is outside 1 to 2^31-1"
done
((ca_serial != server_serial)) || fail "CA and server share the serial $ca_serial"
echo "pki in $dir: keys 0600 and P-256, chain verifies strictly for $name, CA $(days "$dir/ca.pem") days," \
     "server $(days "$dir/server.pem") days, serials $ca_serial and $server_serial"
