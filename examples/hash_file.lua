#!/usr/bin/env ombrix
-- Prints the digest of a file the way sha256sum does.
--
--   ombrix examples/hash_file.lua [FILE [DIGEST]]
--
-- FILE defaults to this script, DIGEST to SHA256 (any name OpenSSL knows:
-- SHA512, SHA3-256, BLAKE2b512, ...). The file is hashed twice: once by the
-- module reading the file itself (HashFile), once through a file-backed Data
-- buffer that the host reads on demand. Both must agree.
local path = arg[1] or arg[0]
local digest = arg[2] or "SHA256"

local byModule = Cryptography.HashFile(digest, path)
local byBuffer = Cryptography.Hash(digest, Data.file(path))
if byModule ~= byBuffer then
  error(("the two digests of %s differ: %s and %s"):format(path, byModule:hex(), byBuffer:hex()))
end
print(byModule:hex() .. "  " .. path)
