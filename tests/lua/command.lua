-- The ombrix command itself: exit statuses and where error messages go.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")

check.each({
  {name = "success", words = {"-e", "print('hi')"}, code = 0, out = "hi\n", err = ""},
  {name = "error object", words = {"-e", "JSON.FromString('{')"}, code = 1,
   err = "ombrix: Error.Ombrix.InvalidArgument: Invalid JSON text"},
  {name = "argument status", words = {"-e", "JSON.FromString(1)"}, code = 1,
   err = "invalid parameter 1 in function 'JSON.FromString'"},
  {name = "os.exit code", words = {"-e", "os.exit(7)"}, code = 7, err = ""},
  {name = "os.exit false", words = {"-e", "os.exit(false)"}, code = 1, err = ""},
  {name = "unknown option", words = {"-x"}, code = 2, err = "unknown option -x"},
  {name = "no key", words = {"-c", "=x"}, code = 2, err = "option -c needs KEY=VALUE, got '=x'"},
  {name = "-e lines joined", words = {"-e", "x = 1", "-e", "print(x)"}, code = 0, out = "1\n", err = ""},
  {name = "missing module", words = {"-m", "/nonexistent/lib.so", "-e", ""}, code = 2, err = "cannot load module"},
  {name = "missing script", words = {"/nonexistent/script.lua"}, code = 1, err = "cannot open"},
}, function(case)
  local code, out, err = check.run(table.unpack(case.words))
  check.equal(code, case.code, "exit code (stderr: " .. err .. ")")
  check.equal(out, case.out or "", "stdout")
  check.truthy(err:find(case.err, 1, true) and (case.err ~= "" or err == ""), "stderr holds " .. case.err .. ", got " .. err)
end)
print("command: ok")
