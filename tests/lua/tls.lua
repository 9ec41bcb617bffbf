-- A TLS session on a socket from Net against a local `openssl s_server -rev`
-- (which answers each line reversed): a verified non-blocking handshake driven
-- by Net.Wait, then a write and reads into a Data buffer. Usage: tls.lua DATA_DIR
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.CreateSSL", "Cryptography.Connect", "Cryptography.Read", "Cryptography.Write",
            "Cryptography.State", "Cryptography.Error", "Cryptography.Shutdown")
local tls = assert(arg[1], "usage: tls.lua DATA_DIR") .. "/tls/"

local server = assert(io.popen(("exec timeout 60 openssl s_server -accept 127.0.0.1:0 -cert '%sserver.pem' " ..
                                "-key '%sserver.key' -rev -naccept 1 2>&1"):format(tls, tls)))
local port
repeat port = assert(server:read("l"), "the test server did not start"):match("^ACCEPT 127%.0%.0%.1:(%d+)") until port

local socket = Net.Connect("127.0.0.1", tonumber(port))
Net.SetBlocking(socket, false)
local session = Cryptography.CreateSSL(JSON.FromString(('{"Host":"localhost","CAFile":%q}'):format(tls .. "ca.pem")))

-- Runs step until it returns a value, waiting on the socket whenever the
-- session needs to read (state 2) or write (state 3).
local function drive(label, step)
  for _ = 1, 1000 do
    local result = step()
    if result then return result end
    local state = Cryptography.State(session)
    if state ~= 2 and state ~= 3 then error(("%s: state %d, %s"):format(label, state, Cryptography.Error(session))) end
    check.truthy(Net.Wait(socket, state == 2 and "r" or "w", 5000), label .. ": socket ready in time")
  end
  error(label .. ": no progress")
end

drive("handshake", function() return Cryptography.Connect(session, socket) end)
local line = "hello ombrix\n"
check.equal(Cryptography.Write(session, line, #line), #line, "bytes written")
local buffer, received = Data(""), ""
while not received:find("\n", 1, true) do
  local n = drive("read", function() local n = Cryptography.Read(session, buffer, 100) return n > 0 and n end)
  check.equal(#buffer, n, "the buffer holds what was read")
  received = received .. buffer:bytes()
end
check.equal(received, "xirbmo olleh\n", "reversed line")
Cryptography.Shutdown(session)
check.equal(Cryptography.State(session), -2, "closed")
Net.Close(socket)
server:close()
print("tls: ok")
