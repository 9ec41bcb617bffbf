#include "LuaValues.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include "FileData.h"
#include "LuaMemory.h"
#include "Ombrix/Data.h"
#include "Variant.h"

namespace OmbrixTool {

using Ombrix::IDataRef;
using Ombrix::IUserDefinedType;
using Ombrix::IVariant;
using Ombrix::Host::Variant;

namespace {

constexpr char kDataMeta[] = "Ombrix.Data";
constexpr char kObjectMeta[] = "Ombrix.Object";
constexpr uint64_t kReadChunk = 64 * 1024;

// While CloseState runs lua_close: the references of the values wrapped
// meanwhile (by finalizers), whose userdata Lua frees without their __gc.
const char kLateKey = 0;
using LateReferences = std::vector<Ombrix::IObject*>;

// A userdata holds one AutoRefPtr; __gc drops its reference. Functions that
// may raise a Lua error (which unwinds with longjmp) check their arguments
// before any C++ object with a destructor is alive, and raise only after
// such objects are gone.
template <class T>
void PushHandle(lua_State* L, AutoRefPtr<T> value, const char* meta) {
    if (!value) {
        lua_pushnil(L);
        return;
    }
    const uint64_t outside = OutsideBytes(value.get());
    lua_rawgetp(L, LUA_REGISTRYINDEX, &kLateKey);
    auto* late = static_cast<LateReferences*>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    void* memory = lua_newuserdatauv(L, sizeof(AutoRefPtr<T>), 0);
    T* object = value.get();
    new (memory) AutoRefPtr<T>(std::move(value));
    luaL_setmetatable(L, meta);
    if (late) {
        try {
            late->push_back(object);
        } catch (const std::bad_alloc&) {
        }
        return;
    }
    AccountOutside(L, outside);
}

template <class T>
AutoRefPtr<T>* TestHandle(lua_State* L, int index, const char* meta) {
    return static_cast<AutoRefPtr<T>*>(luaL_testudata(L, index, meta));
}

template <class T, const char* Meta>
int CollectHandle(lua_State* L) {
    auto* handle = TestHandle<T>(L, 1, Meta);
    if (!handle || !*handle) return 0;
    // A value wrapped while the state closes and finalized after all (made
    // before lua_close stopped finalization): CloseState must not release it.
    lua_rawgetp(L, LUA_REGISTRYINDEX, &kLateKey);
    if (auto* late = static_cast<LateReferences*>(lua_touserdata(L, -1))) {
        auto it = std::find(late->begin(), late->end(), static_cast<Ombrix::IObject*>(handle->get()));
        if (it != late->end()) late->erase(it);
    }
    lua_pop(L, 1);
    *handle = nullptr;
    return 0;
}

IDataRef* CheckData(lua_State* L, int index) {
    auto* handle = static_cast<AutoRefPtr<IDataRef>*>(luaL_checkudata(L, index, kDataMeta));
    return handle->get();
}

void PushNumber(lua_State* L, double value) {
    // Whole numbers that a double holds exactly read as Lua integers (0, not 0.0).
    if (std::isfinite(value) && value == std::trunc(value) && std::fabs(value) <= 9007199254740992.0)
        lua_pushinteger(L, static_cast<lua_Integer>(value));
    else
        lua_pushnumber(L, value);
}

// Data("bytes"): the callable global table.
int DataNew(lua_State* L) {
    size_t size = 0;
    const char* bytes = luaL_optlstring(L, 2, "", &size);
    PushData(L, AutoRefPtr<IDataRef>(Ombrix::Data::Make(std::string(bytes, size))));
    return 1;
}

bool PushFromHex(lua_State* L, std::string_view text) {
    std::string bytes;
    if (!DecodeHex(text, bytes)) return false;
    PushData(L, AutoRefPtr<IDataRef>(Ombrix::Data::Make(std::move(bytes))));
    return true;
}

int DataFromHex(lua_State* L) {
    size_t size = 0;
    const char* text = luaL_checklstring(L, 1, &size);
    if (!PushFromHex(L, std::string_view(text, size)))
        return luaL_error(L, "Data.fromhex: '%s' is not an even number of hexadecimal digits", text);
    return 1;
}

// Returns 0 after pushing the buffer, else the errno of the failed open.
int PushFile(lua_State* L, const char* path) {
    errno = 0;
    AutoRefPtr<IDataRef> file(Ombrix::Host::FileData::Open(path));
    if (!file) return errno ? errno : EINVAL;
    PushData(L, std::move(file));
    return 0;
}

int DataFile(lua_State* L) {
    const char* path = luaL_checkstring(L, 1);
    if (const int error = PushFile(L, path)) return luaL_error(L, "Data.file: cannot open '%s': %s", path, std::strerror(error));
    return 1;
}

// Room in the buffer for `bytes(size)` characters of the data's current
// size, and that size. Making room may run a collection step, whose
// finalizers may change the data; so the size is read again after each
// reservation, until one made no new room (then no Lua ran). From the
// returned pointer until luaL_pushresultsize no Lua may run, so the caller
// reads the bytes only then.
template <class Length>
char* ReserveFor(luaL_Buffer& buffer, const IDataRef& data, uint64_t& size, Length length) {
    for (;;) {
        size = data.GetSize();
        const uint64_t wanted = length(size);
        if (wanted > static_cast<uint64_t>(PTRDIFF_MAX) / 2) luaL_error(buffer.L, "Data: too large for a Lua string");
        char* room = luaL_prepbuffsize(&buffer, static_cast<size_t>(wanted));
        if (data.GetSize() == size) return room;
    }
}

int DataHex(lua_State* L) {
    // The userdata at 1 keeps the data alive; only its bytes may change.
    IDataRef* data = CheckData(L, 1);
    if (!data) {
        lua_pushliteral(L, "");
        return 1;
    }
    luaL_Buffer buffer;
    luaL_buffinit(L, &buffer);
    uint64_t size = 0;
    char* out = ReserveFor(buffer, *data, size, [](uint64_t n) { return 2 * n; });
    static constexpr char kDigits[] = "0123456789abcdef";
    uint64_t written = 0;
    Ombrix::ForEachChunk(data, kReadChunk, [&](const char* bytes, uint64_t count) {
        count = std::min(count, size - written / 2);
        for (uint64_t i = 0; i < count; ++i) {
            const auto byte = static_cast<unsigned char>(bytes[i]);
            out[written++] = kDigits[byte >> 4];
            out[written++] = kDigits[byte & 15];
        }
        return written / 2 < size;
    });
    luaL_pushresultsize(&buffer, static_cast<size_t>(written));
    return 1;
}

int DataBytes(lua_State* L) {
    IDataRef* data = CheckData(L, 1);
    // Contiguous bytes become the string in one copy: lua_pushlstring copies
    // them before it can run a collection step.
    if (const char* direct = data ? data->GetData() : nullptr) {
        lua_pushlstring(L, direct, data->GetSize());
        return 1;
    }
    luaL_Buffer buffer;
    luaL_buffinit(L, &buffer);
    uint64_t size = 0, written = 0;
    if (data) {
        char* out = ReserveFor(buffer, *data, size, [](uint64_t n) { return n; });
        Ombrix::ForEachChunk(data, kReadChunk, [&](const char* bytes, uint64_t count) {
            count = std::min(count, size - written);
            if (bytes && count) std::memcpy(out + written, bytes, count);
            written += count;
            return written < size;
        });
    }
    luaL_pushresultsize(&buffer, static_cast<size_t>(written));
    return 1;
}

int DataLength(lua_State* L) {
    IDataRef* data = CheckData(L, 1);
    lua_pushinteger(L, data ? static_cast<lua_Integer>(data->GetSize()) : 0);
    return 1;
}

int DataToString(lua_State* L) {
    IDataRef* data = CheckData(L, 1);
    lua_pushfstring(L, "Data(%I bytes)", static_cast<lua_Integer>(data ? data->GetSize() : 0));
    return 1;
}

int DataEqual(lua_State* L) {
    auto* a = TestHandle<IDataRef>(L, 1, kDataMeta);
    auto* b = TestHandle<IDataRef>(L, 2, kDataMeta);
    bool equal = false;
    if (a && b) equal = a->get() == b->get() || (a->get() && b->get() && (*a)->IsEqual(b->get()));
    lua_pushboolean(L, equal);
    return 1;
}

int ObjectToString(lua_State* L) {
    IUserDefinedType* object = ToObject(L, 1);
    if (!object) return luaL_typeerror(L, 1, kObjectMeta);
    if (Ombrix::IJSON* json = AsJSON(object)) {
        const std::string text = json->ToJSONText();
        lua_pushlstring(L, text.data(), text.size());
    } else {
        lua_pushstring(L, object->GetName());
    }
    return 1;
}

int ObjectEqual(lua_State* L) {
    IUserDefinedType* a = ToObject(L, 1);
    IUserDefinedType* b = ToObject(L, 2);
    lua_pushboolean(L, a && b && (a == b || a->IsEqual(b)));
    return 1;
}

}  // namespace

void OpenValues(lua_State* L) {
    static const luaL_Reg dataMethods[] = {{"hex", DataHex}, {"bytes", DataBytes}, {nullptr, nullptr}};
    static const luaL_Reg dataMeta[] = {{"__len", DataLength},
                                        {"__tostring", DataToString},
                                        {"__eq", DataEqual},
                                        {"__gc", CollectHandle<IDataRef, kDataMeta>},
                                        {nullptr, nullptr}};
    luaL_newmetatable(L, kDataMeta);
    luaL_setfuncs(L, dataMeta, 0);
    luaL_newlib(L, dataMethods);
    lua_setfield(L, -2, "__index");
    lua_pop(L, 1);

    static const luaL_Reg objectMeta[] = {{"__tostring", ObjectToString},
                                          {"__eq", ObjectEqual},
                                          {"__gc", CollectHandle<IUserDefinedType, kObjectMeta>},
                                          {nullptr, nullptr}};
    luaL_newmetatable(L, kObjectMeta);
    luaL_setfuncs(L, objectMeta, 0);
    lua_pop(L, 1);

    // The global Data: Data("bytes"), Data.fromhex(text), Data.file(path).
    static const luaL_Reg constructors[] = {{"fromhex", DataFromHex}, {"file", DataFile}, {nullptr, nullptr}};
    luaL_newlib(L, constructors);
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, DataNew);
    lua_setfield(L, -2, "__call");
    lua_setmetatable(L, -2);
    lua_setglobal(L, "Data");
}

