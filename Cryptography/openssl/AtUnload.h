// Frees module-wide OpenSSL objects (shared stores, contexts, fetched
// implementations) when the module is unloaded. At process exit OpenSSL's own
// exit handler may have run first; the objects are then left alone, since
// freeing them would touch state OpenSSL has already released.
#pragma once

#include <openssl/crypto.h>

namespace OpenSSL {

// A static of this type runs Cleanup from its destructor when Held says there
// is something to free and OpenSSL has not been cleaned up (asked only then:
// OPENSSL_init_crypto answers 0 after the clean-up, and queues an error).
template <bool (*Held)(), void (*Cleanup)()>
struct AtUnload {
    AtUnload() = default;
    AtUnload(const AtUnload&) = delete;
    AtUnload& operator=(const AtUnload&) = delete;
    ~AtUnload() {
        if (Held() && OPENSSL_init_crypto(0, nullptr)) Cleanup();
    }
};

}  // namespace OpenSSL
