#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets into fuzz/corpus/<target>/.

    python3 fuzz/make_seeds.py BUILD_DIR

Tokens and ciphertexts come from the module itself (BUILD_DIR/ombrix runs a
short Lua script); signatures and DER forms from the openssl command. Inputs of
targets that split them with FuzzedDataProvider are laid out the way it reads
them: strings from the front, flags and numbers from the back.
"""
import os
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DATA = ROOT / "tests" / "data"
CORPUS = ROOT / "fuzz" / "corpus"


class Input:
    """Builds bytes as FuzzedDataProvider will take them apart."""

    def __init__(self):
        self.front = bytearray()
        self.back = []  # in the order they are consumed

    def flag(self, value):
        self.back.append(1 if value else 0)
        return self

    def number(self, value, low, high):
        span, offset = value - low, high - low
        width = 0
        while width * 8 < 64 and (high - low) >> (width * 8) > 0:
            width += 1
        self.back.extend(((span >> (8 * (width - 1 - i))) & 0xFF) for i in range(width))
        assert span <= offset
        return self

    def string(self, text):
        raw = text.encode() if isinstance(text, str) else text
        self.front += raw.replace(b"\\", b"\\\\") + b"\\|"
        return self

    def raw(self, data):
        self.front += data.encode() if isinstance(data, str) else data
        return self

    def bytes(self):
        return bytes(self.front) + bytes(reversed(self.back))


def write(target, name, data):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(data.bytes() if isinstance(data, Input) else data)


def fixture(name):
    return (DATA / name).read_bytes()


def run(*command, stdin=None):
    return subprocess.run(command, input=stdin, check=True, capture_output=True,
                          env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0")).stdout


def module_outputs(ombrix):
    script = pathlib.Path(os.environ.get("TMPDIR", "/tmp")) / "ombrix_fuzz_seeds.lua"
    script.write_text("""