void CloseState(lua_State* L) {
    if (!L) return;
    LateReferences late;
    lua_pushlightuserdata(L, &late);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &kLateKey);
    lua_close(L);
    for (Ombrix::IObject* object : late) object->Release();
}

void PushData(lua_State* L, AutoRefPtr<IDataRef> data) { PushHandle(L, std::move(data), kDataMeta); }

IDataRef* ToData(lua_State* L, int index) {
    auto* handle = TestHandle<IDataRef>(L, index, kDataMeta);
    return handle ? handle->get() : nullptr;
}

void PushObject(lua_State* L, AutoRefPtr<IUserDefinedType> object) { PushHandle(L, std::move(object), kObjectMeta); }

IUserDefinedType* ToObject(lua_State* L, int index) {
    auto* handle = TestHandle<IUserDefinedType>(L, index, kObjectMeta);
    return handle ? handle->get() : nullptr;
}

Ombrix::IJSON* AsJSON(IUserDefinedType* object) {
    if (!object) return nullptr;
    if (auto* json = dynamic_cast<Ombrix::IJSON*>(object)) return json;
    // Every value of the JSON type code implements IJSON, even when its class
    // identity is not visible across a module boundary.
    return object->GetType() == Ombrix::kTypeJSON ? static_cast<Ombrix::IJSON*>(object) : nullptr;
}

