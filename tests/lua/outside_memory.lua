-- 1 MiB buffers and TLS sessions made in loops without collectgarbage: the
-- collector keeps pace with their outside memory, so the peak resident size
-- stays bounded (several hundred MB otherwise). Usage: outside_memory.lua DATA_DIR
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.CreateSSL", "Cryptography.State", "Cryptography.Hash")

-- Peak resident size of this process in MB (Linux).
local function peakMB()
  local status = assert(io.open("/proc/self/status")):read("a")
  return tonumber(assert(status:match("VmHWM:%s*(%d+) kB"))) / 1024
end
local limit = 150

local megabyte = string.rep("m", 1 << 20)
for i = 1, 400 do
  local buffer = Data(megabyte)          -- a 1 MiB copy outside Lua
  if i % 100 == 0 then check.equal(#Cryptography.Hash("SHA256", buffer), 32, "digest") end
end
local afterData = peakMB()
check.truthy(afterData < limit, ("400 buffers of 1 MiB: peak %.0f MB below %d MB"):format(afterData, limit))

for i = 1, 250 do
  local session = Cryptography.CreateSSL(JSON.FromString("{}"))  -- default CA locations
  if i == 1 then check.equal(Cryptography.State(session), 0, "session configured") end
end
local afterSessions = peakMB()
check.truthy(afterSessions < limit, ("250 sessions: peak %.0f MB below %d MB"):format(afterSessions, limit))
print(("outside_memory: ok (peak %.0f MB)"):format(afterSessions))
