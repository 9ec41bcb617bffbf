-- A socket from Net carries a TLS session: non-blocking handshake driven by
-- Net.Wait, then a write and a read into a Data buffer, against a local
-- `openssl s_server -rev` (which answers each line reversed).
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.CreateSSL", "Cryptography.Connect", "Cryptography.Read", "Cryptography.Write",
            "Cryptography.State", "Cryptography.Error", "Cryptography.Shutdown")

local dir = os.tmpname()
os.remove(dir)
assert(os.execute("mkdir -p '" .. dir .. "'"))
assert(os.execute(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=localhost " ..
                   "-days 1 -keyout '%s/key.pem' -out '%s/cert.pem' 2>/dev/null"):format(dir, dir)))
local server = assert(io.popen(("exec timeout 60 openssl s_server -accept 127.0.0.1:0 -cert '%s/cert.pem' " ..
                                "-key '%s/key.pem' -rev -naccept 1 2>&1"):format(dir, dir)))
local port
for line in server:lines() do
  port = line:match("^ACCEPT 127%.0%.0%.1:(%d+)")
  if port then break end
end
assert(port, "the test server did not start")

local socket = Net.Connect("127.0.0.1", tonumber(port))
check.equal(math.type(socket), "integer", "socket number")
Net.SetBlocking(socket, false)
local session = Cryptography.CreateSSL(JSON.FromString('{"Verify":false}'))

-- Runs step until it succeeds, waiting on the socket whenever the session
-- needs to read (state 2) or write (state 3).
local function drive(label, step)
  for _ = 1, 1000 do
    local result = step()
    if result then return result end
    local state = Cryptography.State(session)
    if state ~= 2 and state ~= 3 then
      error(("%s: state %d, %s"):format(label, state, Cryptography.Error(session)))
    end
    check.truthy(Net.Wait(socket, state == 2 and "r" or "w", 5000), label .. ": socket ready in time")
  end
  error(label .. ": no progress")
end

drive("handshake", function() return Cryptography.Connect(session, socket) end)
check.equal(Cryptography.State(session), 1, "connected")

local line = "hello ombrix\n"
local sent = drive("write", function()
  local n = Cryptography.Write(session, line, #line)
  return n > 0 and n or nil
end)
check.equal(sent, #line, "bytes written")

local buffer, received = Data(""), ""
while not received:find("\n", 1, true) do
  local n = drive("read", function()
    local n = Cryptography.Read(session, buffer, 100)
    return n > 0 and n or nil
  end)
  check.equal(#buffer, n, "the buffer holds what was read")
  received = received .. buffer:bytes()
end
check.equal(received, "xirbmo olleh\n", "reversed line")

Cryptography.Shutdown(session)
Net.Close(socket)
server:close()
os.execute("rm -rf '" .. dir .. "'")
print("tls: ok")
