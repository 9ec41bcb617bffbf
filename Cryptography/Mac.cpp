// Keyed digests: Cryptography.HMAC over a string or a buffer, and
// Cryptography.PKCS5PBKDF2HMAC key derivation.
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <string>

#include "Algorithms.h"
#include "Ombrix/Data.h"
#include "Routine.h"

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

AutoRefPtr<Data> CreateHMAC(const std::string& digestName, const std::string& key, const char* data, size_t length,
                            IContext* context) {
    AutoRefPtr<Data> result = Data::Make();
    if (key.empty()) {
        Report(context, kFunctionError, "Key is empty");
        return result;
    }
    const EVP_MD* md = FindDigest(digestName, context, '!');
    if (!md) return result;
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int outLength = 0;
    if (!HMAC(md, key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(data), length, out,
              &outLength)) {
        Report(context, kFunctionError, "HMAC generation failed!");
        return result;
    }
    result->Assign(reinterpret_cast<const char*>(out), outLength);
    return result;
}

// The key arrives as the adapter's own copy, which is wiped after use.
AutoRefPtr<Data> CreateHMACFromString(std::string digestName, std::string&& key, std::string data, IContext* context) {
    Wipe wipe(key);
    return CreateHMAC(digestName, key, data.data(), data.size(), context);
}

AutoRefPtr<Data> CreateHMACFromDataRef(std::string digestName, std::string&& key, AutoRefPtr<IDataRef> data,
                                       IContext* context) {
    Wipe wipe(key);
    DataBytes bytes(data);
    return CreateHMAC(digestName, key, bytes.data(), bytes.size(), context);
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
