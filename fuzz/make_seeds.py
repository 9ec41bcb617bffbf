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


# ---- routines: calls laid out as fuzz/RoutineArguments.cpp reads them ----

WORDS = ["SHA256", "sha1", "SHA512", "MD5", "SHA3-256", "SHAKE128", "BLAKE2b512", "SM3", "sha512-224", "",
         "aes-128-cbc", "AES-256-CBC", "aes-256-gcm", "aes-128-gcm", "aes-192-gcm", "chacha20-poly1305", "chacha20",
         "des-ede3-cbc", "aes-128-ecb", "aes-256-ctr", "aes-128-ccm", "aes-256-xts", "id-aes128-wrap", "rc4",
         "RSA", "EC", "CN", "O", "OU", "C", "emailAddress", "2.5.4.3", "example.com",
         "basicConstraints", "critical,CA:TRUE,pathlen:0", "keyUsage", "digitalSignature, keyCertSign",
         "subjectAltName", "DNS:example.com, IP:127.0.0.1, email:copy", "extendedKeyUsage", "serverAuth,clientAuth",
         "subjectKeyIdentifier", "hash", "authorityKeyIdentifier", "keyid:always,issuer", "nsComment",
         "crlDistributionPoints", "URI:http://example.com/ca.crl", "certificatePolicies", "@section",
         "AQAB", "0123456789abcdef", "k3y-of-thirty-two-bytes-length!!", "nonce-12byte", "iv-of-16-bytes!!"]
PEM_FIXTURES = ["keys/ec.pem", "keys/rsa.pem", "keys/rsa.pub.pem", "keys/ec.pub.pem", "keys/x25519.pem",
                "keys/ed25519.pub.pem", "keys/rsa.traditional.pem", "keys/rsa.encrypted.pem",
                "keys/rsa.traditional-encrypted.pem", "tls/ca.pem", "tls/server.pem", "certs/bundle.pem",
                "certs/v1.pem", "keys/rsa.der", "keys/ec.pub.der"]
JSON_TEXTS = ['{}', '{"Verify":false}', '{"Verify":true}', '[1]', '3']


def declarations():
    """Routine declarations in the order the generic target numbers them:
    names by first appearance, overloads in declaration order, without the
    outbound fetch."""
    import re
    found = re.findall(r"(FUNCTION \S+|PROCEDURE) (Cryptography\.\w+) ?\(([^)]*)\)", fixture("module_definition.txt").decode())
    order, by_name = [], {}
    for _, name, params in found:
        if name not in by_name:
            order.append(name)
            by_name[name] = []
        by_name[name].append([p for p in params.replace(" ", "").split(",") if p])
    return [(n, params) for n in order for params in by_name[n] if n != "Cryptography.X509FetchFromServer"]


class Calls(Input):
    """A sequence of calls; arguments are ("word", text), ("text", str),
    ("fixture", path), ("data", bytes), ("number", int 0..4096 or -4..),
    ("json", index), ("earlier"[, which, of]) for a module value of an earlier call,
    ("fresh",) for a new empty one."""
    table = None

    def call(self, name, params, *args, peer=None):
        if Calls.table is None:
            Calls.table = declarations()
        index = Calls.table.index((name, params))
        self.number(index, 0, len(Calls.table) - 1).number(2, 0, 255)
        for kind, *value in args:
            self.number(1, 0, 15)  # declared type
            if kind == "word":
                self.number(1, 0, 5).number(0, 0, 3).number(WORDS.index(value[0]), 0, len(WORDS) - 1)
            elif kind == "text":
                self.number(1, 0, 5).number(2, 0, 3).string(value[0])
            elif kind == "fixture":
                self.number(1, 0, 5).number(1, 0, 3).number(PEM_FIXTURES.index(value[0]), 0, 255)
            elif kind == "data":
                self.number(1, 0, 4).number(1, 0, 3).number(1, 0, 4).string(value[0])
            elif kind == "number":
                self.number(2, 0, 3).number(value[0] + 4, 0, 4100)
            elif kind == "json":
                self.flag(1).number(value[0], 0, 7)
            elif kind == "earlier":  # optionally: which of how many kept values of the type
                self.number(0, 0, 3)
                if value:
                    self.number(value[0], 0, value[1] - 1)
            elif kind == "fresh":
                self.number(2, 0, 3)
        if peer is not None:
            self.string(peer)
        return self


