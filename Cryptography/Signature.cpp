// Signing and signature verification with a Key or a PEM key in a byte
// buffer, over a text or a byte-buffer message.
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <string>
#include <string_view>

#include "Algorithms.h"
#include "Chunks.h"
#include "Fetched.h"
#include "Key.h"
#include "Ombrix/Data.h"
#include "Routine.h"
#include "openssl/NoPassphrase.h"
#include "openssl/WipeOnExit.h"

namespace Cryptography {
namespace {

using Ombrix::AutoRefPtr;
using Ombrix::Data;
using Ombrix::IContext;
using Ombrix::IDataRef;

constexpr uint64_t kMaxKeyBytes = 100000;
constexpr uint64_t kMaxSignatureBytes = 100000;
constexpr uint64_t kMessageChunkBytes = 100000;
constexpr size_t kVerifyErrorTextSize = 249;

bool SizeInRange(const IDataRef* buffer, uint64_t limit) {
    const uint64_t size = buffer ? buffer->GetSize() : 0;
    return size >= 1 && size <= limit;
}

// Refuses to prompt for a password: encrypted PEM is simply unreadable here.
int NoPassword(char*, int, int, void*) { return 0; }

// ---- Signing ----------------------------------------------------------------

// The common signing path: digest-sign with the key's default padding (PKCS#1
// v1.5 for RSA, DER-encoded ECDSA for EC). feed(ctx) hands the message to
// EVP_DigestSignUpdate and says whether every update succeeded.
template <class Feed>
AutoRefPtr<Data> SignWithKey(const Key* key, const std::string& digestName, IContext* context, Feed&& feed) {
    auto result = Data::Make();
    if (!context) return result;
    if (!key) {
        Report(context, kSystemMemory, "No key given!");
        return result;
    }
    if (!key->IsValid()) {
        Report(context, kSystemMemory, "Invalid key given!");
        return result;
    }
    const OpenSSL::MdContextPtr ctx(EVP_MD_CTX_new());
    const EVP_MD* md = FindDigest(digestName, context, '!');
    if (!md) return result;
    std::string signature;
    size_t length = 0;
    bool ok = ctx && EVP_DigestSignInit(ctx.get(), nullptr, md, nullptr, key->PKey()) == 1 && feed(ctx.get()) &&
                   EVP_DigestSignFinal(ctx.get(), nullptr, &length) == 1;
    if (ok) {
        signature.resize(length);
        ok = EVP_DigestSignFinal(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &length) == 1;
        signature.resize(length);
    }
    if (!ok) {
        Report(context, kFunctionError, "RSASignMessage didn't work!");
        return result;
    }
    result->Assign(std::move(signature));
    return result;
}

AutoRefPtr<Data> SignMessage(const std::string& message, const Key* key, const std::string& digestName,
                             IContext* context) {
    return SignWithKey(key, digestName, context, [&](EVP_MD_CTX* ctx) {
        return EVP_DigestSignUpdate(ctx, message.data(), message.size()) == 1;
    });
}

// A buffer without contiguous bytes streams through a bounded work area.
AutoRefPtr<Data> SignData(const IDataRef* message, const Key* key, const std::string& digestName,
                          IContext* context) {
    return SignWithKey(key, digestName, context, [&](EVP_MD_CTX* ctx) {
        return Ombrix::ForEachChunk(message, kMessageChunkBytes, [ctx](const char* bytes, uint64_t length) {
            return EVP_DigestSignUpdate(ctx, bytes, length) == 1;
        });
    });
}

// Signs with a PEM RSA private key held in a byte buffer. Anything that does
// not decode as one gives an empty result without a report.
template <class SignWith>
AutoRefPtr<Data> SignWithPEM(const IDataRef* keyBuffer, IContext* context, SignWith&& signWith) {
    if (!SizeInRange(keyBuffer, kMaxKeyBytes)) {
        Report(context, kFunctionError, "Key Size out of range");
        return Data::Make();
    }
    Ombrix::DataBytes pem(keyBuffer);
    const OpenSSL::WipeOnExit wipe(pem.copy());
    EVP_PKEY* raw = nullptr;
    const OpenSSL::DecoderContextPtr decoder(
        OSSL_DECODER_CTX_new_for_pkey(&raw, "PEM", nullptr, "RSA", EVP_PKEY_KEYPAIR, nullptr, nullptr));
    const auto* bytes = reinterpret_cast<const unsigned char*>(pem.data());
    size_t length = pem.size();
    // An encrypted key fails here instead of asking for a pass phrase.
    const bool decoded = decoder && OSSL_DECODER_CTX_set_passphrase_cb(decoder.get(), OpenSSL::NoDecoderPassphrase, nullptr) &&
                         OSSL_DECODER_from_data(decoder.get(), &bytes, &length) == 1;
    OpenSSL::PKeyPtr pkey(raw);
    if (!decoded || !pkey) return Data::Make();
    AutoRefPtr<Key> key = Key::New(context);
    if (key) key->Reset(pkey.release(), true);
    return signWith(key.get());
}

AutoRefPtr<Data> SignMessageWithPEM(std::string message, AutoRefPtr<IDataRef> keyBuffer, std::string digestName,
                                    IContext* context) {
    return SignWithPEM(keyBuffer.get(), context,
                       [&](const Key* key) { return SignMessage(message, key, digestName, context); });
}

AutoRefPtr<Data> SignDataWithPEM(AutoRefPtr<IDataRef> message, AutoRefPtr<IDataRef> keyBuffer,
                                 std::string digestName, IContext* context) {
    return SignWithPEM(keyBuffer.get(), context,
                       [&](const Key* key) { return SignData(message.get(), key, digestName, context); });
}

AutoRefPtr<Data> SignMessageWithKey(std::string message, AutoRefPtr<Key> key, std::string digestName,
                                    IContext* context) {
    return SignMessage(message, key.get(), digestName, context);
}

AutoRefPtr<Data> SignDataWithKey(AutoRefPtr<IDataRef> message, AutoRefPtr<Key> key, std::string digestName,
                                 IContext* context) {
    return SignData(message.get(), key.get(), digestName, context);
}

// ---- Verification -----------------------------------------------------------

// The checks run in a fixed order: digest name, signature size, digest
// initialisation, key, update, final check. A mismatch is reported too.
bool VerifyWithKey(const MessageBytes& message, const Key* key, const std::string& digestName,
                   const IDataRef* signature, IContext* context) {
    const EVP_MD* md = FindDigest(digestName, context, '.');
    if (!md) return false;
    if (!SizeInRange(signature, kMaxSignatureBytes)) {
        Report(context, kFunctionError, "Signature size out of range");
        return false;
    }
    const OpenSSL::MdContextPtr ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), FetchedDigest(md), nullptr) != 1) {
        Report(context, kFunctionError, "VerifyInit failed.");
        return false;
    }
    if (!key || !key->IsValid()) {
        Report(context, kFunctionError, "No public key given");
        return false;
    }
    // The first update that fails decides the status reported.
    int status = 1;
    message.Feed([&](const char* bytes, size_t length) { return (status = EVP_DigestUpdate(ctx.get(), bytes, length)) == 1; });
    if (status != 1) {
        Report(context, kFunctionError, "Error on 'EVP_VerifyUpdate'. Status: " + std::to_string(status));
        return false;
    }
    const Ombrix::DataBytes signatureBytes(signature);
    // The report below quotes the final check's own error, nothing older.
    ClearErrorQueue();
    if (EVP_VerifyFinal(ctx.get(), reinterpret_cast<const unsigned char*>(signatureBytes.data()),
                        static_cast<unsigned int>(signatureBytes.size()), key->PKey()) == 1)
        return true;
    Report(context, kFunctionError,
           "Error on 'EVP_VerifyFinal': " + OpenSSLErrorText(ERR_get_error(), kVerifyErrorTextSize));
    return false;
}

