-- The module and the engine around it: what is loaded, FIPS state, and how
-- byte buffers, JSON, module values and errors look from a script.
local show = tour and tour.show or function(label, value) print(string.format("  %-38s %s", label, tostring(value))) end
local heading = tour and tour.heading or function(text) print("\n-- " .. text) end
local thisFile = debug.getinfo(1, "S").source:sub(2)

heading("Loaded modules")
for _, module in ipairs(Ombrix.modules()) do
  show("name", module.name)
  show("version", module.exports.GetModuleVersion)
  show("Ombrix SDK version", module.exports.GetOmbrixSDKVersion)
  show("platforms", module.exports.GetSupportedPlatforms)
  show("library", module.path)
  if #module.unresolved > 0 then show("entry points not bound yet", #module.unresolved) end
end
for _, line in ipairs(Ombrix.log()) do
  if line.category == "Cryptography" then show("start-up log", line.message) end
end

heading("Namespaces (global tables) and their routines")
for _, space in ipairs(Ombrix.namespaces()) do
  local names = Ombrix.routines(space)
  show(space, table.concat(names, " ", 1, math.min(5, #names))
       .. (#names > 5 and (" ... (" .. #names .. " names)") or ""))
end
print("  One name may have overloads; the types of the arguments choose one:")
for _, text in ipairs(Ombrix.declarations("Cryptography.Hash")) do print("    " .. text) end

heading("FIPS")
show("Cryptography.FIPSMode()", Cryptography.FIPSMode())
show("Cryptography.FIPSSelfTestFailed()", Cryptography.FIPSSelfTestFailed())

heading("Byte buffers (DATAREF) are Data values")
local hello = Data("hello")
show('Data("hello"):hex()', hello:hex())
show('#Data("hello")', #hello)
local binary = Data.fromhex("00ff7f")
show('Data.fromhex("00ff7f"):bytes()', "bytes " .. table.concat({binary:bytes():byte(1, -1)}, ", "))
show('Data("abc") == Data.fromhex("616263")', Data("abc") == Data.fromhex("616263"))
local file = Data.file(thisFile)
show("Data.file(this section)", tostring(file) .. ", read on demand")

heading("JSON values")
local doc = JSON.FromString('{"tour":"ombrix"}')
JSON.Set(doc, "sections", 7)
JSON.Set(doc, "languages", JSON.FromString('["Lua","C++"]'))
show("tostring(doc)", doc)

heading("Module values")
local cert = Ombrix.new("Cryptography.X509")
show('Ombrix.new("Cryptography.X509")', cert)
show("Ombrix.serialize(empty certificate)", Ombrix.serialize(cert))
show("Ombrix.deserialize(JSON text)", Ombrix.deserialize("JSON", '{"saved":true}'))

heading("Errors, caught with pcall")
local _, err = pcall(JSON.FromString, "{not json")
show("reported by a routine", ("namespace=%s id=%s"):format(err.namespace, err.id))
show("  its message", err.message)
show("  tostring(err)", err)
_, err = pcall(Net.Connect, "127.0.0.1", 0)
show("reported by Net", err)
_, err = pcall(JSON.FromString, 42)
show("wrong argument type", err)
_, err = pcall(JSON.Set, doc)
show("missing argument", err)
_, err = pcall(JSON.ToString, nil)
show("variable without a value", err)
