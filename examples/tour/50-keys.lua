-- Guided tour: keys and signatures.
--
-- Generates an RSA, an EC and an X25519 key, shows their properties and PEM
-- forms, signs a message with each signing key and verifies the signature.
-- Run it with: ombrix examples/tour/50-keys.lua

local C = Cryptography

local function show(label, key)
  print(("== %s key"):format(label))
  print("  valid:   " .. tostring(C.IsValid(key)))
  print("  type:    " .. C.GetKeyType(key))
  print("  bits:    " .. C.GetKeyLength(key))
  local exponent = C.GetExponent(key)
  if exponent ~= "" then
    -- RSA only: exponent and modulus as unpadded Base64URL (as in a JWK).
    print("  e:       " .. exponent)
    print("  n:       " .. C.GetModulus(key):sub(1, 32) .. "...")
  end
  print("  public DER: " .. #C.EncodePublicKey(key) .. " bytes")
  io.write(C.PublicToPEM(key))
end

local rsa = C.GenerateRSAKey(2048)
local ec = C.GenerateECKey()          -- always on prime256v1
local x25519 = C.GenerateX25519Key()  -- key agreement only: it cannot sign

show("RSA", rsa)
show("EC", ec)
show("X25519", x25519)

-- ToPEM writes the algorithm's own private block (RSA PRIVATE KEY,
-- EC PRIVATE KEY); KeyFromPEM reads it back.
local pem = C.ToPEM(rsa)
print(pem:match("^[^\n]*"))
local again = C.KeyFromPEM(pem)
assert(C.PublicToPEM(again) == C.PublicToPEM(rsa))

-- A public key rebuilt from modulus and exponent is the same public key.
local rebuilt = C.GeneratePublicKey(C.GetModulus(rsa), C.GetExponent(rsa))
assert(C.PublicToPEM(rebuilt) == C.PublicToPEM(rsa))
print("public key rebuilt from n and e: same key")

-- Sign with the private key, verify with the public key only.
local message = "Pay 100 to Alice"
for _, entry in ipairs({ { "RSA", rsa }, { "EC", ec } }) do
  local label, key = entry[1], entry[2]
  local signature = C.Sign(message, key, "SHA256")
  local public = C.KeyFromPEM(C.PublicToPEM(key))
  print(("%s signature: %d bytes, verifies: %s"):format(
    label, #signature, tostring(C.VerifySignature(message, public, "SHA256", signature))))

  -- A changed message does not verify; the failure is also reported as an error.
  local ok, err = pcall(C.VerifySignature, message .. "0", public, "SHA256", signature)
  print("  tampered message: " .. (ok and ("returned " .. tostring(err)) or ("error " .. tostring(err))))
end

-- A key can also be given as PEM text in a byte buffer (RSA keys only for Sign).
local signature = C.Sign(Data(message), Data(C.ToPEM(rsa)), "SHA256")
print("signed with a PEM buffer: " .. signature:hex():sub(1, 32) .. "...")
print("verified with a PEM buffer: " ..
  tostring(C.VerifySignature(message, Data(C.PublicToPEM(rsa)), "SHA256", signature)))

-- Keys save themselves as {"value": PEM}.
local saved = Ombrix.serialize(ec)
local restored = Ombrix.deserialize("Cryptography.Key", saved)
assert(C.PublicToPEM(restored) == C.PublicToPEM(ec))
print("EC key saved and restored: " .. tostring(restored))
