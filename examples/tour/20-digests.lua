-- Digests, MACs, key derivation, random tokens and the Lookup3 string hash.
print("== Digests and MACs ==")

-- A digest comes back as a byte buffer; :hex() shows it.
print("SHA256(abc)       ", Cryptography.Hash("SHA256", "abc"):hex())
print("SHA512(abc) bytes ", #Cryptography.Hash("SHA512", "abc"))
print("SHA3-256 of bytes ", Cryptography.Hash("SHA3-256", Data.fromhex("00ff00ff")):hex())

-- Files are hashed in chunks; a buffer read on demand works the same way.
local path = os.tmpname()
local f = assert(io.open(path, "wb"))
f:write(string.rep("Ombrix ", 5000))
f:close()
print("HashFile          ", Cryptography.HashFile("SHA256", path):hex())
print("Hash(Data.file)   ", Cryptography.Hash("SHA256", Data.file(path)):hex())
os.remove(path)

-- Errors arrive as Lua errors carrying the id and message.
local ok, err = pcall(Cryptography.Hash, "NoSuchDigest", "abc")
print("unknown digest    ", ok, tostring(err))

print("HMAC-SHA256       ", Cryptography.HMAC("SHA256", "Jefe", "what do ya want for nothing?"):hex())
print("PBKDF2-SHA1       ",
      Cryptography.PKCS5PBKDF2HMAC(Data("password"), Data("salt"), 4096, "SHA1", 20):hex())

print("== Random values ==")
print("16 random bytes   ", Cryptography.CreateRandomBytes(16):hex())
-- The count is the number of hex characters, not of bytes.
print("12 hex characters ", Cryptography.CreateRandomBytesAsString(12))
print("Base64 of 9 bytes ", Cryptography.CreateRandomBytesAsBase64String(9))
print("Base64URL token   ", Cryptography.CreateRandomBytesAsBase64URLString(32))
print("UUID              ", Cryptography.CreateRandomUUID())

print("== Lookup3 ==")
print("Lookup3(Hello)    ", Cryptography.Lookup3Hash("Hello"))
print("Lookup3(hELLO)    ", Cryptography.Lookup3Hash("hELLO"), "(letter case does not matter)")
