-- TLS: client sessions over a socket the script connects itself, and fetching
-- the certificate a server presents. The section builds its own CA and server
-- certificate, starts `openssl s_server` on 127.0.0.1 with them, talks to it,
-- and stops it again. Without the openssl command that part is skipped.
--
--   ombrix examples/tour/70-tls.lua                    this section alone
--   ombrix examples/tour/70-tls.lua example.org        also fetch a real server's certificate
--   ombrix examples/tour/70-tls.lua example.org:8443
--   OMBRIX_TOUR_TLS_HOST=example.org ombrix examples/tour.lua 70
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end
local X = Cryptography

-- Run on its own, the first argument names the host; inside the tour the
-- arguments select sections, so the host comes from the environment.
local target = (not tour and arg and arg[1]) or os.getenv("OMBRIX_TOUR_TLS_HOST")

heading("Sessions report through State and Error, never by raising")
local session = X.CreateSSL(JSON.FromString('{"Verify": true, "LoadDefaultCAPaths": true}'))
show("State of a configured session", X.State(session))
show("Error (empty: nothing went wrong)", '"' .. X.Error(session) .. '"')
local broken = X.CreateSSL(JSON.FromString('{"CAFile": "/nonexistent/ca.pem"}'))
show("State with a missing CA file", X.State(broken))
show("Error", X.Error(broken))
show("Error again (told once)", '"' .. X.Error(broken) .. '"')
show("A configuration that is no object", X.Error(X.CreateSSL(JSON.FromString("[1, 2]"))))
show("Connect with socket -1", X.Connect(session, -1))
show("  State and Error", X.State(session) .. ", " .. X.Error(session))
print("  States: 0 created, 1 connected, 2 wants to read, 3 wants to write,")
print("          -2 closed by close_notify or Shutdown, -1 failed.")

-- A version 3 certificate for subject, signed by issuerKey (its own key when
-- self-signed). Every step works in place; Sign comes last.
local function certificate(subject, issuer, key, issuerKey, serial, extensions)
  local cert = X.CreateX509()
  X.SetVersion(cert, 2)
  X.SetSerialNumber(cert, serial)
  X.SetSubjectName(cert, "CN", subject)
  X.SetIssuerName(cert, "CN", issuer)
  X.AdjustNotBefore(cert, -60)          -- a minute back: tolerates a slow clock
  X.AdjustNotAfter(cert, 86400)         -- one day
  X.SetKey(cert, key)
  for _, extension in ipairs(extensions) do X.AddExtension(cert, extension[1], extension[2]) end
  X.Sign(cert, issuerKey)
  return cert
end

local function writeFile(path, text)
  local file = assert(io.open(path, "w"))
  file:write(text)
  file:close()
end

local function commandExists(name)
  return os.execute("command -v " .. name .. " >/dev/null 2>&1") == true
end

local function sleep(seconds) os.execute("sleep " .. seconds) end

-- The local server: `openssl s_server -www` answers an HTTP GET with a status
-- page. It listens on port 0, so the system picks a free port, which the
-- server then prints on its ACCEPT line. `timeout` bounds its life should this
-- script die before it stops the server; --foreground keeps it in this
-- script's process group, so Ctrl-C stops both.
local server = {}

