-- X.509 certificates: a Cryptography.X509 value holds one certificate. It can
-- be built step by step, read from PEM or DER, written back, and inspected.
-- examples/make_ca.lua builds a CA and a server certificate it signs.
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end
local X = Cryptography

heading("Build a self-signed certificate, step by step")
-- Every step works in place and is silent: a step OpenSSL refuses just leaves
-- the certificate as it was.
local key = X.GenerateECKey()
local cert = X.CreateX509()
show("CreateX509(): IsValid", X.IsValid(cert))
X.SetVersion(cert, 2)                                       -- counted from 0: version 3
X.SetSerialNumber(cert, 4096)
X.SetSubjectName(cert, "CN", "tour.example")
X.SetIssuerName(cert, "CN", "tour.example")
X.AdjustNotBefore(cert, 0)                                  -- seconds from now
X.AdjustNotAfter(cert, 30 * 86400)                          -- thirty days from now
X.SetKey(cert, key)
X.AddExtension(cert, "basicConstraints", "critical,CA:TRUE")
X.AddExtension(cert, "noSuchExtension", "ignored")         -- unknown: skipped
X.Sign(cert, key)                                           -- SHA-256; always last
show("built and signed: IsValid", X.IsValid(cert))

heading("PEM and DER")
local pem = X.ToPEM(cert)
show("ToPEM", ("%s (%d characters)"):format(pem:match("^[^\n]*"), #pem))
local der = X.ToDER(cert)
show("ToDER", #der .. " bytes")
show("X509FromDER(der) gives the same PEM", X.ToPEM(X.X509FromDER(der)) == pem)
show("X509FromPEM(garbage): IsValid", X.IsValid(X.X509FromPEM("not a certificate")))
-- A PEM text with several certificates splits into a vector (a Lua array).
local bundle = X.X509VectorFromPEM("first\n" .. pem .. "second\n" .. pem)
show("X509VectorFromPEM(two blocks)", #bundle .. " certificates")

heading("Inspection")
local description = tostring(X.PEMToJson(pem))
-- The JSON text of one member: an object, an array, a string or a number.
local function member(name)
  for _, shape in ipairs({ "(%b{})", "(%b[])", '("[^"]*")', "(%d+)" }) do
    local text = description:match('"' .. name .. '":' .. shape)
    if text then return text end
  end
end
show("PEMToJson", #description .. " characters of JSON; some members:")
for _, name in ipairs({ "subject", "issuer", "version", "signatureAlgorithm", "notAfter", "extension" }) do
  show("  " .. name, member(name))
end
show("  serial (4096, in hex)", member("serial"))
show("GetDigestFromCert SHA256", X.GetDigestFromCert("SHA256", cert))
show("GetValidNotBefore", os.date("!%Y-%m-%d %H:%M:%S UTC", math.floor(X.GetValidNotBefore(cert))))
show("GetValidNotAfter", os.date("!%Y-%m-%d %H:%M:%S UTC", math.floor(X.GetValidNotAfter(cert))))
show("GetPurpose", table.concat(X.GetPurpose(cert), ", "))
show("HasIssued(cert, cert) (self-signed)", X.HasIssued(cert, cert))
show("ValidateKey with its own key", X.ValidateKey(cert, key))
show("ValidateKey with another key", X.ValidateKey(cert, X.GenerateECKey()))
local _, err = pcall(X.GetDigestFromCert, "NoSuchDigest", cert)
show("an unknown digest is an error", err)

heading("Saving and restoring")
local saved = Ombrix.serialize(cert)
show("Ombrix.serialize", saved:sub(1, 40) .. "...")
show("deserialized: same certificate", X.ToPEM(Ombrix.deserialize("Cryptography.X509", saved)) == pem)
