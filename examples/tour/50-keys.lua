-- Keys and signatures: RSA, EC and X25519 keys, their properties and PEM
-- forms, signing with the private key and verifying with the public one.
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end
local C = Cryptography

-- The first line of a PEM text and its size, instead of the whole block.
local function pemSummary(pem)
  return ("%s (%d characters)"):format(pem:match("^[^\n]*"), #pem)
end

heading("Three fresh keys")
local rsa = C.GenerateRSAKey(2048)
local ec = C.GenerateECKey()          -- always on prime256v1 (P-256)
local x25519 = C.GenerateX25519Key()  -- key agreement only: it cannot sign
for _, entry in ipairs({ { "RSA", rsa }, { "EC", ec }, { "X25519", x25519 } }) do
  local label, key = entry[1], entry[2]
  show(label .. " key", ("%s, %d bits, valid: %s"):format(C.GetKeyType(key), C.GetKeyLength(key),
                                                           tostring(C.IsValid(key))))
  show("  public key (DER)", #C.EncodePublicKey(key) .. " bytes")
  show("  PublicToPEM", pemSummary(C.PublicToPEM(key)))
end
-- RSA only: exponent and modulus as unpadded Base64URL, as in a JSON Web Key.
show("RSA exponent e (GetExponent)", C.GetExponent(rsa))
show("RSA modulus n (GetModulus)", C.GetModulus(rsa):sub(1, 24) .. "...")
show("EC GetExponent (RSA only)", '"' .. C.GetExponent(ec) .. '"')

heading("Private keys in PEM and back")
-- ToPEM writes the algorithm's own private block; KeyFromPEM reads it back.
local pem = C.ToPEM(rsa)
show("ToPEM(rsa)", pemSummary(pem))
show("ToPEM(ec)", pemSummary(C.ToPEM(ec)))
show("KeyFromPEM gives the same key", C.PublicToPEM(C.KeyFromPEM(pem)) == C.PublicToPEM(rsa))
local rebuilt = C.GeneratePublicKey(C.GetModulus(rsa), C.GetExponent(rsa))
show("GeneratePublicKey(n, e): same key", C.PublicToPEM(rebuilt) == C.PublicToPEM(rsa))
local restored = Ombrix.deserialize("Cryptography.Key", Ombrix.serialize(ec))
show('saved as {"value": PEM} and restored', C.PublicToPEM(restored) == C.PublicToPEM(ec))

heading("Sign with the private key, verify with the public key")
local message = "Pay 100 to Alice"
for _, entry in ipairs({ { "RSA", rsa }, { "EC", ec } }) do
  local label, key = entry[1], entry[2]
  local signature = C.Sign(message, key, "SHA256")
  local public = C.KeyFromPEM(C.PublicToPEM(key))   -- what a recipient holds
  show(label .. " signature, SHA-256", #signature .. " bytes")
  show("  verifies", C.VerifySignature(message, public, "SHA256", signature))
  -- A changed message does not verify: the failure is reported as an error.
  local ok, err = pcall(C.VerifySignature, message .. "0", public, "SHA256", signature)
  show("  a changed message", ok and ("returned " .. tostring(err)) or tostring(err))
end
print("  A mismatch raises an error (pcall gives false); for EC, OpenSSL names no")
print("  reason, hence the empty error code.")

heading("Keys given as PEM text in a byte buffer")
local signature = C.Sign(Data(message), Data(C.ToPEM(rsa)), "SHA256")
show("Sign with a PEM buffer (RSA)", signature:hex():sub(1, 32) .. "...")
show("VerifySignature with a PEM buffer",
     C.VerifySignature(message, Data(C.PublicToPEM(rsa)), "SHA256", signature))
