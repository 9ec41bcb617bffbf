// Tasks: Lua coroutines the engine's event loop drives. Ombrix.spawn starts
// one, Ombrix.join waits for it, Ombrix.all runs several. A module call that
// parks on an event inside a task (a certificate fetch, Net.Wait) yields the
// task, so other tasks run while it waits. Outside a task calls run as before.
// Only the scheduler resumes a task: coroutine.resume refuses a task's
// coroutine. A task closed by hand (coroutine.close) fails with "cannot
// resume dead coroutine" once what it waited for is there.
#pragma once

#include <lua.hpp>

#include "Engine.h"

namespace OmbrixTool {

// Installs Ombrix.spawn, Ombrix.join and Ombrix.all; the `Ombrix` table must exist.
void OpenTasks(lua_State* L, Ombrix::Host::Engine& engine);

// True when L is a running task that can yield here.
bool InTask(lua_State* L);
// Records that the running task waits for a parked call; the caller yields next.
void ParkTask(lua_State* L, Ombrix::Host::CallHandle call);
// The call the running task waits for (0 when there is none).
Ombrix::Host::CallHandle ParkedCall(lua_State* L);
// The same, which the task then no longer waits for.
Ombrix::Host::CallHandle TakeParkedCall(lua_State* L);

// At the end of the script: runs every task that has not finished, and reports
// on stderr the tasks that failed with nobody joining them. EXIT_FAILURE then
// (or when tasks wait for each other forever, or reporting raised an error),
// else EXIT_SUCCESS. Raises no error itself.
int FinishTasks(lua_State* L);

}  // namespace OmbrixTool
