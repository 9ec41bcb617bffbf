#!/usr/bin/env ombrix
-- A guided tour of the Cryptography module. Runs the sections in tour/ one
-- after another; a section whose file is not there is left out.
--
--   ombrix examples/tour.lua            every section
--   ombrix examples/tour.lua 20 60      only the sections whose names start so
local here = arg[0]:match("^(.*/)") or "./"
local selected = {...}

-- The order of the tour. Other files named NN-*.lua in tour/ run after these.
local sections = {
  "10-module.lua",
  "20-digests.lua",
  "30-random.lua",
  "40-symmetric.lua",
  "50-keys.lua",
  "60-certificates.lua",
  "70-tls.lua",
}

-- Helpers the sections may use.
tour = {dir = here .. "tour/"}

function tour.show(label, value)
  print(string.format("  %-38s %s", label, tostring(value)))
end

function tour.heading(text)
  print("\n-- " .. text)
end

local function exists(path)
  local handle = io.open(path, "r")
  if handle then handle:close() end
  return handle ~= nil
end

local function listed(name)
  for _, s in ipairs(sections) do
    if s == name then return true end
  end
  return false
end

-- Sections not in the list, found by name; none when the folder cannot be read.
local function discovered()
  local found = {}
  local ok, pipe = pcall(io.popen, "ls -1 '" .. tour.dir .. "' 2>/dev/null")
  if not ok or not pipe then return found end
  for name in pipe:lines() do
    if name:match("^%d%d%-[%w_-]+%.lua$") and not listed(name) then found[#found + 1] = name end
  end
  pipe:close()
  table.sort(found)
  return found
end

local function wanted(name)
  if #selected == 0 then return true end
  for _, prefix in ipairs(selected) do
    if name:sub(1, #prefix) == prefix then return true end
  end
  return false
end

local order = {}
for _, name in ipairs(sections) do order[#order + 1] = name end
for _, name in ipairs(discovered()) do order[#order + 1] = name end

print("A guided tour of the Cryptography module, one section per area.")
print("Each line shows a call or a property on the left and what came back on")
print("the right. Each section also runs alone: ombrix examples/tour/NN-name.lua")

local ran, failed = 0, {}
for _, name in ipairs(order) do
  local path = tour.dir .. name
  if wanted(name) and exists(path) then
    local title = name:gsub("%.lua$", ""):gsub("^(%d+)%-", "%1 "):gsub("[-_]", " ")
    print(("\n=== %s %s"):format(title, ("="):rep(math.max(3, 60 - #title))))
    local chunk, loadError = loadfile(path)
    local ok, err = false, loadError
    if chunk then ok, err = xpcall(chunk, debug.traceback) end
    ran = ran + 1
    if not ok then
      failed[#failed + 1] = name
      io.stderr:write("section ", name, " failed: ", tostring(err), "\n")
    end
  end
end

print(("\nTour done: %d section(s) run, %d failed."):format(ran, #failed))
if #failed > 0 then
  io.stderr:write("failed sections: ", table.concat(failed, ", "), "\n")
  os.exit(1)
end
