// Encrypt, Decrypt and DataRefDecrypt with any cipher OpenSSL knows by name and
// a raw key, and BytesToKey.
#include <openssl/evp.h>

#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "Algorithms.h"
#include "Chunks.h"
#include "Cipher.h"
#include "Ombrix/Data.h"
#include "Routine.h"

namespace Cryptography {

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::Data;
using Ombrix::IContext;
using Ombrix::IDataRef;

const unsigned char* Bytes(std::string_view view) { return reinterpret_cast<const unsigned char*>(view.data()); }

void ReportException(IContext* context, const std::exception& e, const char* fallback) {
    const char* text = e.what();
    Report(context, kFunctionError, text && *text ? text : fallback);
}

// Hands the whole input to the cipher: in place when contiguous, in chunks
// when the cipher streams (a file-backed buffer is then never copied), else
// read whole into one copy.
void Feed(OpenSSL::ACryptoBase& crypter, const EVP_CIPHER* cipher, const MessageBytes& input) {
    const IDataRef* chunked = input.Chunked();
    if (!chunked) {
        if (!input.View().empty()) crypter.Update(Bytes(input.View()), input.View().size());
    } else if (OpenSSL::StreamsInPieces(cipher, kChunkBytes)) {
        crypter.UpdateInPieces(input.Size(), [&](auto&& sink) { input.Feed(sink); });
    } else {
        const Ombrix::DataBytes whole(chunked);
        if (!whole.empty()) crypter.Update(Bytes(whole.view()), whole.size());
    }
}

AutoRefPtr<Data> EncryptBytes(const std::string& cipherName, const MessageBytes& plaintext, std::string& key,
                              const IDataRef* iv, IContext* context) {
    OpenSSL::WipeOnExit wipeKey(key);
    AutoRefPtr<Data> result = Data::Make();
    try {
        const EVP_CIPHER* cipher = FindCipher(cipherName, context);
        if (!cipher) return result;
        std::optional<OpenSSL::InitVector> initVector;
        if (iv && iv->GetSize() != 0) initVector.emplace(iv, cipher);

        // The ciphertext is written straight into the result's buffer.
        const uint64_t capacity = OpenSSL::EncryptedSize(cipher, plaintext.Size());
        auto* out = reinterpret_cast<unsigned char*>(result->PrepareForWriting(capacity + OpenSSL::kOutputSlack));
        auto encrypter = OpenSSL::CEncrypter::Create(cipher, key, initVector ? &*initVector : nullptr, out,
                                                     capacity, true);
        Feed(*encrypter, cipher, plaintext);
        result->Truncate(encrypter->Final());
    } catch (const std::exception& e) {
        result->Assign(nullptr, 0);
        ReportException(context, e, "OpenSSL error in function Encrypt detected.");
    }
    return result;
}

// Decrypts a ciphertext into a buffer that output(size) provides, returning
// how many bytes it holds; nothing (and no error) for an empty ciphertext.
// Returns nothing after a reported failure.
template <class Output>
std::optional<uint64_t> DecryptInto(const std::string& cipherName, const IDataRef* ciphertext, std::string& key,
                                    const IDataRef* iv, IContext* context, Output&& output) {
    OpenSSL::WipeOnExit wipeKey(key);
    try {
        if (!ciphertext || ciphertext->GetSize() == 0) return std::nullopt;
        const EVP_CIPHER* cipher = FindCipher(cipherName, context);
        if (!cipher) return std::nullopt;
        std::optional<OpenSSL::InitVector> initVector;
        if (iv && iv->GetSize() != 0) initVector.emplace(iv, cipher);

        const MessageBytes input(ciphertext);
        auto* out = reinterpret_cast<unsigned char*>(output(input.Size()));
        auto decrypter = OpenSSL::CDecrypter::Create(cipher, key, initVector ? &*initVector : nullptr, out,
                                                     input.Size(), true);
        Feed(*decrypter, cipher, input);
        return decrypter->Final();
    } catch (const std::exception& e) {
        ReportException(context, e, "OpenSSL error in function Decrypt detected.");
    }
    return std::nullopt;
}

// Plaintext bytes of a ciphertext as text.
std::string DecryptBytes(const std::string& cipherName, const IDataRef* ciphertext, std::string& key,
                         const IDataRef* iv, IContext* context) {
    std::string output;
    const auto size = DecryptInto(cipherName, ciphertext, key, iv, context, [&](uint64_t capacity) {
        output.resize(capacity);
        return output.data();
    });
    if (!size) return {};
    output.resize(*size);
    return output;
}

// Plaintext bytes of a ciphertext as a buffer, written in place.
AutoRefPtr<Data> DecryptData(const std::string& cipherName, const IDataRef* ciphertext, std::string& key,
                             const IDataRef* iv, IContext* context) {
    AutoRefPtr<Data> result = Data::Make();
    const auto size = DecryptInto(cipherName, ciphertext, key, iv, context,
                                  [&](uint64_t capacity) { return result->PrepareForWriting(capacity); });
    if (size)
        result->Truncate(*size);
    else
        result->Assign(nullptr, 0);
    return result;
}

AutoRefPtr<Data> Encrypt(std::string cipherName, std::string plaintext, std::string key, IContext* context) {
    return EncryptBytes(cipherName, std::string_view(plaintext), key, nullptr, context);
}

AutoRefPtr<Data> EncryptInitVec(std::string cipherName, std::string plaintext, std::string key,
                                AutoRefPtr<IDataRef> iv, IContext* context) {
    return EncryptBytes(cipherName, std::string_view(plaintext), key, iv.get(), context);
}

AutoRefPtr<Data> EncryptDataRef(std::string cipherName, AutoRefPtr<IDataRef> plaintext, std::string key,
                                IContext* context) {
    return EncryptBytes(cipherName, MessageBytes(plaintext.get()), key, nullptr, context);
}

AutoRefPtr<Data> EncryptDataRefInitVec(std::string cipherName, AutoRefPtr<IDataRef> plaintext, std::string key,
                                       AutoRefPtr<IDataRef> iv, IContext* context) {
    return EncryptBytes(cipherName, MessageBytes(plaintext.get()), key, iv.get(), context);
}

std::string Decrypt(std::string cipherName, AutoRefPtr<IDataRef> ciphertext, std::string key, IContext* context) {
    return DecryptBytes(cipherName, ciphertext.get(), key, nullptr, context);
}

std::string DecryptInitVec(std::string cipherName, AutoRefPtr<IDataRef> ciphertext, std::string key,
                           AutoRefPtr<IDataRef> iv, IContext* context) {
    return DecryptBytes(cipherName, ciphertext.get(), key, iv.get(), context);
}

AutoRefPtr<Data> DataRefDecrypt(std::string cipherName, AutoRefPtr<IDataRef> ciphertext, std::string key,
                                IContext* context) {
    return DecryptData(cipherName, ciphertext.get(), key, nullptr, context);
}

AutoRefPtr<Data> DataRefDecryptInitVec(std::string cipherName, AutoRefPtr<IDataRef> ciphertext, std::string key,
                                       AutoRefPtr<IDataRef> iv, IContext* context) {
    return DecryptData(cipherName, ciphertext.get(), key, iv.get(), context);
}

// Key then IV, derived with EVP_BytesToKey. Only the first 8 bytes of a salt
// of at least 8 bytes are used; a shorter salt means no salt.
AutoRefPtr<Data> BytesToKey(std::string cipherName, std::string digestName, AutoRefPtr<IDataRef> secret,
                            AutoRefPtr<IDataRef> salt, int32_t count, IContext* context) {
    AutoRefPtr<Data> result = Data::Make();
    const EVP_CIPHER* cipher = FindCipher(cipherName, context);
    if (!cipher) return result;
    const EVP_MD* digest = FindDigest(digestName, context, '.');
    if (!digest) return result;

    unsigned char saltBytes[8];
    const unsigned char* saltUsed = nullptr;
    if (salt && salt->GetSize() >= sizeof saltBytes &&
        salt->Read(reinterpret_cast<char*>(saltBytes), sizeof saltBytes, 0) == sizeof saltBytes)
        saltUsed = saltBytes;

    Ombrix::DataBytes secretBytes(secret);
    OpenSSL::WipeOnExit wipeSecret(secretBytes.copy());
    // An empty secret is handed over as no buffer at all: EVP_BytesToKey then
    // derives nothing and the key and IV stay zero bytes, whatever the count.
    const unsigned char* secretData = secretBytes.size() ? Bytes(secretBytes.view()) : nullptr;
    // OpenSSL reads the count as unsigned: a negative one would mean billions
    // of digest rounds. It gives no key, like any other failed derivation.
    if (count < 0 && secretData) return result;

    OpenSSL::InitVector iv(cipher);
    const int keyLength = EVP_CIPHER_get_key_length(cipher);
    std::string output(static_cast<size_t>(keyLength) + iv.size(), '\0');
    const int derived = EVP_BytesToKey(cipher, digest, saltUsed, secretData,
                                       static_cast<int>(secretBytes.size()), count,
                                       reinterpret_cast<unsigned char*>(output.data()),
                                       iv.data());
    if (derived != keyLength) {
        OPENSSL_cleanse(output.data(), output.size());
        return result;
    }
    if (iv.size()) std::memcpy(output.data() + keyLength, iv.data(), iv.size());
    result->Assign(std::move(output));
    return result;
}

}  // namespace
}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(Encrypt, &Cryptography::Encrypt)
CRYPTOGRAPHY_ROUTINE(EncryptInitVec, &Cryptography::EncryptInitVec)
CRYPTOGRAPHY_ROUTINE(EncryptDataRef, &Cryptography::EncryptDataRef)
CRYPTOGRAPHY_ROUTINE(EncryptDataRefInitVec, &Cryptography::EncryptDataRefInitVec)
CRYPTOGRAPHY_ROUTINE(Decrypt, &Cryptography::Decrypt)
CRYPTOGRAPHY_ROUTINE(DecryptInitVec, &Cryptography::DecryptInitVec)
CRYPTOGRAPHY_ROUTINE(DataRefDecrypt, &Cryptography::DataRefDecrypt)
CRYPTOGRAPHY_ROUTINE(DataRefDecryptInitVec, &Cryptography::DataRefDecryptInitVec)
CRYPTOGRAPHY_ROUTINE(BytesToKey, &Cryptography::BytesToKey)
