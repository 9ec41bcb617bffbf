-- Fetches the certificate of every server given, serially or as tasks, and
-- prints how many came back. Usage: fetch_certs.lua serial|tasks PORT...
local mode = assert(arg[1], "usage: fetch_certs.lua serial|tasks PORT...")
local ports = {table.unpack(arg, 2)}

local function fetch(port)
  return Cryptography.IsValid(Cryptography.X509FetchFromServer("127.0.0.1", tonumber(port)))
end

local fetched = 0
if mode == "serial" then
  for _, port in ipairs(ports) do
    if fetch(port) then fetched = fetched + 1 end
  end
elseif mode == "tasks" then
  local jobs = {}
  for i, port in ipairs(ports) do jobs[i] = function() return fetch(port) end end
  for _, ok in ipairs({Ombrix.all(jobs)}) do
    if ok then fetched = fetched + 1 end
  end
else
  error("unknown mode " .. mode)
end
print(("%d of %d certificates"):format(fetched, #ports))
