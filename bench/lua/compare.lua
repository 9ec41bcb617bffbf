-- Per-call timings for bench/compare.sh, one "name value" line each:
-- nanoseconds per call for small work, MB/s for the 16 MiB rows.
--
--   ombrix bench/lua/compare.lua project BASELINE_DIR   this module through ombrix,
--                                                       and the plain C baseline
--   lua5.4 bench/lua/compare.lua luaossl                 luaossl under the stock interpreter
--
-- Every figure is the median of BENCH_REPS runs (default 5) of about
-- BENCH_SECONDS (default 0.2) of CPU time each. Each loop is compiled from
-- its expression, so no wrapper function call is timed on either side.
local side = arg[1]
local reps = tonumber(os.getenv("BENCH_REPS") or "5")
local seconds = tonumber(os.getenv("BENCH_SECONDS") or "0.2")

local function median(values)
  table.sort(values)
  local n = #values
  if n % 2 == 1 then return values[(n + 1) // 2] end
  return (values[n // 2] + values[n // 2 + 1]) / 2
end

-- Seconds per evaluation of expr, whose free names are the keys of env.
local function timePerCall(expr, env)
  local names, values = {}, {}
  for name, value in pairs(env) do
    names[#names + 1] = name
    values[#values + 1] = value
  end
  local source = ("local n%s = ...\nfor _ = 1, n do local _ = %s end"):format(
    #names > 0 and (", " .. table.concat(names, ", ")) or "", expr)
  local loop = assert(load(source, "=" .. expr))
  local function run(n)
    local start = os.clock()
    loop(n, table.unpack(values, 1, #names))
    return os.clock() - start
  end
  -- Garbage an earlier row left (values whose memory is outside the Lua
  -- heap, objects with finalizers) is collected now, not inside this row.
  collectgarbage()
  collectgarbage()
  -- A first call may pay for one-time set-up (a random generator seeding
  -- itself, pages touched for the first time); it is not timed, and it must
  -- not make the loop size too small for the clock.
  run(1)
  local n = 1
  while true do
    local elapsed = run(n)
    if elapsed >= seconds / 4 then
      n = math.max(1, math.floor(n * seconds / elapsed))
      break
    end
    n = n * 4
  end
  local samples = {}
  for r = 1, reps do samples[r] = run(n) / n end
  return median(samples)
end

local function nanoseconds(name, expr, env)
  print(("%s %.1f"):format(name, timePerCall(expr, env) * 1e9))
end

local function megabytes(name, expr, env, bytes)
  print(("%s %.1f"):format(name, bytes / timePerCall(expr, env) / 1e6))
end

local small = string.rep("0123456789abcdef", 4)         -- 64 bytes
local large = string.rep("p", 16 * 1024 * 1024)         -- 16 MiB
local hmacKey = "a secret key"
local key = string.rep("k", 32)
local iv = string.rep("\0", 16)

if side == "project" then
  local C = Cryptography
  package.cpath = arg[2] .. "/?.so;" .. package.cpath
  local plain = require("ombrix_bench_baseline")
  nanoseconds("sha256_64", 'Hash("SHA256", s)', { Hash = C.Hash, s = small })
  nanoseconds("hmac_64", 'HMAC("SHA256", k, s)', { HMAC = C.HMAC, k = hmacKey, s = small })
  nanoseconds("rand_16", "Random(16)", { Random = C.CreateRandomBytes })
  nanoseconds("lookup3_64", "Lookup3(s)", { Lookup3 = C.Lookup3Hash, s = small })
  nanoseconds("fips", "Failed()", { Failed = C.FIPSSelfTestFailed })
  nanoseconds("plain_lookup3_64", "Lookup3(s)", { Lookup3 = plain.lookup3, s = small })
  nanoseconds("plain_fips", "Failed()", { Failed = plain.fipsfailed })
  local data = Data(large)
  local ciphertext = C.Encrypt("AES-256-CBC", data, key)
  megabytes("sha256_16m", 'Hash("SHA256", d)', { Hash = C.Hash, d = data }, #large)
  megabytes("aes_encrypt_16m", 'Encrypt("AES-256-CBC", d, k)', { Encrypt = C.Encrypt, d = data, k = key }, #large)
  megabytes("aes_decrypt_16m", 'Decrypt("AES-256-CBC", c, k)',
            { Decrypt = C.DataRefDecrypt, c = ciphertext, k = key }, #large)
elseif side == "luaossl" then
  local digest, hmac = require("openssl.digest"), require("openssl.hmac")
  local rand, cipher = require("openssl.rand"), require("openssl.cipher")
  nanoseconds("sha256_64", 'digest.new("sha256"):final(s)', { digest = digest, s = small })
  nanoseconds("hmac_64", 'hmac.new(k, "sha256"):final(s)', { hmac = hmac, k = hmacKey, s = small })
  nanoseconds("rand_16", "rand.bytes(16)", { rand = rand })
  local ciphertext = cipher.new("aes-256-cbc"):encrypt(key, iv):final(large)
  megabytes("sha256_16m", 'digest.new("sha256"):final(s)', { digest = digest, s = large }, #large)
  megabytes("aes_encrypt_16m", 'cipher.new("aes-256-cbc"):encrypt(k, iv):final(s)',
            { cipher = cipher, k = key, iv = iv, s = large }, #large)
  megabytes("aes_decrypt_16m", 'cipher.new("aes-256-cbc"):decrypt(k, iv):final(c)',
            { cipher = cipher, k = key, iv = iv, c = ciphertext }, #large)
else
  io.stderr:write("usage: ombrix compare.lua project BASELINE_DIR | lua5.4 compare.lua luaossl\n")
  os.exit(2)
end
