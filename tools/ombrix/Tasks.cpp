#include "Tasks.h"

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <new>
#include <unordered_map>

#include "Interrupt.h"

namespace OmbrixTool {

using Ombrix::Host::CallHandle;
using Ombrix::Host::Engine;

namespace {

constexpr char kTaskMeta[] = "Ombrix.Task";
constexpr char kSchedulerMeta[] = "Ombrix.Scheduler";
const char kSchedulerKey = 0;  // its address keys the scheduler in the registry

struct Task {
    enum class State { Ready, Running, Call, Join, Done };

    lua_State* thread = nullptr;
    int threadRef = LUA_NOREF;
    State state = State::Ready;
    bool started = false;
    CallHandle call = 0;      // State::Call: the parked call
    lua_Integer joining = 0;  // State::Join: the task waited for
    bool failed = false;
    int valueRef = LUA_NOREF;  // Done: a table of the results ("n" counts them), or the error value
    bool joined = false;       // someone took the outcome
    bool dropped = false;      // the handle was collected: forget the task once it is done
};

// Lives in a userdata in the registry; its __gc destroys it.
struct Scheduler {
    explicit Scheduler(Engine& e) : engine(e) {}

    Engine& engine;
    std::map<lua_Integer, Task> tasks;
    std::deque<lua_Integer> ready;
    std::unordered_map<lua_State*, lua_Integer> byThread;
    lua_Integer next = 1;
};

Scheduler* SchedulerOf(lua_State* L) {
    lua_rawgetp(L, LUA_REGISTRYINDEX, &kSchedulerKey);
    auto* scheduler = static_cast<Scheduler*>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    return scheduler;
}

int CollectScheduler(lua_State* L) {
    static_cast<Scheduler*>(lua_touserdata(L, 1))->~Scheduler();
    lua_pushnil(L);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &kSchedulerKey);
    return 0;
}

// The task the running coroutine is, or null.
Task* Current(lua_State* L, Scheduler& scheduler, lua_Integer* id = nullptr) {
    auto it = scheduler.byThread.find(L);
    if (it == scheduler.byThread.end()) return nullptr;
    if (id) *id = it->second;
    return &scheduler.tasks.at(it->second);
}

void Forget(lua_State* L, Scheduler& scheduler, lua_Integer id) {
    auto it = scheduler.tasks.find(id);
    if (it == scheduler.tasks.end()) return;
    luaL_unref(L, LUA_REGISTRYINDEX, it->second.valueRef);
    scheduler.tasks.erase(it);
}

// Runs the task until it ends, parks or yields.
void Resume(lua_State* L, Scheduler& scheduler, lua_Integer id) {
    Task* task = &scheduler.tasks.at(id);
    lua_State* thread = task->thread;
    const int arguments = task->started ? 0 : lua_gettop(thread) - 1;
    task->started = true;
    task->state = Task::State::Running;
    int results = 0;
    int status = LUA_OK;
    {
        const RunningThread running(thread);  // Ctrl-C at the prompt reaches the task
        status = lua_resume(thread, L, arguments, &results);
    }
    task = &scheduler.tasks.at(id);  // the map may have grown meanwhile
    if (status == LUA_YIELD) {
        lua_pop(thread, results);
        // A plain coroutine.yield gives way to the other tasks; a parked call
        // or a join has set the state already.
        if (task->state == Task::State::Running) {
            task->state = Task::State::Ready;
            scheduler.ready.push_back(id);
        }
        return;
    }
    if (status == LUA_OK) {
        luaL_checkstack(thread, 3, "task results");
        lua_createtable(thread, results, 1);
        const int table = lua_gettop(thread);
        for (int i = 1; i <= results; ++i) {
            lua_pushvalue(thread, table - results - 1 + i);
            lua_rawseti(thread, table, i);
        }
        lua_pushinteger(thread, results);
        lua_setfield(thread, table, "n");
    } else {
        task->failed = true;  // the error value is on top
    }
    task->valueRef = luaL_ref(thread, LUA_REGISTRYINDEX);
    task->state = Task::State::Done;
    scheduler.byThread.erase(thread);
    luaL_unref(L, LUA_REGISTRYINDEX, task->threadRef);
    task->threadRef = LUA_NOREF;
    for (auto& [waiting, other] : scheduler.tasks) {
        if (other.state == Task::State::Join && other.joining == id) {
            other.state = Task::State::Ready;
            scheduler.ready.push_back(waiting);
        }
    }
    if (task->dropped) Forget(L, scheduler, id);
}

// Runs tasks, and the engine's loop for their parked calls, until done()
// holds. False when nothing can run any more although done() does not hold.
template <class Done>
bool RunUntil(lua_State* L, Scheduler& scheduler, Done done) {
    while (!done()) {
        if (!scheduler.ready.empty()) {
            const lua_Integer id = scheduler.ready.front();
            scheduler.ready.pop_front();
            auto it = scheduler.tasks.find(id);
            if (it != scheduler.tasks.end() && it->second.state == Task::State::Ready) Resume(L, scheduler, id);
            continue;
        }
        bool waiting = false, woke = false;
        for (auto& [id, task] : scheduler.tasks) {
            if (task.state != Task::State::Call) continue;
            waiting = true;
            if (scheduler.engine.Finished(task.call)) {
                task.state = Task::State::Ready;
                scheduler.ready.push_back(id);
                woke = true;
            }
        }
        if (woke) continue;
        if (!waiting) return false;
        scheduler.engine.RunOnce(-1);
    }
    return true;
}

// Pushes the results of a finished task, or raises its error.
int PushOutcome(lua_State* L, Task& task) {
    task.joined = true;
    lua_rawgeti(L, LUA_REGISTRYINDEX, task.valueRef);
    if (task.failed) return lua_error(L);
    const int table = lua_gettop(L);
    lua_getfield(L, table, "n");
    const int count = static_cast<int>(lua_tointeger(L, -1));
    lua_pop(L, 1);
    luaL_checkstack(L, count, "too many results");
    for (int i = 1; i <= count; ++i) lua_rawgeti(L, table, i);
    return count;
}

lua_Integer CheckTask(lua_State* L, int index) {
    return *static_cast<lua_Integer*>(luaL_checkudata(L, index, kTaskMeta));
}

int Spawn(lua_State* L) {
    luaL_checktype(L, 1, LUA_TFUNCTION);
    Scheduler* scheduler = SchedulerOf(L);
    const int count = lua_gettop(L);
    lua_State* thread = lua_newthread(L);
    const int threadRef = luaL_ref(L, LUA_REGISTRYINDEX);
    luaL_checkstack(thread, count, "too many arguments");
    for (int i = 1; i <= count; ++i) lua_pushvalue(L, i);
    lua_xmove(L, thread, count);

    const lua_Integer id = scheduler->next++;
    Task& task = scheduler->tasks[id];
    task.thread = thread;
    task.threadRef = threadRef;
    scheduler->byThread[thread] = id;
    scheduler->ready.push_back(id);
    *static_cast<lua_Integer*>(lua_newuserdatauv(L, sizeof(lua_Integer), 0)) = id;
    luaL_setmetatable(L, kTaskMeta);
    return 1;
}

int JoinResumed(lua_State* L, int, lua_KContext id) {
    return PushOutcome(L, SchedulerOf(L)->tasks.at(static_cast<lua_Integer>(id)));
}

int Join(lua_State* L) {
    const lua_Integer id = CheckTask(L, 1);
    Scheduler* scheduler = SchedulerOf(L);
    auto it = scheduler->tasks.find(id);
    if (it == scheduler->tasks.end()) return luaL_error(L, "Ombrix.join: unknown task");
    Task& target = it->second;
    lua_Integer self = 0;
    Task* current = Current(L, *scheduler, &self);
    if (current && self == id) return luaL_error(L, "Ombrix.join: a task cannot wait for itself");
    if (target.state == Task::State::Done) return PushOutcome(L, target);
    if (current && lua_isyieldable(L)) {
        current->state = Task::State::Join;
        current->joining = id;
        return lua_yieldk(L, 0, static_cast<lua_KContext>(id), JoinResumed);
    }
    if (!RunUntil(L, *scheduler, [&] { return scheduler->tasks.at(id).state == Task::State::Done; }))
        return luaL_error(L, "Ombrix.join: the task can never finish (tasks wait for each other)");
    return PushOutcome(L, scheduler->tasks.at(id));
}

int TaskToString(lua_State* L) {
    lua_pushfstring(L, "Ombrix.Task %I", CheckTask(L, 1));
    return 1;
}

int CollectTask(lua_State* L) {
    const lua_Integer id = CheckTask(L, 1);
    Scheduler* scheduler = SchedulerOf(L);
    if (!scheduler) return 0;
    auto it = scheduler->tasks.find(id);
    if (it == scheduler->tasks.end()) return 0;
    if (it->second.state == Task::State::Done && it->second.joined)
        Forget(L, *scheduler, id);
    else
        it->second.dropped = true;
    return 0;
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

}  // namespace

void OpenTasks(lua_State* L, Engine& engine) {
    void* memory = lua_newuserdatauv(L, sizeof(Scheduler), 0);
    new (memory) Scheduler(engine);
    luaL_newmetatable(L, kSchedulerMeta);
    lua_pushcfunction(L, CollectScheduler);
    lua_setfield(L, -2, "__gc");
    lua_setmetatable(L, -2);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &kSchedulerKey);

