#!/usr/bin/env ombrix
-- Makes random values in the shapes applications need, from OpenSSL's
-- random generator.
--
--   ombrix examples/random_tokens.lua [COUNT]
local count = tonumber(arg[1]) or 3

local shapes = {
  {"API key (32 hex characters)", function() return Cryptography.CreateRandomBytesAsString(32) end},
  {"session cookie (Base64URL)", function() return Cryptography.CreateRandomBytesAsBase64URLString(32) end},
  {"salt (Base64)", function() return Cryptography.CreateRandomBytesAsBase64String(16) end},
  {"request id (UUID)", function() return Cryptography.CreateRandomUUID() end},
  {"AES-256 key (raw bytes, in hex)", function() return Cryptography.CreateRandomBytes(32):hex() end},
}

for _, shape in ipairs(shapes) do
  local label, make = shape[1], shape[2]
  print(label .. ":")
  local seen = {}
  for _ = 1, count do
    local value = make()
    assert(not seen[value], "a random value repeated")
    seen[value] = true
    print("  " .. value)
  end
end
