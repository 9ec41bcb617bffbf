// Ombrix.help: the routine reference, embedded at build time from
// docs/reference.md, at the script's and the prompt's fingertips.
#pragma once

#include <lua.hpp>

namespace Ombrix::Host {
class Engine;
}

namespace OmbrixTool {

// Adds `help` to the table on top of the stack (the Ombrix table).
void OpenHelp(lua_State* L, Ombrix::Host::Engine& engine);

}  // namespace OmbrixTool
