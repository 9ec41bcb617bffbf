// Plain Lua C functions doing the work of two module routines that need no
// OpenSSL, the floor bench/compare.sh holds the engine's per-call cost
// against: `lookup3(s)` is Cryptography.Lookup3Hash (the same hash code,
// decimal text result) and `fipsfailed()` is Cryptography.FIPSSelfTestFailed
// (false while the process has seen no FIPS self-test failure).
#include <lua.hpp>

#include <string>

#include "Lookup3.h"

namespace {

int Lookup3(lua_State* L) {
    size_t size = 0;
    const char* text = luaL_checklstring(L, 1, &size);
    // The text the routine returns, made the way the routine makes it.
    const std::string digits = std::to_string(Cryptography::Lookup3Hash(text, size));
    lua_pushlstring(L, digits.data(), digits.size());
    return 1;
}

int FipsFailed(lua_State* L) {
    lua_pushboolean(L, 0);
    return 1;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_ombrix_bench_baseline(lua_State* L) {
    static const luaL_Reg functions[] = {{"lookup3", Lookup3}, {"fipsfailed", FipsFailed}, {nullptr, nullptr}};
    luaL_newlib(L, functions);
    return 1;
}
