-- Assertion helpers for the Lua end-to-end checks that ombrix runs.
local check = {}

function check.equal(actual, expected, label)
  if actual ~= expected then error(("%s: expected %q, got %q"):format(label, tostring(expected), tostring(actual)), 2) end
end

function check.truthy(value, label) if not value then error(label .. " does not hold", 2) end end

-- Calls fn and returns the error value it raised; fails when nothing was
-- raised, or when part is given and the error's text lacks it.
function check.raises(fn, part)
  local ok, err = pcall(fn)
  if ok or part and not tostring(err):find(part, 1, true) then
    error(("expected an error %s, got %s"):format(part or "", ok and "none" or tostring(err)), 2)
  end
  return err
end

-- Ends the script as skipped (exit code 77) unless every named routine is bound.
function check.needs(...)
  for _, name in ipairs({...}) do
    if not Ombrix.available(name) then io.stderr:write("skipped: ", name, " is not bound\n") os.exit(77) end
  end
end

-- Runs ombrix with the given words; returns its exit status, output and error output.
function check.run(...)
  local errFile = os.tmpname()
  local function quote(word) return "'" .. word:gsub("'", [['\'']]) .. "'" end
  local command = quote(Ombrix.executable)
  for _, word in ipairs({...}) do command = command .. " " .. quote(word) end
  local pipe = assert(io.popen(command .. " 2>" .. quote(errFile), "r"))
  local out = pipe:read("a")
  local _, _, status = pipe:close()
  local handle = assert(io.open(errFile, "rb"))
  local err = handle:read("a")
  handle:close()
  os.remove(errFile)
  return status, out, err
end

-- Runs fn(case) for each case; a failure names its case.
function check.each(cases, fn)
  for i, case in ipairs(cases) do
    local ok, err = xpcall(fn, debug.traceback, case)
    if not ok then error((case.name or ("case " .. i)) .. ": " .. tostring(err), 2) end
  end
end

return check
