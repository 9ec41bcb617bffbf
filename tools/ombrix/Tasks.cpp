#include "Tasks.h"

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <map>
#include <new>
#include <unordered_map>

namespace OmbrixTool {

using Ombrix::Host::CallHandle;
using Ombrix::Host::Engine;

// Scripts run Lua code in places this file calls: in lua_resume, in any
// allocation (a collection step runs finalizers), in luaL_tolstring. Such
// code may spawn, join, drop, close or resume tasks by hand, or collect the
// handles. So no pointer, reference or iterator into the task table is held
// across such a call (tasks are named by id and looked up again), a lookup
// that finds nothing is a Lua error, never an exception, and every C++
// exception is caught before it can cross a Lua frame.
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

Task* Find(Scheduler& scheduler, lua_Integer id) {
    auto it = scheduler.tasks.find(id);
    return it == scheduler.tasks.end() ? nullptr : &it->second;
}

// The task the running coroutine is, or null.
Task* Current(lua_State* L, Scheduler& scheduler, lua_Integer* id = nullptr) {
    auto it = scheduler.byThread.find(L);
    if (it == scheduler.byThread.end()) return nullptr;
    if (id) *id = it->second;
    return Find(scheduler, it->second);
}

// Forgets a finished task whose handle is gone once nobody can want its
// outcome: nobody waits for it, and a failure was taken or reported.
void ForgetIfUnwanted(lua_State* L, Scheduler& scheduler, lua_Integer id) {
    auto it = scheduler.tasks.find(id);
    if (it == scheduler.tasks.end()) return;
    const Task& task = it->second;
    if (!task.dropped || task.state != Task::State::Done || task.waiters > 0) return;
    if (task.failed && !task.joined && !task.reported) return;
    luaL_unref(L, LUA_REGISTRYINDEX, task.valueRef);
    scheduler.tasks.erase(it);
}

// The outcome of a call that nobody will take (its task died meanwhile).
void DropCall(Engine& engine, CallHandle call) noexcept {
    try {
        if (call && engine.Finished(call)) engine.TakeOutcome(call);
    } catch (...) {
    }
}

// Whether lua_resume may run the thread: a task not started yet, or one that
// yielded. A task resumed by hand (through the raw coroutine.resume) may be
// running now, or have run to its end.
bool Resumable(lua_State* thread, bool started) {
    const int status = lua_status(thread);
    if (status == LUA_YIELD) return true;
    lua_Debug frame;
    return !started && status == LUA_OK && !lua_getstack(thread, 0, &frame) && lua_gettop(thread) > 0;
}

bool RunningByHand(lua_State* thread) {
    lua_Debug frame;
    return lua_status(thread) == LUA_OK && lua_getstack(thread, 0, &frame);
}

// Runs the task until it ends, parks or yields. May throw std::bad_alloc
// (the ready queue); never while Lua is on the stack above.
void Resume(lua_State* L, Scheduler& scheduler, lua_Integer id) {
    Task* task = Find(scheduler, id);
    if (!task) return;
    lua_State* thread = task->thread;
    int status;
    int results = 0;
    bool dead = false;
    if (Resumable(thread, task->started)) {
        const int arguments = task->started ? 0 : lua_gettop(thread) - 1;
        task->started = true;
        task->state = Task::State::Running;
        status = lua_resume(thread, L, arguments, &results);
        task = Find(scheduler, id);
        if (!task) return;
    } else if (RunningByHand(thread)) {
        task->state = Task::State::Running;  // no longer the scheduler's to run
        return;
    } else {
        dead = true;  // closed, or run to its end by hand
        status = LUA_ERRRUN;
    }
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
    const bool failed = status != LUA_OK;
    const CallHandle abandoned = task->call;  // set when the task died while its call was parked
    task->call = 0;
    // The outcome is built on L, in a protected call: allocating runs Lua.
    if (failed) results = 1;
    luaL_checkstack(L, results + 2, "task results");
    if (dead)
        lua_pushliteral(L, "cannot resume dead coroutine");
    else
        lua_xmove(thread, L, results);
    if (!failed) {
        lua_createtable(L, results, 1);
        lua_insert(L, -results - 1);
        for (int i = results; i >= 1; --i) lua_rawseti(L, -i - 1, i);
        lua_pushinteger(L, results);
        lua_setfield(L, -2, "n");
    }
    task = Find(scheduler, id);
    if (!task) {
        lua_pop(L, 1);
        return;
    }
    task->failed = failed;
    task->valueRef = luaL_ref(L, LUA_REGISTRYINDEX);
    task->state = Task::State::Done;
    scheduler.byThread.erase(thread);
    luaL_unref(L, LUA_REGISTRYINDEX, task->threadRef);
    task->threadRef = LUA_NOREF;
    DropCall(scheduler.engine, abandoned);
    for (auto& [waiting, other] : scheduler.tasks) {
        if (other.state == Task::State::Join && other.joining == id) {
            other.state = Task::State::Ready;
            scheduler.ready.push_back(waiting);
        }
    }
    ForgetIfUnwanted(L, scheduler, id);
}

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

// Pushes the results of a finished task, or raises its error.
int PushOutcome(lua_State* L, Scheduler& scheduler, lua_Integer id) {
    Task* task = Find(scheduler, id);
    if (!task || task->state != Task::State::Done) return luaL_error(L, "Ombrix.join: unknown task");
    task->joined = true;
    const bool failed = task->failed;
    lua_rawgeti(L, LUA_REGISTRYINDEX, task->valueRef);
    ForgetIfUnwanted(L, scheduler, id);
    if (failed) return lua_error(L);
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
