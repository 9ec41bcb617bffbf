// How host values look from Lua: the `Data` userdata over IDataRef, one
// userdata kind for every custom value (JSON and module types), and the
// conversions between Lua values and routine arguments and results.
#pragma once

#include <lua.hpp>

#include <string>
#include <string_view>

#include "Ombrix/Interfaces.h"

namespace Ombrix::Host {
class Variant;
}

namespace OmbrixTool {

using Ombrix::AutoRefPtr;

// Registers the metatables and the global `Data` (callable, with `fromhex`
// and `file`).
void OpenValues(lua_State* L);

// lua_close for a state with these values: finalizers that lua_close runs
// may still wrap values, whose userdata Lua then frees without running
// their __gc; their references are released here once the state is gone.
void CloseState(lua_State* L);

// Pushes a Data userdata sharing the buffer, or nil when it is null.
void PushData(lua_State* L, AutoRefPtr<Ombrix::IDataRef> data);
// The buffer of a Data userdata at index, or null when the value is not one.
Ombrix::IDataRef* ToData(lua_State* L, int index);

// Pushes a userdata sharing the custom value, or nil when it is null.
void PushObject(lua_State* L, AutoRefPtr<Ombrix::IUserDefinedType> object);
// The custom value of an object userdata at index, or null.
Ombrix::IUserDefinedType* ToObject(lua_State* L, int index);
// The JSON interface of a custom value, or null when it is not a JSON value.
Ombrix::IJSON* AsJSON(Ombrix::IUserDefinedType* object);

// A routine argument from the Lua value at index: string -> STRING,
// number -> NUMBER, boolean -> BOOLEAN, Data -> DATAREF, object -> its custom
// type; nil gives a null argument. False for values that have no host form.
// With lendStrings a STRING uses the Lua string's bytes in place, so the value
// must not outlive that string's slot on the Lua stack.
bool ToArgument(lua_State* L, int index, AutoRefPtr<Ombrix::IVariant>& out, bool lendStrings = false);

// Pushes one Lua value for a host value: the reverse of ToArgument, VECTORs
// as arrays; null buffers and objects, and unassigned values, become nil.
void PushVariant(lua_State* L, const Ombrix::IVariant& value);
// PushVariant for the engine's own result value (no run-time type check).
void PushResult(lua_State* L, const Ombrix::Host::Variant& value);

// Bytes of hexadecimal text; false when the text is not an even number of hex digits.
bool DecodeHex(std::string_view text, std::string& out);

}  // namespace OmbrixTool
