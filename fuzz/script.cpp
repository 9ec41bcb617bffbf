// Hostile scripts. The input is a sequence of operations, each a byte
// (its value modulo the count of operations) and a few parameter bytes;
// they become a Lua script that the ombrix engine runs: tasks that park on
// fetches and waits against loopback peers that are silent, reset or send
// garbage or TLS records; coroutines closed, resumed by hand or with their
// locals overwritten; finalizers that call routines, spawn and join, also
// while the state closes; collection in small steps; Data buffers used as
// several arguments at once, read into while their hex is made, assigned
// from themselves; handles finalized and resurrected. RELOAD ends the state
// and the engine with calls still parked and starts both afresh.
// make_seeds.py writes inputs with the same operation numbers.
#include <lua.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "LuaEngine.h"
#include "LuaValues.h"
#include "Ombrix/Data.h"
#include "ScriptPeers.h"
#include "Tasks.h"

namespace {

using namespace Fuzz;

enum Op : uint8_t {
    kDataBytes, kDataRandom, kDataFile, kDataHash, kDataUse, kDataSelf, kReadInto, kSameData,
    kRoutine, kSpawn, kJoin, kCoroutine, kSetLocal, kCollect, kFinalizer, kDrop,
    kConnect, kTls, kFetch, kWait, kMany, kAtClose, kResurrect, kErrorObject,
    kObject, kRepeat, kReload, kTlsSession, kOpCount
};

struct Reader {
    const uint8_t* data;
    size_t size;
    bool heavy = false;  // the operations made since it was cleared may wait or spawn many tasks
    // Operations that may wait up to a peer's 40 ms each (or start 16 parked
    // calls), weighted by the rounds of the loops around them, per part of
    // an input: bounds its time.
    int budget = 32;
    int scale = 1;
    bool Spend(int units = 1) {
        heavy = true;
        budget -= units * scale;
        return budget >= 0;
    }
    uint8_t Byte() {
        if (!size) return 0;
        --size;
        return *data++;
    }
    int Pick(int count) { return Byte() % count; }
    // A slot index as Lua text, 1..4.
    std::string Slot() { return std::to_string(1 + Pick(4)); }
    bool Done() const { return size == 0; }
};

const char* const kCounts[] = {"0", "1", "64", "65", "300", "4000"};
const char* const kNumbers[] = {"0", "1", "-1", "16", "32", "65", "300", "0.5", "2^31", "0/0", "1/0", "-2^63"};
const char* const kTexts[] = {"\"\"", "\"SHA256\"", "\"AES-128-CBC\"", "(\"k\"):rep(16)", "PEM", "\"{}\"",
                              "string.char(114)", "host()", "\"CHACHA20-POLY1305\"", "D[1] and D[1]:bytes()"};
// Routines whose NUMBER parameters are no descriptors and no costs.
const char* const kRoutines[] = {
    "Cryptography.Hash", "Cryptography.HMAC", "Cryptography.Encrypt", "Cryptography.Decrypt",
    "Cryptography.DataRefDecrypt", "Cryptography.EncryptAndAuth", "Cryptography.DecryptAndVerify",
    "Cryptography.CreateRandomBytesAsString", "Cryptography.Lookup3Hash", "Cryptography.X509FromPEM",
    "Cryptography.X509FromDER", "Cryptography.ToPEM", "Cryptography.ToDER", "Cryptography.GetDigestFromCert",
    "Cryptography.PEMToJson", "Cryptography.KeyFromPEM", "Cryptography.GetKeyType", "Cryptography.State",
    "Cryptography.Error", "Cryptography.Read", "Cryptography.Write", "Cryptography.Shutdown",
    "Cryptography.Sign", "Cryptography.VerifySignature", "Cryptography.PKCS5PBKDF2HMAC",
    "Cryptography.EncryptAEADCHACHA20POLY1305", "Cryptography.DecryptAEADCHACHA20POLY1305",
    "Cryptography.HasIssued", "Cryptography.SetSubjectName", "JSON.FromString", "JSON.Set", "JSON.ToString"};

template <size_t N>
const char* Choose(Reader& in, const char* const (&choices)[N]) {
    return choices[in.Pick(static_cast<int>(N))];
}

std::string Argument(Reader& in) {
    switch (in.Pick(7)) {
        case 0: return "nil";
        case 1: return Choose(in, kNumbers);
        case 2: return Choose(in, kTexts);
        case 3: return "D[" + in.Slot() + "]";
        case 4: return "V[" + in.Slot() + "]";
        case 5: return "X[" + in.Slot() + "]";
        default: return in.Pick(2) ? "true" : "{}";
    }
}

std::string Operation(Reader& in, int depth);

// Bytes as a Lua string literal.
std::string Quote(const std::string& bytes) {
    std::string out = "\"";
    char escape[8];
    for (const unsigned char c : bytes) {
        std::snprintf(escape, sizeof escape, "\\%03u", c);
        out += escape;
    }
    return out + "\"";
}

std::string Port(Reader& in) { return "PORT[" + std::to_string(1 + in.Pick(4)) + "]"; }

// A call that parks inside a task: a fetch from a peer, or a short wait.
std::string Parking(Reader& in) {
    if (in.Pick(2)) return "Cryptography.X509FetchFromServer(host(), " + Port(in) + ")";
    const std::string k = in.Slot();
    return "Net.Wait(K[" + k + "] or 0, string.char(114), " + std::to_string(in.Pick(40)) + ")";
}

// Runs an operation that may raise: the script goes on with the next one.
std::string Guarded(const std::string& code) { return "try(function() " + code + " end)\n"; }

std::string Body(Reader& in, int depth) { return depth > 2 ? std::string() : Operation(in, depth + 1); }

std::string Operation(Reader& in, int depth) {
    const auto op = static_cast<Op>(in.Pick(kOpCount));
    const std::string i = in.Slot();
    switch (op) {
        case kDataBytes: {
            std::string bytes;
            for (int n = in.Pick(80); n > 0; --n) bytes += static_cast<char>(in.Byte());
            return Guarded("D[" + i + "] = Data(" + Quote(bytes) + ")");
        }
        case kDataRandom: return Guarded("D[" + i + "] = Cryptography.CreateRandomBytes(" + Choose(in, kCounts) + ")");
        case kDataFile: return Guarded("D[" + i + "] = Data.file(FIXTURE)");
        case kDataHash: return Guarded("D[" + i + "] = Cryptography.Hash('SHA256', D[" + in.Slot() + "])");
        case kDataUse: {
            // The last one makes a fresh buffer in place and reads it at once.
            const char* uses[] = {":hex()", ":bytes()", " == D[1]", ":hex() == D[2]:hex()", ":hex()"};
            const int use = in.Pick(5);
            const std::string fresh = use == 4 ? "D[" + i + "] = Cryptography.CreateRandomBytes(4000) " : "";
            return Guarded(fresh + "local _ = D[" + i + "]" + uses[use] + ", #D[" + i + "], tostring(D[" + i + "])");
        }
        case kDataSelf: {
            const char* calls[] = {"assign_self", "read_self", "truncate", "clone"};
            const std::string call = calls[in.Pick(4)];
            return Guarded("D[" + i + "] = Fuzz." + call + "(D[" + i + "], " + std::to_string(in.Byte()) + ") or D[" + i + "]");
        }
        case kReadInto:  // waits at most until the peer closes, once per connection
        {
            const std::string x = in.Slot();
            return Guarded("Cryptography.Read(X[" + x + "], D[" + i + "], " + Choose(in, kCounts) + ")");
        }
        case kSameData: {
            const std::string d = "D[" + i + "]";
            const std::string calls[] = {
                "Cryptography.PKCS5PBKDF2HMAC(" + d + ", " + d + ", 1, 'SHA256', 16)",
                "Cryptography.VerifySignature(" + d + ", " + d + ", 'SHA256', " + d + ")",
                "Cryptography.Encrypt('AES-128-CBC', " + d + ", ('k'):rep(16), " + d + ")",
                "Cryptography.DecryptAEADCHACHA20POLY1305(" + d + ", " + d + ", ('k'):rep(32), " + d + ", '')",
                "Cryptography.BytesToKey('AES-128-CBC', 'SHA256', " + d + ", " + d + ", 1)"};
            return Guarded(calls[in.Pick(5)]);
        }
        case kRoutine: {
            std::string call = std::string(Choose(in, kRoutines)) + "(";
            for (int n = in.Pick(6); n > 0; --n) call += Argument(in) + (n > 1 ? ", " : "");
            return Guarded("V[" + i + "] = " + call + ")");
        }
        case kSpawn: {
            const std::string body = Body(in, depth);
            return Guarded("T[" + i + "] = Ombrix.spawn(function(...) C[" + i + "] = coroutine.running()\n" + body +
                           " return ... end, " + Argument(in) + ")");
        }
        case kJoin: return Guarded(in.Pick(2) ? "Ombrix.join(T[" + i + "])" : "Ombrix.join(R)");
        case kCoroutine: {
            const char* actions[] = {"coroutine.close(C[%s])", "coroutine.resume(C[%s])", "RAW(C[%s])",
                                     "coroutine.wrap(function() coroutine.yield(C[%s]) end)()",
                                     "coroutine.status(C[%s])"};
            char code[128];
            std::snprintf(code, sizeof code, actions[in.Pick(5)], i.c_str());
            return Guarded(code);
        }
        case kSetLocal:
            // Level 0 of a suspended task is the C function it waits in:
            // its arguments, lent strings among them.
        {
            const std::string slot = std::to_string(1 + in.Pick(4));
            return Guarded("debug.setlocal(C[" + i + "], 0, " + slot + ", " + Argument(in) + ")");
        }
        case kCollect: {
            const std::string n = std::to_string(in.Byte());
            const std::string calls[] = {"collectgarbage()", "collectgarbage('step', " + n + ")",
                                         "collectgarbage('incremental', " + n + ", 100)",
                                         "collectgarbage('generational')", "collectgarbage('incremental', 0, 1000)"};
            return Guarded(calls[in.Pick(5)]);
        }
        case kFinalizer: {
            // One that sets itself up again runs in every collection cycle:
            // only when what it does cannot wait.
            const bool heavyBefore = in.heavy;
            in.heavy = false;
            const std::string body = Body(in, depth);
            const bool rearm = in.Pick(2) && !in.heavy;
            in.heavy = in.heavy || heavyBefore;
            return Guarded("local meta = {} meta.__gc = function() try(function()\n" + body + " end) " +
                           (rearm ? "setmetatable({}, meta) " : "") + "end setmetatable({}, meta)");
        }
        case kDrop: {
            const char* slots[] = {"D", "T", "C", "X", "V"};
            return Guarded(std::string(slots[in.Pick(5)]) + "[" + i + "] = nil");
        }
        case kConnect:
            if (!in.Spend()) return "";
        {
            const std::string port = Port(in);
            return Guarded("K[" + i + "] = Net.Connect(host(), " + port + ") " +
                           (in.Pick(2) ? "Net.SetBlocking(K[" + i + "], false)" : ""));
        }
        case kTls: {
            if (!in.Spend()) return "";
            const std::string k = "K[" + in.Slot() + "]";
            return Guarded("X[" + i + "] = Cryptography.CreateSSL(JSON.FromString('{\"Verify\": false}')) "
                           "Cryptography.Connect(X[" + i + "], " + k + " or -1) Net.SetBlocking(" + k + ", false)");
        }
        case kFetch:
            if (!in.Spend()) return "";
            return Guarded("V[" + i + "] = Cryptography.X509FetchFromServer(host(), " + Port(in) + ")");
        case kWait: {
            if (!in.Spend()) return "";
            const char* modes[] = {"string.char(114)", "string.char(119)", "string.char(114, 119)"};
            const std::string k = in.Slot();
            const char* mode = modes[in.Pick(3)];
            return Guarded("V[" + i + "] = Net.Wait(K[" + k + "] or 0, " + mode + ", " + std::to_string(in.Pick(40)) + ")");
        }
        case kMany: {
            const int count = depth == 0 ? 1 + in.Byte() : 1 + in.Pick(8);
            if (!in.Spend(1 + count / 16)) return "";
            return Guarded("for n = 1, " + std::to_string(count) + " do Ombrix.spawn(function() return " + Parking(in) +
                           " end) end");
        }
        case kAtClose:
            return Guarded("getmetatable(io.stdout).__gc = function() try(function()\n" + Body(in, depth) + " end) end");
        case kResurrect:
            return Guarded("local h = T[" + i + "] T[" + i + "] = nil setmetatable({}, {__gc = function() R = h end})");
        case kErrorObject:
            return Guarded("T[" + i + "] = Ombrix.spawn(function() error(setmetatable({}, {__tostring = function()\n"
                           "pcall(Ombrix.join, T[" + i + "]) T[" + i + "] = nil collectgarbage()\n" + Body(in, depth) +
                           " return 'x' end})) end)");
        case kObject: {
            const char* makers[] = {"Cryptography.GenerateECKey()", "Cryptography.CreateX509()",
                                    "Cryptography.X509FromPEM(PEM)", "JSON.FromString('{\"a\":[1]}')",
                                    "Ombrix.new('Cryptography.SSL')", "Cryptography.KeyFromPEM(KEY)"};
            return Guarded("V[" + i + "] = " + makers[in.Pick(6)]);
        }
        case kRepeat: {
            // Up to 256 rounds of cheap operations, a few of ones that wait.
            const int rounds = 1 + in.Byte();
            const bool heavyBefore = in.heavy;
            in.heavy = false;
            in.scale *= 4;
            std::string body;
            for (int n = 1 + in.Pick(3); n > 0; --n) body += Body(in, depth);
            in.scale /= 4;
            const int count = in.heavy || depth > 0 ? 1 + rounds % 4 : rounds;
            in.heavy = in.heavy || heavyBefore;
            return "for _ = 1, " + std::to_string(count) + " do\n" + body + "end\n";
        }
        case kTlsSession: {
            // A task that drives a TLS session over a non-blocking socket,
            // parking in Net.Wait, and reads into a shared buffer.
            if (!in.Spend(2)) return "";
            const std::string port = Port(in), d = "D[" + in.Slot() + "]";
            return Guarded("T[" + i + "] = Ombrix.spawn(function() C[" + i + "] = coroutine.running()\n"
                           "local k = Net.Connect(host(), " + port + ") Net.SetBlocking(k, false)\n"
                           "local x = Cryptography.CreateSSL(JSON.FromString('{\"Verify\": false}')) X[" + i + "] = x\n"
                           "for _ = 1, 8 do if Cryptography.Connect(x, k) then break end\n"
                           "  Net.Wait(k, Cryptography.State(x) == 3 and string.char(119) or string.char(114), 10) end\n"
                           "for _ = 1, 8 do if Cryptography.Read(x, " + d + " or Data(''), 8) <= 0 then\n"
                           "  Net.Wait(k, string.char(114), 10) end end\n"
                           "Net.Close(k) end)");
        }
        case kReload:
        case kOpCount: break;
    }
    return "";
}

// Lua that every script starts with: the slots, the peers' ports, and
// strings made at run time (no constant keeps them alive).
constexpr char kPrelude[] = R"lua(
D, T, C, X, K, V = {}, {}, {}, {}, {}, {}
local D, T, C, X, K, V = D, T, C, X, K, V
local function host() return table.concat({"127", "0", "0", "1"}, ".") end
local function try(f) return pcall(f) end
local RAW = select(2, debug.getupvalue(coroutine.resume, 1)) or coroutine.resume
print = function() end
)lua";

}  // namespace

