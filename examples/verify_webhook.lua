#!/usr/bin/env ombrix
-- Checks a webhook request the way a receiver must: the HMAC-SHA256 of the raw
-- request body under the shared secret, compared in constant time with the
-- hex signature the sender put in a header (for example
-- "X-Hub-Signature-256: sha256=<64 hex digits>").
--
--   WEBHOOK_SECRET=... ombrix examples/verify_webhook.lua BODY-FILE [SIGNATURE]
--
-- Without SIGNATURE it prints the signature a sender would attach. With one
-- (bare hex or "sha256=hex") it prints "valid" and exits 0, or "invalid" and
-- exits 1. The secret comes from the environment, not the command line, where
-- other users of the machine could read it.
local C = Cryptography
local bodyPath, signature = arg[1], arg[2]
local secret = os.getenv("WEBHOOK_SECRET")
if not bodyPath then
  io.stderr:write("usage: WEBHOOK_SECRET=... ombrix examples/verify_webhook.lua BODY-FILE [SIGNATURE]\n")
  os.exit(2)
end
if not secret or secret == "" then
  io.stderr:write("verify_webhook: set WEBHOOK_SECRET to the secret shared with the sender\n")
  os.exit(2)
end

-- The exact bytes received: parse the JSON only after the check, since
-- re-encoding it would change what was signed.
local expected = C.HMAC("SHA256", secret, Data.file(bodyPath))

if not signature then
  print("sha256=" .. expected:hex())
  return
end

-- Equal when every byte is; the loop always runs over the whole tag, so the
-- time taken does not tell a forger how many leading bytes were right.
local function constantTimeEqual(a, b)
  if #a ~= #b then return false end   -- the length is no secret
  local difference = 0
  for i = 1, #a do difference = difference | (a:byte(i) ~ b:byte(i)) end
  return difference == 0
end

local hex = signature:gsub("^sha256=", ""):lower()
local valid = #hex == 64 and hex:find("^%x+$") ~= nil and
              constantTimeEqual(Data.fromhex(hex):bytes(), expected:bytes())
-- A real receiver also rejects deliveries whose timestamp is old or whose
-- delivery id it has seen, so a captured request cannot be replayed.
print(valid and "valid" or "invalid")
os.exit(valid and 0 or 1)