    luaL_newmetatable(L, kTaskMeta);
    lua_pushcfunction(L, TaskToString);
    lua_setfield(L, -2, "__tostring");
    lua_pushcfunction(L, CollectTask);
    lua_setfield(L, -2, "__gc");
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
    if (Task* task = Current(L, *SchedulerOf(L))) {
        task->state = Task::State::Call;
        task->call = call;
    }
}

CallHandle TakeParkedCall(lua_State* L) {
    Task* task = Current(L, *SchedulerOf(L));
    if (!task) return 0;
    const CallHandle call = task->call;
    task->call = 0;
    return call;
}

int FinishTasks(lua_State* L) {
    Scheduler* scheduler = SchedulerOf(L);
    if (!scheduler) return EXIT_SUCCESS;
    RunUntil(L, *scheduler, [&] {
        for (const auto& [id, task] : scheduler->tasks)
            if (task.state != Task::State::Done) return false;
        return true;
    });
    int status = EXIT_SUCCESS;
    for (const auto& [id, task] : scheduler->tasks) {
        if (task.state != Task::State::Done) {
            std::fprintf(stderr, "ombrix: task %lld never finished (tasks wait for each other)\n",
                         static_cast<long long>(id));
            status = EXIT_FAILURE;
        } else if (task.failed && !task.joined) {
            lua_rawgeti(L, LUA_REGISTRYINDEX, task.valueRef);
            const char* message = luaL_tolstring(L, -1, nullptr);
            std::fprintf(stderr, "ombrix: task %lld failed: %s\n", static_cast<long long>(id), message);
            lua_pop(L, 2);
            status = EXIT_FAILURE;
        }
    }
    return status;
}

}  // namespace OmbrixTool
