#include "Fetched.h"

#include <openssl/err.h>
#include <openssl/objects.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>

#include "openssl/AtUnload.h"

namespace Cryptography {

namespace {

enum class Kind : uint8_t { kDigest, kCipher, kMac };

// One fetch, immutable once published. Nodes form a list that only grows
// (newest first) until the module is unloaded, so readers walk it without a
// lock and a node a call still uses is never freed under it.
struct Node {
    Kind kind;
    const void* legacy;  // what the by-name lookup returned (null for the MAC)
    void* fetched;       // null: the fetch failed, OpenSSL is left to fail as before
    uint64_t generation;
    bool fips;  // FIPS mode was on at fetch time
    Node* next;
};

// Plain atomics and a mutex with trivial destruction: usable from any thread
// at any time, even while the module's statics are being torn down.
std::atomic<Node*> head{nullptr};
std::atomic<uint64_t> generation{0};
std::mutex writer;

Node* Find(Kind kind, const void* legacy, uint64_t current) noexcept {
    // Newest first: the first node of an older generation ends the search.
    for (Node* node = head.load(std::memory_order_acquire); node && node->generation >= current; node = node->next)
        if (node->kind == kind && node->legacy == legacy && node->generation == current) return node;
    return nullptr;
}

void Free(Node* node) noexcept {
    switch (node->kind) {
        case Kind::kDigest: EVP_MD_free(static_cast<EVP_MD*>(node->fetched)); break;
        case Kind::kCipher: EVP_CIPHER_free(static_cast<EVP_CIPHER*>(node->fetched)); break;
        case Kind::kMac: EVP_MAC_free(static_cast<EVP_MAC*>(node->fetched)); break;
    }
}

// The node for (kind, legacy) in the current generation, fetching on a miss.
// The fetch's own error entries are dropped: a failed fetch is repeated by
// OpenSSL inside the init call, which reports it as it always did.
template <class Fetch>
Node* Lookup(Kind kind, const void* legacy, Fetch&& fetch) noexcept {
    const uint64_t current = generation.load(std::memory_order_acquire);
    if (Node* node = Find(kind, legacy, current)) return node;
    const std::lock_guard<std::mutex> lock(writer);
    if (Node* node = Find(kind, legacy, current)) return node;
    ERR_set_mark();
    auto* node = new (std::nothrow) Node{kind, legacy, fetch(), current,
                                         EVP_default_properties_is_fips_enabled(nullptr) == 1,
                                         head.load(std::memory_order_relaxed)};
    ERR_pop_to_mark();
    if (!node) return nullptr;
    head.store(node, std::memory_order_release);
    return node;
}

// Frees every fetch when the module is unloaded (left alone, still reachable
// from the list, when OpenSSL has already been cleaned up at process exit).
bool HoldsFetches() { return head.load(std::memory_order_acquire) != nullptr; }
void FreeAll() {
    for (Node* node = head.exchange(nullptr); node;) {
        Node* next = node->next;
        Free(node);
        delete node;
        node = next;
    }
}
const OpenSSL::AtUnload<HoldsFetches, FreeAll> reaper;

}  // namespace

const EVP_MD* FetchedDigest(const EVP_MD* md, bool* plain) noexcept {
    if (plain) *plain = false;
    if (!md || EVP_MD_get0_provider(md) || EVP_MD_get_type(md) == NID_undef) return md;
    const Node* node = Lookup(Kind::kDigest, md, [md]() -> void* {
        return EVP_MD_fetch(nullptr, OBJ_nid2sn(EVP_MD_get_type(md)), "");
    });
    if (!node || !node->fetched) return md;
    if (plain) *plain = !node->fips;
    return static_cast<const EVP_MD*>(node->fetched);
}

const EVP_CIPHER* FetchedCipher(const EVP_CIPHER* cipher) noexcept {
    if (!cipher || EVP_CIPHER_get0_provider(cipher) || EVP_CIPHER_get_nid(cipher) == NID_undef) return cipher;
    const Node* node = Lookup(Kind::kCipher, cipher, [cipher]() -> void* {
        return EVP_CIPHER_fetch(nullptr, OBJ_nid2sn(EVP_CIPHER_get_nid(cipher)), "");
    });
    return node && node->fetched ? static_cast<const EVP_CIPHER*>(node->fetched) : cipher;
}

EVP_MAC* FetchedHmac() noexcept {
    const Node* node = Lookup(Kind::kMac, nullptr, []() -> void* { return EVP_MAC_fetch(nullptr, "HMAC", nullptr); });
    return node ? static_cast<EVP_MAC*>(node->fetched) : nullptr;
}

void DefaultPropertiesChanged() noexcept { generation.fetch_add(1, std::memory_order_acq_rel); }

}  // namespace Cryptography
