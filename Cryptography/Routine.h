// Declares an exported routine entry point bound to its implementation through
// the SDK adapters. The OpenSSL error queue is cleared around every call, so
// nothing a routine leaves queued reaches the next one.
#pragma once

#include <openssl/crypto.h>
#include <openssl/err.h>

#include "Errors.h"
#include "Ombrix/Routine.h"

#define CRYPTOGRAPHY_EXPORT extern "C" __attribute__((visibility("default")))

namespace Cryptography {

// Argument strings may hold keys and passwords: they are cleansed after every call.
struct Cleanse {
    static void Wipe(void* bytes, size_t size) noexcept { OPENSSL_cleanse(bytes, size); }
};

// Empties the thread's error queue. Looking first is much cheaper than
// clearing all of its slots, and the queue is almost always empty already.
inline void ClearErrorQueue() noexcept {
    if (ERR_peek_error() != 0) ERR_clear_error();
}

template <auto Impl>
uint32_t RunRoutine(uint32_t count, Ombrix::IVariant** arguments, Ombrix::IVariant* result, void* opaque,
                    Ombrix::IContext* context) noexcept {
    ClearErrorQueue();
    const uint32_t status = Ombrix::Invoke<Impl, kModuleName, Cleanse>(count, arguments, result, opaque, context);
    ClearErrorQueue();
    return status;
}

}  // namespace Cryptography

#define CRYPTOGRAPHY_ROUTINE(EntryName, Impl)                                                            \
    CRYPTOGRAPHY_EXPORT uint32_t ombrix_module_##EntryName(uint32_t count, Ombrix::IVariant** arguments, \
                                                           Ombrix::IVariant* result, void* opaque,       \
                                                           Ombrix::IContext* context) {                  \
        return Cryptography::RunRoutine<Impl>(count, arguments, result, opaque, context);                \
    }

// Exports the TYPE factory of a CustomType<T>.
#define CRYPTOGRAPHY_TYPE_FACTORY(EntryName, T)                                                           \
    CRYPTOGRAPHY_EXPORT Ombrix::IUserDefinedType* ombrix_module_##EntryName(uint32_t typeId,              \
                                                                            Ombrix::IContext* context) { \
        return T::Factory(typeId, context);                                                               \
    }
