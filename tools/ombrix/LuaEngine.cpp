#include "LuaEngine.h"

#include <array>
#include <cstdio>
#include <iterator>
#include <span>
#include <vector>
#include <exception>

#include "Context.h"
#include "Help.h"
#include "LuaValues.h"
#include "Ombrix/Json.h"
#include "Ombrix/Routine.h"
#include "Tasks.h"

namespace OmbrixTool {

using Ombrix::AutoRefPtr;
using Ombrix::IUserDefinedType;
using Ombrix::IVariant;
using Ombrix::Host::CallOutcome;
using Ombrix::Host::Declaration;
using Ombrix::Host::Engine;
using Ombrix::Host::ErrorReport;

namespace {

constexpr char kErrorMeta[] = "Ombrix.Error";

// Every function here keeps its Engine as upvalue 1.
Engine& EngineOf(lua_State* L) { return *static_cast<Engine*>(lua_touserdata(L, lua_upvalueindex(1))); }

// What a body returns when its call parked inside a task: the task yields,
// and ResumeCall finishes the routine when the task runs again.
constexpr int kParked = -2;
int ResumeCall(lua_State* L);
template <int (*Body)(lua_State*)>
int Protected(lua_State* L);
template <int (*Body)(lua_State*)>
int Continued(lua_State* L, int, lua_KContext) {
    return Protected<Body>(L);
}

// Runs Body, which pushes its results and returns their count, or pushes an
// error value and returns -1. The error is raised only here, after Body's
// C++ objects are gone (a Lua error unwinds with longjmp). Body checks its
// Lua arguments before it creates any such object.
template <int (*Body)(lua_State*)>
int Protected(lua_State* L) {
    int results = -1;
    char failure[512];
    failure[0] = '\0';
    try {
        results = Body(L);
    } catch (const std::exception& e) {
        std::snprintf(failure, sizeof failure, "%s", e.what());
    } catch (...) {
        std::snprintf(failure, sizeof failure, "unknown C++ exception");
    }
    if (failure[0]) {
        lua_pushstring(L, failure);
        return lua_error(L);
    }
    if (results == kParked) return lua_yieldk(L, 0, 0, &Continued<ResumeCall>);
    if (results < 0) return lua_error(L);
    return results;
}

void PushErrorObject(lua_State* L, const ErrorReport& report, const std::string& routine) {
    lua_createtable(L, 0, 5);
    lua_pushlstring(L, report.moduleNamespace.data(), report.moduleNamespace.size());
    lua_setfield(L, -2, "namespace");
    lua_pushlstring(L, report.id.data(), report.id.size());
    lua_setfield(L, -2, "id");
    lua_pushlstring(L, report.message.data(), report.message.size());
    lua_setfield(L, -2, "message");
    lua_pushinteger(L, report.severity);
    lua_setfield(L, -2, "severity");
    lua_pushlstring(L, routine.data(), routine.size());
    lua_setfield(L, -2, "routine");
    luaL_setmetatable(L, kErrorMeta);
}

int ErrorToString(lua_State* L) {
    lua_getfield(L, 1, "id");
    lua_getfield(L, 1, "message");
    const char* id = lua_tostring(L, -2);
    const char* message = lua_tostring(L, -1);
    lua_pushfstring(L, "%s: %s", id ? id : "?", message ? message : "");
    return 1;
}

int PushOutcome(lua_State* L, std::string_view name, const CallOutcome& outcome);

// A routine of a namespace table; upvalue 2 is its script name, upvalue 3 its
// overloads (light userdata: the engine's list, which lives as long as the
// engine), so a call neither looks the name up nor, with one overload, makes
// a choice. Inside a task a call that parks yields the task instead of waiting.
int CallRoutine(lua_State* L) {
    Engine& engine = EngineOf(L);
    size_t nameSize = 0;
    // The upvalue keeps the name alive for as long as the closure exists.
    const char* name = lua_tolstring(L, lua_upvalueindex(2), &nameSize);
    const auto& overloads =
        *static_cast<const std::vector<const Declaration*>*>(lua_touserdata(L, lua_upvalueindex(3)));
    const int count = lua_gettop(L);
    // Most calls take a few arguments: they are converted on this stack.
    constexpr int kInline = 8;
    std::array<AutoRefPtr<IVariant>, kInline> inlineArguments;
    std::vector<AutoRefPtr<IVariant>> heapArguments(count > kInline ? static_cast<size_t>(count) : 0);
    AutoRefPtr<IVariant>* arguments = count > kInline ? heapArguments.data() : inlineArguments.data();
    std::array<IVariant*, kInline> inlinePointers{};
    std::vector<IVariant*> heapPointers(heapArguments.size());
    IVariant** pointers = count > kInline ? heapPointers.data() : inlinePointers.data();
    for (int i = 0; i < count; ++i) {
        // Strings are lent, not copied: they stay on this call's stack until it
        // returns (a task's stack is kept while it is parked).
        if (!ToArgument(L, i + 1, arguments[i], true)) {
            lua_pushfstring(L, "cannot pass a %s as parameter %d in function '%s'", luaL_typename(L, i + 1), i + 1,
                            name);
            return -1;
        }
        pointers[i] = arguments[i].get();
    }
    const std::span<IVariant* const> passed(pointers, static_cast<size_t>(count));
    const Declaration* declaration =
        overloads.size() == 1 ? overloads.front() : Engine::ChooseAmong(overloads, passed);
    if (!declaration) {
        lua_pushfstring(L, "unknown routine '%s'", name);
        return -1;
    }
    // nil where a custom type is expected is a variable of that type that holds no object.
    for (size_t i = 0; i < passed.size() && i < declaration->parameterCodes.size(); ++i) {
        const uint32_t code = declaration->parameterCodes[i];
        if (!arguments[i] && Ombrix::IsCustomTypeCode(code) && Ombrix::ContainerOf(code) == Ombrix::Container::Single) {
            arguments[i] = Ombrix::Host::Variant::Unset(code);
            pointers[i] = arguments[i].get();
        }
    }
    if (!declaration->entry) {
        lua_pushfstring(L, "'%s' is not available: entry point %s of %s is not bound", name,
                        declaration->entryName.c_str(), declaration->Text().c_str());
        return -1;
    }
    const bool function = declaration->kind == Declaration::Kind::Function;
    if (InTask(L)) {
        // A call that parks owns copies of the lent strings: the task's stack
        // may be closed or overwritten (coroutine.close, debug.setlocal)
        // before the call runs again.
        CallOutcome outcome;
        const Ombrix::Host::CallHandle call = engine.StartBorrowed(*declaration, passed, function, outcome);
        if (call) {
            ParkTask(L, call);
            return kParked;
        }
        return PushOutcome(L, std::string_view(name, nameSize), outcome);
    }
    return PushOutcome(L, std::string_view(name, nameSize), engine.CallBorrowed(*declaration, passed, function));
}

// The continuation of a task whose call parked. Only the scheduler resumes
// it, once the call has finished; a task resumed by other means (the raw
// coroutine.resume, reached through the debug library) yields again and
// goes on waiting.
int ResumeCall(lua_State* L) {
    const Ombrix::Host::CallHandle call = ParkedCall(L);
    if (!call) {
        lua_pushliteral(L, "the task's parked call is gone");
        return -1;
    }
    Engine& engine = EngineOf(L);
    if (!engine.Finished(call)) return kParked;
    const std::string name = lua_tostring(L, lua_upvalueindex(2));
    return PushOutcome(L, name, engine.TakeOutcome(TakeParkedCall(L)));
}

// Pushes a routine's result (none for a procedure), or an error value and -1.
int PushOutcome(lua_State* L, std::string_view name, const CallOutcome& outcome) {
    const bool function = outcome.declaration->kind == Declaration::Kind::Function;
    if (outcome.status) {
        const std::string message = StatusMessage(outcome.status, std::string(name));
        lua_pushlstring(L, message.data(), message.size());
        return -1;
    }
    for (const ErrorReport& report : outcome.errors) {
        if (report.severity >= Ombrix::kSeverityError) {
            PushErrorObject(L, report, std::string(name));
            return -1;
        }
        std::fprintf(stderr, "ombrix: %.*s reported %s: %s\n", static_cast<int>(name.size()), name.data(),
                     report.id.c_str(), report.message.c_str());
    }
    if (!function) return 0;
    if (outcome.result)
        PushResult(L, *outcome.result);
    else
        lua_pushnil(L);
    return 1;
}

// __index of a namespace table: only names the engine knows exist.
int UnknownRoutine(lua_State* L) {
    const char* space = lua_tostring(L, lua_upvalueindex(1));
    const char* key = luaL_tolstring(L, 2, nullptr);
    return luaL_error(L, "unknown routine '%s.%s'", space, key);
}

int Serialize(lua_State* L) {
    luaL_checkany(L, 1);
    IUserDefinedType* object = ToObject(L, 1);
    if (!object) {
        lua_pushnil(L);
        return 1;
    }
    AutoRefPtr<Ombrix::IJSON> json;
    if (Ombrix::IJSON* own = AsJSON(object)) {
        json = AutoRefPtr<Ombrix::IJSON>::Share(own);
    } else {
        AutoRefPtr<Ombrix::Host::Context> context(new Ombrix::Host::Context(EngineOf(L), nullptr));
        json = object->Serialize(context.get());
    }
    if (!json) {
        lua_pushnil(L);
        return 1;
    }
    const std::string text = json->ToJSONText();
    lua_pushlstring(L, text.data(), text.size());
    return 1;
}

int Deserialize(lua_State* L) {
    size_t typeSize = 0, textSize = 0;
    const char* type = luaL_checklstring(L, 1, &typeSize);
    const char* text = luaL_checklstring(L, 2, &textSize);
    PushObject(L, EngineOf(L).Deserialize(std::string_view(type, typeSize), std::string_view(text, textSize)));
    return 1;
}

int New(lua_State* L) {
    const std::string type = luaL_checkstring(L, 1);
    AutoRefPtr<IUserDefinedType> value;
    if (type == "JSON")
        value = AutoRefPtr<IUserDefinedType>(Ombrix::JSON::JSONWrapper::Make());
    else
        value = EngineOf(L).NewValue(type);
    if (!value) {
        if (EngineOf(L).FindType(type))
            lua_pushfstring(L, "Ombrix.new: type '%s' has no bound factory", type.c_str());
        else
            lua_pushfstring(L, "Ombrix.new: unknown type '%s'", type.c_str());
        return -1;
    }
    PushObject(L, std::move(value));
    return 1;
}

int Available(lua_State* L) {
    const char* name = luaL_checkstring(L, 1);
    bool bound = false;
    for (const Declaration* d : EngineOf(L).Overloads(name)) bound = bound || d->entry;
    lua_pushboolean(L, bound);
    return 1;
}

void PushStrings(lua_State* L, const std::vector<std::string>& strings) {
    lua_createtable(L, static_cast<int>(strings.size()), 0);
    for (size_t i = 0; i < strings.size(); ++i) {
        lua_pushlstring(L, strings[i].data(), strings[i].size());
        lua_rawseti(L, -2, static_cast<lua_Integer>(i + 1));
    }
}

int Namespaces(lua_State* L) {
    PushStrings(L, EngineOf(L).Namespaces());
    return 1;
}

int Routines(lua_State* L) {
    const char* space = luaL_checkstring(L, 1);
    PushStrings(L, EngineOf(L).RoutineNames(space));
    return 1;
}

int Declarations(lua_State* L) {
    const char* name = luaL_checkstring(L, 1);
    std::vector<std::string> texts;
    for (const Declaration* d : EngineOf(L).Overloads(name)) texts.push_back(d->Text());
    PushStrings(L, texts);
    return 1;
}

void SetString(lua_State* L, const char* field, const std::string& value) {
    lua_pushlstring(L, value.data(), value.size());
    lua_setfield(L, -2, field);
}

// The loaded module libraries: name, path, data exports and entry points that did not resolve.
int Modules(lua_State* L) {
    lua_newtable(L);
    lua_Integer index = 0;
    for (const auto& module : EngineOf(L).Modules()) {
        if (!module->handle) continue;  // host modules (JSON, Net)
        lua_newtable(L);
        SetString(L, "name", module->name);
        SetString(L, "path", module->path);
        lua_newtable(L);
        for (const auto& [key, value] : module->exports) SetString(L, key.c_str(), value);
        lua_setfield(L, -2, "exports");
        PushStrings(L, module->unresolved);
        lua_setfield(L, -2, "unresolved");
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

// What modules logged so far (the start-up lines among them).
int Log(lua_State* L) {
    const std::vector<Ombrix::Host::LogLine> lines = EngineOf(L).Log().Lines();
    lua_createtable(L, static_cast<int>(lines.size()), 0);
    for (size_t i = 0; i < lines.size(); ++i) {
        lua_createtable(L, 0, 4);
        SetString(L, "category", lines[i].category);
        SetString(L, "message", lines[i].message);
        lua_pushinteger(L, lines[i].level);
        lua_setfield(L, -2, "level");
        lua_pushboolean(L, lines[i].error);
        lua_setfield(L, -2, "error");
        lua_rawseti(L, -2, static_cast<lua_Integer>(i + 1));
    }
    return 1;
}

void SetFunction(lua_State* L, const char* name, lua_CFunction function, Engine& engine) {
    lua_pushlightuserdata(L, &engine);
    lua_pushcclosure(L, function, 1);
    lua_setfield(L, -2, name);
}

}  // namespace

std::string StatusMessage(uint32_t status, const std::string& routine) {
    const std::string position = std::to_string(Ombrix::StatusPosition(status));
    switch (Ombrix::StatusKindOf(status)) {
        case Ombrix::kStatusMissing: return "missing parameter " + position + " in function '" + routine + "'";
        case Ombrix::kStatusWrongType: return "invalid parameter " + position + " in function '" + routine + "'";
        case Ombrix::kStatusEmptyObject:
            return "invalid object used for parameter " + position + " in function '" + routine + "'";
        default: {
            char code[16];
            std::snprintf(code, sizeof code, "0x%x", status);
            return "function '" + routine + "' failed with status " + code;
        }
    }
}

void OpenEngine(lua_State* L, Engine& engine, const std::string& executable) {
    luaL_newmetatable(L, kErrorMeta);
    lua_pushcfunction(L, ErrorToString);
    lua_setfield(L, -2, "__tostring");
    lua_pop(L, 1);

    for (const std::string& space : engine.Namespaces()) {
        if (lua_getglobal(L, space.c_str()) != LUA_TTABLE) {
            lua_pop(L, 1);
            lua_newtable(L);
        }
        for (const std::string& routine : engine.RoutineNames(space)) {
            lua_pushlightuserdata(L, &engine);
            const std::string name = space + "." + routine;
            lua_pushlstring(L, name.data(), name.size());
            lua_pushlightuserdata(L, const_cast<std::vector<const Declaration*>*>(&engine.Overloads(name)));
            lua_pushcclosure(L, Protected<CallRoutine>, 3);
            lua_setfield(L, -2, routine.c_str());
        }
        lua_createtable(L, 0, 1);
        lua_pushlstring(L, space.data(), space.size());
        lua_pushcclosure(L, UnknownRoutine, 1);
        lua_setfield(L, -2, "__index");
        lua_setmetatable(L, -2);
        lua_setglobal(L, space.c_str());
    }

    lua_newtable(L);
    SetFunction(L, "serialize", Protected<Serialize>, engine);
    SetFunction(L, "deserialize", Protected<Deserialize>, engine);
    SetFunction(L, "new", Protected<New>, engine);
    SetFunction(L, "available", Protected<Available>, engine);
    SetFunction(L, "namespaces", Protected<Namespaces>, engine);
    SetFunction(L, "routines", Protected<Routines>, engine);
    SetFunction(L, "declarations", Protected<Declarations>, engine);
    SetFunction(L, "modules", Protected<Modules>, engine);
    SetFunction(L, "log", Protected<Log>, engine);
    SetString(L, "executable", executable);
    OpenHelp(L, engine);
    lua_setglobal(L, "Ombrix");
}

}  // namespace OmbrixTool
