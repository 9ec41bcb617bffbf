// Key routines: PEM import and export, DER encodings and key properties.
#include <openssl/err.h>
#include <openssl/x509.h>

#include "Key.h"
#include "Ombrix/Data.h"
#include "Routine.h"
#include "openssl/WipeOnExit.h"

namespace Cryptography {
namespace {

using Ombrix::AutoRefPtr;
using Ombrix::Data;
using Ombrix::IContext;

// The text ends at its first zero byte. Unreadable PEM gives an empty Key and
// no report: callers test IsValid.
AutoRefPtr<Key> KeyFromText(std::string& text, const char* password, IContext* context) {
    const OpenSSL::WipeOnExit wipe(text);
    AutoRefPtr<Key> key = Key::New(context);
    if (key) key->FromPEM(text.c_str(), password);
    return key;
}

AutoRefPtr<Key> PEMToKey(std::string text, IContext* context) { return KeyFromText(text, nullptr, context); }

AutoRefPtr<Key> EncryptedPEMToKey(std::string text, std::string password, IContext* context) {
    const OpenSSL::WipeOnExit wipe(password);
    return KeyFromText(text, password.c_str(), context);
}

std::string KeyToPEM(AutoRefPtr<Key> key, IContext* context) { return key->ToPEM(false, context); }

std::string PublicKeyToPEM(AutoRefPtr<Key> key, IContext* context) { return key->ToPEM(true, context); }

bool KeyIsValid(AutoRefPtr<Key> key) { return key->IsValid(); }

double GetKeyLength(AutoRefPtr<Key> key) { return key->IsValid() ? EVP_PKEY_get_bits(key->PKey()) : 0; }

std::string GetKeyType(AutoRefPtr<Key> key) { return key->GetKeyType(); }

std::string GetExponent(AutoRefPtr<Key> key) { return key->GetExponent(); }

std::string GetModulus(AutoRefPtr<Key> key) { return key->GetModulus(); }

constexpr size_t kKeyErrorTextSize = 120;

// Runs an i2d_* encoder twice: once for the size, once into the buffer. A
// failed second run leaves no bytes behind.
template <class Encoder>
int EncodeDER(Encoder&& encode, const EVP_PKEY* pkey, std::string& out) {
    const int length = encode(pkey, nullptr);
    if (length <= 0) return length;
    out.resize(static_cast<size_t>(length));
    auto* cursor = reinterpret_cast<unsigned char*>(out.data());
    const int written = encode(pkey, &cursor);
    if (written > 0) {
        out.resize(static_cast<size_t>(written));
    } else {
        OPENSSL_cleanse(out.data(), out.size());
        out.clear();
    }
    return written;
}

// An empty Key gives an empty DATAREF without a report.
AutoRefPtr<Data> EncodePrivateKey(AutoRefPtr<Key> key, IContext* context) {
    auto result = Data::Make();
    if (!key->IsValid()) return result;
    std::string der;
    const int length = EncodeDER(i2d_PrivateKey, key->PKey(), der);
    if (length > 0) {
        result->Assign(std::move(der));
    } else if (length < 0) {
        Report(context, kInvalidArgument, "Invalid key:" + OpenSSLErrorText(ERR_peek_error(), kKeyErrorTextSize));
    }
    return result;
}

// The algorithm's own public form (PKCS#1 RSAPublicKey for RSA, the point
// for EC); keys that have none are written as SubjectPublicKeyInfo.
AutoRefPtr<Data> EncodePublicKey(AutoRefPtr<Key> key, IContext* context) {
    auto result = Data::Make();
    if (!key->IsValid()) return result;
    std::string der;
    int length = EncodeDER(i2d_PublicKey, key->PKey(), der);
    if (length < 0) {
        const unsigned long rawFailure = ERR_peek_error();
        length = EncodeDER(i2d_PUBKEY, key->PKey(), der);
        if (length < 1) {
            Report(context, kInvalidArgument, "Invalid key:" + OpenSSLErrorText(rawFailure, kKeyErrorTextSize));
            return result;
        }
    }
    if (length > 0) result->Assign(std::move(der));
    return result;
}

}  // namespace
}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(PEMToKey, &Cryptography::PEMToKey)
CRYPTOGRAPHY_ROUTINE(EncryptedPEMToKey, &Cryptography::EncryptedPEMToKey)
CRYPTOGRAPHY_ROUTINE(KeyToPEM, &Cryptography::KeyToPEM)
CRYPTOGRAPHY_ROUTINE(PublicKeyToPEM, &Cryptography::PublicKeyToPEM)
CRYPTOGRAPHY_ROUTINE(KeyIsValid, &Cryptography::KeyIsValid)
CRYPTOGRAPHY_ROUTINE(GetKeyLength, &Cryptography::GetKeyLength)
CRYPTOGRAPHY_ROUTINE(EncodePrivateKey, &Cryptography::EncodePrivateKey)
CRYPTOGRAPHY_ROUTINE(EncodePublicKey, &Cryptography::EncodePublicKey)
CRYPTOGRAPHY_ROUTINE(GetKeyType, &Cryptography::GetKeyType)
CRYPTOGRAPHY_ROUTINE(GetExponent, &Cryptography::GetExponent)
CRYPTOGRAPHY_ROUTINE(GetModulus, &Cryptography::GetModulus)
