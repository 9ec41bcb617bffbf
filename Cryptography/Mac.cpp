// Keyed digests: Cryptography.HMAC over a string or a buffer, and
// Cryptography.PKCS5PBKDF2HMAC key derivation.
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <climits>
#include <cstring>
#include <string>

#include "Algorithms.h"
#include "Chunks.h"
#include "Fetched.h"
#include "Ombrix/Data.h"
#include "Routine.h"
#include "openssl/Handles.h"

namespace Cryptography {

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::Data;
using Ombrix::DataBytes;
using Ombrix::IContext;
using Ombrix::IDataRef;

// Overwrites secret bytes when it goes out of scope, on every path.
class Wipe {
public:
    explicit Wipe(std::string& secret) noexcept : secret_(secret) {}
    ~Wipe() { OPENSSL_cleanse(secret_.data(), secret_.size()); }
    Wipe(const Wipe&) = delete;
    Wipe& operator=(const Wipe&) = delete;

private:
    std::string& secret_;
};

// The largest digest block HMAC pads a key to.
constexpr int kMaxHmacBlock = 144;

// HMAC over the digest directly: H((K ^ opad) || H((K ^ ipad) || message)),
// the key first hashed when longer than the block. Used for an ordinary
// provider digest fetched outside FIPS mode, where it gives exactly what
// OpenSSL's HMAC gives, without a MAC context and a digest fetch per call.
bool DigestHmac(const EVP_MD* md, const std::string& key, const MessageBytes& message, unsigned char* out,
                unsigned int* outLength) {
    const int block = EVP_MD_get_block_size(md);
    const OpenSSL::MdContextPtr ctx(EVP_MD_CTX_new());
    if (!ctx) return false;
    unsigned char pad[kMaxHmacBlock] = {};
    unsigned char inner[EVP_MAX_MD_SIZE];
    unsigned int innerLength = 0;
    bool ok = true;
    if (key.size() > static_cast<size_t>(block)) {
        ok = EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1 && EVP_DigestUpdate(ctx.get(), key.data(), key.size()) == 1 &&
             EVP_DigestFinal_ex(ctx.get(), pad, &innerLength) == 1;
    } else {
        std::memcpy(pad, key.data(), key.size());
    }
    for (int i = 0; i < block; ++i) pad[i] ^= 0x36;
    ok = ok && EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1 && EVP_DigestUpdate(ctx.get(), pad, block) == 1 &&
         message.Feed([&](const char* bytes, size_t length) {
             return EVP_DigestUpdate(ctx.get(), bytes, length) == 1;
         }) &&
         EVP_DigestFinal_ex(ctx.get(), inner, &innerLength) == 1;
    for (int i = 0; i < block; ++i) pad[i] ^= 0x36 ^ 0x5c;
    ok = ok && EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1 && EVP_DigestUpdate(ctx.get(), pad, block) == 1 &&
         EVP_DigestUpdate(ctx.get(), inner, innerLength) == 1 && EVP_DigestFinal_ex(ctx.get(), out, outLength) == 1;
    OPENSSL_cleanse(pad, sizeof pad);
    OPENSSL_cleanse(inner, sizeof inner);
    return ok;
}

// The digests DigestHmac serves: fetched outside FIPS mode, fixed-size output,
// a block HMAC can pad to.
bool DigestHmacServes(const EVP_MD* fetched, bool plain, const std::string& key) {
    if (!plain || key.size() > static_cast<size_t>(INT_MAX)) return false;
    const int size = EVP_MD_get_size(fetched), block = EVP_MD_get_block_size(fetched);
    return (EVP_MD_get_flags(fetched) & EVP_MD_FLAG_XOF) == 0 && size > 0 && block >= size && block <= kMaxHmacBlock;
}

// What HMAC() does, made incremental: the "HMAC" MAC (fetched once) with the
// digest's name, the key length passed as an int, the output bounded by the
// digest size.
bool MacHmac(const EVP_MD* md, const std::string& key, const MessageBytes& message, unsigned char* out,
             unsigned int* outLength) {
    const int size = EVP_MD_get_size(md);
    EVP_MAC* mac = size > 0 ? FetchedHmac() : nullptr;
    if (!mac) return false;
    const OpenSSL::MacContextPtr ctx(EVP_MAC_CTX_new(mac));
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(EVP_MD_get0_name(md)), 0),
        OSSL_PARAM_construct_end()};
    size_t length = 0;
    const auto keyLength = static_cast<size_t>(static_cast<int>(key.size()));
    if (!ctx || !EVP_MAC_CTX_set_params(ctx.get(), params) ||
        !EVP_MAC_init(ctx.get(), reinterpret_cast<const unsigned char*>(key.data()), keyLength, nullptr) ||
        !message.Feed([&](const char* bytes, size_t count) {
            return EVP_MAC_update(ctx.get(), reinterpret_cast<const unsigned char*>(bytes), count) == 1;
        }) ||
        !EVP_MAC_final(ctx.get(), out, &length, static_cast<size_t>(size)))
        return false;
    *outLength = static_cast<unsigned int>(length);
    return true;
}

