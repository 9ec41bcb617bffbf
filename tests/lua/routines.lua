-- VECTOR results as Lua arrays, a module value's saved form. Usage: routines.lua DATA_DIR
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.EncryptAEADCHACHA20POLY1305", "Cryptography.DecryptAEADCHACHA20POLY1305",
            "Cryptography.X509VectorFromPEM", "Cryptography.GetPurpose")
local dataDir = assert(arg[1], "usage: routines.lua DATA_DIR")
local function read(path) local f = assert(io.open(path, "rb")) local text = f:read("a") f:close() return text end

local key, nonce = string.rep("k", 32), Data(string.rep("\0", 12))
local sealed = Cryptography.EncryptAEADCHACHA20POLY1305("payload", key, nonce, "header")
check.equal(#sealed, 2, "elements")
check.equal(tostring(sealed[2]), "Data(16 bytes)", "a Data element")
check.equal(Cryptography.DecryptAEADCHACHA20POLY1305(sealed[1], sealed[2], key, nonce, "header"), "payload", "round trip")
local pem = read(dataDir .. "/tls/ca.pem")
local chain = Cryptography.X509VectorFromPEM(pem .. pem)
check.equal(#chain, 2, "certificates")
check.equal(tostring(chain[2]), "Cryptography.X509", "a module value element")
check.equal(Cryptography.GetPurpose(chain[1])[1], "CA", "a string element")
check.equal(#Cryptography.GetPurpose(Ombrix.new("Cryptography.X509")), 0, "an empty vector")

local saved = Ombrix.serialize(chain[1])
check.equal(Ombrix.serialize(Ombrix.deserialize("Cryptography.X509", saved)), saved, "saved form round trip")
print("routines: ok")
