// C++ bodies of Lua functions: an exception becomes a Lua error, and a Lua
// error is raised only once the body's C++ objects are gone (a Lua error
// unwinds with longjmp, which runs no destructor).
#pragma once

#include <lua.hpp>

#include <cstdio>
#include <exception>

namespace OmbrixTool {

// What a body returns when its call parked inside a task: the task yields,
// and ResumeCall (LuaCalls.cpp) finishes the routine when the task runs again.
constexpr int kParked = -2;
int ResumeCall(lua_State* L);

template <int (*Body)(lua_State*)>
int Protected(lua_State* L);
template <int (*Body)(lua_State*)>
int Continued(lua_State* L, int, lua_KContext) {
    return Protected<Body>(L);
}

// Runs Body, which pushes its results and returns their count, or pushes an
// error value and returns -1. Body checks its Lua arguments before it creates
// any C++ object with a destructor.
template <int (*Body)(lua_State*)>
int Protected(lua_State* L) {
    int results = -1;
    char failure[512];
    failure[0] = '\0';
    try {
        results = Body(L);
    } catch (const std::exception& e) {
        std::snprintf(failure, sizeof failure, "%s", e.what());
    } catch (...) {
        std::snprintf(failure, sizeof failure, "unknown C++ exception");
    }
    if (failure[0]) {
        lua_pushstring(L, failure);
        return lua_error(L);
    }
    if (results == kParked) return lua_yieldk(L, 0, 0, &Continued<ResumeCall>);
    if (results < 0) return lua_error(L);
    return results;
}

}  // namespace OmbrixTool