AutoRefPtr<Data> CreateHMAC(const std::string& digestName, const std::string& key, const MessageBytes& message,
                            IContext* context) {
    AutoRefPtr<Data> result = Data::Make();
    if (key.empty()) {
        Report(context, kFunctionError, "Key is empty");
        return result;
    }
    const EVP_MD* md = FindDigest(digestName, context, '!');
    if (!md) return result;
    bool plain = false;
    const EVP_MD* fetched = FetchedDigest(md, &plain);
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int outLength = 0;
    const bool ok = DigestHmacServes(fetched, plain, key) ? DigestHmac(fetched, key, message, out, &outLength)
                                                          : MacHmac(md, key, message, out, &outLength);
    if (!ok) {
        Report(context, kFunctionError, "HMAC generation failed!");
        return result;
    }
    std::memcpy(result->PrepareForWriting(outLength), out, outLength);
    return result;
}

// The key arrives as the adapter's own copy, which is wiped after use.
AutoRefPtr<Data> CreateHMACFromString(std::string digestName, std::string&& key, std::string data, IContext* context) {
    Wipe wipe(key);
    return CreateHMAC(digestName, key, MessageBytes(std::string_view(data)), context);
}

// A buffer without contiguous bytes is read in bounded chunks, never whole.
AutoRefPtr<Data> CreateHMACFromDataRef(std::string digestName, std::string&& key, AutoRefPtr<IDataRef> data,
                                       IContext* context) {
    Wipe wipe(key);
    return CreateHMAC(digestName, key, MessageBytes(data.get()), context);
}

AutoRefPtr<Data> CreatePKCS5_PBKDF2_HMAC(AutoRefPtr<IDataRef> password, AutoRefPtr<IDataRef> salt, int32_t iterations,
                                         std::string digestName, int32_t keyLength, IContext* context) {
    AutoRefPtr<Data> result = Data::Make();
    DataBytes saltBytes(salt);
    const EVP_MD* md = FindDigest(digestName, context, '!');
    if (!md || keyLength <= 0) return result;

    DataBytes passwordBytes(password);
    Wipe wipePassword(passwordBytes.copy());
    std::string out(static_cast<size_t>(keyLength), '\0');
    if (!PKCS5_PBKDF2_HMAC(passwordBytes.data(), static_cast<int>(passwordBytes.size()),
                           reinterpret_cast<const unsigned char*>(saltBytes.data()), static_cast<int>(saltBytes.size()),
                           iterations, md, keyLength, reinterpret_cast<unsigned char*>(out.data()))) {
        OPENSSL_cleanse(out.data(), out.size());
        Report(context, kFunctionError, "PKCS5_PBKDF2_HMAC with digest \"" + digestName + "\" failed!");
        return result;
    }
    result->Assign(std::move(out));
    return result;
}

}  // namespace

}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(CreateHMACFromString, &Cryptography::CreateHMACFromString)
CRYPTOGRAPHY_ROUTINE(CreateHMACFromDataRef, &Cryptography::CreateHMACFromDataRef)
CRYPTOGRAPHY_ROUTINE(CreatePKCS5_PBKDF2_HMAC, &Cryptography::CreatePKCS5_PBKDF2_HMAC)
