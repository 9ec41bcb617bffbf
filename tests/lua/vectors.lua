-- VECTOR results arrive as Lua arrays whose elements convert like single values.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.EncryptAEADCHACHA20POLY1305", "Cryptography.DecryptAEADCHACHA20POLY1305")

local key = string.rep("k", 32)
local nonce = Data(string.rep("\0", 12))
check.each({
  {name = "short", plain = "hello"},
  {name = "empty aad, 100 bytes", plain = string.rep("x", 100)},
  {name = "with aad", plain = "payload", aad = "header"},
}, function(case)
  local sealed = Cryptography.EncryptAEADCHACHA20POLY1305(case.plain, key, nonce, case.aad or "")
  check.equal(type(sealed), "table", "result type")
  check.equal(#sealed, 2, "elements")
  check.equal(#sealed[1], #case.plain, "ciphertext length")
  check.equal(#sealed[2], 16, "tag length")
  local opened = Cryptography.DecryptAEADCHACHA20POLY1305(sealed[1], sealed[2], key, nonce, case.aad or "")
  check.equal(opened, case.plain, "round trip")
end)

print("vectors: ok")
