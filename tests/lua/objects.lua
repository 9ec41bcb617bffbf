-- Module values as routine arguments: the class check, empty variables and
-- values that cannot be saved.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.IsValid", "Cryptography.ToPEM", "Cryptography.CreateSSL")

local cert = Ombrix.new("Cryptography.X509")
check.equal(Cryptography.IsValid(cert), false, "an empty certificate is not valid")
check.each({
  {name = "nil for a certificate", call = function() return Cryptography.IsValid(nil) end,
   message = "invalid object used for parameter 1 in function 'Cryptography.IsValid'"},
  {name = "JSON for a certificate", call = function() return Cryptography.ToPEM(JSON.FromString("{}")) end,
   message = "invalid parameter 1 in function 'Cryptography.ToPEM'"},
  {name = "session for a certificate", call = function() return Cryptography.ToPEM(Ombrix.new("Cryptography.SSL")) end,
   message = "invalid parameter 1 in function 'Cryptography.ToPEM'"},
}, function(case)
  check.equal(check.raises(case.call, case.name), case.message, "message")
end)

local session = Ombrix.new("Cryptography.SSL")
check.equal(tostring(session), "Cryptography.SSL", "tostring")
check.equal(Ombrix.serialize(session), nil, "a session has no saved form")

print("objects: ok")
