#!/usr/bin/env ombrix
-- Authenticates a message with HMAC and checks a received tag.
--
--   ombrix examples/hmac_message.lua [KEY [MESSAGE [DIGEST]]]
--
-- The sender computes the tag over the message with the shared key; the
-- receiver computes it again and compares. A changed message or a wrong key
-- gives a different tag.
local key = arg[1] or "a shared secret"
local message = arg[2] or "pay 100 to alice"
local digest = arg[3] or "SHA256"

local function tag(k, m) return Cryptography.HMAC(digest, k, m) end

-- Compares two tags without stopping at the first difference, so the time
-- taken does not tell how much of a forged tag was right.
local function sameTag(a, b)
  local x, y = a:bytes(), b:bytes()
  if #x ~= #y then return false end
  local difference = 0
  for i = 1, #x do difference = difference | (x:byte(i) ~ y:byte(i)) end
  return difference == 0
end

local sent = tag(key, message)
print(("HMAC-%s of %q:"):format(digest, message))
print("  " .. sent:hex())

local checks = {
  {"the same message", key, message},
  {"a changed message", key, (message:gsub("100", "900"))},
  {"the wrong key", key .. "!", message},
}
for _, c in ipairs(checks) do
  local label, k, m = c[1], c[2], c[3]
  print(("  receiver with %-18s -> %s"):format(label, sameTag(tag(k, m), sent) and "accepted" or "rejected"))
end

-- Data buffers work as well as strings (the other overload of HMAC).
assert(sameTag(Cryptography.HMAC(digest, key, Data(message)), sent), "HMAC over Data differs from HMAC over text")
