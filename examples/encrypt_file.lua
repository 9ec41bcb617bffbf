#!/usr/bin/env ombrix
-- Encrypts a file's bytes into an AES-256-GCM token and decrypts it again.
--
--   ombrix examples/encrypt_file.lua PATH [PASSWORD]
--
-- The key comes from the password through BytesToKey with a random salt; the
-- file's name is bound to the token as additional authenticated data, so a
-- token cannot be passed off as another file's.
local path, password = ...
if not path then
  io.stderr:write("usage: ombrix examples/encrypt_file.lua PATH [PASSWORD]\n")
  os.exit(2)
end
password = password or "correct horse battery staple"

local salt = Cryptography.CreateRandomBytes(8)
local key = Cryptography.BytesToKey("AES-256-CBC", "SHA256", Data(password), salt, 1):bytes():sub(1, 32)
local aad = path

local plain = Data.file(path)  -- read on demand
if #plain == 0 then
  print(path .. " is empty: there is nothing to encrypt (EncryptAndAuth gives an empty token)")
  return
end
local token = Cryptography.EncryptAndAuth(plain, "AES-256-GCM", key, aad, 16)
print(("file        %s (%d bytes)"):format(path, #plain))
print(("salt        %s"):format(salt:hex()))
print(("token       %d Base64 characters, begins %s..."):format(#token, token:sub(1, 32)))

local restored = Cryptography.DataRefDecryptAndVerify(token, "AES-256-GCM", key, aad, 16)
print(("decrypted   %d bytes, identical: %s"):format(#restored, tostring(restored == plain)))

local ok, err = pcall(Cryptography.DataRefDecryptAndVerify, token, "AES-256-GCM", key, aad .. ".copy", 16)
print(("other name  %s"):format(ok and "accepted (unexpected)" or tostring(err)))
