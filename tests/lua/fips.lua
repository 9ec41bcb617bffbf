-- What each routine family gives in FIPS mode with OpenSSL's FIPS provider.
-- The table below is the "FIPS mode" section of docs/reference.md: every run
-- checks that section against it. With "fips" after DATA_DIR (as
-- scripts/test-fips.sh runs it: FIPS mode wanted, the provider active) it
-- also makes every call and checks every outcome; with "without-provider"
-- (FIPS mode wanted, no FIPS provider) it checks what the section says of
-- that case.
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

local digestInit = "Error.Ombrix.FunctionError: Error on 'EVP_DigestInit'. Status: 0"
local encryptInit = "Error.Ombrix.FunctionError: Error on 'EVP_EncryptInit'. Status: 0"
local chachaSetup = "Error.Ombrix.FunctionError: Setting up cipher context failed!"
local cannotSign = "Error.Ombrix.FunctionError: RSASignMessage didn't work!"

-- Routine family, call (Lua, routines without their "Cryptography." prefix,
-- the fixtures below in scope), outcome: "works" (a non-empty result, a
-- valid key or certificate), "empty" (an empty result, no error), "true",
-- "gives <text>", or "<error id>: <message>"; or, where the FIPS provider's
-- rules changed between OpenSSL versions, one of those by provider version.
local cases = {
  {"Digests", 'Hash("SHA256", "abc")', "works"},
  {"Digests", 'Hash("SHA3-256", "abc")', "works"},
  {"Digests", 'HashFile("SHA1", textFile)', "works"},
  {"Digests", 'Hash("MD5", "abc")', digestInit},
  {"Random data", "CreateRandomBytes(32)", "works"},
  {"Random data", "CreateRandomUUID()", "works"},
  {"Random data", "CreateRandomBytesAsBase64URLString(16)", "works"},
  {"HMAC and key derivation", 'HMAC("SHA256", "k", "abc")', "works"},
  {"HMAC and key derivation", 'HMAC("MD5", "key", "abc")', "Error.Ombrix.FunctionError: HMAC generation failed!"},
  {"HMAC and key derivation", 'PKCS5PBKDF2HMAC(Data("a long pass phrase"), salt16, 1000, "SHA256", 32)', "works"},
  {"HMAC and key derivation", 'PKCS5PBKDF2HMAC(Data("pw"), Data("salt"), 1, "SHA256", 8)', "works"},
  {"HMAC and key derivation", 'PKCS5PBKDF2HMAC(Data("a long pass phrase"), salt16, 1000, "MD5", 32)',
   'Error.Ombrix.FunctionError: PKCS5_PBKDF2_HMAC with digest "MD5" failed!'},
  {"HMAC and key derivation", 'BytesToKey("AES-256-CBC", "SHA256", Data("secret"), Data("8bytesal"), 1)', "works"},
  {"HMAC and key derivation", 'BytesToKey("AES-256-CBC", "MD5", Data("secret"), Data("8bytesal"), 1)', "empty"},
  {"Authenticated encryption",
   'DecryptAndVerify(EncryptAndAuth(Data("text"), "AES-256-GCM", key32, "aad", 16), "AES-256-GCM", key32, "aad", 16)',
   "gives text"},
  {"Authenticated encryption", 'EncryptAndAuth("text", "AES-128-GCM", key16, "", 12)', "works"},
  {"Authenticated encryption", 'EncryptAEADCHACHA20POLY1305("text", key32, nonce12, "aad")', chachaSetup},
  {"Authenticated encryption", 'DecryptAEADCHACHA20POLY1305(Data("text"), tag16, key32, nonce12, "aad")', chachaSetup},
  {"Raw ciphers", 'Decrypt("AES-256-CBC", Encrypt("AES-256-CBC", "text", key32, iv16), key32, iv16)', "gives text"},
  {"Raw ciphers", 'Decrypt("DES-EDE3-CBC", Encrypt("DES-EDE3-CBC", "text", key24, iv8), key24, iv8)', "gives text"},
  {"Raw ciphers", 'Encrypt("DES-CBC", "text", key8, iv8)', encryptInit},
  {"Raw ciphers", 'Encrypt("ChaCha20", "text", key32, iv16)', encryptInit},
  {"Raw ciphers", 'Decrypt("BF-CBC", Data("8 bytes!"), key16, iv8)',
   "Error.Ombrix.FunctionError: Error on 'EVP_DecryptInit_ex'. Status: 0"},
  {"Keys", "GenerateRSAKey(2048)", "works"},
  {"Keys", "GenerateRSAKey(1024)",
   "Error.Ombrix.FunctionError: Generation of RSA key, failure reason:[" .. reason("020000AE") .. "]"},
  {"Keys", "GenerateECKey()", "works"},
  {"Keys", "GenerateX25519Key()", {["3.0"] = "works", ["3.5"] = "empty"}},
  {"Keys", "GeneratePublicKey(GetModulus(rsa2048), GetExponent(rsa2048))", "works"},
  {"Keys", "EncodePrivateKey(p256)", "works"},
  {"Keys", "KeyFromPEM(pkcs8Pem, password)", "works"},
  {"Keys", "KeyFromPEM(legacyEncryptedPem, password)", "empty"},
  {"Signatures", 'Sign("message", rsa2048, "SHA256")', "works"},
  {"Signatures", 'Sign("message", rsa3072, "SHA384")', "works"},
  {"Signatures", 'VerifySignature("message", p256, "SHA256", Sign("message", p256, "SHA256"))', "true"},
  {"Signatures", 'Sign("message", rsa1024, "SHA256")', cannotSign},
  {"Signatures", 'Sign("message", p256, "SHA1")', {["3.0"] = cannotSign, ["3.5"] = "works"}},
  {"Signatures", 'VerifySignature("other", rsa2048, "SHA256", Sign("message", rsa2048, "SHA256"))',
   "Error.Ombrix.FunctionError: Error on 'EVP_VerifyFinal': " .. errorText("02000068")},
  {"Certificates", 'GetDigestFromCert("SHA256", caCert)', "works"},
  {"Certificates", 'GetDigestFromCert("MD5", caCert)', "Error.Ombrix.FunctionError: Digest couldn't be created."},
  {"Certificates", "HasIssued(caCert, serverCert)", "true"},
  {"Certificates", "PEMToJson(caPem)", "works"},
  {"Certificates", "selfIssued(p256)", "true"},
  {"Certificates", "selfIssued(rsa1024)", "false"},
  {"Certificates", 'X509FetchFromServer("127.0.0.1", server(""))', "works"},
  {"TLS client", 'tls(server(""))', "true"},
  {"TLS client", 'tls(server("-tls1_2"))', "true"},
  {"TLS client", 'tls(server("-groups X25519"))',
   {["3.0"] = "true", ["3.5"] = "gives state -1: SSL_connect failed: " .. reason("0A000410") .. ". "}},
  {"TLS client", 'tls(server("-ciphersuites TLS_CHACHA20_POLY1305_SHA256"))',
   "gives state -1: SSL_connect failed: " .. reason("0A000410") .. ". "},
  {"TLS client", 'tls(server("-tls1_2 -cipher ECDHE-ECDSA-CHACHA20-POLY1305"))',
   "gives state -1: SSL_connect failed: " .. reason("0A000410") .. ". "},
}

