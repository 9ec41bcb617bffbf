#include "Tasks.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "TaskTable.h"

namespace OmbrixTool {

using namespace TaskTable;

namespace {

constexpr char kTaskMeta[] = "Ombrix.Task";

lua_Integer CheckTask(lua_State* L, int index) {
    return *static_cast<lua_Integer*>(luaL_checkudata(L, index, kTaskMeta));
}

Scheduler& CheckScheduler(lua_State* L, const char* function) {
    Scheduler* scheduler = SchedulerOf(L);
    if (!scheduler) luaL_error(L, "%s: tasks have ended (the Lua state is closing)", function);
    return *scheduler;
}

int Spawn(lua_State* L) {
    luaL_checktype(L, 1, LUA_TFUNCTION);
    CheckScheduler(L, "Ombrix.spawn");
    const int count = lua_gettop(L);
    lua_State* thread = lua_newthread(L);
    luaL_checkstack(thread, count, "too many arguments");
    for (int i = 1; i <= count; ++i) lua_pushvalue(L, i);
    lua_xmove(L, thread, count);
    auto* handle = static_cast<lua_Integer*>(lua_newuserdatauv(L, sizeof(lua_Integer), 0));
    *handle = 0;
    luaL_setmetatable(L, kTaskMeta);
    // Making the thread and the handle may have run finalizers; from here
    // on no Lua runs.
    Scheduler& scheduler = CheckScheduler(L, "Ombrix.spawn");
    lua_pushvalue(L, -2);
    const int threadRef = luaL_ref(L, LUA_REGISTRYINDEX);
    const lua_Integer id = scheduler.next++;
    bool registered = false;
    try {
        Task& task = scheduler.tasks[id];
        task.thread = thread;
        task.threadRef = threadRef;
        scheduler.byThread[thread] = id;
        scheduler.ready.push_back(id);
        registered = true;
    } catch (...) {
        scheduler.tasks.erase(id);
        scheduler.byThread.erase(thread);
    }
    if (!registered) {
        luaL_unref(L, LUA_REGISTRYINDEX, threadRef);
        return luaL_error(L, "Ombrix.spawn: not enough memory");
    }
    *handle = id;
    return 1;
}

int JoinResumed(lua_State* L, int, lua_KContext context) {
    const auto id = static_cast<lua_Integer>(context);
    Scheduler& scheduler = CheckScheduler(L, "Ombrix.join");
    Task* target = Find(scheduler, id);
    // Resumed by hand before the task finished: go on waiting.
    if (target && target->state != Task::State::Done) return lua_yieldk(L, 0, context, JoinResumed);
    if (target) --target->waiters;
    return PushOutcome(L, scheduler, id);
}

int Join(lua_State* L) {
    const lua_Integer id = CheckTask(L, 1);
    Scheduler& scheduler = CheckScheduler(L, "Ombrix.join");
    Task* target = Find(scheduler, id);
    if (!target) return luaL_error(L, "Ombrix.join: unknown task");
    lua_Integer self = 0;
    Task* current = Current(L, scheduler, &self);
    if (current && self == id) return luaL_error(L, "Ombrix.join: a task cannot wait for itself");
    if (target->state == Task::State::Done) return PushOutcome(L, scheduler, id);
    if (current && lua_isyieldable(L)) {
        current->state = Task::State::Join;
        current->joining = id;
        ++target->waiters;
        return lua_yieldk(L, 0, static_cast<lua_KContext>(id), JoinResumed);
    }
    char failure[256];
    const bool finished = RunUntilCaught(
        L, scheduler,
        [&] {
            const Task* task = Find(scheduler, id);
            return !task || task->state == Task::State::Done;
        },
        failure);
    if (failure[0]) return luaL_error(L, "Ombrix.join: %s", failure);
    if (!finished) return luaL_error(L, "Ombrix.join: the task can never finish (tasks wait for each other)");
    return PushOutcome(L, scheduler, id);
}

int TaskToString(lua_State* L) {
    lua_pushfstring(L, "Ombrix.Task %I", CheckTask(L, 1));
    return 1;
}

int CollectTask(lua_State* L) {
    const lua_Integer id = CheckTask(L, 1);
    Scheduler* scheduler = SchedulerOf(L);
    if (!scheduler) return 0;
    Task* task = Find(*scheduler, id);
    if (!task) return 0;
    task->dropped = true;
    ForgetIfUnwanted(L, *scheduler, id);
    return 0;
}

// coroutine.resume, refusing the coroutines of tasks: the scheduler resumes
// them when what they wait for is there.
int ResumeByHand(lua_State* L) {
    if (lua_State* thread = lua_tothread(L, 1)) {
        Scheduler* scheduler = SchedulerOf(L);
        if (scheduler && scheduler->byThread.count(thread))
            return luaL_error(L, "coroutine.resume: task %I is run by Ombrix, not by hand (Ombrix.join waits for it)",
                              scheduler->byThread.find(thread)->second);
    }
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    lua_call(L, lua_gettop(L) - 1, LUA_MULTRET);
    return lua_gettop(L);
}

// Ombrix.all({fn1, fn2, ...}): runs each function as a task and returns the
// first result of each, in order. When some fail, the others still run to
// their end; then the first failure in list order is raised.
constexpr char kAll[] = R"lua(
local spawn, join = ...
return function(functions)
  local handles = {}
  for i, f in ipairs(functions) do handles[i] = spawn(f) end
  local results, failure = {}, nil
  for i, handle in ipairs(handles) do
    local ok, value = pcall(join, handle)
    if ok then results[i] = value elseif not failure then failure = {value} end
  end
  if failure then error(failure[1], 0) end
  return table.unpack(results, 1, #handles)
end
)lua";

// The body of FinishTasks, in a protected call: a failure's __tostring is
// script code. Reporting runs it, and it may spawn, join or drop tasks; so
// the tasks are walked by id and the walk starts over while it reports.
int FinishBody(lua_State* L) {
    int status = EXIT_SUCCESS;
    for (bool reported = true; reported;) {
        reported = false;
        Scheduler* scheduler = SchedulerOf(L);
        if (!scheduler) break;
        char failure[256];
        RunUntilCaught(
            L, *scheduler,
            [&] {
                for (const auto& [id, task] : scheduler->tasks)
                    if (task.state != Task::State::Done) return false;
                return true;
            },
            failure);
        if (failure[0]) return luaL_error(L, "%s", failure);
        for (lua_Integer id = 0;;) {
            auto it = scheduler->tasks.upper_bound(id);
            if (it == scheduler->tasks.end()) break;
            id = it->first;
            Task& task = it->second;
            if (task.reported || (task.state == Task::State::Done && (!task.failed || task.joined))) continue;
            task.reported = true;
            status = EXIT_FAILURE;
            if (task.state != Task::State::Done) {
                std::fprintf(stderr, "ombrix: task %lld never finished (tasks wait for each other)\n",
                             static_cast<long long>(id));
                continue;
            }
            reported = true;
            lua_rawgeti(L, LUA_REGISTRYINDEX, task.valueRef);
            const char* message = luaL_tolstring(L, -1, nullptr);
            std::fprintf(stderr, "ombrix: task %lld failed: %s\n", static_cast<long long>(id), message);
            lua_pop(L, 2);
            ForgetIfUnwanted(L, *scheduler, id);
        }
    }
    lua_pushinteger(L, status);
    return 1;
}


}  // namespace


void OpenTasks(lua_State* L, Engine& engine) {
    InstallScheduler(L, engine);

    luaL_newmetatable(L, kTaskMeta);
    lua_pushcfunction(L, TaskToString);
    lua_setfield(L, -2, "__tostring");
    lua_pushcfunction(L, CollectTask);
    lua_setfield(L, -2, "__gc");
    lua_pop(L, 1);

    if (lua_getglobal(L, "coroutine") == LUA_TTABLE) {
        lua_getfield(L, -1, "resume");
        lua_pushcclosure(L, ResumeByHand, 1);
        lua_setfield(L, -2, "resume");
    }
    lua_pop(L, 1);

    lua_getglobal(L, "Ombrix");
    lua_pushcfunction(L, Spawn);
    lua_setfield(L, -2, "spawn");
    lua_pushcfunction(L, Join);
    lua_setfield(L, -2, "join");
    if (luaL_loadbuffer(L, kAll, sizeof kAll - 1, "=Ombrix.all") == LUA_OK) {
        lua_pushcfunction(L, Spawn);
        lua_pushcfunction(L, Join);
        lua_call(L, 2, 1);
        lua_setfield(L, -2, "all");
    } else {
        lua_pop(L, 1);
    }
    lua_pop(L, 1);
}

bool InTask(lua_State* L) {
    if (lua_pushthread(L)) {  // the main thread is never a task
        lua_pop(L, 1);
        return false;
    }
    lua_pop(L, 1);
    Scheduler* scheduler = SchedulerOf(L);
    return scheduler && Current(L, *scheduler) && lua_isyieldable(L);
}

void ParkTask(lua_State* L, CallHandle call) {
    Scheduler* scheduler = SchedulerOf(L);
    if (Task* task = scheduler ? Current(L, *scheduler) : nullptr) {
        task->state = Task::State::Call;
        task->call = call;
    }
}

CallHandle ParkedCall(lua_State* L) {
    Scheduler* scheduler = SchedulerOf(L);
    const Task* task = scheduler ? Current(L, *scheduler) : nullptr;
    return task ? task->call : 0;
}

CallHandle TakeParkedCall(lua_State* L) {
    Scheduler* scheduler = SchedulerOf(L);
    Task* task = scheduler ? Current(L, *scheduler) : nullptr;
    if (!task) return 0;
    const CallHandle call = task->call;
    task->call = 0;
    return call;
}

int FinishTasks(lua_State* L) {
    lua_pushcfunction(L, FinishBody);
    if (lua_pcall(L, 0, 1, 0) != LUA_OK) {
        const char* message = lua_tostring(L, -1);
        std::fprintf(stderr, "ombrix: while finishing the tasks: %s\n", message ? message : "(error object is not a string)");
        lua_pop(L, 1);
        return EXIT_FAILURE;
    }
    const int status = static_cast<int>(lua_tointeger(L, -1));
    lua_pop(L, 1);
    return status;
}

}  // namespace OmbrixTool