def routine_seeds():
    s = "STRING"
    write("routines", "sign-verify", Calls()
          .call("Cryptography.KeyFromPEM", [s], ("fixture", "keys/rsa.pem"))
          .call("Cryptography.Sign", [s, "Cryptography.Key", s], ("text", "message"), ("earlier",), ("word", "SHA256"))
          .call("Cryptography.GetModulus", ["Cryptography.Key"], ("earlier",)))
    write("routines", "build-cert", Calls()
          .call("Cryptography.CreateX509", [])
          .call("Cryptography.SetSubjectName", ["Cryptography.X509", s, s], ("earlier",), ("word", "CN"), ("word", "example.com"))
          .call("Cryptography.AddExtension", ["Cryptography.X509", s, s], ("earlier",), ("word", "subjectAltName"),
                ("word", "DNS:example.com, IP:127.0.0.1, email:copy"))
          .call("Cryptography.GenerateECKey", [])
          .call("Cryptography.SetKey", ["Cryptography.X509", "Cryptography.Key"], ("earlier",), ("earlier",))
          .call("Cryptography.Sign", ["Cryptography.X509", "Cryptography.Key"], ("earlier",), ("earlier",)))
    write("routines", "cipher", Calls()
          .call("Cryptography.Encrypt", [s, s, s], ("word", "AES-256-CBC"), ("text", "plain text"),
                ("word", "k3y-of-thirty-two-bytes-length!!"))
          .call("Cryptography.Decrypt", [s, "DATAREF", s], ("word", "AES-256-CBC"), ("data", "x" * 16),
                ("word", "k3y-of-thirty-two-bytes-length!!"))
          .call("Cryptography.BytesToKey", [s, s, "DATAREF", "DATAREF", "NUMBER"], ("word", "aes-128-cbc"),
                ("word", "SHA256"), ("data", "secret"), ("data", "saltsalt"), ("number", 3)))
    write("routines", "digests", Calls()
          .call("Cryptography.Hash", [s, "DATAREF"], ("word", "SHA3-256"), ("data", "abc"))
          .call("Cryptography.HMAC", [s, s, s], ("word", "SHA512"), ("text", "key"), ("text", "message"))
          .call("Cryptography.PKCS5PBKDF2HMAC", ["DATAREF", "DATAREF", "NUMBER", s, "NUMBER"], ("data", "pw"),
                ("data", "salt"), ("number", 2), ("word", "SHA256"), ("number", 32))
          .call("Cryptography.CreateRandomBytesAsBase64URLString", ["NUMBER"], ("number", 24)))
    write("routines", "aead", Calls()
          .call("Cryptography.EncryptAndAuth", [s, s, s, s, "NUMBER"], ("text", "attack"), ("word", "aes-256-gcm"),
                ("word", "k3y-of-thirty-two-bytes-length!!"), ("text", "aad"), ("number", 16))
          .call("Cryptography.EncryptAEADCHACHA20POLY1305", [s, s, "DATAREF", s], ("text", "ciao"),
                ("word", "k3y-of-thirty-two-bytes-length!!"), ("data", "nonce-12byte"), ("text", "")))
    write("routines", "certificate", Calls()
          .call("Cryptography.X509FromPEM", [s], ("fixture", "tls/server.pem"))
          .call("Cryptography.X509FromPEM", [s], ("fixture", "tls/ca.pem"))
          .call("Cryptography.HasIssued", ["Cryptography.X509", "Cryptography.X509"], ("earlier", 1, 2), ("earlier", 0, 2))
          .call("Cryptography.GetPurpose", ["Cryptography.X509"], ("earlier", 0, 2))
          .call("Cryptography.PEMToJson", [s], ("fixture", "tls/server.pem")))
    write("routines", "bundle", Calls()
          .call("Cryptography.X509VectorFromPEM", [s], ("fixture", "certs/bundle.pem"))
          .call("Cryptography.GetDigestFromCert", [s, "Cryptography.X509"], ("word", "SHA256"), ("earlier", 0, 3)))
    write("routines", "tls", Calls()
          .call("Cryptography.CreateSSL", ["JSON"], ("json", 1))
          .call("Cryptography.Connect", ["Cryptography.SSL", "NUMBER"], ("earlier",), ("number", 3),
                peer=b"\x16\x03\x03\x00\x04\x0e\x00\x00\x00")
          .call("Cryptography.Read", ["Cryptography.SSL", "DATAREF", "NUMBER"], ("earlier",), ("data", ""),
                ("number", 100))
          .call("Cryptography.Error", ["Cryptography.SSL"], ("earlier",)))


# ---- tls_peer: server flights recorded with Python's ssl (OpenSSL) in memory ----

def server_flights():
    import ssl
    flights = {}
    for name, version in [("tls12", ssl.TLSVersion.TLSv1_2), ("tls13", ssl.TLSVersion.TLSv1_3)]:
        server_context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        server_context.load_cert_chain(DATA / "tls" / "server.pem", DATA / "tls" / "server.key")
        server_context.maximum_version = version
        client_context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        client_context.check_hostname = False
        client_context.verify_mode = ssl.CERT_NONE
        c_in, c_out, s_in, s_out = (ssl.MemoryBIO() for _ in range(4))
        client = client_context.wrap_bio(c_in, c_out, server_hostname="localhost")
        server = server_context.wrap_bio(s_in, s_out, server_side=True)
        try:
            client.do_handshake()
        except ssl.SSLWantReadError:
            pass
        s_in.write(c_out.read())
        try:
            server.do_handshake()
        except ssl.SSLWantReadError:
            pass
        flights[name] = s_out.read()
    return flights


