-- Symmetric encryption: any cipher OpenSSL knows by name with a random raw
-- key and IV (and why ECB, fixed IVs and short keys are wrong), AES-GCM
-- tokens, ChaCha20-Poly1305, and key derivation with BytesToKey.
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end

heading("Encrypt and Decrypt with a raw key")
-- Keys are STRING (raw bytes, not text), IVs are DATAREF. Both come from the
-- random generator: 32 bytes of key for AES-256, a fresh 16-byte IV for every
-- message, stored beside the ciphertext (it is no secret).
local key = Cryptography.CreateRandomBytes(32):bytes()
local iv = Cryptography.CreateRandomBytes(16)
local ciphertext = Cryptography.Encrypt("AES-256-CBC", "attack at dawn", key, iv)
show("AES-256-CBC ciphertext", ciphertext:hex())
show("  length (padded to a whole block)", #ciphertext)
show("Decrypt (a STRING)", Cryptography.Decrypt("AES-256-CBC", ciphertext, key, iv))
show("DataRefDecrypt (a DATAREF)", Cryptography.DataRefDecrypt("AES-256-CBC", ciphertext, key, iv):hex())
local ok, err = pcall(Cryptography.Decrypt, "AES-256-CBC", ciphertext, Cryptography.CreateRandomBytes(32):bytes(), iv)
-- CBC checks nothing but the padding: now and then a wrong key passes it.
show("another key", ok and "no error, only garbage: CBC checks no integrity" or err)
ok, err = pcall(Cryptography.Encrypt, "AES-999-CBC", "x", key)
show("unknown cipher", err)
print("  CBC hides the message but does not protect it: use AES-GCM (below) unless a")
print("  format demands CBC, and then add an HMAC over IV and ciphertext.")

heading("Accepted, but wrong: ECB, a fixed IV, a short key")
-- ECB encrypts equal 16-byte blocks to equal blocks, so patterns show through.
local twoBlocks = Cryptography.Encrypt("AES-256-ECB", Data(string.rep("sixteen byte msg", 2)), key):hex()
show("ECB: block 1 equals block 2", twoBlocks:sub(1, 32) == twoBlocks:sub(33, 64))
-- A fixed (or absent: all zeros) IV makes equal messages equal ciphertexts.
show("fixed IV: equal messages look equal", Cryptography.Encrypt("AES-256-CBC", "yes", key) ==
                                             Cryptography.Encrypt("AES-256-CBC", "yes", key))
-- A short key is zero-extended, not refused: "k" is one of only 256 keys.
show('key "k" == key "k" plus 31 zero bytes', Cryptography.Encrypt("AES-256-CBC", "x", "k", iv) ==
                                              Cryptography.Encrypt("AES-256-CBC", "x", "k" .. string.rep("\0", 31), iv))
-- A long key is cut to the cipher's length without a word.
show("a key's bytes past 32 are ignored", Cryptography.Encrypt("AES-256-CBC", "x", key .. "extra", iv) ==
                                          Cryptography.Encrypt("AES-256-CBC", "x", key, iv))

heading("AES-GCM: one Base64 token of IV, tag and ciphertext")
local token = Cryptography.EncryptAndAuth("meet me at noon", "AES-256-GCM", key, "header v1", 16)
show("EncryptAndAuth token", token)
show("  again (fresh IV each time)", Cryptography.EncryptAndAuth("meet me at noon", "AES-256-GCM", key, "header v1", 16))
show("DecryptAndVerify", Cryptography.DecryptAndVerify(token, "AES-256-GCM", key, "header v1", 16))
ok, err = pcall(Cryptography.DecryptAndVerify, token, "AES-256-GCM", key, "header v2", 16)
show("other AAD", err)
ok, err = pcall(Cryptography.EncryptAndAuth, "x", "AES-256-CBC", key, "", 16)
show("not a GCM cipher", err)

heading("ChaCha20-Poly1305: the caller's nonce, ciphertext and tag apart")
-- 12 random bytes; a nonce must never repeat under one key.
local nonce = Cryptography.CreateRandomBytes(12)
local sealed = Cryptography.EncryptAEADCHACHA20POLY1305("ciao", key, nonce, "aad")
show("ciphertext", sealed[1]:hex())
show("tag (16 bytes)", sealed[2]:hex())
show("DecryptAEADCHACHA20POLY1305",
     Cryptography.DecryptAEADCHACHA20POLY1305(sealed[1], sealed[2], key, nonce, "aad"))
ok, err = pcall(Cryptography.DecryptAEADCHACHA20POLY1305, sealed[1], sealed[2], key, nonce, "AAD")
show("other AAD", err)

heading("BytesToKey: key and IV from a password (as openssl enc does)")
-- For compatibility with old files only: one round of a fast hash makes
-- password guessing cheap. New designs use PKCS5PBKDF2HMAC (section 20).
local derived = Cryptography.BytesToKey("AES-256-CBC", "SHA256", Data("secret"), Data.fromhex("0102030405060708"), 1)
local derivedKey = derived:bytes():sub(1, 32)
local derivedIv = Data(derived:bytes():sub(33))
show("48 bytes: a 32-byte key ...", Data(derivedKey):hex())
show("  ... then a 16-byte IV", derivedIv:hex())
local protected = Cryptography.Encrypt("AES-256-CBC", "derived", derivedKey, derivedIv)
show("used for Encrypt/Decrypt", Cryptography.Decrypt("AES-256-CBC", protected, derivedKey, derivedIv))
show("AES-128-ECB with MD5 (no IV part)",
     Cryptography.BytesToKey("AES-128-ECB", "MD5", Data("secret"), Data(""), 1):hex())
