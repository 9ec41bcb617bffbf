-- Errors as scripts see them: routine reports as error objects, argument
-- statuses as messages, and failures of the bridge itself.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")

-- Reports on the context become tables with namespace, id and message.
check.each({
  {name = "JSON text", call = function() return JSON.FromString("{") end,
   namespace = "JSON", id = "Error.Ombrix.InvalidArgument", message = "Invalid JSON text"},
  {name = "JSON.Set on an array", call = function() return JSON.Set(JSON.CreateEmptyArray(), "k", "v") end,
   namespace = "JSON", id = "Error.Ombrix.InvalidArgument", message = "JSON.Set needs an object"},
  {name = "Net port", call = function() return Net.Connect("127.0.0.1", 0) end,
   namespace = "Net", id = "Error.Ombrix.InvalidArgument", message = "Invalid port 0"},
  {name = "Net wait mode", call = function() return Net.Wait(0, "x", 0) end,
   namespace = "Net", id = "Error.Ombrix.InvalidArgument", message = 'Invalid wait mode "x" (expected "r", "w" or "rw")'},
}, function(case)
  local err = check.raises(case.call, case.name)
  check.equal(type(err), "table", "error type")
  check.equal(err.namespace, case.namespace, "namespace")
  check.equal(err.id, case.id, "id")
  check.equal(err.message, case.message, "message")
  check.equal(tostring(err), case.id .. ": " .. case.message, "tostring")
  -- Rethrowing keeps the same object.
  local ok, again = pcall(error, err)
  check.truthy(not ok and rawequal(again, err), "rethrown error is the same object")
end)

-- Argument statuses: the first bad argument decides the message.
local object = JSON.FromString("{}")
local emptyCert = Ombrix.new("Cryptography.X509")
check.each({
  {name = "number for a string", f = JSON.FromString, args = {n = 1, 42},
   message = "invalid parameter 1 in function 'JSON.FromString'"},
  {name = "Data for a string", f = JSON.FromString, args = {n = 1, Data("{}")},
   message = "invalid parameter 1 in function 'JSON.FromString'"},
  {name = "number for a boolean", f = Net.SetBlocking, args = {n = 2, 0, 1},
   message = "invalid parameter 2 in function 'Net.SetBlocking'"},
  {name = "module value for JSON", f = JSON.ToString, args = {n = 1, emptyCert},
   message = "invalid parameter 1 in function 'JSON.ToString'"},
  {name = "missing second", f = JSON.Set, args = {n = 1, object},
   message = "missing parameter 2 in function 'JSON.Set'"},
  {name = "missing all", f = JSON.ToString, args = {n = 0},
   message = "missing parameter 1 in function 'JSON.ToString'"},
  {name = "first bad wins", f = JSON.Set, args = {n = 2, "x", 5},
   message = "invalid parameter 1 in function 'JSON.Set'"},
  {name = "nil for an object", f = JSON.ToString, args = {n = 1, nil},
   message = "invalid object used for parameter 1 in function 'JSON.ToString'"},
  {name = "nil for a string", f = JSON.FromString, args = {n = 1, nil},
   message = "invalid parameter 1 in function 'JSON.FromString'"},
  {name = "table argument", f = JSON.FromString, args = {n = 1, {}},
   message = "cannot pass a table as parameter 1 in function 'JSON.FromString'"},
}, function(case)
  local err = check.raises(function() return case.f(table.unpack(case.args, 1, case.args.n)) end, case.name)
  check.equal(err, case.message, "message")
end)

-- Surplus arguments are ignored, as the routine frame does.
check.equal(tostring(JSON.FromString("[1]", "ignored", 3)), "[1]", "surplus arguments")

-- Names the engine does not know fail loudly instead of yielding nil.
local err = check.raises(function() return Cryptography.NoSuchRoutine end)
check.truthy(tostring(err):find("unknown routine 'Cryptography.NoSuchRoutine'", 1, true), "unknown routine: " .. tostring(err))
err = check.raises(function() return Ombrix.new("No.Such.Type") end)
check.truthy(tostring(err):find("unknown type 'No.Such.Type'", 1, true), "unknown type: " .. tostring(err))

print("errors: ok")