def tls_seeds():
    for name, flight in server_flights().items():
        # first byte: mode (0 raw socket pair, 2 fetch) and options (0x10 verify)
        write("tls_peer", "raw-" + name, bytes([0x00]) + flight)
        write("tls_peer", "raw-verify-" + name, bytes([0x30]) + flight)
        write("tls_peer", "fetch-" + name, bytes([0x02]) + flight)
    # a real server: chunks of (length, action, bytes)
    chunks = bytes([5, 0]) + b"hello" + bytes([0, 2]) + bytes([3, 1]) + b"\x15\x03\x03" + bytes([0, 3])
    write("tls_peer", "server-tls13", bytes([0x01]) + chunks)
    write("tls_peer", "server-tls12", bytes([0x22]) + chunks)  # 0x22 % 3 == 1, 0x20: TLS 1.2 at most


# ---- cert_fields and restore ----

def cert_field_seeds():
    write("cert_fields", "server", b"S CN=www.example.com\nS O=Example\nS C=DE\nI CN=Example CA\nV 2\nN 4096\n"
          b"E basicConstraints=critical,CA:FALSE\nE keyUsage=digitalSignature, keyEncipherment\n"
          b"E extendedKeyUsage=serverAuth\nE subjectAltName=DNS:www.example.com, DNS:example.com, IP:192.0.2.1\n")
    write("cert_fields", "ca", b"ca\nE basicConstraints=critical,CA:TRUE,pathlen:1\nE keyUsage=keyCertSign, cRLSign\n"
          b"E subjectKeyIdentifier=hash\nE nsComment=made for fuzzing\nE certificatePolicies=1.2.3.4\n")
    write("cert_fields", "generic", b"S 2.5.4.3=generic\nS emailAddress=someone@example.com\n"
          b"E 1.2.3.4=ASN1:SEQUENCE:seq\nE 1.2.3.5=DER:30:03:01:01:ff\nE crlDistributionPoints=URI:http://e.com/c.crl\n"
          b"E authorityInfoAccess=OCSP;URI:http://ocsp.example.com/\nE issuerAltName=email:ca@example.com\n")


def restore_seeds(ombrix):
    script = pathlib.Path(os.environ.get("TMPDIR", "/tmp")) / "ombrix_fuzz_restore.lua"
    script.write_text("""
local data = arg[1] .. "/"
local function read(p) local f = assert(io.open(data .. p, "rb")) local t = f:read("a") f:close() return t end
for _, name in ipairs({"keys/rsa.pem", "keys/ec.pem", "keys/rsa.pub.pem", "keys/x25519.pem", "keys/ed25519.pub.pem"}) do
  print("key", Ombrix.serialize(Cryptography.KeyFromPEM(read(name))))
end
for _, name in ipairs({"tls/ca.pem", "certs/v1.pem", "tls/server.pem"}) do
  print("x509", Ombrix.serialize(Cryptography.X509FromPEM(read(name))))
end
""")
    try:
        lines = run(str(ombrix), str(script), str(DATA)).decode().splitlines()
    finally:
        script.unlink()
    for number, line in enumerate(lines):
        kind, text = line.split("\t", 1)
        write("restore", "%s-%d" % (kind, number), bytes([0 if kind == "key" else 1]) + text.encode())
    write("restore", "ssl", b"\x02{}")


# Operation numbers of fuzz/script.cpp, in its order; each operation is its
# number, a slot byte (slot = byte % 4 + 1) and its parameter bytes.
SCRIPT_OPS = ["data_bytes", "data_random", "data_file", "data_hash", "data_use", "data_self", "read_into",
              "same_data", "routine", "spawn", "join", "coroutine", "setlocal", "collect", "finalizer", "drop",
              "connect", "tls", "fetch", "wait", "many", "at_close", "resurrect", "error_object", "object",
              "repeat", "reload", "tls_session"]
SILENT, RESET, GARBAGE, TLS = range(4)


def op(name, *params):
    return bytes([SCRIPT_OPS.index(name), *params])


