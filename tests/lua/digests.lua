-- Module routines through ombrix: overloads chosen by argument type (STRING
-- or DATAREF), file-backed buffers, and errors the module reports.
-- Usage: digests.lua DATA_DIR
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.Hash", "Cryptography.HashFile", "Cryptography.HMAC")
local dataDir = assert(arg[1], "usage: digests.lua DATA_DIR")

local path = dataDir .. "/module_definition.txt"
local handle = assert(io.open(path, "rb"))
local content = handle:read("a")
handle:close()

local abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
local fox = "The quick brown fox jumps over the lazy dog"
local foxMac = "f7bc83f430538424b13298e6aa6fb143ef4d59a14946175997479dbc2d1a3cd8"
check.each({
  {name = "Hash of a string", call = function() return Cryptography.Hash("SHA256", "abc") end, hex = abc},
  {name = "Hash of a Data", call = function() return Cryptography.Hash("SHA256", Data("abc")) end, hex = abc},
  {name = "Hash of hex Data", call = function() return Cryptography.Hash("SHA256", Data.fromhex("616263")) end, hex = abc},
  {name = "HMAC of a string", call = function() return Cryptography.HMAC("SHA256", "key", fox) end, hex = foxMac},
  {name = "HMAC of a Data", call = function() return Cryptography.HMAC("SHA256", "key", Data(fox)) end, hex = foxMac},
  {name = "Hash of a file buffer", call = function() return Cryptography.Hash("SHA256", Data.file(path)) end,
   hex = Cryptography.Hash("SHA256", content):hex()},
  {name = "HashFile", call = function() return Cryptography.HashFile("SHA256", path) end,
   hex = Cryptography.Hash("SHA256", content):hex()},
}, function(case)
  local digest = case.call()
  check.equal(tostring(digest), "Data(32 bytes)", "result kind")
  check.equal(digest:hex(), case.hex, "digest")
end)

-- An error the module reports arrives as an error object from its namespace.
local err = check.raises(function() return Cryptography.Hash("NoSuchDigest", "x") end)
check.equal(type(err), "table", "error type")
check.equal(err.namespace, "Cryptography", "namespace")
check.truthy(tostring(err.id):match("^Error%.Ombrix%.%a+$"), "id " .. tostring(err.id))
check.truthy(#err.message > 0, "message")
check.equal(tostring(err), err.id .. ": " .. err.message, "tostring")

print("digests: ok")
