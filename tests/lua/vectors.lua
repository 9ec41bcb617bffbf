-- VECTOR results arrive as Lua arrays whose elements convert like single
-- values (buffers, strings, module values). Each part runs once the routines
-- it uses are bound; with none bound the check is skipped.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
local ran = 0

if check.available("Cryptography.EncryptAEADCHACHA20POLY1305", "Cryptography.DecryptAEADCHACHA20POLY1305") then
  ran = ran + 1
  local key = string.rep("k", 32)
  local nonce = Data(string.rep("\0", 12))
  check.each({
    {name = "short", plain = "hello"},
    {name = "100 bytes", plain = string.rep("x", 100)},
    {name = "with aad", plain = "payload", aad = "header"},
  }, function(case)
    local sealed = Cryptography.EncryptAEADCHACHA20POLY1305(case.plain, key, nonce, case.aad or "")
    check.equal(type(sealed), "table", "result type")
    check.equal(#sealed, 2, "elements")
    check.equal(#sealed[1], #case.plain, "ciphertext length")
    check.equal(#sealed[2], 16, "tag length")
    local opened = Cryptography.DecryptAEADCHACHA20POLY1305(sealed[1], sealed[2], key, nonce, case.aad or "")
    check.equal(opened, case.plain, "round trip")
  end)
end

if check.available("Cryptography.X509VectorFromPEM", "Cryptography.GetPurpose", "Cryptography.X509FromPEM") then
  ran = ran + 1
  local file = os.tmpname()
  assert(os.execute(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=vectors " ..
                     "-days 1 -keyout /dev/null -out '%s' 2>/dev/null"):format(file)))
  local handle = assert(io.open(file, "r"))
  local pem = handle:read("a")
  handle:close()
  os.remove(file)

  local chain = Cryptography.X509VectorFromPEM(pem .. pem)
  check.equal(#chain, 2, "certificates")
  for i = 1, 2 do check.equal(tostring(chain[i]), "Cryptography.X509", "element " .. i) end
  local purposes = Cryptography.GetPurpose(Cryptography.X509FromPEM(pem))
  check.truthy(#purposes > 0, "a self-signed certificate has purposes")
  for i, p in ipairs(purposes) do check.equal(type(p), "string", "purpose " .. i) end
  check.equal(#Cryptography.GetPurpose(Ombrix.new("Cryptography.X509")), 0, "an empty certificate has none")
end

if ran == 0 then check.skip("no routine with a VECTOR result is available yet") end
print("vectors: ok")
