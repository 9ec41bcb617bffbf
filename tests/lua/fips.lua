-- What each routine family gives in FIPS mode with OpenSSL's FIPS provider, as the table of the
-- "FIPS mode" section of docs/reference.md says: the script reads its rows (family, call, outcome)
-- and fixture names from there. Every run checks that the rows read and that the OpenSSL text the
-- section quotes is the running OpenSSL's. With "fips" after DATA_DIR (as scripts/test-fips.sh
-- runs it: FIPS mode wanted, the provider active) it also makes every call and checks every
-- outcome; with "without-provider" (FIPS mode wanted, no FIPS provider) it checks what the
-- section says of that case.
-- Usage: fips.lua DATA_DIR [fips | without-provider]
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
local dataDir = assert(arg[1], "usage: fips.lua DATA_DIR [fips | without-provider]")
local mode = arg[2]

-- The installed OpenSSL's error text for one of its packed error codes, and its reason part.
local function errorText(code)
  local pipe = assert(io.popen("openssl errstr " .. code))
  local line = pipe:read("l")
  pipe:close()
  return assert(line and line:match("^error:%x+:.*:[^:]+$") and line, "openssl errstr " .. code)
end
local function reason(code) return errorText(code):match(":([^:]+)$") end

-- OpenSSL's own text the reference quotes, by the packed error code it comes
-- from: the reason, or (when the outcome quotes OpenSSL's error line) the line.
-- Every run checks that the section quotes the running OpenSSL's text.
local quoted = {reason("020000AE"), errorText("02000068"), reason("0A000410"), reason("0308010C")}

local function read(path) local f = assert(io.open(path, "rb")) local text = f:read("a") f:close() return text end
local tlsDir = dataDir .. "/tls/"
local servers = {}
local function makeFixtures()
  local env = {
    key8 = ("k"):rep(8), key16 = ("k"):rep(16), key24 = ("k"):rep(24), key32 = ("k"):rep(32),
    iv8 = Data(("i"):rep(8)), iv16 = Data(("i"):rep(16)), nonce12 = Data(("\0"):rep(12)),
    tag16 = Data(("t"):rep(16)), salt16 = Data(("s"):rep(16)),
    textFile = dataDir .. "/webhook-body.json",
    rsa2048 = Cryptography.KeyFromPEM(read(dataDir .. "/keys/rsa.pem")),
    p256 = Cryptography.GenerateECKey(), rsa3072 = Cryptography.GenerateRSAKey(3072),
    pkcs8Pem = read(dataDir .. "/keys/rsa.encrypted.pem"),
    legacyEncryptedPem = read(dataDir .. "/keys/rsa.traditional-encrypted.pem"), password = "ombrix-test-password",
    caPem = read(tlsDir .. "ca.pem"),
    caCert = Cryptography.X509FromPEM(read(tlsDir .. "ca.pem")),
    serverCert = Cryptography.X509FromPEM(read(tlsDir .. "server.pem")),
  }
  local pipe = assert(io.popen("env -u OPENSSL_CONF openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 2>/dev/null"))
  env.rsa1024 = Cryptography.KeyFromPEM(pipe:read("a"))
  pipe:close()
  check.truthy(Cryptography.GetKeyLength(env.rsa1024) == 1024, "the 1024-bit key was read")
  function env.selfIssued(key)
    local cert = Cryptography.CreateX509()
    for _, step in ipairs({
      {"SetVersion", 2}, {"SetSerialNumber", 1}, {"SetSubjectName", "CN", "FIPS CA"}, {"SetIssuerName", "CN", "FIPS CA"},
      {"AdjustNotBefore", -60}, {"AdjustNotAfter", 86400}, {"SetKey", key},
      {"AddExtension", "basicConstraints", "critical,CA:TRUE"}, {"AddExtension", "keyUsage", "critical,keyCertSign,cRLSign"},
      {"AddExtension", "subjectKeyIdentifier", "hash"}, {"Sign", key},
    }) do Cryptography[step[1]](cert, table.unpack(step, 2)) end
    return Cryptography.HasIssued(cert, cert)
  end
  function env.server(options)
    local pipe = assert(io.popen(("exec env -u OPENSSL_CONF timeout 60 openssl s_server -accept 127.0.0.1:0 " ..
      "-cert '%sserver.pem' -key '%sserver.key' -rev -naccept 1 %s 2>&1"):format(tlsDir, tlsDir, options)))
    servers[#servers + 1] = pipe
    local port
    repeat port = assert(pipe:read("l"), "the test server did not start"):match("^ACCEPT 127%.0%.0%.1:(%d+)") until port
    return tonumber(port)
  end
  function env.tls(port)
    local socket = Net.Connect("127.0.0.1", port)
    local session = Cryptography.CreateSSL(JSON.FromString(('{"Host":"localhost","CAFile":%q}'):format(tlsDir .. "ca.pem")))
    local ok = Cryptography.Connect(session, socket)
    local line, received = "fips\n", ""
    if ok and Cryptography.Write(session, line, #line) == #line then
      local buffer = Data("")
      while not received:find("\n", 1, true) and Cryptography.Read(session, buffer, 100) > 0 do
        received = received .. buffer:bytes()
      end
    end
    local outcome = received == "spif\n" or ("state %d: %s"):format(Cryptography.State(session), Cryptography.Error(session))
    if ok then Cryptography.Shutdown(session) end
    Net.Close(socket)
    return outcome
  end
  return setmetatable(env, {__index = function(_, name)
    local value = rawget(_G, name)
    if value == nil then return Cryptography[name] end
    return value
  end})
end

-- An outcome in the reference's words, in the terms outcomeOf below gives:
-- "works", "empty", "true", "false", "gives <text>", "<error id>: <message>",
-- or those by FIPS provider version ("3.0: works; 3.5: empty result, no error").
local function outcomeFrom(text, row)
  if text:match("^%d+%.%d+: ") then
    local byVersion = {}
    for version, outcome in (text .. "; "):gmatch("(%d+%.%d+): (.-); ") do byVersion[version] = outcomeFrom(outcome, row) end
    return byVersion
  end
  if text == "works" then return "works" end
  if text == "empty result, no error" then return "empty" end
  local word = text:match("^`(%a+)`$")
  if word == "true" or word == "false" then return word end
  local given = text:match("^gives `(.*)`$")
  if given then return "gives " .. given end
  local id, message = text:match("^`(Error%.[%w.]+)` `(.*)`$")
  return assert(id, "reference FIPS table row " .. row .. ": unknown outcome " .. text) .. ": " .. message
end

-- The reference's section, between its heading and the next one: its table
-- (family, call, outcome) and the fixture names of its "Where:" list.
local reference = read(arg[0]:match("^(.*/)") .. "../../docs/reference.md")
local section = assert(reference:match("\n## FIPS mode\n(.-)\n## "), "docs/reference.md has a FIPS mode section")
local cases, fixtureNames = {}, {}
for line in section:gmatch("[^\n]+") do
  local family, call, outcome = line:match("^| ([^|`]-) | `(.-)` | (.-) |$")
  if family then
    cases[#cases + 1] = {family, call, outcomeFrom(outcome, #cases + 1)}
  elseif line:match("^|") then
    check.truthy(line == "| Family | Call | Outcome |" or line == "|---|---|---|", "a table row: " .. line)
  end
  for name in (line:match("^%- `([^`]*)`: ") or ""):gmatch("(%w+)[^,]*") do fixtureNames[name] = true end
end
check.truthy(#cases >= 40, "the reference's FIPS table has its rows")
for _, text in ipairs(quoted) do
  check.truthy(section:find(text, 1, true), "the FIPS section quotes the running OpenSSL's text " .. text)
end

if mode == nil then print("fips: the reference's table reads (calls not made: FIPS mode not asked for)") return end
check.equal(Cryptography.FIPSMode(), 1, "FIPS mode")

if mode == "without-provider" then
  -- Every algorithm fails, with the messages the section quotes; reading a certificate still works.
  local caPem = read(tlsDir .. "ca.pem")
  check.truthy(Cryptography.IsValid(Cryptography.X509FromPEM(caPem)), "a certificate is read")
  check.each({{'Hash("SHA256", "abc")', "Error on 'EVP_DigestInit'. Status: 0"},
              {"CreateRandomBytes(16)", "CreateRandomBytes failed!"},
              {"GenerateECKey()", "Generation of EC key, failure reason:[" .. reason("0308010C") .. "]"}}, function(case)
    local err = check.raises(assert(load("return Cryptography." .. case[1])))
    check.equal(err.id .. ": " .. err.message, "Error.Ombrix.FunctionError: " .. case[2], case[1])
    check.truthy(section:find("`" .. case[2] .. "`", 1, true), "the section quotes " .. case[2])
  end)
  print("fips: without a FIPS provider every algorithm fails as the reference says")
  return
end
check.equal(mode, "fips", "the mode")
-- The version of the FIPS provider the configuration activates.
local pipe = assert(io.popen("openssl list -providers"))
local providers = pipe:read("a")
pipe:close()
local series = assert(providers:match("\n  fips\n[^\n]*\n%s*version: (%d+%.%d+)[^\n]*\n%s*status: active"),
                     "an active FIPS provider:\n" .. providers)

-- What a call gave, in the table's terms.
local function outcomeOf(ok, value)
  if not ok then
    return type(value) == "table" and (value.id .. ": " .. value.message) or ("raised " .. tostring(value))
  end
  local text = tostring(value)
  if text:match("^Data%(") then value, text = value:bytes(), value:bytes() end
  if type(value) == "boolean" then return text end
  if text == "Cryptography.Key" or text == "Cryptography.X509" then
    return Cryptography.IsValid(value) and "works" or "empty"
  end
  if type(value) == "table" then return #value > 0 and "works" or "empty" end
  return text == "" and "empty" or "gives " .. text
end

local env = makeFixtures()
for name in pairs(fixtureNames) do check.truthy(rawget(env, name) ~= nil, "fixture " .. name .. " is made") end
for name in pairs(env) do check.truthy(fixtureNames[name], "fixture " .. name .. " is in the reference's list") end
check.each(cases, function(case)
  local outcome = case[3]
  if type(outcome) == "table" then outcome = assert(outcome[series], "no outcome for FIPS provider " .. series) end
  local ok, value = pcall(assert(load("return " .. case[2], "=" .. case[2], "t", env)))
  local got = outcomeOf(ok, value)
  if outcome == "works" and got:match("^gives ") then got = "works" end
  check.equal(got, outcome, case[1] .. ": " .. case[2])
end)
for _, pipe in ipairs(servers) do pipe:close() end
print(("fips: %d calls gave the reference's outcomes (FIPS provider %s)"):format(#cases, series))