def script_seeds():
    nil = 0  # an argument byte that makes nil
    fetch_tls, close_first, collect = op("fetch", 0, TLS), op("coroutine", 0, 0), op("collect", 0, 0, 0)
    # Each reproduces one of the defects the target was written for.
    write("script", "lent-string-closed", op("spawn", 0) + fetch_tls + bytes([nil])
          + op("spawn", 1) + op("repeat", 0, 0, 1) + close_first + collect + bytes([nil]) + op("join", 0, 1))
    write("script", "lent-string-overwritten", op("spawn", 0) + fetch_tls + bytes([nil])
          + op("spawn", 1) + op("repeat", 0, 0, 1) + op("setlocal", 0, 0, 1, 0) + collect + bytes([nil])
          + op("join", 0, 1))
    write("script", "task-table-while-reporting", op("error_object", 0) + collect)
    write("script", "join-after-scheduler", op("spawn", 0) + op("data_random", 0, 0) + bytes([nil])
          + op("at_close", 0) + op("join", 0, 1))
    write("script", "hex-while-finalizer-reads", op("connect", 0, TLS, 0) + op("tls", 0, 0)
          + op("repeat", 0, 49, 0) + op("finalizer", 0) + op("read_into", 0, 0, 1) + bytes([1])
          + op("collect", 0, 10, 2)
          + op("repeat", 0, 99, 0) + op("data_use", 0, 4))
    write("script", "assign-from-itself", op("data_random", 0, 4) + op("data_self", 0, 0, 1))
    write("script", "read-onto-itself", op("data_random", 0, 4) + op("data_self", 0, 1, 1))
    write("script", "resurrected-handle", op("spawn", 0) + op("wait", 0, 0, 0, 20) + bytes([nil])
          + op("resurrect", 0) + collect + op("spawn", 1) + op("join", 0, 0) + bytes([nil]))
    for name, action in [("resume-parked-task", 1), ("raw-resume-parked-task", 2)]:
        write("script", name, op("connect", 0, SILENT, 1) + op("spawn", 0) + op("wait", 0, 0, 0, 39) + bytes([nil])
              + op("spawn", 1) + op("coroutine", 0, action) + bytes([nil]) + op("join", 0, 1))
    # All at once: TLS sessions in tasks reading into a buffer whose hex finalizers make in small
    # collection steps, hundreds of parked fetches and waits, coroutines closed and overwritten
    # meanwhile, resets, a resurrected handle, a failure reported by a __tostring that drops its
    # task, spawn and join while the state closes; then a reload with calls parked, and again.
    everything = (op("data_random", 0, 4) + op("tls_session", 0, TLS, 0) + op("tls_session", 1, TLS, 0)
                  + op("tls_session", 2, RESET, 1) + op("tls_session", 3, GARBAGE, 0)
                  + op("repeat", 0, 19, 1) + op("finalizer", 0) + op("data_use", 0, 0) + bytes([1])
                  + op("finalizer", 1) + op("data_self", 0, 0, 3) + bytes([1])
                  + op("collect", 0, 1, 2) + op("connect", 0, SILENT, 1)
                  + op("many", 0, 99, 1, SILENT) + op("many", 1, 59, 0, 0, 15) + op("many", 2, 39, 1, RESET)
                  + op("many", 3, 29, 1, GARBAGE) + op("many", 0, 29, 1, TLS)
                  + op("spawn", 1) + fetch_tls + bytes([nil]) + op("spawn", 2) + op("wait", 0, 0, 0, 30) + bytes([nil])
                  + op("spawn", 3) + op("repeat", 0, 0, 2) + op("coroutine", 1, 0) + op("setlocal", 2, 0, 1, 0)
                  + op("coroutine", 0, 2) + bytes([nil])
                  + op("resurrect", 2) + op("collect", 0, 3, 1) + op("error_object", 3) + op("same_data", 0, 1)
                  + op("collect", 0, 0, 3) + op("join", 1, 1) + op("join", 0, 0) + op("at_close", 0)
                  + op("spawn", 0) + op("data_use", 0, 1) + bytes([nil]))
    write("script", "everything-then-reload", everything + op("join", 0, 1) + op("reload") + everything[:44])
    # Hundreds of parked calls against every peer, a reload with calls parked, and the rest.
    write("script", "many-parked-then-reload", op("connect", 0, SILENT, 1)
          + op("many", 0, 199, 1, SILENT) + op("many", 1, 99, 1, RESET) + op("many", 2, 99, 1, GARBAGE)
          + op("spawn", 0) + op("wait", 0, 0, 0, 5) + bytes([nil]) + op("join", 0, 1) + op("reload")
          + op("object", 0, 0) + op("object", 1, 2) + op("routine", 0, 0, 2, 2, 1, 3, 0)
          + op("same_data", 0, 0) + op("data_file", 1) + op("data_use", 1, 3) + op("data_self", 1, 3, 0))


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

    routine_seeds()
    tls_seeds()
    cert_field_seeds()
    restore_seeds(pathlib.Path(sys.argv[1]) / "ombrix")
    script_seeds()


if __name__ == "__main__":
    main()