// Verifies with a PUBLIC KEY PEM block held in a byte buffer.
bool VerifyWithPEM(const MessageBytes& message, const IDataRef* keyBuffer, const std::string& digestName,
                   const IDataRef* signature, IContext* context) {
    if (!SizeInRange(keyBuffer, kMaxKeyBytes)) {
        Report(context, kFunctionError, "Key size out of range");
        return false;
    }
    const Ombrix::DataBytes pem(keyBuffer);
    OpenSSL::PKeyPtr pkey;
    if (const OpenSSL::BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()))); bio)
        pkey.reset(PEM_read_bio_PUBKEY(bio.get(), nullptr, NoPassword, nullptr));
    AutoRefPtr<Key> key = pkey ? Key::New(context) : nullptr;
    if (!key) {
        Report(context, kFunctionError, "Unable to initialize EVP for public key");
        return false;
    }
    key->Reset(pkey.release(), false);
    return VerifyWithKey(message, key.get(), digestName, signature, context);
}

bool VerifyMessageWithPEM(std::string message, AutoRefPtr<IDataRef> keyBuffer, std::string digestName,
                          AutoRefPtr<IDataRef> signature, IContext* context) {
    return VerifyWithPEM(std::string_view(message), keyBuffer.get(), digestName, signature.get(), context);
}

// A byte-buffer message without contiguous bytes is digested in bounded chunks.
bool VerifyDataWithPEM(AutoRefPtr<IDataRef> message, AutoRefPtr<IDataRef> keyBuffer, std::string digestName,
                       AutoRefPtr<IDataRef> signature, IContext* context) {
    return VerifyWithPEM(MessageBytes(message.get()), keyBuffer.get(), digestName, signature.get(), context);
}

bool VerifyMessageWithKey(std::string message, AutoRefPtr<Key> key, std::string digestName,
                          AutoRefPtr<IDataRef> signature, IContext* context) {
    return VerifyWithKey(std::string_view(message), key.get(), digestName, signature.get(), context);
}

bool VerifyDataWithKey(AutoRefPtr<IDataRef> message, AutoRefPtr<Key> key, std::string digestName,
                       AutoRefPtr<IDataRef> signature, IContext* context) {
    return VerifyWithKey(MessageBytes(message.get()), key.get(), digestName, signature.get(), context);
}

}  // namespace
}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(Sign, &Cryptography::SignMessageWithPEM)
CRYPTOGRAPHY_ROUTINE(SignData, &Cryptography::SignDataWithPEM)
CRYPTOGRAPHY_ROUTINE(Sign2, &Cryptography::SignMessageWithKey)
CRYPTOGRAPHY_ROUTINE(SignData2, &Cryptography::SignDataWithKey)
CRYPTOGRAPHY_ROUTINE(VerifySignature, &Cryptography::VerifyMessageWithPEM)
CRYPTOGRAPHY_ROUTINE(VerifySignatureData, &Cryptography::VerifyDataWithPEM)
CRYPTOGRAPHY_ROUTINE(VerifySignature2, &Cryptography::VerifyMessageWithKey)
CRYPTOGRAPHY_ROUTINE(VerifySignatureData2, &Cryptography::VerifyDataWithKey)
