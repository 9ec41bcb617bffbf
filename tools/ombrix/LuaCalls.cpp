#include "LuaCalls.h"

#include <array>
#include <cstdio>
#include <span>
#include <vector>

#include "LuaProtected.h"
#include "LuaValues.h"
#include "Ombrix/Routine.h"
#include "Tasks.h"
#include "Variant.h"

namespace OmbrixTool {

using Ombrix::AutoRefPtr;
using Ombrix::IVariant;
using Ombrix::Host::CallOutcome;
using Ombrix::Host::Declaration;
using Ombrix::Host::Engine;
using Ombrix::Host::ErrorReport;
using Ombrix::Host::Variant;

namespace {

constexpr char kErrorMeta[] = "Ombrix.Error";

// A routine's closure keeps its Engine as upvalue 1, its script name as
// upvalue 2 and its overloads as upvalue 3 (light userdata: the engine's
// list, which lives as long as the engine), so a call neither looks the name
// up nor, with one overload, makes a choice.
Engine& EngineOf(lua_State* L) { return *static_cast<Engine*>(lua_touserdata(L, lua_upvalueindex(1))); }

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

// The arguments of a call that has ended go back to Lua with the strings
// they lent: a lent value that something still holds copies its bytes first.
void KeepLent(std::span<const AutoRefPtr<IVariant>> arguments) {
    for (const AutoRefPtr<IVariant>& argument : arguments) {
        // Every argument here was made by ToArgument or CallRoutine: a Variant.
        auto* value = static_cast<Variant*>(argument.get());
        if (value && value->IsLent() && value->Shared()) value->MakeOwned();
    }
}

// Inside a task a call that parks yields the task instead of waiting.
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
        overloads.size() == 1 ? overloads.front() : Engine::ChooseAmong(overloads, passed, LuaFit);
    if (!declaration) {
        lua_pushfstring(L, "unknown routine '%s'", name);
        return -1;
    }
    // The conversions the choice counted on: a string where the parameter is
    // a DATAREF is lent as a buffer, nil where it is a module type is a
    // variable of that type that holds no object.
    for (size_t i = 0; i < passed.size() && i < declaration->parameterCodes.size(); ++i) {
        const uint32_t code = declaration->parameterCodes[i];
        if (LuaFit(pointers[i], code) != Engine::Fit::Converted) continue;
        if (pointers[i])
            arguments[i] = Variant::LentData(pointers[i]->GetString(), pointers[i]->GetStringSize());
        else
            arguments[i] = Variant::Unset(code);
        pointers[i] = arguments[i].get();
    }
    if (!declaration->entry) {
        lua_pushfstring(L, "'%s' is not available: entry point %s of %s is not bound", name,
                        declaration->entryName.c_str(), declaration->Text().c_str());
        return -1;
    }
    const bool function = declaration->kind == Declaration::Kind::Function;
    const std::span<const AutoRefPtr<IVariant>> held(arguments, static_cast<size_t>(count));
    int results = 0;
    if (InTask(L)) {
        // A call that parks owns its lent values' bytes (the engine makes them
        // owned): the task's stack may be closed or overwritten
        // (coroutine.close, debug.setlocal) before the call runs again.
        CallOutcome outcome;
        const Ombrix::Host::CallHandle call = engine.StartBorrowed(*declaration, passed, function, outcome);
        if (call) {
            ParkTask(L, call);
            return kParked;
        }
        results = PushOutcome(L, std::string_view(name, nameSize), outcome);
    } else {
        results = PushOutcome(L, std::string_view(name, nameSize), engine.CallBorrowed(*declaration, passed, function));
    }
    KeepLent(held);
    return results;
}

}  // namespace

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

Engine::Fit LuaFit(const IVariant* argument, uint32_t parameterCode) {
    if (!argument)
        return Ombrix::IsCustomTypeCode(parameterCode) && Ombrix::ContainerOf(parameterCode) == Ombrix::Container::Single
                   ? Engine::Fit::Converted
                   : Engine::Fit::None;
    const uint32_t code = argument->GetType();
    if (code == parameterCode) return Engine::Fit::Exact;
    return code == Ombrix::kTypeString && parameterCode == Ombrix::kTypeDataRef ? Engine::Fit::Converted
                                                                                : Engine::Fit::None;
}

void OpenCalls(lua_State* L) {
    luaL_newmetatable(L, kErrorMeta);
    lua_pushcfunction(L, ErrorToString);
    lua_setfield(L, -2, "__tostring");
    lua_pop(L, 1);
}

void PushRoutine(lua_State* L, Engine& engine, const std::string& name) {
    lua_pushlightuserdata(L, &engine);
    lua_pushlstring(L, name.data(), name.size());
    lua_pushlightuserdata(L, const_cast<std::vector<const Declaration*>*>(&engine.Overloads(name)));
    lua_pushcclosure(L, Protected<CallRoutine>, 3);
}

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
}  // namespace OmbrixTool
