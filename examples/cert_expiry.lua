-- When do the certificates of some TLS servers expire? Fetches every server's
-- certificate at once (each fetch runs as a task, so a slow or silent server
-- holds up nobody), then lists them, the most urgent first.
--
--   ombrix examples/cert_expiry.lua HOST[:PORT]... [--days N]
--   ombrix examples/cert_expiry.lua example.org example.net:8443 --days 14
--
-- Exit status 0 when every certificate stays valid for more than N days (30 by
-- default), 1 when one expires within them (or has expired) or a server gave
-- no certificate, 2 for wrong usage. Nothing is verified: this reports what
-- each server presents.
local X = Cryptography
local usage = "usage: cert_expiry.lua HOST[:PORT]... [--days N]\n"

local threshold, targets = 30, {}
local i = 1
while i <= #arg do
  if arg[i] == "--days" then
    threshold = tonumber(arg[i + 1])
    if not threshold then io.stderr:write(usage) os.exit(2) end
    i = i + 2
  else
    targets[#targets + 1] = arg[i]
    i = i + 1
  end
end
if #targets == 0 then io.stderr:write(usage) os.exit(2) end

-- "host", "host:port", "[v6 address]:port"; port 443 when none is given.
local function split(target)
  local host, port = target:match("^%[(.+)%]:(%d+)$")
  if not host then host, port = target:match("^([^:]+):(%d+)$") end
  if not host then host = target:match("^%[(.+)%]$") or target end
  return host, tonumber(port) or 443
end

-- {"commonName":"a","organizationName":"b"} as commonName=a, organizationName=b.
local function names(json, field)
  local object = json:match('"' .. field .. '":(%b{})') or ""
  local parts = {}
  for key, value in object:gmatch('"([^"]+)":"([^"]*)"') do parts[#parts + 1] = key .. "=" .. value end
  return #parts > 0 and table.concat(parts, ", ") or "(empty)"
end

local now = os.time()
local jobs = {}
for n, target in ipairs(targets) do
  jobs[n] = function()
    local host, port = split(target)
    local cert = X.X509FetchFromServer(host, port)
    local report = {server = host:find(":") and ("[%s]:%d"):format(host, port) or host .. ":" .. port}
    -- An empty certificate means the server gave none: there is no date to show.
    if not X.IsValid(cert) then return report end
    local json = tostring(X.PEMToJson(X.ToPEM(cert)))
    report.notAfter = X.GetValidNotAfter(cert)
    report.subject, report.issuer = names(json, "subject"), names(json, "issuer")
    return report
  end
end
local reports = {Ombrix.all(jobs)}

-- Servers without a certificate first, then the soonest expiry.
table.sort(reports, function(a, b)
  if (a.notAfter == nil) ~= (b.notAfter == nil) then return a.notAfter == nil end
  if a.notAfter == nil then return a.server < b.server end
  return a.notAfter < b.notAfter
end)

local failing = 0
for _, r in ipairs(reports) do
  if not r.notAfter then
    failing = failing + 1
    print(("%-8s %s: no certificate (closed port, no TLS, or no answer in time)"):format("FAIL", r.server))
  else
    local seconds = r.notAfter - now
    local daysLeft = math.floor(seconds / 86400)
    local due = seconds <= threshold * 86400
    if due then failing = failing + 1 end
    print(("%-8s %s: %s, notAfter %s (%d days left)"):format(due and "EXPIRING" or "ok", r.server,
          seconds < 0 and "expired" or "valid", os.date("!%Y-%m-%d %H:%M:%S UTC", math.floor(r.notAfter)), daysLeft))
    print("         subject " .. r.subject)
    print("         issuer  " .. r.issuer)
  end
end
print(("%d of %d servers need attention (threshold %g days)"):format(failing, #reports, threshold))
os.exit(failing == 0 and 0 or 1)
