-- How a script's call reaches a declaration: a routine with one declaration
-- runs it whatever the arguments (surplus ones ignored, wrong or missing ones
-- reported by position), one with several chooses by the argument types
-- (never a shorter one that would drop an argument), a string is lent where
-- only a DATAREF fits, and large buffers cross both ways intact. Reports on
-- the context reach the script as tables with namespace, id and message.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.Lookup3Hash", "Cryptography.Hash", "Cryptography.Encrypt", "Cryptography.DataRefDecrypt")
local C = Cryptography

local abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
local aes, iv = string.rep("k", 32), "my-iv-1234567890"
local ec = C.GenerateECKey()
local signature = C.Sign("m", ec, "SHA256")
check.each({
  {name = "single declaration", call = function() return C.Lookup3Hash("Abc") end, result = C.Lookup3Hash("abc")},
  {name = "surplus arguments ignored", call = function() return C.Lookup3Hash("abc", 1, Data("x")) end,
   result = C.Lookup3Hash("abc")},
  {name = "wrong type", call = function() return C.Lookup3Hash(42) end,
   message = "invalid parameter 1 in function 'Cryptography.Lookup3Hash'"},
  {name = "missing", call = function() return C.Lookup3Hash() end,
   message = "missing parameter 1 in function 'Cryptography.Lookup3Hash'"},
  {name = "no host form", call = function() return C.Lookup3Hash({}) end,
   message = "cannot pass a table as parameter 1 in function 'Cryptography.Lookup3Hash'"},
  {name = "overload by STRING", call = function() return C.Hash("SHA256", "abc"):hex() end, result = abc},
  {name = "overload by DATAREF", call = function() return C.Hash("SHA256", Data("abc")):hex() end, result = abc},
  {name = "string IV lent as a buffer", call = function() return C.Encrypt("AES-256-CBC", "x", aes, iv):hex() end,
   result = C.Encrypt("AES-256-CBC", "x", aes, Data(iv)):hex()},
  {name = "string signature lent", call = function() return C.VerifySignature("m", ec, "SHA256", signature:bytes()) end,
   result = true},
  {name = "string password lent", call = function() return C.PKCS5PBKDF2HMAC("pw", "salt", 1, "SHA256", 8):hex() end,
   result = C.PKCS5PBKDF2HMAC(Data("pw"), Data("salt"), 1, "SHA256", 8):hex()},
  {name = "no shorter overload for a mistyped argument", call = function() return C.Encrypt("AES-256-CBC", "x", aes, 7) end,
   message = "invalid parameter 4 in function 'Cryptography.Encrypt'"},
  {name = "position of the misfit", call = function() return C.Sign("m", ec, 256) end,
   message = "invalid parameter 3 in function 'Cryptography.Sign'"},
  {name = "nil for an object", call = function() return C.Sign("m", nil, "SHA256") end,
   message = "invalid object used for parameter 2 in function 'Cryptography.Sign'"},
  {name = "host report", call = function() return JSON.FromString("{") end, namespace = "JSON",
   id = "Error.Ombrix.InvalidArgument", message = "Invalid JSON text"},
  {name = "module report", call = function() return C.Hash("NoSuchDigest", "x") end, namespace = "Cryptography",
   id = "Error.Ombrix.FunctionError", message = 'Digest "NoSuchDigest" not supported!'},
}, function(case)
  local err = case.message and check.raises(case.call)
  if case.id then
    check.equal(("%s %s: %s"):format(err.namespace, err.id, err.message),
                ("%s %s: %s"):format(case.namespace, case.id, case.message), "report")
    check.equal(tostring(err), case.id .. ": " .. case.message, "tostring")
    local ok, again = pcall(error, err)
    check.truthy(not ok and rawequal(again, err), "rethrown error is the same object")
  elseif case.message then
    check.equal(err, case.message, "message")
  else
    check.equal(case.call(), case.result, "result")
  end
end)

check.raises(function() return C.NoSuchRoutine end, "unknown routine 'Cryptography.NoSuchRoutine'")
check.raises(function() return Ombrix.new("No.Such.Type") end, "unknown type 'No.Such.Type'")

-- The same closure called many times keeps choosing by the arguments it gets.
for i = 1, 3 do
  check.equal(C.Hash("SHA256", i % 2 == 0 and "abc" or Data("abc")):hex(), abc, "alternating overloads " .. i)
end

-- A buffer of several MiB goes in and comes back byte for byte.
local key = string.rep("k", 32)
local plain = string.rep("0123456789abcdef", 256 * 1024 + 3)
local ciphertext = C.Encrypt("AES-256-CBC", Data(plain), key)
check.equal(#ciphertext, #plain + 16, "padded ciphertext length")
check.equal(C.DataRefDecrypt("AES-256-CBC", ciphertext, key):bytes(), plain, "round trip")
check.equal(ciphertext:bytes(), C.Encrypt("AES-256-CBC", plain, key):bytes(), "STRING and DATAREF inputs agree")
print("calls: ok")