-- Fixtures: name, what the reference says it is, how it is made.
local function read(path) local f = assert(io.open(path, "rb")) local text = f:read("a") f:close() return text end
local tlsDir = dataDir .. "/tls/"
local servers = {}
local fixtures = {
  {"key8, key16, key24, key32", "raw keys of that many bytes"},
  {"iv8, iv16, nonce12, tag16, salt16", "DATAREFs of that many bytes"},
  {"textFile", "the path of a small file"},
  {"rsa2048, p256", "an RSA 2048-bit key read from PEM, a key of `GenerateECKey()`"},
  {"rsa3072", "a key of `GenerateRSAKey(3072)`"},
  {"rsa1024", "an RSA 1024-bit key made by the `openssl` command outside FIPS mode"},
  {"pkcs8Pem, legacyEncryptedPem, password", "an RSA key encrypted as PKCS#8 (AES-256-CBC, PBKDF2) and " ..
     "the same key in the legacy PEM encryption (AES-128-CBC, key from MD5), and their pass phrase"},
  {"caPem, caCert, serverCert", "a CA certificate (PEM text, read) and a server certificate it issued"},
  {"selfIssued(key)", "builds a version 3 CA certificate for `key` as in Common jobs, signs it with `key` " ..
     "and gives `HasIssued(cert, cert)`"},
  {"server(options)", "starts `openssl s_server` with these options outside FIPS mode, for one " ..
     "connection, and gives its port"},
  {"tls(port)", "`CreateSSL` (verifying the server), `Connect` on a blocking socket, a line written " ..
     "and read back; gives true, or the session's `State` and `Error`"},
}

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
    Cryptography.SetVersion(cert, 2)
    Cryptography.SetSerialNumber(cert, 1)
    Cryptography.SetSubjectName(cert, "CN", "FIPS CA")
    Cryptography.SetIssuerName(cert, "CN", "FIPS CA")
    Cryptography.AdjustNotBefore(cert, -60)
    Cryptography.AdjustNotAfter(cert, 86400)
    Cryptography.SetKey(cert, key)
    Cryptography.AddExtension(cert, "basicConstraints", "critical,CA:TRUE")
    Cryptography.AddExtension(cert, "keyUsage", "critical,keyCertSign,cRLSign")
    Cryptography.AddExtension(cert, "subjectKeyIdentifier", "hash")
    Cryptography.Sign(cert, key)
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

