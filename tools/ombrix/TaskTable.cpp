#include "TaskTable.h"

#include "Interrupt.h"

#include <new>

namespace OmbrixTool::TaskTable {

namespace {

constexpr char kSchedulerMeta[] = "Ombrix.Scheduler";
const char kSchedulerKey = 0;  // its address keys the scheduler in the registry

int CollectScheduler(lua_State* L) {
    static_cast<Scheduler*>(lua_touserdata(L, 1))->~Scheduler();
    lua_pushnil(L);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &kSchedulerKey);
    return 0;
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

}  // namespace

void InstallScheduler(lua_State* L, Engine& engine) {
    void* memory = lua_newuserdatauv(L, sizeof(Scheduler), 0);
    new (memory) Scheduler(engine);
    luaL_newmetatable(L, kSchedulerMeta);
    lua_pushcfunction(L, CollectScheduler);
    lua_setfield(L, -2, "__gc");
    lua_setmetatable(L, -2);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &kSchedulerKey);
}

Scheduler* SchedulerOf(lua_State* L) {
    lua_rawgetp(L, LUA_REGISTRYINDEX, &kSchedulerKey);
    auto* scheduler = static_cast<Scheduler*>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    return scheduler;
}

Task* Find(Scheduler& scheduler, lua_Integer id) {
    auto it = scheduler.tasks.find(id);
    return it == scheduler.tasks.end() ? nullptr : &it->second;
}

Task* Current(lua_State* L, Scheduler& scheduler, lua_Integer* id) {
    auto it = scheduler.byThread.find(L);
    if (it == scheduler.byThread.end()) return nullptr;
    if (id) *id = it->second;
    return Find(scheduler, it->second);
}

void ForgetIfUnwanted(lua_State* L, Scheduler& scheduler, lua_Integer id) {
    auto it = scheduler.tasks.find(id);
    if (it == scheduler.tasks.end()) return;
    const Task& task = it->second;
    if (!task.dropped || task.state != Task::State::Done || task.waiters > 0) return;
    if (task.failed && !task.joined && !task.reported) return;
    luaL_unref(L, LUA_REGISTRYINDEX, task.valueRef);
    scheduler.tasks.erase(it);
}


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
        {
            const RunningThread running(thread);  // Ctrl-C at the prompt reaches the task
            status = lua_resume(thread, L, arguments, &results);
        }
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


}  // namespace OmbrixTool::TaskTable
