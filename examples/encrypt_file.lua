#!/usr/bin/env ombrix
-- Encrypts a file with a password, and decrypts it again.
--
--   ombrix examples/encrypt_file.lua PATH                      writes PATH.enc
--   ombrix examples/encrypt_file.lua --decrypt PATH.enc [OUT]  writes OUT (default PATH)
--
-- The password comes from the environment variable OMBRIX_PASSWORD or, when
-- that is unset, from the terminal (typed twice, not echoed). There is no
-- built-in password. The key is derived with PBKDF2-HMAC-SHA256 over a fresh
-- 16-byte random salt; the file is sealed with AES-256-GCM. PATH.enc is a short
-- text that names everything needed to decrypt it except the password:
--
--   ombrix-encrypted-file 1
--   kdf PBKDF2-HMAC-SHA256
--   rounds 600000
--   salt <32 hex digits>
--   cipher AES-256-GCM
--   token <Base64 of IV, tag and ciphertext>
--
-- The lines above the token are the token's additional authenticated data, so
-- a changed round count, salt or cipher makes decryption fail like a wrong
-- password does.
local C = Cryptography
local ROUNDS = 600000          -- OWASP's 2023 figure for PBKDF2-HMAC-SHA256
local MIN_ROUNDS, MAX_ROUNDS = 100000, 10000000   -- what a file may ask for

local function usage()
  io.stderr:write("usage: ombrix examples/encrypt_file.lua PATH\n",
                  "       ombrix examples/encrypt_file.lua --decrypt PATH.enc [OUT]\n")
  os.exit(2)
end
local function fail(message)
  io.stderr:write("encrypt_file: ", message, "\n")
  os.exit(1)
end

local function quote(text) return "'" .. text:gsub("'", "'\\''") .. "'" end
local function exists(path)
  local file = io.open(path, "rb")
  if file then file:close() end
  return file ~= nil
end
-- Creates the file readable by its owner only before anything is written to it.
local function writePrivate(path, bytes)
  if exists(path) then fail(path .. " exists; remove it first") end
  if not os.execute("umask 077 && : > " .. quote(path)) then fail("cannot create " .. path) end
  local file = assert(io.open(path, "wb"))
  file:write(bytes)
  file:close()
end

local function readPassword(confirm)
  local password = os.getenv("OMBRIX_PASSWORD")
  if password and password ~= "" then return password end
  if not os.execute("test -t 0") then
    fail("set OMBRIX_PASSWORD or run on a terminal to type the password")
  end
  -- A shell reads the line with echo off and puts the terminal's settings
  -- back however the read ends: Ctrl-C reaches the shell too, and its trap
  -- restores them even though ombrix itself ends at once.
  local function ask(prompt)
    io.stderr:write(prompt)
    local shell = assert(io.popen([[
      saved=$(stty -g) || exit 1
      trap 'stty "$saved"' EXIT
      trap 'exit 130' INT TERM HUP
      stty -echo
      IFS= read -r line && printf '%s' "$line"]], "r"))
    local line = shell:read("a")
    shell:close()
    io.stderr:write("\n")
    return line or ""
  end
  password = ask("password: ")
  if password == "" then fail("empty password") end
  if confirm and ask("again: ") ~= password then fail("the passwords differ") end
  return password
end

local function deriveKey(password, salt, rounds)
  return C.PKCS5PBKDF2HMAC(Data(password), salt, rounds, "SHA256", 32):bytes()
end

local function encrypt(path)
  local plain = Data.file(path)   -- read on demand, in chunks
  if #plain == 0 then fail(path .. " is empty: there is nothing to seal") end
  local salt = C.CreateRandomBytes(16)
  local header = table.concat({
    "ombrix-encrypted-file 1",
    "kdf PBKDF2-HMAC-SHA256",
    "rounds " .. ROUNDS,
    "salt " .. salt:hex(),
    "cipher AES-256-GCM",
    ""}, "\n")
  local key = deriveKey(readPassword(true), salt, ROUNDS)
  local token = C.EncryptAndAuth(plain, "AES-256-GCM", key, header, 16)
  writePrivate(path .. ".enc", header .. "token " .. token .. "\n")
  print(("sealed %s (%d bytes) into %s.enc"):format(path, #plain, path))
end

local function decrypt(path, out)
  out = out or path:match("^(.+)%.enc$") or fail("name the output: " .. path .. " does not end in .enc")
  local file = io.open(path, "rb") or fail("cannot open " .. path)
  local text = file:read("a")
  file:close()
  local header, token = text:match("^(ombrix%-encrypted%-file 1\n.-\n)token ([%w+/=]+)\n?$")
  if not header then fail(path .. " is not a file this script wrote") end
  local rounds = tonumber(header:match("\nrounds (%d+)\n"))
  local salt = header:match("\nsalt (%x+)\n")
  if not (header:find("\nkdf PBKDF2%-HMAC%-SHA256\n") and header:find("\ncipher AES%-256%-GCM\n")) or not salt or
     not rounds or rounds < MIN_ROUNDS or rounds > MAX_ROUNDS then
    fail(path .. " names parameters this script does not use")
  end
  local key = deriveKey(readPassword(false), Data.fromhex(salt), rounds)
  local ok, plain = pcall(C.DataRefDecryptAndVerify, token, "AES-256-GCM", key, header, 16)
  if not ok then fail("wrong password, or " .. path .. " was changed") end
  writePrivate(out, plain:bytes())
  print(("restored %s (%d bytes) from %s"):format(out, #plain, path))
end

if arg[1] == "--decrypt" then
  if not arg[2] then usage() end
  decrypt(arg[2], arg[3])
elseif arg[1] and not arg[2] then
  encrypt(arg[1])
else
  usage()
end
