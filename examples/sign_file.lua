-- Signs a file with a fresh RSA key and verifies the signature.
--
-- Usage: ombrix examples/sign_file.lua FILE [DIGEST]
-- The file is read on demand in chunks, so it may be large. Prints the public
-- key and the signature in hex.

local argv = arg or { ... }
local path, digest = argv[1], argv[2] or "SHA256"
if not path then
  io.stderr:write("usage: ombrix examples/sign_file.lua FILE [DIGEST]\n")
  os.exit(2)
end

local C = Cryptography
local key = C.GenerateRSAKey(3072)
local signature = C.Sign(Data.file(path), key, digest)

io.write(C.PublicToPEM(key))
print(("%s signature of %s (%d bytes):"):format(digest, path, #signature))
print(signature:hex())

-- Verify with the public half only, as a recipient would.
local public = C.KeyFromPEM(C.PublicToPEM(key))
local ok = C.VerifySignature(Data.file(path), public, digest, signature)
print("verified: " .. tostring(ok))
if not ok then os.exit(1) end