// Helpers the scripts reach as Fuzz.*: Data operations with no script form.
namespace {

Ombrix::Data* OwnData(lua_State* L) { return dynamic_cast<Ombrix::Data*>(OmbrixTool::ToData(L, 1)); }

int AssignSelf(lua_State* L) {
    if (Ombrix::Data* d = OwnData(L)) {
        const uint64_t skip = std::min<uint64_t>(static_cast<uint64_t>(luaL_optinteger(L, 2, 0)), d->GetSize());
        d->Assign(d->GetData() + skip, d->GetSize() - skip);
    }
    return 0;
}
int ReadSelf(lua_State* L) {
    if (Ombrix::Data* d = OwnData(L); d && d->GetSize()) {
        const uint64_t from = static_cast<uint64_t>(luaL_optinteger(L, 2, 0)) % d->GetSize();
        d->Read(const_cast<char*>(d->GetData()), d->GetSize(), from);
    }
    return 0;
}
int Truncate(lua_State* L) {
    if (Ombrix::Data* d = OwnData(L)) d->Truncate(static_cast<uint64_t>(luaL_optinteger(L, 2, 0)));
    return 0;
}
int Clone(lua_State* L) {
    Ombrix::IDataRef* d = OmbrixTool::ToData(L, 1);
    OmbrixTool::PushData(L, d ? d->Clone() : nullptr);
    return 1;
}

struct Session {
    std::unique_ptr<Engine> engine;
    lua_State* L = nullptr;
};

void Open(Session& s) {
    if (!s.engine) {
        s.engine = std::make_unique<Engine>();
        s.engine->Load(CRYPTOGRAPHY_MODULE_PATH);
    }
    s.L = luaL_newstate();
    luaL_openlibs(s.L);
    OmbrixTool::OpenValues(s.L);
    OmbrixTool::OpenEngine(s.L, *s.engine, "ombrix");
    OmbrixTool::OpenTasks(s.L, *s.engine);
    static const luaL_Reg helpers[] = {{"assign_self", AssignSelf}, {"read_self", ReadSelf},
                                       {"truncate", Truncate},      {"clone", Clone},
                                       {nullptr, nullptr}};
    luaL_newlib(s.L, helpers);
    lua_setglobal(s.L, "Fuzz");
    lua_createtable(s.L, 4, 0);
    for (int k = 0; k < static_cast<int>(PeerKind::Count); ++k) {
        lua_pushinteger(s.L, PeerPort(static_cast<PeerKind>(k)));
        lua_rawseti(s.L, -2, k + 1);
    }
    lua_setglobal(s.L, "PORT");
    static const std::string pem = ReadFile(DataPath("tls/server.pem")), key = ReadFile(DataPath("tls/server.key"));
    for (const auto& [name, value] : {std::pair{"PEM", pem}, std::pair{"KEY", key}}) {
        lua_pushlstring(s.L, value.data(), value.size());
        lua_setglobal(s.L, name);
    }
    lua_pushstring(s.L, DataPath("tls/server.pem").c_str());
    lua_setglobal(s.L, "FIXTURE");
}

// Runs one script; then lets the tasks finish, or (abrupt) closes the state
// with whatever is still parked, and with it the engine.
void Run(Session& s, const std::string& body, bool abrupt) {
    const std::string script = kPrelude + body;
    static const bool show = std::getenv("FUZZ_SCRIPT_SHOW") != nullptr;
    if (show) std::fprintf(stderr, "-- script%s\n%s\n", abrupt ? " (then reload)" : "", script.c_str());
    if (luaL_loadbuffer(s.L, script.data(), script.size(), "=script") != LUA_OK)
        Fail(std::string("generated script does not load: ") + lua_tostring(s.L, -1) + "\n" + script);
    if (lua_pcall(s.L, 0, 0, 0) != LUA_OK) lua_pop(s.L, 1);
    if (!abrupt) OmbrixTool::FinishTasks(s.L);
    OmbrixTool::CloseState(s.L);
    s.L = nullptr;
    if (abrupt) s.engine.reset();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Session session;
    Reader in{data, size};
    for (int segments = 0; !in.Done() && segments < 3; ++segments) {
        Open(session);
        in.budget = 32;
        std::string body;
        bool reload = false;
        for (int n = 0; n < 48 && !in.Done() && !reload; ++n) {
            if (in.data[0] % kOpCount == kReload) {
                in.Byte();
                reload = true;
            } else {
                body += Operation(in, 0);
            }
        }
        Run(session, body, reload);
    }
    return 0;
}
