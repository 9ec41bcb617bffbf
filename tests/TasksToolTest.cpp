// Tasks in the ombrix command, against TLS servers on 127.0.0.1.
#include <chrono>
#include <csignal>
#include <thread>

#include "Harness.h"
#include "KeysSupport.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

// Runs a Lua script given as text, the ports as its arguments, under a 60 s
// limit: what it writes to standard output and error, then "exit STATUS".
std::string RunScript(const std::string& script, const std::vector<int>& ports) {
    // Servers write to clients gone mid-handshake; with no Engine here to ignore SIGPIPE, that would end the test.
    std::signal(SIGPIPE, SIG_IGN);
    const TempDir dir;
    std::string command = "timeout 60 '" OMBRIX_TOOL_PATH "' '" + dir.Write("script.lua", script) + "'";
    for (int port : ports) command += " " + std::to_string(port);
    return RunShell(command + " 2>&1; echo \"exit $?\"");
}

TEST(TasksTool, NetWaitInTasksInterleavesTlsReads) {
    // Each server echoes its client's line after a pause.
    const auto echo = [](SSL* ssl, int) {
        char line[64];
        const int n = SSL_read(ssl, line, sizeof line);
        std::this_thread::sleep_for(std::chrono::milliseconds(800));
        if (n > 0) SSL_write(ssl, line, n);
    };
    const TlsServer a({}, echo), b({}, echo);
    const std::string script = R"lua(
local X = Cryptography
local function session(port, line)
  return function()
    local socket = Net.Connect("127.0.0.1", tonumber(port))
    Net.SetBlocking(socket, false)
    local tls = X.CreateSSL(JSON.FromString('{"Verify": false}'))
    local function drive(step)
      while true do
        local result = step()
        if result then return result end
        local state = X.State(tls)
        assert(state == 2 or state == 3, X.Error(tls))
        assert(Net.Wait(socket, state == 2 and "r" or "w", 5000), "socket ready in time")
      end
    end
    drive(function() return X.Connect(tls, socket) end)
    drive(function() local n = X.Write(tls, line, #line) return n > 0 and n end)
    local buffer = Data("")
    drive(function() local n = X.Read(tls, buffer, 64) return n > 0 and n end)
    X.Shutdown(tls)
    Net.Close(socket)
    return buffer:bytes()
  end
end
local one, two = Ombrix.all({session(arg[1], "one\n"), session(arg[2], "two\n")})
io.write(one, two)
)lua";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RunScript(script, {a.port(), b.port()}), "one\ntwo\nexit 0\n");
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_LT(taken.count(), 1.5) << "the two 0.8 s pauses overlap";
}

// Whole scripts: what they print and their exit status. arg[1]: a TLS server
// that answers after 300 ms and then sends 300 one-byte records; arg[2]: a
// listener that never accepts; arg[3]: a server with another certificate
// that answers after 300 ms. The tasks' own rows come first, then hostile
// scripts: they drop, re-enter or resurrect things while a call is parked or
// the host is inside Lua, and get errors, not crashes.
TEST(TasksTool, ScriptsGiveTheirOutputAndStatus) {
    const char kVictim[] = R"lua(
local co
local victim = Ombrix.spawn(function()
  co = coroutine.running()
  return Cryptography.X509FetchFromServer(table.concat({"127", "0", "0", "1"}, "."), tonumber(arg[1]))
end)
)lua";
    const struct { const char* name; std::string script; const char* output; } cases[] = {
        {"a failing task leaves the others intact, each fetching as a call outside tasks does", R"lua(
local X = Cryptography
local function fetch(port)
  return function() return X.GetDigestFromCert("SHA256", X.X509FetchFromServer("127.0.0.1", tonumber(port))) end
end
local tasks = {Ombrix.spawn(fetch(arg[1])), Ombrix.spawn(function() error("two fails", 0) end),
               Ombrix.spawn(fetch(arg[3]))}
local joined = {}
for i, task in ipairs(tasks) do joined[i] = select(2, pcall(Ombrix.join, task)) end
local ok, err = pcall(Ombrix.all, {fetch(arg[1]), function() error({code = 7}) end, fetch(arg[3])})
local one, three = fetch(arg[1])(), fetch(arg[3])()
print(one:find("^%x+$") and #one, one ~= three, joined[1] == one, joined[2], joined[3] == three,
      Ombrix.join(tasks[3]) == three, ok, err.code))lua", "64\ttrue\ttrue\ttwo fails\ttrue\ttrue\tfalse\t7\nexit 0\n"},
        {"an unjoined task runs to its end", "Ombrix.spawn(function() print('ran') end)", "ran\nexit 0\n"},
        {"an unjoined task's failure sets the status", "Ombrix.spawn(function() error('lost', 0) end)",
         "ombrix: task 1 failed: lost\nexit 1\n"},
        {"a joined task's failure is the join's",
         "local t = Ombrix.spawn(function() error('seen', 0) end) print(pcall(Ombrix.join, t))", "false\tseen\nexit 0\n"},
        {"a task cannot join itself, nor tasks that wait for each other", R"lua(
io.stdout:setvbuf("line")
local t, a, b
t = Ombrix.spawn(function() coroutine.yield() return pcall(Ombrix.join, t) end)
print(Ombrix.join(t))
a = Ombrix.spawn(function() coroutine.yield() return Ombrix.join(b) end)
b = Ombrix.spawn(function() return Ombrix.join(a) end)
print(pcall(Ombrix.join, a)))lua",
         "false\tOmbrix.join: a task cannot wait for itself\n"
         "false\tOmbrix.join: the task can never finish (tasks wait for each other)\n"
         "ombrix: task 2 never finished (tasks wait for each other)\n"
         "ombrix: task 3 never finished (tasks wait for each other)\nexit 1\n"},
        {"the scheduler resumes a yielding task with nothing",
         "print(pcall(Ombrix.join, Ombrix.spawn(function() return coroutine.yield() or 5 end)))", "true\t5\nexit 0\n"},
        {"a parked call's host string outlives its closed coroutine", kVictim + std::string(R"lua(
Ombrix.spawn(function() coroutine.close(co) collectgarbage() end)
print(pcall(Ombrix.join, victim)))lua"), "false\tcannot resume dead coroutine\nexit 0\n"},
        {"... or its overwritten stack slot", kVictim + std::string(R"lua(
Ombrix.spawn(function() debug.setlocal(co, 0, 1, 0) collectgarbage() end)
print(pcall(Ombrix.join, victim)))lua"), "true\tCryptography.X509\nexit 0\n"},
        {"a failure's __tostring joins and drops its task while it is reported", R"lua(
local failing
failing = Ombrix.spawn(function() error(setmetatable({}, {__tostring = function()
  pcall(Ombrix.join, failing) failing = nil collectgarbage() return "object" end})) end))lua",
         "ombrix: task 1 failed: object\nexit 1\n"},
        {"spawn and join from a finalizer after the scheduler's", R"lua(
local t = Ombrix.spawn(function() end)
getmetatable(io.stdout).__gc = function(file)  -- stdin, stdout and stderr share it
  if file == io.stdout then print(select(2, pcall(Ombrix.spawn, print)), select(2, pcall(Ombrix.join, t))) end
end)lua", "Ombrix.spawn: tasks have ended (the Lua state is closing)\tOmbrix.join: tasks have ended (the Lua state is closing)\nexit 0\n"},
        {"values made by finalizers while the state closes", R"lua(
getmetatable(io.stdout).__gc = function() kept = {Data("late"), Cryptography.GenerateECKey()} end)lua", "exit 0\n"},
        {"hex() while a finalizer reads into the same buffer", R"lua(
local socket = Net.Connect("127.0.0.1", tonumber(arg[1]))
local tls = Cryptography.CreateSSL(JSON.FromString('{"Verify": false}'))
assert(Cryptography.Connect(tls, socket))
Net.SetBlocking(socket, false)
local d
local meta = {}
meta.__gc = function() Cryptography.Read(tls, d, 1) setmetatable({}, meta) end
for i = 1, 50 do setmetatable({}, meta) end
collectgarbage("incremental", 10, 100)
-- hex() sees the fresh buffer, or the byte a finalizer read into it first
for i = 1, 300 do d = Cryptography.CreateRandomBytes(4000) local n = #d:hex() assert(n == 8000 or n == 2, n) end
print("done"))lua", "done\nexit 0\n"},
        {"join a finalized, resurrected handle from a task", R"lua(
local saved
do
  local t = Ombrix.spawn(function() coroutine.yield() return 1 end)
  setmetatable({}, {__gc = function() saved = t end})
end
collectgarbage()
print(Ombrix.join(Ombrix.spawn(function() return Ombrix.join(saved) end))))lua", "1\nexit 0\n"},
        {"resume a parked task by hand", R"lua(
local socket, co = Net.Connect("127.0.0.1", tonumber(arg[2]))
local t = Ombrix.spawn(function() co = coroutine.running() return Net.Wait(socket, "r", 300) end)
Ombrix.spawn(function()
  print(pcall(coroutine.resume, co))
  print(select(2, debug.getupvalue(coroutine.resume, 1))(co))  -- the raw resume
end)
print(Ombrix.join(t)))lua",
         "false\tcoroutine.resume: task 1 is run by Ombrix, not by hand (Ombrix.join waits for it)\ntrue\nfalse\nexit 0\n"},
    };
    const TlsServer tls({.delayMs = 300}, [](SSL* ssl, int) {
        for (int i = 0; i < 300; ++i) SSL_write(ssl, "x", 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    });
    int silentPort = 0;
    const Socket silent = ListenTcp(&silentPort);
    const TlsServer other({.cert = "alpha", .delayMs = 300});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(RunScript(c.script, {tls.port(), silentPort, other.port()}), c.output);
    }
}

}  // namespace
}  // namespace Testing
