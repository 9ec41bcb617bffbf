// Memory that values wrapped for Lua hold outside the Lua heap (byte buffers,
// TLS sessions, keys, certificates). The collector only sees the few bytes of
// each userdata, so without this a loop that makes large values runs far
// ahead of collection.
#pragma once

#include <lua.hpp>

#include <cstdint>

#include "Ombrix/Interfaces.h"

namespace OmbrixTool {

// Estimated bytes held outside Lua: a buffer's size, a per-type figure for
// module and JSON values.
uint64_t OutsideBytes(const Ombrix::IDataRef* data);
uint64_t OutsideBytes(const Ombrix::IUserDefinedType* object);

// Counts bytes allocated outside Lua as collector debt, so collection runs
// as it would had Lua allocated them. Does nothing while a script has
// stopped the collector.
void AccountOutside(lua_State* L, uint64_t bytes);

}  // namespace OmbrixTool
