-- TLS: client sessions over a socket the script connects itself, and fetching
-- the certificate a server presents. Starts no server and opens no connection
-- unless a host is given:
--
--   ombrix examples/tour/70-tls.lua example.org          this section alone
--   ombrix examples/tour/70-tls.lua example.org:8443
--   OMBRIX_TOUR_TLS_HOST=example.org ombrix examples/tour.lua 70
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end

-- Run on its own, the first argument names the host; inside the tour the
-- arguments select sections, so the host comes from the environment.
local target = (not tour and arg and arg[1]) or os.getenv("OMBRIX_TOUR_TLS_HOST")

heading("Sessions report through State and Error, never by raising")
local session = Cryptography.CreateSSL(JSON.FromString('{"Verify": true, "LoadDefaultCAPaths": true}'))
show("State of a configured session", Cryptography.State(session))
show("Error (empty: nothing went wrong)", '"' .. Cryptography.Error(session) .. '"')

local broken = Cryptography.CreateSSL(JSON.FromString('{"CAFile": "/nonexistent/ca.pem"}'))
show("State with a missing CA file", Cryptography.State(broken))
show("Error", Cryptography.Error(broken))
show("Error again (each message is told once)", '"' .. Cryptography.Error(broken) .. '"')

local notAnObject = Cryptography.CreateSSL(JSON.FromString("[1, 2]"))
show("A configuration that is no object", Cryptography.Error(notAnObject))

show("Connect with socket -1", Cryptography.Connect(session, -1))
show("  its State and Error", Cryptography.State(session) .. ", " .. Cryptography.Error(session))
print("  States: 0 created, 1 connected, 2 wants to read, 3 wants to write,")
print("          -2 closed by close_notify or Shutdown, -1 failed.")
print("  examples/https_get.lua shows a whole HTTPS request over Net.Connect.")

heading("The certificate a server presents")
if not target then
  print("  (skipped: give a host, e.g. `ombrix examples/tour/70-tls.lua example.org`")
  print("   or OMBRIX_TOUR_TLS_HOST=example.org for the whole tour)")
  return
end
local host, port = target:match("^(.-):(%d+)$")
host, port = host or target, tonumber(port) or 443
local cert = Cryptography.X509FetchFromServer(host, port)
show("X509FetchFromServer(" .. host .. ", " .. port .. ")", cert)
if not Cryptography.IsValid(cert) then
  show("result", "no certificate (closed port, no TLS, or no answer in time)")
  return
end
show("SHA-256 fingerprint", Cryptography.GetDigestFromCert("SHA256", cert))
show("valid until", os.date("!%Y-%m-%d %H:%M:%S UTC", math.floor(Cryptography.GetValidNotAfter(cert))))
local pem = Cryptography.ToPEM(cert)
show("PEM", pem:match("^[^\n]*") .. " ... (" .. #pem .. " characters)")
print("  Nothing was verified: the fetch reports what the server sends, trusted or not.")
