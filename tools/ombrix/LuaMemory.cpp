#include "LuaMemory.h"

#include <climits>
#include <cstring>

namespace OmbrixTool {

namespace {

// Below this much outside memory the userdata's own size is a fair account.
constexpr uint64_t kSmallest = 1024;

struct TypeEstimate {
    const char* name;
    uint64_t bytes;
};
// Measured orders of magnitude: a TLS session made with the default CA
// locations holds its trust store (about 0.8 MB with a distribution bundle);
// a key or certificate a few KB of OpenSSL structures.
constexpr TypeEstimate kEstimates[] = {
    {"Cryptography.SSL", 512 * 1024},
    {"Cryptography.X509", 8 * 1024},
    {"Cryptography.Key", 4 * 1024},
};

}  // namespace

uint64_t OutsideBytes(const Ombrix::IDataRef* data) { return data ? data->GetSize() : 0; }

uint64_t OutsideBytes(const Ombrix::IUserDefinedType* object) {
    const char* name = object ? object->GetName() : nullptr;
    if (!name) return 0;
    for (const TypeEstimate& estimate : kEstimates)
        if (std::strcmp(name, estimate.name) == 0) return estimate.bytes;
    return kSmallest;
}

void AccountOutside(lua_State* L, uint64_t bytes) {
    if (bytes < kSmallest || !lua_gc(L, LUA_GCISRUNNING)) return;
    // LUA_GCSTEP with n adds n KB of debt and runs a step when the debt is due.
    const uint64_t kilobytes = bytes / 1024;
    lua_gc(L, LUA_GCSTEP, static_cast<int>(kilobytes > INT_MAX ? INT_MAX : kilobytes));
}

}  // namespace OmbrixTool
