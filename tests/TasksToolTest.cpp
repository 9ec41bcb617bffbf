// Tasks in the ombrix command, against TLS servers on 127.0.0.1.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Harness.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

struct ToolRun {
    int status = -1;
    std::string output;  // standard output and error
    double seconds = 0;
};

// Runs a Lua script given as text (ombrix -e); the ports follow as arguments.
ToolRun RunScript(std::string script, const std::vector<int>& ports) {
    ToolRun run;
    const auto start = std::chrono::steady_clock::now();
    for (size_t at = 0; (at = script.find('\'', at)) != std::string::npos; at += 4) script.replace(at, 1, "'\\''");
    std::string command = std::string("timeout 60 '") + OMBRIX_TOOL_PATH + "' -e '" + script + "'";
    for (int port : ports) command += " " + std::to_string(port);
    if (FILE* pipe = popen((command + " 2>&1").c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.output.append(buffer, n);
        const int status = pclose(pipe);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return run;
}

// A server that waits before each handshake, then runs the session.
std::unique_ptr<TlsServer> Server(const std::string& cert, int delayMs, std::function<void(SSL*, int)> session = {}) {
    // A fetch drops its connection mid-handshake; the server's next write must fail, not end the test.
    std::signal(SIGPIPE, SIG_IGN);
    return std::make_unique<TlsServer>(Delayed(cert, delayMs), session ? session : [](SSL*, int) {});
}

const char kFetch[] = R"lua(
local X = Cryptography
local function fetch(port)
  return function()
    return X.GetDigestFromCert("SHA256", X.X509FetchFromServer("127.0.0.1", tonumber(port)))
  end
end
)lua";

TEST(TasksTool, AnErrorInOneTaskLeavesTheOthersIntact) {
    auto a = Server("server", 300), b = Server("alpha", 300);
    const std::string script = std::string(kFetch) + R"lua(
local tasks = {Ombrix.spawn(fetch(arg[1])), Ombrix.spawn(function() error("task two fails") end),
               Ombrix.spawn(fetch(arg[2]))}
for i, task in ipairs(tasks) do
  local ok, value = pcall(Ombrix.join, task)
  print(i, ok, ok and value or tostring(value):match("task two fails"))
end
local ok, err = pcall(Ombrix.all, {fetch(arg[1]), function() error({code = 7}) end, fetch(arg[2])})
print("all", ok, type(err) == "table" and err.code)
print("again", Ombrix.join(tasks[3]) == Ombrix.join(tasks[3]))
print("direct", fetch(arg[1])(), fetch(arg[2])())
)lua";
    const ToolRun run = RunScript(script, {a->port(), b->port()});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("2\tfalse\ttask two fails"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("all\tfalse\t7"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("again\ttrue"), std::string::npos) << run.output;
    // Each task fetched its own server's certificate, as a call outside tasks does.
    const size_t direct = run.output.find("direct\t");
    ASSERT_NE(direct, std::string::npos) << run.output;
    const std::string first = run.output.substr(direct + 7, 64), second = run.output.substr(direct + 72, 64);
    EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), std::string::npos) << run.output;
    EXPECT_NE(first, second);
    EXPECT_NE(run.output.find("1\ttrue\t" + first), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("3\ttrue\t" + second), std::string::npos) << run.output;
}

TEST(TasksTool, NetWaitInTasksInterleavesTlsReads) {
    // Each server answers its client's line after a pause.
    auto reply = [](const char* text) {
        return [text](SSL* ssl, int) {
            char line[64];
            if (SSL_read(ssl, line, sizeof line) <= 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(800));
            SSL_write(ssl, text, static_cast<int>(strlen(text)));
        };
    };
    auto a = Server("server", 0, reply("one\n")), b = Server("server", 0, reply("two\n"));
    const std::string script = R"lua(
local X = Cryptography
local function session(port)
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
    drive(function() local n = X.Write(tls, "hi\n", 3) return n > 0 and n end)
    local buffer = Data("")
    drive(function() local n = X.Read(tls, buffer, 64) return n > 0 and n end)
    X.Shutdown(tls)
    Net.Close(socket)
    return buffer:bytes()
  end
end
local one, two = Ombrix.all({session(arg[1]), session(arg[2])})
io.write(one, two)
)lua";
    const ToolRun run = RunScript(script, {a->port(), b->port()});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output, "one\ntwo\n");
    EXPECT_LT(run.seconds, 1.5) << "the two 0.8 s pauses overlap";
}