print(Cryptography.EncryptAndAuth("attack at dawn", "aes-256-gcm", "k3y-of-thirty-two-bytes-length!!", "header", 16))
print(Cryptography.EncryptAndAuth("short tag", "aes-128-gcm", "sixteen-byte-key", "", 12))
local sealed = Cryptography.EncryptAEADCHACHA20POLY1305("ciao mondo", "chacha-key-of-32-bytes-length!!!", Data("nonce-12byte"), "aad")
print(sealed[1]:hex())
print(sealed[2]:hex())
print(Cryptography.Encrypt("AES-128-CBC", "sixteen byte msg and more", "0123456789abcdef"):hex())
print(Cryptography.Encrypt("AES-128-CBC", "with an iv", "0123456789abcdef", Data("iv-of-16-bytes!!")):hex())
""")
    try:
        return run(str(ombrix), str(script)).decode().split()
    finally:
        script.unlink()


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    gcm256, gcm128, chacha_ct, chacha_tag, cbc, cbc_iv = module_outputs(pathlib.Path(sys.argv[1]) / "ombrix")

    # sealFirst, asData, own cipher name?, [name index], int tag?, tag
    write("aead_token", "open-aes-256", Input().flag(0).flag(0).flag(0).number(2, 0, 7).flag(1).number(16, -1, 18)
          .string("k3y-of-thirty-two-bytes-length!!").string("header").raw(gcm256))
    write("aead_token", "open-aes-128-data", Input().flag(0).flag(1).flag(0).number(0, 0, 7).flag(1)
          .number(12, -1, 18).string("sixteen-byte-key").string("").raw(gcm128))
    write("aead_token", "seal-named", Input().flag(1).flag(0).flag(1).flag(1).number(16, -1, 18)
          .string("id-aes256-GCM").string("key").string("aad").raw("plaintext"))

    write("public_key", "rsa-2048", Input().string("AQAB").raw(fixture("keys/rsa.modulus.txt").strip()))
    write("public_key", "small", Input().string("Aw").raw("w7s"))

    # any cipher?, asData, contiguous, withIv, [cipher index, key], [iv]
    write("symmetric_decrypt", "cbc", Input().number(1, 0, 3).flag(0).flag(1).flag(0).raw(bytes.fromhex(cbc)))
    write("symmetric_decrypt", "cbc-iv-read", Input().number(2, 0, 3).flag(1).flag(0).flag(1)
          .string("iv-of-16-bytes!!").raw(bytes.fromhex(cbc_iv)))
    write("symmetric_decrypt", "any-cipher", Input().number(0, 0, 3).flag(0).flag(1).flag(0).number(0, 0, 255)
          .string("0123456789abcdef0123456789abcdef").raw("some plaintext"))

    # sealFirst, asData, contiguous, 16-byte tag?
    write("chacha_decrypt", "open", Input().flag(0).flag(0).flag(1).flag(1).raw(bytes.fromhex(chacha_tag))
          .string("chacha-key-of-32-bytes-length!!!").string("nonce-12byte").string("aad")
          .raw(bytes.fromhex(chacha_ct)))
    write("chacha_decrypt", "seal", Input().flag(1).flag(1).flag(0).flag(1).raw(b"\0" * 16).string("key")
          .string("short").string("").raw("message"))

    for name in ["rsa.pem", "rsa.traditional.pem", "rsa.pub.pem", "ec.pem", "ec.traditional.pem", "x25519.pem",
                 "ed25519.pub.pem"]:
        write("key_pem", name, Input().flag(0).raw(fixture("keys/" + name)))
    for name in ["rsa.encrypted.pem", "rsa.traditional-encrypted.pem"]:
        write("key_pem", name, Input().flag(1).string("ombrix-test-password").raw(fixture("keys/" + name)))

    for name in ["ca.pem", "v1.pem", "x509_label.pem", "bundle_crlf.pem"]:
        write("x509_pem", name, fixture("certs/" + name))
        write("pem_json", name, fixture("certs/" + name))
    for name in ["server.pem", "v1.pem"]:
        der = run("openssl", "x509", "-outform", "DER", "-in", str(DATA / "certs" / name))
        write("x509_der", name.replace(".pem", ".der"), b"\1" + der)

    message = b"message to sign"
    for key, public in [("keys/rsa.pem", "keys/rsa.pub.pem"), ("keys/ec.pem", "keys/ec.pub.pem")]:
        signature = run("openssl", "dgst", "-sha256", "-sign", str(DATA / key), stdin=message)
        name = pathlib.Path(public).stem
        # messageAsData, contiguous, digest index
        write("verify_pem", name, Input().flag(0).flag(1).number(0, 0, 6).string(message).string(signature)
              .raw(fixture(public)))
    write("sign_pem", "rsa", Input().flag(0).flag(1).number(0, 0, 6).string(message).raw(fixture("keys/rsa.pem")))
    write("sign_pem", "rsa-traditional-read", Input().flag(1).flag(0).number(2, 0, 6).string(message)
          .raw(fixture("keys/rsa.traditional.pem")))

    write("create_ssl", "verify-ca", b'{"CAFile": "tls/ca.pem", "Host": "localhost"}')
    write("create_ssl", "client", b'{"Verify": false, "Cert": "tls/client.pem", "Key": "tls/client.key", '
                                  b'"CipherList": "HIGH:!aNULL"}')
    write("create_ssl", "defaults", b'{"CAPath": "tls", "LoadDefaultCAPaths": true}')
    write("create_ssl", "mismatch", b'{"Cert": "tls/client.pem", "Key": "tls/stray-ec.key"}')

    write("definition", "module", fixture("module_definition.txt"))
    write("definition", "small", b"FUNCTION VECTOR<DATAREF> A.f (STRING, NUMBER) : f PROCEDURE A.p () : p TYPE A.T : t")


if __name__ == "__main__":
    main()
