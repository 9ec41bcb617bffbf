-- Runs every Lua example of docs/reference.md and checks what each annotated
-- print shows ("print(x)   --> expected", or "--> expected" on the next line)
-- against the annotation, word by word. A block whose first line is
-- "-- (not run)" needs the outside world (a server) and is only compiled.
local check = dofile(arg[0]:match("^(.*/)") .. "lib/check.lua")
local path = arg[0]:match("^(.*/)") .. "../../docs/reference.md"
local text = assert(io.open(path, "rb")):read("a")

-- The text with no white space at its ends and single spaces between its words.
local function words(s) return (s:match("^%s*(.-)%s*$"):gsub("%s+", " ")) end

-- The blocks, each named by the heading it stands under and its first line number.
local blocks, heading, inBlock, lineNumber = {}, "top", nil, 0
for line in (text .. "\n"):gmatch("(.-)\n") do
  lineNumber = lineNumber + 1
  if inBlock then
    if line:match("^```") then blocks[#blocks + 1] = inBlock inBlock = nil
    else inBlock.lines[#inBlock.lines + 1] = line end
  elseif line == "```lua" then
    inBlock = {name = ("%s (reference line %d)"):format(heading, lineNumber + 1), lines = {}}
  elseif line:match("^#+ ") then
    heading = line:gsub("^#+ ", "")
  end
end
check.truthy(#blocks >= 60, "the reference has its examples (found " .. #blocks .. ")")

local ran = 0
check.each(blocks, function(block)
  local lines = block.lines
  local code = table.concat(lines, "\n")
  -- Expected output by the line of the print that makes it.
  local expected = {}
  for i, line in ipairs(lines) do
    local same = line:match("print%(.*%-%->%s*(.-)%s*$")
    local nextLine = lines[i + 1] and lines[i + 1]:match("^%-%->%s*(.-)%s*$")
    if line:find("print(", 1, true) and (same or nextLine) then expected[i] = same or nextLine end
  end
  local shown = {}
  local env = setmetatable({}, {__index = _G})
  env.print = function(...)
    local line = debug.getinfo(2, "l").currentline
    local parts = {}
    for i = 1, select("#", ...) do parts[#parts + 1] = tostring((select(i, ...))) end
    shown[line] = table.concat(parts, " ")
  end
  local chunk = assert(load(code, "=" .. block.name, "t", env))
  if lines[1] == "-- (not run)" then return end
  chunk()
  ran = ran + 1
  for line, want in pairs(expected) do
    check.truthy(shown[line] ~= nil, "the print on example line " .. line .. " ran")
    check.equal(words(shown[line]), words(want), "example line " .. line)
  end
end)
print(("reference: %d examples ran, %d only compiled"):format(ran, #blocks - ran))
