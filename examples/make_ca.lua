-- Builds a self-signed certificate authority and a server certificate it
-- signs, then prints both as JSON descriptions.
--
--   ombrix examples/make_ca.lua [server name]
local X = Cryptography
local serverName = (...) or "localhost"

local DAY = 86400

-- A version 3 certificate with names, validity and public key, not yet signed.
local function draft(subject, issuer, key, serial, days)
  local cert = X.CreateX509()
  X.SetVersion(cert, 2)              -- OpenSSL counts from 0: 2 is version 3
  X.SetSerialNumber(cert, serial)
  for _, entry in ipairs(subject) do X.SetSubjectName(cert, entry[1], entry[2]) end
  for _, entry in ipairs(issuer) do X.SetIssuerName(cert, entry[1], entry[2]) end
  X.AdjustNotBefore(cert, 0)         -- seconds from now
  X.AdjustNotAfter(cert, days * DAY)
  X.SetKey(cert, key)
  return cert
end

local caName = { { "O", "Ombrix Example" }, { "CN", "Ombrix Example CA" } }
local caKey = X.GenerateRSAKey(2048)
local ca = draft(caName, caName, caKey, 1, 3650)
X.AddExtension(ca, "basicConstraints", "critical,CA:TRUE")
X.AddExtension(ca, "keyUsage", "critical,keyCertSign,cRLSign")
X.AddExtension(ca, "subjectKeyIdentifier", "hash")
X.Sign(ca, caKey)                    -- always last: any later change voids it

local serverKey = X.GenerateRSAKey(2048)
local server = draft({ { "CN", serverName } }, caName, serverKey, 2, 365)
X.AddExtension(server, "basicConstraints", "CA:FALSE")
X.AddExtension(server, "keyUsage", "critical,digitalSignature,keyEncipherment")
X.AddExtension(server, "extendedKeyUsage", "serverAuth")
X.AddExtension(server, "subjectAltName", "DNS:" .. serverName)
X.Sign(server, caKey)                -- issued by the CA

assert(X.HasIssued(ca, server), "the CA should have issued the server certificate")
assert(X.ValidateKey(server, serverKey), "the server key should match its certificate")

print(tostring(X.PEMToJson(X.ToPEM(ca))))
print(tostring(X.PEMToJson(X.ToPEM(server))))
