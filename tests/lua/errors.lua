-- Errors as scripts see them: report objects, status messages, unknown names.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
check.needs("Cryptography.Hash", "Cryptography.ToPEM")

-- Reports on the context become tables with namespace, id and message.
check.each({
  {call = function() return JSON.FromString("{") end, namespace = "JSON", id = "Error.Ombrix.InvalidArgument",
   message = "Invalid JSON text"},
  {call = function() return Cryptography.Hash("NoSuchDigest", "x") end, namespace = "Cryptography",
   id = "Error.Ombrix.FunctionError", message = 'Digest "NoSuchDigest" not supported!'},
}, function(case)
  local err = check.raises(case.call)
  check.equal(err.namespace, case.namespace, "namespace")
  check.equal(err.id, case.id, "id")
  check.equal(err.message, case.message, "message")
  check.equal(tostring(err), case.id .. ": " .. case.message, "tostring")
  local ok, again = pcall(error, err)
  check.truthy(not ok and rawequal(again, err), "rethrown error is the same object")
end)

check.raises(function() return Cryptography.NoSuchRoutine end, "unknown routine 'Cryptography.NoSuchRoutine'")
check.raises(function() return Ombrix.new("No.Such.Type") end, "unknown type 'No.Such.Type'")
print("errors: ok")
