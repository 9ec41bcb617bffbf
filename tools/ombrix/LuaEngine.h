// The engine as Lua sees it: one global table per namespace whose functions
// choose an overload by the types of their arguments and run it, errors as
// Lua errors, and the `Ombrix` table of engine services (serialize,
// deserialize, new, and what is loaded).
#pragma once

#include <lua.hpp>

#include <string>

#include "Engine.h"

namespace OmbrixTool {

// Installs the namespace tables and `Ombrix`. The engine must outlive the
// Lua state's use of them (close the state first).
void OpenEngine(lua_State* L, Ombrix::Host::Engine& engine, const std::string& executable);

}  // namespace OmbrixTool
