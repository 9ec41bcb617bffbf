#!/usr/bin/env bash
# Regenerates the TLS test fixtures of this folder with the openssl command.
# Every key is a throwaway made for the tests; certificates last 100 years.
set -euo pipefail
cd "$(dirname "$0")"
days=36500
ec() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1"; }

# A private certification authority and a second one nobody trusts.
for ca in ca other-ca; do
  ec $ca.key
  openssl req -x509 -new -key $ca.key -out $ca.pem -days $days -subj "/CN=Ombrix Test $ca" \
    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign
done

# Leaf certificates issued by ca: name, subject, extensions.
issue() {
  ec "$1.key"
  openssl req -new -key "$1.key" -subj "$2" -out "$1.csr"
  printf '%s\n' "$3" > "$1.ext"
  openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -set_serial "0x$(openssl rand -hex 8)" \
    -days $days -extfile "$1.ext" -out "$1.pem"
  rm -f "$1.csr" "$1.ext"
}
issue server "/CN=localhost" "subjectAltName=DNS:localhost,IP:127.0.0.1"
issue client "/CN=Ombrix Test Client" "extendedKeyUsage=clientAuth"

# Self-signed certificates served by name (server name indication).
for name in self alpha; do
  ec $name.key
  openssl req -x509 -new -key $name.key -out $name.pem -days $days -subj "/CN=$name.test"
done

rm -f ca.srl
