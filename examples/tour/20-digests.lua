-- Digests, HMAC and PBKDF2 (at a password-storage round count, timed), over
-- text, byte buffers and files, and the Lookup3 string hash.
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end

heading("Hash: any digest OpenSSL knows, by name")
-- A digest comes back as a byte buffer; :hex() shows it.
show('Hash("SHA256", "abc")', Cryptography.Hash("SHA256", "abc"):hex())
show('#Hash("SHA512", "abc") (bytes)', #Cryptography.Hash("SHA512", "abc"))
show("SHA3-256 of the bytes 00ff00ff", Cryptography.Hash("SHA3-256", Data.fromhex("00ff00ff")):hex())
local _, err = pcall(Cryptography.Hash, "NoSuchDigest", "abc")
show("an unknown digest", err)

heading("Files are hashed in chunks")
local path = os.tmpname()
local file = assert(io.open(path, "wb"))
file:write(string.rep("Ombrix ", 5000))
file:close()
-- HashFile reads the file itself; a Data.file buffer is read by the host on
-- demand. Both stream, and both give the same digest.
local ok, byModule, byBuffer = pcall(function()
  return Cryptography.HashFile("SHA256", path), Cryptography.Hash("SHA256", Data.file(path))
end)
os.remove(path)
if not ok then error(byModule, 0) end
show("HashFile (35000 bytes)", byModule:hex())
show("Hash(Data.file(...))", byBuffer:hex())

heading("Message authentication and key derivation")
show("HMAC-SHA256 (RFC 4231 case 2)", Cryptography.HMAC("SHA256", "Jefe", "what do ya want for nothing?"):hex())
show("PBKDF2-SHA1, 4096 rounds (RFC 6070)",
     Cryptography.PKCS5PBKDF2HMAC(Data("password"), Data("salt"), 4096, "SHA1", 20):hex())
-- 4096 rounds is a test vector, not a setting. For passwords use SHA-256 with
-- at least 600 000 rounds and a random 16-byte salt stored beside the result;
-- the rounds are what makes each guess of an attacker cost as much as this.
-- Password and salt are DATAREF: a plain string is refused as the wrong type.
local salt = Cryptography.CreateRandomBytes(16)
local started = os.clock()
local derived = Cryptography.PKCS5PBKDF2HMAC(Data("correct horse battery staple"), salt, 600000, "SHA256", 32)
show("PBKDF2-SHA256, 600000 rounds, 32 bytes", derived:hex())
show("  CPU time for one derivation", ("%.2f s"):format(os.clock() - started))

heading("Lookup3: a fast non-cryptographic hash of a name")
show('Lookup3Hash("Hello")', Cryptography.Lookup3Hash("Hello"))
show('Lookup3Hash("hELLO")', Cryptography.Lookup3Hash("hELLO"))
print("  Letter case does not change the value: names compare without it.")
