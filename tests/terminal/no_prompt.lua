-- Encrypted keys and certificates read without a password fail cleanly, never
-- prompting: no_prompt.py runs this on a pseudo-terminal, where OpenSSL's
-- fallback would wait. Usage: no_prompt.lua DATA_DIR
local data = assert(arg[1], "usage: no_prompt.lua DATA_DIR") .. "/"
local function read(path) local f = assert(io.open(path, "rb")) local t = f:read("a") f:close() return t end
local function temp(text) local path = os.tmpname() local f = assert(io.open(path, "wb")) f:write(text) f:close() return path end

-- A certificate block carrying the legacy encryption headers: reading it asks
-- for a pass phrase before anything is decrypted.
local encryptedCert = read(data .. "tls/client.pem"):gsub("(%-%-%-%-%-BEGIN CERTIFICATE%-%-%-%-%-\n)",
  "%1Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n", 1)
local encryptedCertFile = temp(encryptedCert)
local pkcs8 = data .. "keys/rsa.encrypted.pem"
local traditional = data .. "keys/rsa.traditional-encrypted.pem"

local function session(config)
  local s = Cryptography.CreateSSL(JSON.FromString(config))
  return Cryptography.State(s), Cryptography.Error(s)
end
local function expectFailure(config, prefix)
  local state, message = session(config)
  assert(state == -1, config .. ": state " .. state)
  -- OpenSSL's reason is the one its prompt gives when it finds no input.
  assert(message == prefix .. ": processing error", config .. ": message " .. message)
end

-- The outcome is the one without a terminal: no pass phrase at all, so even a
-- key encrypted with the empty pass phrase is not read.
for _, key in ipairs({pkcs8, traditional, data .. "keys/ec.empty-password.pem"}) do
  expectFailure(('{"Verify":false,"Key":%q}'):format(key), "Failed to load private key")
  expectFailure(('{"Verify":false,"Cert":%q,"Key":%q}'):format(data .. "tls/client.pem", key), "Failed to load private key")
  -- A PEM key in a byte buffer: no signature, no report.
  local ok, signature = pcall(Cryptography.Sign, "message", Data(read(key)), "SHA256")
  assert(ok and signature and #signature == 0, key .. ": Sign gave a signature or raised " .. tostring(signature))
  -- KeyFromPEM without a password offers the empty one: only that key is read.
  local readable = key:find("empty%-password") ~= nil
  assert(Cryptography.IsValid(Cryptography.KeyFromPEM(read(key))) == readable, key .. ": KeyFromPEM")
end
expectFailure(('{"Verify":false,"Cert":%q}'):format(encryptedCertFile), "Failed to load client certificate")
local state = session(('{"CAFile":%q}'):format(encryptedCertFile))
assert(state == -1 or state == 0, "CA file: state " .. state)
assert(not Cryptography.IsValid(Cryptography.X509FromPEM(encryptedCert)), "X509FromPEM read an encrypted block")
assert(#Cryptography.X509VectorFromPEM(encryptedCert) == 0, "X509VectorFromPEM read an encrypted block")
assert(JSON.ToString(Cryptography.PEMToJson(encryptedCert)) == "{}", "PEMToJson described an encrypted block")
os.remove(encryptedCertFile)
print("no-prompt: ok")
