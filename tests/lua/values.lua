-- Values between Lua and the engine: Data buffers, numbers, VECTOR results as Lua arrays,
-- saved forms. Usage: values.lua DATA_DIR
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
local dataDir = assert(arg[1], "usage: values.lua DATA_DIR")

check.each({
  {name = "text", d = Data("abc"), bytes = "abc", hex = "616263"},
  {name = "no argument", d = Data(), bytes = "", hex = ""},
  {name = "zero bytes kept", d = Data("a\0b\0"), bytes = "a\0b\0", hex = "61006200"},
  {name = "fromhex", d = Data.fromhex("00ABff"), bytes = "\0\171\255", hex = "00abff"},
}, function(case)
  check.equal(case.d:hex(), case.hex, "hex")
  check.equal(case.d:bytes(), case.bytes, "bytes")
  check.equal(#case.d, #case.bytes, "length")
  check.equal(tostring(case.d), "Data(" .. #case.bytes .. " bytes)", "tostring")
  check.truthy(case.d == Data(case.bytes) and case.d ~= Data(case.bytes .. "x"), "compares by content")
end)
check.raises(function() return Data.fromhex("abc") end, "is not an even number of hexadecimal digits")
check.raises(function() return Data.fromhex("zz") end, "is not an even number of hexadecimal digits")

-- A file-backed buffer agrees with the file's content, also for a /proc file,
-- which reports a size of 0.
for _, path in ipairs({dataDir .. "/module_definition.txt", "/proc/version"}) do
  local content = assert(io.open(path, "rb")):read("a")
  local file = Data.file(path)
  check.truthy(#content > 0, path .. " has content")
  check.equal(#file, #content, "file length of " .. path)
  check.equal(file:bytes(), content, "file bytes of " .. path)
  check.truthy(file == Data(content) and Data(content) == file, "file equals its bytes both ways: " .. path)
end
check.raises(function() return Data.file(dataDir) end, "cannot open")  -- a directory

check.equal(math.type(Cryptography.FIPSMode()), "integer", "whole numbers arrive as integers")
check.equal(Cryptography.FIPSSelfTestFailed(), false, "booleans arrive as booleans")

-- VECTOR results: Data, module value and string elements, an empty vector.
local key, nonce = string.rep("k", 32), Data(string.rep("\0", 12))
local sealed = Cryptography.EncryptAEADCHACHA20POLY1305("payload", key, nonce, "header")
check.equal(#sealed, 2, "elements")
check.equal(tostring(sealed[2]), "Data(16 bytes)", "a Data element")
check.equal(Cryptography.DecryptAEADCHACHA20POLY1305(sealed[1], sealed[2], key, nonce, "header"), "payload", "round trip")
local pem = assert(io.open(dataDir .. "/tls/ca.pem", "rb")):read("a")
local chain = Cryptography.X509VectorFromPEM(pem .. pem)
check.equal(#chain, 2, "certificates")
check.equal(tostring(chain[2]), "Cryptography.X509", "a module value element")
check.equal(Cryptography.GetPurpose(chain[1])[1], "CA", "a string element")
check.equal(#Cryptography.GetPurpose(Ombrix.new("Cryptography.X509")), 0, "an empty vector")

-- New values of a type, and the saved form.
local saved = Ombrix.serialize(chain[1])
check.equal(Ombrix.serialize(Ombrix.deserialize("Cryptography.X509", saved)), saved, "saved form round trip")
check.equal(tostring(Ombrix.new("Cryptography.X509")), "Cryptography.X509", "a new module value")
check.equal(Ombrix.serialize(Ombrix.new("Cryptography.SSL")), nil, "a session has no saved form")
check.equal(tostring(Ombrix.deserialize("JSON", '{"a":1}')), '{"a":1}', "deserialize JSON")
check.equal(Ombrix.deserialize("JSON", "{"), nil, "deserialize refuses bad text")
local first, second = Ombrix.new("Cryptography.X509"), Ombrix.new("Cryptography.X509")
check.truthy(first == first and first ~= second, "module values are equal only to themselves")
print("values: ok")
