// Routine calls from Lua: the overload choice with Lua's conversions, the
// call (parked inside a task, waited for outside one), and its outcome as
// Lua results or a Lua error.
#pragma once

#include <lua.hpp>

#include <string>

#include "Engine.h"

namespace OmbrixTool {

// Registers the metatable of error objects.
void OpenCalls(lua_State* L);

// Pushes the Lua function that calls the routine `name` of the engine, which
// must outlive the Lua state's use of it.
void PushRoutine(lua_State* L, Ombrix::Host::Engine& engine, const std::string& name);

// How a Lua value fits a parameter beyond its own type: a string fits a
// DATAREF (it is lent as a buffer), and nil fits a module object (a variable
// of that type that holds no object).
Ombrix::Host::Engine::Fit LuaFit(const Ombrix::IVariant* argument, uint32_t parameterCode);

// The message of an argument status: "invalid parameter 2 in function 'Cryptography.Hash'".
std::string StatusMessage(uint32_t status, const std::string& routine);

}  // namespace OmbrixTool
