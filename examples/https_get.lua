#!/usr/bin/env ombrix
-- An HTTPS GET with the module's TLS client over a socket from Net.Connect.
--
--   ombrix examples/https_get.lua HOST [PATH] [PORT] [CAFILE]
--
-- The server's certificate is verified against OpenSSL's default CA locations,
-- or against CAFILE when given, and must match HOST. The response's header
-- goes to standard error, its body to standard output.
-- examples/make_ca.lua shows how to run it against a local test server.
local host, path, port, caFile = arg[1], arg[2] or "/", tonumber(arg[3]) or 443, arg[4]
if not host then
  io.stderr:write("usage: ombrix examples/https_get.lua HOST [PATH] [PORT] [CAFILE]\n")
  os.exit(2)
end

local function fail(message)
  io.stderr:write("https_get: ", message, "\n")
  os.exit(1)
end

local configuration = JSON.FromString("{}")
JSON.Set(configuration, "Host", host)
if caFile then JSON.Set(configuration, "CAFile", caFile) end
local session = Cryptography.CreateSSL(configuration)
if Cryptography.State(session) < 0 then
  fail("TLS configuration: " .. Cryptography.Error(session))
end

local connected, socket = pcall(Net.Connect, host, port)   -- a blocking socket
if not connected then fail(("cannot connect to %s:%d: %s"):format(host, port, tostring(socket))) end
if not Cryptography.Connect(session, socket) then
  Net.Close(socket)
  fail("TLS handshake: " .. Cryptography.Error(session))
end

local request = table.concat({
  "GET " .. path .. " HTTP/1.1",
  "Host: " .. host,
  "User-Agent: ombrix-https-get",
  "Accept: */*",
  "Connection: close",
  "", ""}, "\r\n")
local offset = 1
while offset <= #request do
  local rest = request:sub(offset)
  local written = Cryptography.Write(session, rest, #rest)
  if written <= 0 then
    Net.Close(socket)
    fail("write: " .. Cryptography.Error(session))
  end
  offset = offset + written
end

-- Read until the server closes; state -2 is a clean close_notify.
local chunks, buffer = {}, Data("")
while true do
  local count = Cryptography.Read(session, buffer, 16384)
  if count > 0 then
    chunks[#chunks + 1] = buffer:bytes()
  elseif count == 0 or Cryptography.State(session) == -2 then
    break
  else
    local message = Cryptography.Error(session)
    -- Many servers just drop the connection after "Connection: close".
    if #chunks == 0 then
      Net.Close(socket)
      fail("read: " .. message)
    end
    break
  end
end
Cryptography.Shutdown(session)
Net.Close(socket)

local response = table.concat(chunks)
local head, body = response:match("^(.-)\r\n\r\n(.*)$")
io.stderr:write((head or response), "\n\n")
io.write(body or "")
