#!/usr/bin/env ombrix
-- Builds a self-signed certificate authority and a server certificate it
-- signs, and describes both. With a directory, also writes them there as
-- ca.pem, server.pem and server-key.pem, ready for a test server:
--
--   ombrix examples/make_ca.lua [SERVER-NAME [DIRECTORY]]
--
--   ombrix examples/make_ca.lua localhost /tmp/pki
--   openssl s_server -accept 4433 -cert /tmp/pki/server.pem -key /tmp/pki/server-key.pem -www &
--   ombrix examples/https_get.lua localhost / 4433 /tmp/pki/ca.pem
local X = Cryptography
local serverName, directory = ...
serverName = serverName or "localhost"

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
  local files = {
    { "ca.pem", X.ToPEM(ca) },
    { "server.pem", X.ToPEM(server) },
    { "server-key.pem", X.ToPEM(serverKey) },   -- the private key: keep it private
  }
  for _, entry in ipairs(files) do
    local path = directory .. "/" .. entry[1]
    local file = assert(io.open(path, "w"))
    file:write(entry[2])
    file:close()
    print("wrote " .. path)
  end
end
