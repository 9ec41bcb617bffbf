-- Ombrix.help: prints reference entries (all overloads of a name), entries of
-- the Lua API page (Ombrix.*, Data.*), sections of both pages by their
-- title's words, lists them all, and refuses unknown names with a Lua error.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
local referencePath = arg[0]:match("^(.*/)") .. "../../docs/reference.md"

local function run(code) return check.run("-e", code) end
local reference = assert(io.open(referencePath, "rb")):read("a")

check.each({
  {name = "a type", code = 'Ombrix.help("Cryptography.Key")', has = {"TYPE Cryptography.Key\n", "**Saved as:**"},
   lacks = {"### Cryptography.GenerateRSAKey"}},
  {name = "short name", code = 'Ombrix.help("HashFile")', has = {"### Cryptography.HashFile\n"}},
  {name = "host routine", code = 'Ombrix.help("JSON.Set")',
   has = {"FUNCTION JSON JSON.Set (JSON,STRING,STRING)\n", "a routine of the host"}},
  {name = "listing", code = "Ombrix.help()",
   has = {"\nCryptography\n", "\nJSON\n", "\nNet\n", "  HashFile ", "Message digest of a file's content",
          "types: Cryptography.Key, Cryptography.X509, Cryptography.SSL\n", "\nOmbrix\n  help ", "\nData\n",
          "\nSections\n", "  How errors reach a script\n"}},
  {name = "the command's function", code = 'Ombrix.help("spawn")', has = {"### Ombrix.spawn\n", "Ombrix.spawn(fn, ...)"},
   lacks = {"### Ombrix.join"}},
  {name = "a section by its title", code = 'Ombrix.help("Data")', has = {"## Data\n", "d:hex()"},
   lacks = {"### Data.fromhex", "## Random data"}},
  {name = "a section by a word", code = 'Ombrix.help("ERRORS")', has = {"## How errors reach a script\n"},
   lacks = {"### Cryptography.Hash"}},
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

-- Every routine of the module has its entry, printed exactly as the reference has
-- it, and the listing names every routine; everything in the Ombrix table has an
-- entry, and every section of the reference with text of its own is found by its
-- title. One process prints them all, each after a marker line.
local names = Ombrix.routines("Cryptography")
check.truthy(#names >= 60, "the module's routines are listed")
local _, listing = run("Ombrix.help()")
for line in listing:gmatch("[^\n]+") do check.truthy(#line <= 100, "a listing line fits 100 columns: " .. line) end
local asked, fields, titles = {}, {}, {}
for _, name in ipairs(names) do asked[#asked + 1] = "Cryptography." .. name end
for name in pairs(Ombrix) do fields[#fields + 1], asked[#asked + 1] = name, "Ombrix." .. name end
local title, fenced = nil, false
for line in reference:gmatch("[^\n]*") do
  if line:find("^```") then fenced = not fenced end
  if not fenced and line:find("^#") then title = line:match("^## (.+)") elseif title and line:find("%S") then
    titles[#titles + 1], asked[#asked + 1], title = title, title, nil
  end
end
check.truthy(#titles >= 3, "the reference has sections")
local code, marked = {}, 'io.write("@@ ", %q, "\\n") io.flush() Ombrix.help(%q)'
for _, name in ipairs(asked) do code[#code + 1] = marked:format(name, name) end
local status, all = run(table.concat(code, "\n"))
check.equal(status, 0, "help for every routine, field and section")
local printed = {}
for name, text in (all .. "@@ "):gmatch("@@ ([^\n]+)\n(.-)%f[@]") do printed[name] = text end
local function shows(name, heading) return (printed[name] or ""):find(heading, 1, true) end
for _, name in ipairs(names) do
  local heading = "### Cryptography." .. name .. "\n"
  local from = reference:find(heading, 1, true)
  check.truthy(from, "the reference has " .. heading)
  local section = reference:sub(from):match("^(.-)\n+#") or reference:sub(from)
  check.equal(printed["Cryptography." .. name], section:gsub("\n+$", "") .. "\n", "help text of " .. name)
  check.truthy(listing:find("\n  " .. name .. " ", 1, true) or listing:find("\n  " .. name .. "\n", 1, true),
               "the listing names " .. name)
end
for _, name in ipairs(fields) do check.truthy(shows("Ombrix." .. name, "### Ombrix." .. name .. "\n"), "Ombrix." .. name) end
for _, title in ipairs(titles) do check.truthy(shows(title, "## " .. title .. "\n"), "section " .. title) end
print(("help: ok (%d routines, %d fields, %d sections)"):format(#names, #fields, #titles))
