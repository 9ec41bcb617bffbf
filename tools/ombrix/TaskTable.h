// The task table behind Ombrix.spawn and Ombrix.join (Tasks.cpp): tasks as
// Lua threads the scheduler resumes, the calls they wait for, and the loop
// that runs them with the engine's event loop.
//
// Scripts run Lua code in places these functions call: in lua_resume, in any
// allocation (a collection step runs finalizers), in luaL_tolstring. Such
// code may spawn, join, drop, close or resume tasks by hand, or collect the
// handles. So no pointer, reference or iterator into the task table is held
// across such a call (tasks are named by id and looked up again), a lookup
// that finds nothing is a Lua error, never an exception, and every C++
// exception is caught before it can cross a Lua frame.
#pragma once

#include <lua.hpp>

#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <unordered_map>

#include "Engine.h"

namespace OmbrixTool::TaskTable {

using Ombrix::Host::CallHandle;
using Ombrix::Host::Engine;

struct Task {
    enum class State { Ready, Running, Call, Join, Done };

    lua_State* thread = nullptr;
    int threadRef = LUA_NOREF;
    State state = State::Ready;
    bool started = false;
    CallHandle call = 0;      // State::Call: the parked call
    lua_Integer joining = 0;  // State::Join: the task waited for
    int waiters = 0;          // tasks waiting in Ombrix.join for this one
    bool failed = false;
    int valueRef = LUA_NOREF;  // Done: a table of the results ("n" counts them), or the error value
    bool joined = false;       // someone took the outcome
    bool reported = false;     // FinishTasks has reported it
    bool dropped = false;      // the handle was collected: forget the task once nobody needs it
};

// Lives in a userdata in the registry; its __gc destroys it. Finalizers that
// lua_close runs later still reach Ombrix.spawn and Ombrix.join, which then
// raise an error.
struct Scheduler {
    explicit Scheduler(Engine& e) : engine(e) {}

    Engine& engine;
    std::map<lua_Integer, Task> tasks;
    std::deque<lua_Integer> ready;
    std::unordered_map<lua_State*, lua_Integer> byThread;
    lua_Integer next = 1;
};


// Makes the scheduler (a userdata in the registry, destroyed by its __gc).
void InstallScheduler(lua_State* L, Engine& engine);
// The scheduler, or null once its finalizer has run (while the state closes).
Scheduler* SchedulerOf(lua_State* L);
Task* Find(Scheduler& scheduler, lua_Integer id);
// The task the running coroutine is, or null.
Task* Current(lua_State* L, Scheduler& scheduler, lua_Integer* id = nullptr);
// Forgets a finished task whose handle is gone once nobody can want its
// outcome: nobody waits for it, and a failure was taken or reported.
void ForgetIfUnwanted(lua_State* L, Scheduler& scheduler, lua_Integer id);
// Runs the task until it ends, parks or yields. May throw std::bad_alloc
// (the ready queue); never while Lua is on the stack above.
void Resume(lua_State* L, Scheduler& scheduler, lua_Integer id);
// Pushes the results of a finished task, or raises its error.
int PushOutcome(lua_State* L, Scheduler& scheduler, lua_Integer id);

// Runs tasks, and the engine's loop for their parked calls, until done()
// holds. False when nothing can run any more although done() does not hold.
template <class Done>
bool RunUntil(lua_State* L, Scheduler& scheduler, Done done) {
    while (!done()) {
        if (!scheduler.ready.empty()) {
            const lua_Integer id = scheduler.ready.front();
            scheduler.ready.pop_front();
            if (const Task* task = Find(scheduler, id); task && task->state == Task::State::Ready)
                Resume(L, scheduler, id);
            continue;
        }
        bool waiting = false, woke = false;
        for (auto& [id, task] : scheduler.tasks) {
            if (task.state != Task::State::Call) continue;
            waiting = true;
            if (!task.call || scheduler.engine.Finished(task.call)) {
                task.state = Task::State::Ready;
                scheduler.ready.push_back(id);
                woke = true;
            }
        }
        if (woke) continue;
        if (!waiting) return false;
        // A task whose call the engine no longer holds must not make the
        // loop spin: it runs, and its continuation reports what is missing.
        if (scheduler.engine.RunOnce(-1) == 0 && scheduler.engine.ParkedCalls() == 0) {
            for (auto& [id, task] : scheduler.tasks) {
                if (task.state != Task::State::Call) continue;
                task.state = Task::State::Ready;
                scheduler.ready.push_back(id);
            }
        }
    }
    return true;
}

// RunUntil that reports an exception as its text in `failure` (empty when none).
template <class Done>
bool RunUntilCaught(lua_State* L, Scheduler& scheduler, Done done, char (&failure)[256]) {
    failure[0] = '\0';
    try {
        return RunUntil(L, scheduler, done);
    } catch (const std::exception& e) {
        std::snprintf(failure, sizeof failure, "%s", e.what());
    } catch (...) {
        std::snprintf(failure, sizeof failure, "unknown C++ exception");
    }
    return false;
}

}  // namespace OmbrixTool::TaskTable
