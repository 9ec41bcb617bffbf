// Key generation: RSA, EC (prime256v1) and X25519 key pairs, and RSA public
// keys built from a Base64URL modulus and exponent.
#include <openssl/core_names.h>

#include "Codec.h"
#include "Key.h"
#include "Routine.h"

namespace Cryptography {
namespace {

using Ombrix::AutoRefPtr;
using Ombrix::IContext;

// Every generator starts from a new, empty, non-private Key.
AutoRefPtr<Key> NewEmptyKey(IContext* context) {
    AutoRefPtr<Key> key = Key::New(context);
    if (key) key->Reset(nullptr, false);
    return key;
}

// Stores a generated key pair, or reports the stage when there is none.
AutoRefPtr<Key> StoreGenerated(AutoRefPtr<Key> key, EVP_PKEY* generated, const char* stage, IContext* context) {
    if (!generated) {
        ReportOpenSSLError(context, stage);
        return key;
    }
    key->Reset(generated, true);
    return key;
}

// The size is sign-extended, so a negative one reaches OpenSSL as a size it refuses.
AutoRefPtr<Key> GenerateRSAKey(int32_t bits, IContext* context) {
    AutoRefPtr<Key> key = NewEmptyKey(context);
    if (!key) return key;
    const auto size = static_cast<size_t>(static_cast<int64_t>(bits));
    return StoreGenerated(key, EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size), "Generation of RSA key", context);
}

AutoRefPtr<Key> GenerateECKey(IContext* context) {
    AutoRefPtr<Key> key = NewEmptyKey(context);
    if (!key) return key;
    return StoreGenerated(key, EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "prime256v1"), "Generation of EC key",
                          context);
}

// Deliberately silent: a failure leaves the Key empty and reports nothing.
AutoRefPtr<Key> GenerateX25519Key(IContext* context) {
    AutoRefPtr<Key> key = NewEmptyKey(context);
    if (!key) return key;
    EVP_PKEY* generated = nullptr;
    if (const OpenSSL::PKeyContextPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_X25519, nullptr)); ctx) {
        EVP_PKEY_keygen_init(ctx.get());
        EVP_PKEY_keygen(ctx.get(), &generated);
    }
    key->Reset(generated, true);  // takes ownership; null leaves the Key empty
    return key;
}

// Base64URL text as an unsigned big-endian number; null when it decodes to nothing.
OpenSSL::BigNumPtr BigNumFromBase64URL(const std::string& text) {
    const std::string bytes = Codec::Base64URLDecode(text);
    if (bytes.empty()) return nullptr;
    return OpenSSL::BigNumPtr(
        BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), nullptr));
}

AutoRefPtr<Key> GeneratePublicKey(std::string modulusText, std::string exponentText, IContext* context) {
    AutoRefPtr<Key> key = NewEmptyKey(context);
    if (!key) return key;
    const OpenSSL::BigNumPtr modulus = BigNumFromBase64URL(modulusText);
    const OpenSSL::BigNumPtr exponent = BigNumFromBase64URL(exponentText);

    const OpenSSL::ParamBuilderPtr builder(OSSL_PARAM_BLD_new());
    if (!builder) {
        ReportOpenSSLError(context, "Preparation to build params for public key generation");
        return key;
    }
    // An absent number is simply not passed; OpenSSL then refuses the key below.
    if (modulus) OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get());
    if (exponent) OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get());
    const OpenSSL::ParamsPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
    if (!params) {
        ReportOpenSSLError(context, "Build params for public key generation");
        return key;
    }
    const OpenSSL::PKeyContextPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    if (!ctx) {
        ReportOpenSSLError(context, "Allocate context for public key generation");
        return key;
    }
    if (EVP_PKEY_fromdata_init(ctx.get()) <= 0) {
        ReportOpenSSLError(context, "Initialization of context for public key generation");
        return key;
    }
    EVP_PKEY* raw = nullptr;
    const int built = EVP_PKEY_fromdata(ctx.get(), &raw, EVP_PKEY_KEYPAIR, params.get());
    OpenSSL::PKeyPtr pkey(raw);
    if (built <= 0 || !pkey) {
        ReportOpenSSLError(context, "Generation of public key generation");
        return key;
    }
    key->Reset(pkey.release(), false);
    return key;
}

}  // namespace
}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(GenerateRSAKey, &Cryptography::GenerateRSAKey)
CRYPTOGRAPHY_ROUTINE(GenerateECKey, &Cryptography::GenerateECKey)
CRYPTOGRAPHY_ROUTINE(GenerateX25519Key, &Cryptography::GenerateX25519Key)
CRYPTOGRAPHY_ROUTINE(GeneratePublicKey, &Cryptography::GeneratePublicKey)
