#!/bin/sh
# Regenerates the certificate fixtures of the certificate tests with the
# openssl command. Run from this folder: sh make_certs.sh
set -eu
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Keys (those no test reads stay in the scratch folder)
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out ca.key
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$work/other_ca.key"
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out server.key
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out client.key
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$work/v1.key"

cat > "$work/ext.cnf" <<'CNF'
[ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash

[server]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature,keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = DNS:server.example.test,IP:127.0.0.1
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
certificatePolicies = 2.5.29.32.0
1.3.6.1.4.1.55555.1.1 = ASN1:UTF8String:hello

[client]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = clientAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid

[noca]
subjectKeyIdentifier = hash
CNF

# Self-signed CA, valid past 2049 so that its end is a GeneralizedTime.
openssl req -new -key ca.key -subj "/C=DE/O=Ombrix Test/CN=Ombrix Test Root CA" -out "$work/ca.csr"
openssl x509 -req -in "$work/ca.csr" -key ca.key -days 36500 -set_serial 1 \
    -extfile "$work/ext.cnf" -extensions ca -out ca.pem

# Another CA with the same name and its own key.
openssl req -new -key "$work/other_ca.key" -subj "/C=DE/O=Ombrix Test/CN=Ombrix Test Root CA" -out "$work/other.csr"
openssl x509 -req -in "$work/other.csr" -key "$work/other_ca.key" -days 3650 -set_serial 2 \
    -extfile "$work/ext.cnf" -extensions ca -out other_ca.pem

# Server leaf: many extensions, one with a private identifier, a repeated OU.
openssl req -new -key server.key \
    -subj "/C=DE/O=Ombrix Test/OU=First Unit/OU=Second Unit/CN=server.example.test" -out "$work/server.csr"
openssl x509 -req -in "$work/server.csr" -CA ca.pem -CAkey ca.key -days 3650 \
    -set_serial 0x0123456789ABCDEF0123 -extfile "$work/ext.cnf" -extensions server -out server.pem

# Client leaf with an EC key.
openssl req -new -key client.key -subj "/O=Ombrix Test/CN=client" -out "$work/client.csr"
openssl x509 -req -in "$work/client.csr" -CA ca.pem -CAkey ca.key -days 3650 \
    -set_serial 3 -extfile "$work/ext.cnf" -extensions client -out client.pem

# Version 1, self-signed, no extensions.
openssl req -new -key "$work/v1.key" -subj "/CN=version one" -out "$work/v1.csr"
openssl x509 -req -in "$work/v1.csr" -key "$work/v1.key" -days 3650 -set_serial 0 -out v1.pem

# Version 3, self-signed, without basicConstraints.
openssl req -new -key ca.key -subj "/CN=not a CA" -out "$work/noca.csr"
openssl x509 -req -in "$work/noca.csr" -key ca.key -days 3650 -set_serial 4 \
    -extfile "$work/ext.cnf" -extensions noca -out noca.pem

# Bundles: three certificates with text around them, the same with CR LF line
# ends, and a block labelled X509 CERTIFICATE.
{ echo "leading text"; cat ca.pem; echo "text between"; cat server.pem client.pem; } > bundle.pem
sed 's/$/\r/' bundle.pem > bundle_crlf.pem
sed 's/ CERTIFICATE-----/ X509 CERTIFICATE-----/' server.pem > x509_label.pem
