-- The ombrix command itself: exit statuses, where error messages go, script
-- arguments, standard input and option errors.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")

local function quote(word) return "'" .. word:gsub("'", [['\'']]) .. "'" end

-- Runs ombrix with the given words; returns exit code, stdout, stderr.
local errFile = os.tmpname()
local function run(words, input)
  local command = quote(Ombrix.executable)
  for _, w in ipairs(words) do command = command .. " " .. quote(w) end
  command = command .. " 2>" .. quote(errFile)
  if input then command = "printf %s " .. quote(input) .. " | " .. command end
  local pipe = assert(io.popen(command, "r"))
  local out = pipe:read("a")
  local _, _, code = pipe:close()
  local handle = assert(io.open(errFile, "rb"))
  local err = handle:read("a")
  handle:close()
  return code, out, err
end

local script = os.tmpname()
do
  local handle = assert(io.open(script, "w"))
  handle:write("#!/usr/bin/env ombrix\nprint(arg[0] == " .. string.format("%q", script) .. ", select('#', ...), ...)\n")
  handle:close()
end

check.each({
  {name = "success", words = {"-e", "print('hi')"}, code = 0, out = "hi\n", err = ""},
  {name = "error", words = {"-e", "error('boom')"}, code = 1, err = "boom"},
  {name = "error object", words = {"-e", "JSON.FromString('{')"}, code = 1,
   err = "ombrix: Error.Ombrix.InvalidArgument: Invalid JSON text"},
  {name = "argument status", words = {"-e", "JSON.FromString(1)"}, code = 1,
   err = "invalid parameter 1 in function 'JSON.FromString'"},
  {name = "syntax error", words = {"-e", "this is not Lua"}, code = 1, err = "ombrix:"},
  {name = "os.exit code", words = {"-e", "os.exit(7)"}, code = 7},
  {name = "os.exit false", words = {"-e", "os.exit(false)"}, code = 1},
  {name = "-e arguments", words = {"-e", "print(arg[1], arg[2], ...)", "a", "b"}, code = 0, out = "a\tb\ta\tb\n"},
  {name = "script arguments", words = {script, "p", "q"}, code = 0, out = "true\t2\tp\tq\n"},
  {name = "script from stdin", words = {}, input = "print(1 + 1)", code = 0, out = "2\n"},
  {name = "dash is stdin", words = {"-", "z"}, input = "print(...)", code = 0, out = "z\n"},
  {name = "configuration", words = {"-c", "Cryptography.InitializeOpenSSL=true", "-e", "print(1)"}, code = 0, out = "1\n"},
  {name = "-c without =", words = {"-c", "novalue", "-e", ""}, code = 2, err = "needs KEY=VALUE"},
  {name = "unknown option", words = {"-x"}, code = 2, err = "unknown option -x"},
  {name = "option without value", words = {"-m"}, code = 2, err = "needs a value"},
  {name = "missing module", words = {"-m", "/nonexistent/lib.so", "-e", ""}, code = 2, err = "cannot load module"},
  {name = "missing script", words = {"/nonexistent/script.lua"}, code = 1, err = "cannot open"},
  {name = "help", words = {"-h"}, code = 0, out = "usage: ombrix"},
}, function(case)
  local code, out, err = run(case.words, case.input)
  check.equal(code, case.code, "exit code (stderr: " .. err .. ")")
  if case.out then check.truthy(out:sub(1, #case.out) == case.out, "stdout starts with " .. case.out .. ", got " .. out) end
  if case.err then check.truthy(err:find(case.err, 1, true), "stderr holds " .. case.err .. ", got " .. err) end
  if case.err == "" then check.equal(err, "", "stderr") end
end)

os.remove(script)
os.remove(errFile)
print("command: ok")