function server.start(dir)
  local command = ("echo $$; exec timeout --foreground 60 openssl s_server -accept 127.0.0.1:0 -cert '%s/server.pem' " ..
                   "-key '%s/server-key.pem' -www </dev/null 2>&1"):format(dir, dir)
  server.pipe = assert(io.popen(command, "r"))
  server.pid = tonumber(server.pipe:read("l"))
  local lines = {}
  for line in server.pipe:lines() do
    local port = line:match("^ACCEPT 127%.0%.0%.1:(%d+)")
    if port then server.port = tonumber(port) break end
    lines[#lines + 1] = line
  end
  if not server.port then error("openssl s_server did not start: " .. table.concat(lines, " | "), 0) end
  -- The ACCEPT line comes once the socket listens; connect to be sure.
  for attempt = 1, 20 do
    local ok, socket = pcall(Net.Connect, "127.0.0.1", server.port)
    if ok then Net.Close(socket) return end
    if attempt == 20 then error("the local server does not accept connections", 0) end
    sleep(0.05)
  end
end

function server.stop()
  if server.pid then os.execute("kill " .. server.pid .. " 2>/dev/null") end
  if server.pipe then server.pipe:close() end   -- waits for the server to end
  server.pid, server.pipe = nil, nil
end

-- Reads from a connected session until a whole line has come; nil on failure.
local function readLine(tls)
  local buffer, received = Data(""), ""
  while not received:find("\r?\n") do
    if X.Read(tls, buffer, 4096) <= 0 then return nil end
    received = received .. buffer:bytes()
  end
  return received:match("^([^\r\n]*)")
end

local function writeAll(tls, text)
  local offset = 1
  while offset <= #text do
    local written = X.Write(tls, text:sub(offset), #text - offset + 1)
    if written <= 0 then return false end
    offset = offset + written
  end
  return true
end

-- A session configuration from {name, value} pairs; JSON.Set takes strings and
-- numbers, so a boolean goes in as a JSON value.
local function tlsConfiguration(fields)
  local configuration = JSON.FromString("{}")
  for _, field in ipairs(fields) do
    local value = field[2]
    if type(value) == "boolean" then value = JSON.FromString(tostring(value)) end
    JSON.Set(configuration, field[1], value)
  end
  return configuration
end

local function localServerTour(dir)
  heading("A CA and a server certificate for localhost, built with the module")
  local caKey = X.GenerateECKey()
  local ca = certificate("Ombrix Tour CA", "Ombrix Tour CA", caKey, caKey, 1, {
    {"basicConstraints", "critical,CA:TRUE"},
    {"keyUsage", "critical,keyCertSign,cRLSign"},
  })
  local serverKey = X.GenerateRSAKey(2048)
  local serverCert = certificate("localhost", "Ombrix Tour CA", serverKey, caKey, 2, {
    {"basicConstraints", "CA:FALSE"},
    {"keyUsage", "critical,digitalSignature,keyEncipherment"},
    {"extendedKeyUsage", "serverAuth"},
    {"subjectAltName", "DNS:localhost,IP:127.0.0.1"},
  })
  local caFile = dir .. "/ca.pem"
  writeFile(caFile, X.ToPEM(ca))
  writeFile(dir .. "/server.pem", X.ToPEM(serverCert))
  writeFile(dir .. "/server-key.pem", X.ToPEM(serverKey))
  show("CA (EC P-256, self-signed)", "ca.pem, " .. #X.ToPEM(ca) .. " bytes of PEM")
  show("server (RSA 2048, issued by the CA)", "server.pem and server-key.pem")
  show("CA has issued the server certificate", X.HasIssued(ca, serverCert))
  show("written to", dir)

  heading("openssl s_server with them on 127.0.0.1")
  server.start(dir)
  show("listening on port", server.port)

  heading("X509FetchFromServer: the certificate the server presents")
  local fetched = X.X509FetchFromServer("127.0.0.1", server.port)
  show("X509FetchFromServer(127.0.0.1, port)", fetched)
  local description = tostring(X.PEMToJson(X.ToPEM(fetched)))
  show("subject (from PEMToJson)", description:match('"subject":(%b{})'))
  show("issuer", description:match('"issuer":(%b{})'))
  local fetchedDigest = X.GetDigestFromCert("SHA256", fetched)
  show("SHA-256", fetchedDigest:sub(1, 32) .. "...")
  show("same as the certificate built above", fetchedDigest == X.GetDigestFromCert("SHA256", serverCert))
  print("  The fetch verifies nothing; it reports what the server sends.")

  heading("Tasks: fetches that wait together")
  -- Each fetch runs as a task; while one waits for its server, the others go on.
  -- Port 1 is closed: that task ends with an empty certificate, not an error.
  local valid = {Ombrix.all({
    function() return X.IsValid(X.X509FetchFromServer("127.0.0.1", server.port)) end,
    function() return X.IsValid(X.X509FetchFromServer("localhost", server.port)) end,
    function() return X.IsValid(X.X509FetchFromServer("127.0.0.1", 1)) end,
  })}
  show("Ombrix.all of three fetches: IsValid", table.concat({tostring(valid[1]), tostring(valid[2]), tostring(valid[3])}, ", "))
  local task = Ombrix.spawn(function(port) return X.GetDigestFromCert("SHA256", X.X509FetchFromServer("127.0.0.1", port)) end, server.port)
  show("Ombrix.spawn, then Ombrix.join: SHA-256", Ombrix.join(task):sub(1, 32) .. "...")
  local failed, message = pcall(Ombrix.join, Ombrix.spawn(function() error("a task that fails", 0) end))
  show("join re-raises a task's error", tostring(failed) .. ", " .. message)
  print("  examples/cert_expiry.lua checks many servers' expiry dates this way.")

  heading("A verified session: CAFile trusts the CA, Host must match")
  local tls = X.CreateSSL(tlsConfiguration({{"CAFile", caFile}, {"Host", "localhost"}}))
  show("CreateSSL, State", X.State(tls))
  local socket = Net.Connect("127.0.0.1", server.port)
  show("Net.Connect(127.0.0.1, port)", "socket " .. math.tointeger(socket))
  local connected = X.Connect(tls, socket)
  show("Connect (handshake and verification)", connected)
  show("  State", X.State(tls))
  if connected then
    show("Write GET / HTTP/1.0", writeAll(tls, "GET / HTTP/1.0\r\n\r\n") and "sent" or X.Error(tls))
    show("Read: first line of the answer", readLine(tls) or X.Error(tls))
    X.Shutdown(tls)
    show("Shutdown, State", X.State(tls))
  else
    show("  Error", X.Error(tls))
  end
  Net.Close(socket)

  heading("Refused sessions: State -1 and the reason in Error")
  local refusals = {
    {"another Host name", {{"CAFile", caFile}, {"Host", "www.example.org"}}},
    {"no trust in the CA", {{"Verify", true}, {"Host", "localhost"}}},
  }
  for _, case in ipairs(refusals) do
    local refused = X.CreateSSL(tlsConfiguration(case[2]))
    local refusedSocket = Net.Connect("127.0.0.1", server.port)
    local result = X.Connect(refused, refusedSocket)
    show(case[1], ("Connect %s, State %d"):format(tostring(result), X.State(refused)))
    show("  Error", X.Error(refused))
    Net.Close(refusedSocket)
  end
  print("  OpenSSL fails the handshake itself in both cases, hence the same text.")
end

if not commandExists("openssl") then
  heading("A local TLS server")
  print("  (skipped: the openssl command is not installed)")
else
  local dir = os.tmpname()    -- a fresh unique name; used as a directory
  os.remove(dir)
  assert(os.execute("mkdir -m 700 '" .. dir .. "'"), "cannot make a temporary directory")
  local ok, err = pcall(localServerTour, dir)
  server.stop()
  os.execute("rm -rf '" .. dir .. "'")
  if not ok then error(err, 0) end
end

heading("The certificate a remote server presents")
if not target then
  print("  (give a host to see one: `ombrix examples/tour/70-tls.lua example.org`,")
  print("   or OMBRIX_TOUR_TLS_HOST=example.org for the whole tour)")
  print("  examples/https_get.lua makes a whole HTTPS request to a host.")
  return
end
local host, port = target:match("^(.-):(%d+)$")
host, port = host or target, tonumber(port) or 443
local cert = X.X509FetchFromServer(host, port)
show("X509FetchFromServer(" .. host .. ", " .. port .. ")", cert)
if not X.IsValid(cert) then
  show("result", "no certificate (closed port, no TLS, or no answer in time)")
  return
end
show("subject", tostring(X.PEMToJson(X.ToPEM(cert))):match('"subject":(%b{})'))
show("SHA-256 fingerprint", X.GetDigestFromCert("SHA256", cert))
show("valid until", os.date("!%Y-%m-%d %H:%M:%S UTC", math.floor(X.GetValidNotAfter(cert))))
local pem = X.ToPEM(cert)
show("PEM", pem:match("^[^\n]*") .. " ... (" .. #pem .. " characters)")
print("  Nothing was verified: the fetch reports what the server sends, trusted or not.")
