#!/usr/bin/env ombrix
-- Signs a file with a fresh RSA key and verifies the signature.
--
--   ombrix examples/sign_file.lua FILE [DIGEST]
--
-- The file is read on demand in chunks, so it may be large. Prints the public
-- key a recipient needs and the signature in hex, then verifies the signature
-- with the public key alone, as the recipient would.
local path, digest = arg[1], arg[2] or "SHA256"
if not path then
  io.stderr:write("usage: ombrix examples/sign_file.lua FILE [DIGEST]\n")
  os.exit(2)
end

local C = Cryptography
local key = C.GenerateRSAKey(3072)
local signature = C.Sign(Data.file(path), key, digest)

print(("%s signature of %s with a fresh %d-bit RSA key"):format(digest, path, C.GetKeyLength(key)))
print("public key:")
io.write(C.PublicToPEM(key))
print(("signature (%d bytes):"):format(#signature))
local hex = signature:hex()
for offset = 1, #hex, 64 do print("  " .. hex:sub(offset, offset + 63)) end

local public = C.KeyFromPEM(C.PublicToPEM(key))
local ok, result = pcall(C.VerifySignature, Data.file(path), public, digest, signature)
print("verified with the public key: " .. tostring(result))
if not (ok and result) then os.exit(1) end
