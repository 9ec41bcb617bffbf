#!/bin/sh
# Regenerates the key fixtures with the openssl command (run from this folder).
set -e
PASS=ombrix-test-password

# RSA 2048: PKCS#8 private, PKCS#1 private, SubjectPublicKeyInfo, and DER forms.
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out rsa.pem
openssl pkey -in rsa.pem -traditional -out rsa.traditional.pem
openssl pkey -in rsa.pem -pubout -out rsa.pub.pem
openssl pkey -in rsa.pem -traditional -outform DER -out rsa.der
openssl rsa -in rsa.pem -RSAPublicKey_out -outform DER -out rsa.pub.der
openssl pkey -in rsa.pem -aes-256-cbc -passout pass:$PASS -out rsa.encrypted.pem
openssl rsa -in rsa.pem -traditional -aes128 -passout pass:$PASS -out rsa.traditional-encrypted.pem

# EC prime256v1: PKCS#8 private, SEC1 private, SubjectPublicKeyInfo, DER forms
# (the public one the bare point, the last 65 bytes of the SubjectPublicKeyInfo).
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:prime256v1 -out ec.pem
openssl ec -in ec.pem -out ec.traditional.pem
openssl pkey -in ec.pem -pubout -out ec.pub.pem
openssl ec -in ec.pem -outform DER -out ec.der
# Encrypted with the empty pass phrase: read only by whoever supplies "".
openssl pkcs8 -topk8 -in ec.pem -v2 aes-128-cbc -passout pass: -out ec.empty-password.pem
openssl pkey -in ec.pem -pubout -outform DER | tail -c 65 > ec.pub.der

# X25519: PKCS#8 private, SubjectPublicKeyInfo, DER forms.
openssl genpkey -algorithm X25519 -out x25519.pem
openssl pkey -in x25519.pem -pubout -out x25519.pub.pem
openssl pkey -in x25519.pem -outform DER -out x25519.der
openssl pkey -in x25519.pem -pubout -outform DER -out x25519.pub.der

# Exponent and modulus of the RSA key, as unpadded Base64URL.
openssl rsa -in rsa.pem -noout -modulus | sed 's/^Modulus=//' | xxd -r -p | basenc --base64url -w0 | tr -d '=' > rsa.modulus.txt

# Ed25519 public key: an algorithm the key routines report as "Unknown".
openssl genpkey -algorithm ED25519 | openssl pkey -pubout -out ed25519.pub.pem