bool ToArgument(lua_State* L, int index, AutoRefPtr<IVariant>& out, bool lendStrings) {
    switch (lua_type(L, index)) {
        case LUA_TNIL: out = nullptr; return true;
        case LUA_TBOOLEAN: out = Variant::Boolean(lua_toboolean(L, index) != 0); return true;
        case LUA_TNUMBER: out = Variant::Number(lua_tonumber(L, index)); return true;
        case LUA_TSTRING: {
            size_t size = 0;
            const char* text = lua_tolstring(L, index, &size);
            out = lendStrings ? Variant::LentString(text, size) : Variant::String(std::string(text, size));
            return true;
        }
        case LUA_TUSERDATA:
            if (auto* data = TestHandle<IDataRef>(L, index, kDataMeta)) {
                out = Variant::DataRef(*data);
                return true;
            }
            if (auto* object = TestHandle<IUserDefinedType>(L, index, kObjectMeta)) {
                out = Variant::Object(*object);
                return true;
            }
            return false;
        default: return false;
    }
}

namespace {

// PushVariant for a value known to be assigned.
void PushAssigned(lua_State* L, const IVariant& value) {
    const uint32_t code = value.GetType();
    switch (Ombrix::ContainerOf(code)) {
        case Ombrix::Container::Single: break;
        case Ombrix::Container::Vector: {
            AutoRefPtr<Ombrix::IVectorGeneric> vector = value.GetVector();
            if (!vector) {
                lua_pushnil(L);
                return;
            }
            const uint64_t size = vector->GetSize();
            lua_createtable(L, static_cast<int>(std::min<uint64_t>(size, 1u << 20)), 0);
            for (uint64_t i = 0; i < size; ++i) {
                AutoRefPtr<IVariant> element = vector->GetElement(i);
                if (element)
                    PushVariant(L, *element);
                else
                    lua_pushnil(L);
                lua_rawseti(L, -2, static_cast<lua_Integer>(i + 1));
            }
            return;
        }
        default: lua_pushnil(L); return;  // maps have no Lua form here
    }
    if (Ombrix::IsCustomTypeCode(code)) {
        PushObject(L, AutoRefPtr<IUserDefinedType>(value.GetUserDefinedPtr()));
        return;
    }
    switch (code) {
        case Ombrix::kTypeBoolean: lua_pushboolean(L, value.GetBoolean()); return;
        case Ombrix::kTypeNumber: PushNumber(L, value.GetNumber()); return;
        case Ombrix::kTypeString: {
            const char* text = value.GetString();
            lua_pushlstring(L, text ? text : "", text ? value.GetStringSize() : 0);
            return;
        }
        case Ombrix::kTypeDataRef: PushData(L, value.GetData()); return;
        default: lua_pushnil(L); return;
    }
}

}  // namespace

void PushVariant(lua_State* L, const IVariant& value) {
    if (const auto* own = dynamic_cast<const Variant*>(&value); own && !own->IsAssigned()) {
        lua_pushnil(L);
        return;
    }
    PushAssigned(L, value);
}

void PushResult(lua_State* L, const Variant& value) {
    if (!value.IsAssigned()) {
        lua_pushnil(L);
        return;
    }
    PushAssigned(L, value);
}

bool DecodeHex(std::string_view text, std::string& out) {
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    if (text.size() % 2) return false;
    out.clear();
    out.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = nibble(text[i]), low = nibble(text[i + 1]);
        if (high < 0 || low < 0) return false;
        out += static_cast<char>(high << 4 | low);
    }
    return true;
}

}  // namespace OmbrixTool
