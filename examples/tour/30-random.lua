-- Random values from OpenSSL's generator, in the shapes applications need.
-- examples/random_tokens.lua makes several of each.
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end

heading("Random bytes and text")
show("CreateRandomBytes(16) (a Data buffer)", Cryptography.CreateRandomBytes(16):hex())
-- The count is the number of hex characters, not of bytes.
show("CreateRandomBytesAsString(12)", Cryptography.CreateRandomBytesAsString(12))
show("CreateRandomBytesAsBase64String(9)", Cryptography.CreateRandomBytesAsBase64String(9))
show("...AsBase64URLString(32)", Cryptography.CreateRandomBytesAsBase64URLString(32))
show("CreateRandomUUID()", Cryptography.CreateRandomUUID())
print("  The text forms are ready for tokens, salts and identifiers as they are.")
