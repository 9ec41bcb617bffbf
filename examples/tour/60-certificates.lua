-- Guided tour: X.509 certificates.
--
-- A Cryptography.X509 value holds one certificate. It can be built step by
-- step, read from PEM or DER, written back, and inspected.
local X = Cryptography

-- 1. Build a small self-signed certificate. Every step works in place and is
--    silent: a step OpenSSL refuses just leaves the certificate as it was.
local key = X.GenerateECKey()
local cert = X.CreateX509()
print("empty certificate valid?", X.IsValid(cert))        --> false
X.SetVersion(cert, 2)                                       -- version 3
X.SetSerialNumber(cert, 4096)
X.SetSubjectName(cert, "CN", "tour.example")
X.SetIssuerName(cert, "CN", "tour.example")
X.AdjustNotBefore(cert, 0)
X.AdjustNotAfter(cert, 30 * 86400)                          -- thirty days from now
X.SetKey(cert, key)
X.AddExtension(cert, "basicConstraints", "critical,CA:TRUE")
X.AddExtension(cert, "noSuchExtension", "ignored")         -- unknown: skipped
X.Sign(cert, key)                                           -- SHA-256
print("built certificate valid?", X.IsValid(cert))        --> true

-- 2. PEM and DER.
local pem = X.ToPEM(cert)
print(pem)
local der = X.ToDER(cert)
print("DER bytes:", #der)
local again = X.X509FromDER(der)
print("DER round trip equal:", X.ToPEM(again) == pem)

-- 3. Inspection.
print("JSON:", tostring(X.PEMToJson(pem)))
print("SHA-256:", X.GetDigestFromCert("SHA256", cert))
print("valid from", os.date("!%Y-%m-%d %H:%M:%S", X.GetValidNotBefore(cert)),
      "to", os.date("!%Y-%m-%d %H:%M:%S", X.GetValidNotAfter(cert)))
print("purposes:", table.concat(X.GetPurpose(cert), ", "))
print("issued by itself?", X.HasIssued(cert, cert))
print("key matches?", X.ValidateKey(cert, key))
print("other key matches?", X.ValidateKey(cert, X.GenerateECKey()))

-- 4. A PEM text with several certificates splits into a vector.
local bundle = X.X509VectorFromPEM("first\n" .. pem .. "second\n" .. pem)
print("certificates in the bundle:", #bundle)

-- 5. Unreadable input gives an empty certificate, not an error ...
print("garbage valid?", X.IsValid(X.X509FromPEM("not a certificate")))
-- ... but an unknown digest name is an error.
local ok, err = pcall(X.GetDigestFromCert, "NoSuchDigest", cert)
print("unknown digest:", ok, tostring(err))

-- 6. A certificate value saves itself as {"value": PEM}.
local saved = Ombrix.serialize(cert)
local restored = Ombrix.deserialize("Cryptography.X509", saved)
print("restored equal:", X.ToPEM(restored) == pem)
