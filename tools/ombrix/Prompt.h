// The interactive prompt of `ombrix`: line editing and history (libedit),
// each line run as `return LINE` when that compiles and as a statement
// otherwise (more lines are asked for while a statement is incomplete), the
// values printed as the stock Lua prompt prints them, with Data buffers shown
// as Data.fromhex(...) and JSON as its text. Errors are shown the way the
// command shows uncaught ones, and the session goes on. The history lives in
// memory and in $HOME/.ombrix_history when HOME is set.
#pragma once

#include <lua.hpp>

#include <string>

namespace OmbrixTool {

// Whether the prompt runs: asked for with -i, or nothing to run and standard
// input a terminal.
bool WantsPrompt(bool interactive, bool hasChunk);

// Reads and runs lines until end of input (Ctrl-D); returns the exit status, 0.
// messageHandler decorates errors (traceback) as for scripts.
int RunPrompt(lua_State* L, lua_CFunction messageHandler, const std::string& banner);

}  // namespace OmbrixTool
