// ombrix: runs Lua 5.4 scripts against the reference engine with modules
// loaded (by default the Cryptography module built beside the tool).
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include <lua.hpp>

#include "CommandLine.h"
#include "Engine.h"
#include "LuaEngine.h"
#include "LuaValues.h"
#include "Tasks.h"
#include "ModuleSearch.h"
#include "Interrupt.h"
#include "Prompt.h"
#include "Version.h"

namespace {

using Ombrix::Host::Engine;
using OmbrixTool::CommandLine;

// The Lua state and the engine, torn down in that order: values the script
// still holds release their references before the modules go away.
struct Session {
    lua_State* L = nullptr;
    std::unique_ptr<Engine> engine;

    void End() {
        OmbrixTool::CloseState(std::exchange(L, nullptr));
        engine.reset();
    }
    ~Session() { End(); }
};

Session* current = nullptr;

// os.exit(code): ends the session cleanly, then leaves with the code.
int Exit(lua_State* L) {
    int status = EXIT_SUCCESS;
    if (lua_isboolean(L, 1))
        status = lua_toboolean(L, 1) ? EXIT_SUCCESS : EXIT_FAILURE;
    else
        status = static_cast<int>(luaL_optinteger(L, 1, EXIT_SUCCESS));
    current->End();
    std::exit(status);
}

std::string ExecutablePath(const char* argv0) {
    char self[PATH_MAX] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    return n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string(argv0);
}

// Adds a traceback to the error; objects with __tostring show through it.
int MessageHandler(lua_State* L) {
    const char* message = lua_tostring(L, 1);
    if (!message) {
        if (luaL_callmeta(L, 1, "__tostring") && lua_type(L, -1) == LUA_TSTRING)
            message = lua_tostring(L, -1);
        else
            message = lua_pushfstring(L, "(error object is a %s value)", luaL_typename(L, 1));
    }
    luaL_traceback(L, L, message, 1);
    return 1;
}

// The global `arg`: like the stock interpreter, arg[0] is the script, arg[1..]
// its arguments and negative indices the words before it.
void SetArgumentTable(lua_State* L, const CommandLine& line, int argc, char** argv) {
    lua_createtable(L, static_cast<int>(line.arguments.size()), 4);
    if (line.script) {
        for (int i = 0; i < argc; ++i) {
            lua_pushstring(L, argv[i]);
            lua_rawseti(L, -2, i - line.scriptIndex);
        }
    } else {
        lua_pushstring(L, argv[0]);
        lua_rawseti(L, -2, 0);
        for (size_t i = 0; i < line.arguments.size(); ++i) {
            lua_pushlstring(L, line.arguments[i].data(), line.arguments[i].size());
            lua_rawseti(L, -2, static_cast<lua_Integer>(i + 1));
        }
    }
    lua_setglobal(L, "arg");
}

int LoadChunk(lua_State* L, const CommandLine& line) {
    if (line.code) return luaL_loadbuffer(L, line.code->data(), line.code->size(), "=(command line)");
    if (!line.script || *line.script == "-") return luaL_loadfile(L, nullptr);  // standard input
    return luaL_loadfile(L, line.script->c_str());
}

int Run(Session& session, const CommandLine& line, int argc, char** argv) {
    lua_State* L = session.L;
    SetArgumentTable(L, line, argc, argv);
    lua_pushcfunction(L, MessageHandler);
    const int handler = lua_gettop(L);
    int status = LoadChunk(L, line);
    if (status == LUA_OK) {
        luaL_checkstack(L, static_cast<int>(line.arguments.size()) + 1, "too many arguments");
        for (const std::string& a : line.arguments) lua_pushlstring(L, a.data(), a.size());
        status = lua_pcall(L, static_cast<int>(line.arguments.size()), 0, handler);
    }
    if (status == LUA_OK) return OmbrixTool::FinishTasks(L);
    const char* message = lua_tostring(L, -1);
    std::fprintf(stderr, "ombrix: %s\n", message ? message : "(error object is not a string)");
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    const CommandLine line = OmbrixTool::ParseCommandLine(argc, argv);
    if (line.help) {
        std::fputs(OmbrixTool::kUsage, stdout);
        return EXIT_SUCCESS;
    }
    if (!line.error.empty()) {
        std::fprintf(stderr, "ombrix: %s\n%s", line.error.c_str(), OmbrixTool::kUsage);
        return 2;
    }
    // A peer that goes away makes socket writes fail with EPIPE instead of
    // ending the process.
    std::signal(SIGPIPE, SIG_IGN);
    const std::string executable = ExecutablePath(argv[0]);
    Session session;
    current = &session;
    try {
        Engine::Options options;
        options.configuration = line.configuration;
        options.verboseLog = line.verbose;
        session.engine = std::make_unique<Engine>(options);
        std::vector<std::string> modules = line.modules;
        if (modules.empty()) modules.push_back(OmbrixTool::kDefaultModule);
        for (const std::string& word : modules) session.engine->Load(OmbrixTool::LocateModule(word, executable));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ombrix: %s\n", e.what());
        return 2;
    }
    if (line.version) {
        std::fputs(OmbrixTool::VersionText(*session.engine).c_str(), stdout);
        return EXIT_SUCCESS;
    }

    session.L = luaL_newstate();
    if (!session.L) {
        std::fputs("ombrix: cannot create the Lua state\n", stderr);
        return 2;
    }
    luaL_openlibs(session.L);
    lua_getglobal(session.L, "os");
    lua_pushcfunction(session.L, Exit);
    lua_setfield(session.L, -2, "exit");
    lua_pop(session.L, 1);
    OmbrixTool::OpenValues(session.L);
    OmbrixTool::OpenEngine(session.L, *session.engine, executable);
    OmbrixTool::OpenTasks(session.L, *session.engine);

    const bool hasChunk = line.code || line.script;
    const bool prompt = OmbrixTool::WantsPrompt(line.interactive, hasChunk);
    int status = EXIT_SUCCESS;
    if (hasChunk || !prompt) {
        OmbrixTool::RestoreTerminalWhenEnded();
        status = Run(session, line, argc, argv);
    }
    else
        SetArgumentTable(session.L, line, argc, argv);
    if (prompt && status == EXIT_SUCCESS)
        status = OmbrixTool::RunPrompt(session.L, MessageHandler, OmbrixTool::Banner(*session.engine));
    session.End();
    return status;
}
