#include "LuaEngine.h"

#include <string>
#include <vector>

#include "Context.h"
#include "Help.h"
#include "LuaCalls.h"
#include "LuaProtected.h"
#include "LuaValues.h"
#include "Ombrix/Json.h"

namespace OmbrixTool {

using Ombrix::AutoRefPtr;
using Ombrix::IUserDefinedType;
using Ombrix::Host::Declaration;
using Ombrix::Host::Engine;

namespace {

// Every function here keeps its Engine as upvalue 1.
Engine& EngineOf(lua_State* L) { return *static_cast<Engine*>(lua_touserdata(L, lua_upvalueindex(1))); }

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

void OpenEngine(lua_State* L, Engine& engine, const std::string& executable) {
    OpenCalls(L);

    for (const std::string& space : engine.Namespaces()) {
        if (lua_getglobal(L, space.c_str()) != LUA_TTABLE) {
            lua_pop(L, 1);
            lua_newtable(L);
        }
        for (const std::string& routine : engine.RoutineNames(space)) {
            PushRoutine(L, engine, space + "." + routine);
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
