-- One routine over a large Data.file, for bench/compare.sh to read the peak
-- resident size of (with /usr/bin/time -v). WORK is a scratch directory that
-- holds what one step leaves for the next.
--
--   ombrix bench/lua/memory.lua STEP FILE WORK
--   STEP: hmac | sign (writes WORK/public.pem, WORK/signature) | verify |
--         encrypt | prepare (writes WORK/ciphertext, not measured) | decrypt
local step, path, work = arg[1], arg[2], arg[3]
local C = Cryptography
local key = string.rep("k", 32)

local function write(name, bytes)
  local f = assert(io.open(work .. "/" .. name, "wb"))
  assert(f:write(bytes))
  f:close()
end

local function read(name)
  local f = assert(io.open(work .. "/" .. name, "rb"))
  local bytes = f:read("a")
  f:close()
  return bytes
end

if step == "hmac" then
  assert(#C.HMAC("SHA256", "a secret key", Data.file(path)) == 32)
elseif step == "sign" then
  local private = C.GenerateRSAKey(2048)
  write("signature", C.Sign(Data.file(path), private, "SHA256"):bytes())
  write("public.pem", C.PublicToPEM(private))
elseif step == "verify" then
  local public = C.KeyFromPEM(read("public.pem"))
  assert(C.VerifySignature(Data.file(path), public, "SHA256", Data(read("signature"))) == true)
elseif step == "encrypt" then
  local ciphertext = C.Encrypt("AES-256-CBC", Data.file(path), key)
  assert(#ciphertext > 0)
elseif step == "prepare" then
  write("ciphertext", C.Encrypt("AES-256-CBC", Data.file(path), key):bytes())
elseif step == "decrypt" then
  local plaintext = C.DataRefDecrypt("AES-256-CBC", Data.file(work .. "/ciphertext"), key)
  assert(#plaintext == #Data.file(path))
else
  io.stderr:write("usage: ombrix memory.lua hmac|sign|verify|encrypt|prepare|decrypt FILE WORK\n")
  os.exit(2)
end
