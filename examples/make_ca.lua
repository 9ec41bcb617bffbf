#!/usr/bin/env ombrix
-- Builds a small certificate authority and a server certificate it signs,
-- and describes both. With a directory, also writes them there as PEM files
-- ready for a test server: ca.pem and ca-key.pem, server.pem and
-- server-key.pem (the two keys readable by their owner only).
--
--   ombrix examples/make_ca.lua [SERVER-NAME [DIRECTORY]]
--
--   ombrix examples/make_ca.lua localhost /tmp/pki
--   openssl s_server -accept 127.0.0.1:4433 -cert /tmp/pki/server.pem -key /tmp/pki/server-key.pem -www &
--   ombrix examples/https_get.lua localhost / 4433 /tmp/pki/ca.pem
--
-- Keys are EC P-256. The CA is valid for five years and the server
-- certificate for 397 days, the longest that browsers accept. Serial numbers
-- are random: SetSerialNumber takes a 32-bit signed value, so they are drawn
-- from 1 to 2^31-1 (public CAs use 64 random bits or more; this tool cannot).
local X = Cryptography
local serverName, directory = ...
serverName = serverName or "localhost"

local DAY = 86400

-- A random positive 31-bit serial: four random bytes with the top bit cleared.
local function randomSerial()
  local a, b, c, d = X.CreateRandomBytes(4):bytes():byte(1, 4)
  local serial = ((a & 0x7f) << 24) | (b << 16) | (c << 8) | d
  return serial ~= 0 and serial or 1
end

-- A version 3 certificate with names, validity and public key, not yet signed.
local function draft(subject, issuer, key, serial, days)
  local cert = X.CreateX509()
  X.SetVersion(cert, 2)              -- OpenSSL counts from 0: 2 is version 3
  X.SetSerialNumber(cert, serial)
  for _, entry in ipairs(subject) do X.SetSubjectName(cert, entry[1], entry[2]) end
  for _, entry in ipairs(issuer) do X.SetIssuerName(cert, entry[1], entry[2]) end
  -- Offsets in seconds from now. Valid from five minutes back (for clocks that
  -- run behind) for exactly the given number of days.
  X.AdjustNotBefore(cert, -300)
  X.AdjustNotAfter(cert, days * DAY - 300)
  X.SetKey(cert, key)
  return cert
end

local caName = { { "O", "Ombrix Example" }, { "CN", "Ombrix Example CA" } }
local caKey = X.GenerateECKey()     -- P-256
local ca = draft(caName, caName, caKey, randomSerial(), 5 * 365)
X.AddExtension(ca, "basicConstraints", "critical,CA:TRUE,pathlen:0")
X.AddExtension(ca, "keyUsage", "critical,keyCertSign,cRLSign")
X.AddExtension(ca, "subjectKeyIdentifier", "hash")
X.Sign(ca, caKey)                    -- always last: any later change voids it

-- The authorityKeyIdentifier of a certificate that `issuer` signs: the
-- issuer's own subject key identifier, as literal DER (SEQUENCE { [0] id }).
-- AddExtension's "keyid" would take it from the certificate's own key, right
-- only for a self-signed one; strict verifiers (openssl verify -x509_strict,
-- Python's ssl from 3.13) reject an issued certificate without it.
local function authorityKeyId(issuer)
  local text = tostring(X.PEMToJson(X.ToPEM(issuer)))
  local id = assert(text:match('"name":"X509v3 Subject Key Identifier","value":"(%x%x[%x:]*)"'),
                    "the issuer has no subject key identifier")
  local length = (#id + 1) // 3      -- "AB:CD:..." holds one byte per three characters
  return ("DER:30:%02X:80:%02X:%s"):format(length + 2, length, id)
end

local serverKey = X.GenerateECKey()
local server = draft({ { "CN", serverName } }, caName, serverKey, randomSerial(), 397)
X.AddExtension(server, "basicConstraints", "critical,CA:FALSE")
X.AddExtension(server, "keyUsage", "critical,digitalSignature")   -- an EC key only signs
X.AddExtension(server, "extendedKeyUsage", "serverAuth")
X.AddExtension(server, "subjectAltName", "DNS:" .. serverName)
X.AddExtension(server, "subjectKeyIdentifier", "hash")
X.AddExtension(server, "authorityKeyIdentifier", authorityKeyId(ca))
X.Sign(server, caKey)                -- issued by the CA

assert(X.HasIssued(ca, server), "the CA should have issued the server certificate")
assert(X.ValidateKey(server, serverKey), "the server key should match its certificate")

-- PEMToJson describes a certificate as JSON; this prints its members one a
-- line, and the extensions one a line below them.
local function describe(title, cert)
  local text = tostring(X.PEMToJson(X.ToPEM(cert)))
  local function member(name) return text:match('"' .. name .. '":(%b{})') or text:match('"' .. name .. '":"([^"]*)"') end
  print(title)
  for _, name in ipairs({ "subject", "issuer", "serial", "notBefore", "notAfter", "signatureAlgorithm" }) do
    print(("  %-20s %s"):format(name, member(name)))
  end
  for name, value in (text:match('"extension":(%b[])') or ""):gmatch('"name":"([^"]*)","value":"([^"]*)"') do
    print(("  %-20s %s: %s"):format("extension", name, value))
  end
  print(("  %-20s %s"):format("SHA-256", X.GetDigestFromCert("SHA256", cert)))
end

describe("Certificate authority", ca)
describe("Server certificate for " .. serverName, server)

if directory then
  local function quote(text) return "'" .. text:gsub("'", "'\\''") .. "'" end
  local files = {
    { "ca.pem", X.ToPEM(ca) },
    { "ca-key.pem", X.ToPEM(caKey), private = true },
    { "server.pem", X.ToPEM(server) },
    { "server-key.pem", X.ToPEM(serverKey), private = true },
  }
  for _, entry in ipairs(files) do
    local path = directory .. "/" .. entry[1]
    if entry.private then
      -- Mode 0600 before the key is written, also when the file existed.
      assert(os.execute(("umask 077 && : > %s && chmod 600 %s"):format(quote(path), quote(path))),
             "cannot create " .. path)
    end
    local file = assert(io.open(path, "w"))
    file:write(entry[2])
    file:close()
    print("wrote " .. path .. (entry.private and " (mode 0600)" or ""))
  end
end
