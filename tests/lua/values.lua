-- How values cross between Lua and the engine: Data buffers (in memory and
-- file-backed), numbers, booleans, JSON values, module values and their
-- saved form. Usage: values.lua DATA_DIR
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
local dataDir = assert(arg[1], "usage: values.lua DATA_DIR")

-- Data from bytes and from hexadecimal text.
check.each({
  {name = "text", make = function() return Data("abc") end, hex = "616263", bytes = "abc"},
  {name = "empty", make = function() return Data("") end, hex = "", bytes = ""},
  {name = "no argument", make = function() return Data() end, hex = "", bytes = ""},
  {name = "zero bytes kept", make = function() return Data("a\0b\0") end, hex = "61006200", bytes = "a\0b\0"},
  {name = "fromhex", make = function() return Data.fromhex("00ff10") end, hex = "00ff10", bytes = "\0\255\16"},
  {name = "fromhex upper case", make = function() return Data.fromhex("ABCDEF") end, hex = "abcdef", bytes = "\171\205\239"},
  {name = "fromhex empty", make = function() return Data.fromhex("") end, hex = "", bytes = ""},
}, function(case)
  local d = case.make()
  check.equal(d:hex(), case.hex, "hex")
  check.equal(d:bytes(), case.bytes, "bytes")
  check.equal(#d, #case.bytes, "length")
  check.equal(tostring(d), "Data(" .. #case.bytes .. " bytes)", "tostring")
  check.truthy(d == Data(case.bytes), "equal to a buffer with the same bytes")
  check.truthy(d ~= Data(case.bytes .. "x"), "unequal to a longer buffer")
end)

check.each({
  {name = "odd length", text = "abc"},
  {name = "not hex", text = "zz"},
  {name = "space", text = "00 ff"},
}, function(case)
  local err = check.raises(function() return Data.fromhex(case.text) end)
  check.truthy(tostring(err):find("is not an even number of hexadecimal digits", 1, true), tostring(err))
end)

-- A file-backed buffer reads the file on demand and agrees with its content.
local path = dataDir .. "/module_definition.txt"
local handle = assert(io.open(path, "rb"))
local content = handle:read("a")
handle:close()
local file = Data.file(path)
check.equal(#file, #content, "file length")
check.equal(file:bytes(), content, "file bytes")
check.equal(file:hex(), Data(content):hex(), "file hex")
check.truthy(file == Data(content) and Data(content) == file, "file equals its bytes both ways")
local err = check.raises(function() return Data.file(dataDir .. "/does-not-exist") end)
check.truthy(tostring(err):find("cannot open", 1, true), tostring(err))
err = check.raises(function() return Data.file(dataDir) end)
check.truthy(tostring(err):find("cannot open", 1, true), "a directory is refused: " .. tostring(err))

-- Numbers and booleans come back as Lua numbers and booleans; whole numbers as integers.
local mode = Cryptography.FIPSMode()
check.equal(math.type(mode), "integer", "FIPSMode type")
check.equal(Cryptography.FIPSSelfTestFailed(), false, "FIPSSelfTestFailed")

-- JSON values: overloads of JSON.Set are chosen by the value's type.
local object = JSON.FromString("{}")
JSON.Set(object, "s", "text")
JSON.Set(object, "n", 5)
JSON.Set(object, "f", 2.5)
JSON.Set(object, "j", JSON.FromString("[true,null]"))
check.equal(tostring(object), '{"f":2.5,"j":[true,null],"n":5,"s":"text"}', "JSON.Set overloads")
check.equal(JSON.ToString(object), tostring(object), "JSON.ToString")
local array = JSON.CreateEmptyArray()
check.truthy(JSON.ArrayAppend(array, JSON.FromString('"a"')) == array, "ArrayAppend returns the same array")
JSON.ArrayAppend(array, object)
check.equal(tostring(array), '["a",{"f":2.5,"j":[true,null],"n":5,"s":"text"}]', "array")
check.truthy(JSON.FromString('{"a":[1]}') == JSON.FromString('{ "a" : [ 1 ] }'), "JSON values compare by content")

-- Module values, the saved form, and the TYPE factories.
check.each({
  {name = "X509", type = "Cryptography.X509", saved = '{"value":""}'},
  {name = "Key", type = "Cryptography.Key", saved = '{"value":""}'},
  {name = "JSON", type = "JSON", saved = "{}"},
}, function(case)
  local value = Ombrix.new(case.type)
  check.equal(tostring(value), case.type == "JSON" and "{}" or case.type, "tostring")
  check.equal(Ombrix.serialize(value), case.saved, "serialize")
end)
check.equal(Ombrix.serialize("text"), nil, "a string has no saved form")
check.equal(Ombrix.serialize(Data("x")), nil, "a buffer has no saved form")
check.equal(tostring(Ombrix.deserialize("JSON", '{"a":1}')), '{"a":1}', "deserialize JSON")
check.equal(Ombrix.deserialize("JSON", "{"), nil, "deserialize refuses bad text")
check.equal(Ombrix.deserialize("No.Such.Type", "{}"), nil, "deserialize refuses unknown types")
local first, second = Ombrix.new("Cryptography.X509"), Ombrix.new("Cryptography.X509")
check.truthy(first == first and first ~= second, "module values are equal only to themselves")

print("values: ok")
