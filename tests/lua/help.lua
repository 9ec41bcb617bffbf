-- Ombrix.help: reference entries (every overload of a name), the listing, unknown names.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
local referencePath = arg[0]:match("^(.*/)") .. "../../docs/reference.md"

local function run(code) return check.run("-e", code) end
local file = assert(io.open(referencePath, "rb"))
local reference = file:read("a")
file:close()

check.each({
  {name = "a type", code = 'Ombrix.help("Cryptography.Key")', has = {"TYPE Cryptography.Key\n", "**Saved as:**"},
   lacks = {"### Cryptography.GenerateRSAKey"}},
  {name = "short name", code = 'Ombrix.help("HashFile")', has = {"### Cryptography.HashFile\n"}},
  {name = "host routine", code = 'Ombrix.help("JSON.Set")',
   has = {"FUNCTION JSON JSON.Set (JSON,STRING,STRING)\n", "a routine of the host"}},
  {name = "listing", code = "Ombrix.help()",
   has = {"\nCryptography\n", "\nJSON\n", "\nNet\n", "  HashFile ", "Message digest of a file's content",
          "types: Cryptography.Key, Cryptography.X509, Cryptography.SSL\n"}},
  {name = "unknown name", code = 'Ombrix.help("Cryptography.NoSuchRoutine")', status = 1, out = "",
   err = "Ombrix.help: no entry for 'Cryptography.NoSuchRoutine'; Ombrix.help() lists the routines"},
  {name = "ambiguous or foreign short name", code = 'Ombrix.help("Set")', status = 1, out = "",
   err = "Ombrix.help: no entry for 'Set'"},
}, function(case)
  local status, out, err = run(case.code)
  check.equal(status, case.status or 0, "exit status (stderr: " .. err .. ")")
  if case.out then check.equal(out, case.out, "stdout") end
  if case.err then check.truthy(err:find(case.err, 1, true), "stderr holds " .. case.err .. ", got " .. err) end
  for _, part in ipairs(case.has or {}) do check.truthy(out:find(part, 1, true), "output holds " .. part) end
  for _, part in ipairs(case.lacks or {}) do check.truthy(not out:find(part, 1, true), "output lacks " .. part) end
end)

-- Every routine of the module has its entry, printed exactly as the
-- reference has it, and the listing names every routine. One process prints
-- them all, each after a marker line.
local names = Ombrix.routines("Cryptography")
check.truthy(#names >= 60, "the module's routines are listed")
local _, listing = run("Ombrix.help()")
for line in listing:gmatch("[^\n]+") do check.truthy(#line <= 100, "a listing line fits 100 columns: " .. line) end
local status, all = run('for _, name in ipairs(Ombrix.routines("Cryptography")) do ' ..
                        'io.write("@@ ", name, "\\n") io.flush() Ombrix.help("Cryptography." .. name) end')
check.equal(status, 0, "help for every routine")
local printed = {}
for name, text in (all .. "@@ "):gmatch("@@ (%w+)\n(.-)%f[@]") do printed[name] = text end
for _, name in ipairs(names) do
  local heading = "### Cryptography." .. name .. "\n"
  local from = reference:find(heading, 1, true)
  check.truthy(from, "the reference has " .. heading)
  local section = reference:sub(from):match("^(.-)\n+#") or reference:sub(from)
  check.equal(printed[name], section:gsub("\n+$", "") .. "\n", "help text of " .. name)
  check.truthy(listing:find("\n  " .. name .. " ", 1, true) or listing:find("\n  " .. name .. "\n", 1, true),
               "the listing names " .. name)
end
print(("help: ok (%d routines)"):format(#names))