TEST(TasksTool, UnjoinedTasksRunToTheEndAndTheirFailuresCount) {
    const struct { const char* script; int status; const char* output; } cases[] = {
        {"Ombrix.spawn(function() print('ran') end)", 0, "ran\n"},
        {"Ombrix.spawn(function() error('lost', 0) end)", 1, "ombrix: task 1 failed: lost\n"},
        {"local t = Ombrix.spawn(function() error('seen', 0) end) print(pcall(Ombrix.join, t))", 0, "false\tseen\n"},
        {"print(pcall(Ombrix.join, Ombrix.spawn(function() return coroutine.yield() or 5 end)))", 0, "true\t5\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        const ToolRun run = RunScript(c.script, {});
        EXPECT_EQ(run.status, c.status);
        EXPECT_EQ(run.output, c.output);
    }
}

// Scripts that drop, re-enter or resurrect things while a call is parked or
// the host is inside Lua. arg[1]: a TLS server that answers after 300 ms and
// then sends 300 one-byte records; arg[2]: a listener that never accepts.
TEST(TasksTool, HostileScriptsGetErrorsNotCrashes) {
    const char kVictim[] = R"lua(
local co
local victim = Ombrix.spawn(function()
  co = coroutine.running()
  return Cryptography.X509FetchFromServer(table.concat({"127", "0", "0", "1"}, "."), tonumber(arg[1]))
end)
)lua";
    const struct { const char* name; std::string script; int status; const char* output; } cases[] = {
        {"a parked call's host string outlives its closed coroutine", kVictim + std::string(R"lua(
Ombrix.spawn(function() coroutine.close(co) collectgarbage() end)
print(pcall(Ombrix.join, victim)))lua"), 0, "false\tcannot resume dead coroutine\n"},
        {"... or its overwritten stack slot", kVictim + std::string(R"lua(
Ombrix.spawn(function() debug.setlocal(co, 0, 1, 0) collectgarbage() end)
print(pcall(Ombrix.join, victim)))lua"), 0, "true\tCryptography.X509\n"},
        {"a failure's __tostring joins and drops its task while it is reported", R"lua(
local failing
failing = Ombrix.spawn(function() error(setmetatable({}, {__tostring = function()
  pcall(Ombrix.join, failing) failing = nil collectgarbage() return "object" end})) end))lua", 1,
         "ombrix: task 1 failed: object\n"},
        {"spawn and join from a finalizer after the scheduler's", R"lua(
local t = Ombrix.spawn(function() end)
getmetatable(io.stdout).__gc = function(file)  -- stdin, stdout and stderr share it
  if file == io.stdout then print(select(2, pcall(Ombrix.spawn, print)), select(2, pcall(Ombrix.join, t))) end
end)lua", 0, "Ombrix.spawn: tasks have ended (the Lua state is closing)\tOmbrix.join: tasks have ended (the Lua state is closing)\n"},
        {"values made by finalizers while the state closes", R"lua(
getmetatable(io.stdout).__gc = function() kept = {Data("late"), Cryptography.GenerateECKey()} end)lua", 0, ""},
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
print("done"))lua", 0, "done\n"},
        {"join a finalized, resurrected handle from a task", R"lua(
local saved
do
  local t = Ombrix.spawn(function() coroutine.yield() return 1 end)
  setmetatable({}, {__gc = function() saved = t end})
end
collectgarbage()
print(Ombrix.join(Ombrix.spawn(function() return Ombrix.join(saved) end))))lua", 0, "1\n"},
        {"resume a parked task by hand", R"lua(
local socket, co = Net.Connect("127.0.0.1", tonumber(arg[2]))
local t = Ombrix.spawn(function() co = coroutine.running() return Net.Wait(socket, "r", 300) end)
Ombrix.spawn(function()
  print(pcall(coroutine.resume, co))
  print(select(2, debug.getupvalue(coroutine.resume, 1))(co))  -- the raw resume
end)
print(Ombrix.join(t)))lua", 0,
         "false\tcoroutine.resume: task 1 is run by Ombrix, not by hand (Ombrix.join waits for it)\ntrue\nfalse\n"},
    };
    auto tls = Server("server", 300, [](SSL* ssl, int) {
        for (int i = 0; i < 300; ++i) SSL_write(ssl, "x", 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    });
    int silentPort = 0;
    const Socket silent = ListenTcp(&silentPort);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const ToolRun run = RunScript(c.script, {tls->port(), silentPort});
        EXPECT_EQ(run.status, c.status) << run.output;
        EXPECT_EQ(run.output, c.output);
    }
}

}  // namespace
}  // namespace Testing