-- The reference's wording of an outcome.
local function described(outcome)
  if type(outcome) == "table" then
    local versions, parts = {}, {}
    for version in pairs(outcome) do versions[#versions + 1] = version end
    table.sort(versions)
    for _, version in ipairs(versions) do parts[#parts + 1] = version .. ": " .. described(outcome[version]) end
    return table.concat(parts, "; ")
  end
  if outcome == "works" then return "works" end
  if outcome == "empty" then return "empty result, no error" end
  if outcome == "true" or outcome == "false" then return "`" .. outcome .. "`" end
  local given = outcome:match("^gives (.*)$")
  if given then return "gives `" .. given .. "`" end
  local id, message = outcome:match("^(Error%.[%w.]+): (.*)$")
  return "`" .. assert(id, outcome) .. "` `" .. message .. "`"
end

-- The reference's section, between its heading and the next one.
local reference = read(arg[0]:match("^(.*/)") .. "../../docs/reference.md")
local section = assert(reference:match("\n## FIPS mode\n(.-)\n## "), "docs/reference.md has a FIPS mode section")
local expected = {"| Family | Call | Outcome |", "|---|---|---|"}
for _, case in ipairs(cases) do
  expected[#expected + 1] = ("| %s | `%s` | %s |"):format(case[1], case[2], described(case[3]))
end
for _, fixture in ipairs(fixtures) do expected[#expected + 1] = ("- `%s`: %s."):format(fixture[1], fixture[2]) end
local found = {}
for line in section:gmatch("[^\n]+") do
  if line:match("^|") or line:match("^%- `[^`]*`: ") then found[#found + 1] = line end
end
for i = 1, math.max(#expected, #found) do
  check.equal(found[i], expected[i], "reference FIPS table line " .. i)
end

if mode == nil then print("fips: the reference's table matches (calls not made: FIPS mode not asked for)") return end
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
check.each((function()
  local list = {}
  for _, case in ipairs(cases) do
    local outcome = case[3]
    if type(outcome) == "table" then outcome = assert(outcome[series], "no outcome for FIPS provider " .. series) end
    list[#list + 1] = {name = case[2], family = case[1], outcome = outcome}
  end
  return list
end)(), function(case)
  local ok, value = pcall(assert(load("return " .. case.name, "=" .. case.name, "t", env)))
  local got = outcomeOf(ok, value)
  if case.outcome == "works" and got:match("^gives ") then got = "works" end
  check.equal(got, case.outcome, case.family)
end)
for _, pipe in ipairs(servers) do pipe:close() end
print(("fips: %d calls gave the reference's outcomes (FIPS provider %s)"):format(#cases, series))
