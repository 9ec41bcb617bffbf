-- Assertion helpers for the Lua end-to-end checks that ombrix runs.
local check = {}

local function show(value)
  if type(value) == "string" then return string.format("%q", value) end
  return tostring(value)
end

function check.equal(actual, expected, label)
  if actual ~= expected then
    error(string.format("%s: expected %s, got %s", label or "value", show(expected), show(actual)), 2)
  end
end

function check.truthy(value, label)
  if not value then error((label or "condition") .. " does not hold", 2) end
end

-- Calls fn and returns the error value it raised; fails when nothing was raised.
function check.raises(fn, label)
  local ok, err = pcall(fn)
  if ok then error((label or "call") .. ": expected an error", 2) end
  return err
end

-- Whether every named routine is bound.
function check.available(...)
  for _, name in ipairs({...}) do
    if not Ombrix.available(name) then return false, name end
  end
  return true
end

-- Ends the script as skipped (exit code 77).
function check.skip(reason)
  io.stderr:write("skipped: ", reason, "\n")
  os.exit(77)
end

-- Skips the script unless every named routine is bound.
function check.needs(...)
  local ok, missing = check.available(...)
  if not ok then check.skip(missing .. " is not available yet") end
end

-- Runs fn(case) for each case, reporting every failure by the case's name,
-- and fails at the end if any case failed.
function check.each(cases, fn)
  local failed = {}
  for i, case in ipairs(cases) do
    local ok, err = xpcall(fn, debug.traceback, case)
    if not ok then
      local name = case.name or ("case " .. i)
      failed[#failed + 1] = name
      io.stderr:write("FAIL ", name, ": ", tostring(err), "\n")
    end
  end
  if #failed > 0 then error(#failed .. " case(s) failed: " .. table.concat(failed, ", "), 2) end
end

-- Directory of a file path (with the trailing slash).
function check.dir(path) return path:match("^(.*/)") or "./" end

return check
