-- Symmetric encryption: any cipher OpenSSL knows by name with a raw key,
-- AES-GCM tokens, ChaCha20-Poly1305, and key derivation with BytesToKey.
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end

heading("Encrypt and Decrypt with a raw key")
local key = "0123456789abcdef0123456789abcdef"  -- 32 bytes for AES-256
local iv = Data.fromhex("000102030405060708090a0b0c0d0e0f")
local ciphertext = Cryptography.Encrypt("AES-256-CBC", "attack at dawn", key, iv)
show("AES-256-CBC ciphertext", ciphertext:hex())
show("  length (padded to a whole block)", #ciphertext)
show("Decrypt (a STRING)", Cryptography.Decrypt("AES-256-CBC", ciphertext, key, iv))
show("DataRefDecrypt (a DATAREF)", Cryptography.DataRefDecrypt("AES-256-CBC", ciphertext, key, iv):hex())
show("a longer key is cut", Cryptography.Encrypt("AES-256-CBC", "attack at dawn", key .. "extra", iv) == ciphertext)
show("no IV: an IV of zeros", Cryptography.Encrypt("AES-128-ECB", Data("sixteen byte msg"), "k"):hex())
local ok, err = pcall(Cryptography.Decrypt, "AES-256-CBC", ciphertext, "not the key", iv)
show("wrong key", err)
ok, err = pcall(Cryptography.Encrypt, "AES-999-CBC", "x", key)
show("unknown cipher", err)

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
local nonce = Data.fromhex("070000004041424344454647")
local sealed = Cryptography.EncryptAEADCHACHA20POLY1305("ciao", key, nonce, "aad")
show("ciphertext", sealed[1]:hex())
show("tag (16 bytes)", sealed[2]:hex())
show("DecryptAEADCHACHA20POLY1305",
     Cryptography.DecryptAEADCHACHA20POLY1305(sealed[1], sealed[2], key, nonce, "aad"))
ok, err = pcall(Cryptography.DecryptAEADCHACHA20POLY1305, sealed[1], sealed[2], key, nonce, "AAD")
show("other AAD", err)

heading("BytesToKey: key and IV from a password (as openssl enc does)")
local derived = Cryptography.BytesToKey("AES-256-CBC", "SHA256", Data("secret"), Data.fromhex("0102030405060708"), 1)
local derivedKey = derived:bytes():sub(1, 32)
local derivedIv = Data(derived:bytes():sub(33))
show("48 bytes: a 32-byte key ...", Data(derivedKey):hex())
show("  ... then a 16-byte IV", derivedIv:hex())
local protected = Cryptography.Encrypt("AES-256-CBC", "derived", derivedKey, derivedIv)
show("used for Encrypt/Decrypt", Cryptography.Decrypt("AES-256-CBC", protected, derivedKey, derivedIv))
show("AES-128-ECB with MD5 (no IV part)",
     Cryptography.BytesToKey("AES-128-ECB", "MD5", Data("secret"), Data(""), 1):hex())
