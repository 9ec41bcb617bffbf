// Authenticated encryption: AES-GCM in a self-contained Base64 token
// (IV, tag, ciphertext) and ChaCha20-Poly1305 with the nonce supplied by the
// caller and ciphertext and tag kept apart.
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <optional>
#include <string>
#include <string_view>

#include "Algorithms.h"
#include "Cipher.h"
#include "Codec.h"
#include "Fetched.h"
#include "Ombrix/Data.h"
#include "Routine.h"

namespace Cryptography {

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::Data;
using Ombrix::IContext;
using Ombrix::IDataRef;
using Ombrix::IVectorGeneric;

constexpr int kGcmMaxTag = 16;
constexpr int kChaChaTag = 16;
constexpr char kChaChaName[] = "ChaCha20-Poly1305";

unsigned char* Out(std::string& bytes, size_t offset = 0) {
    return reinterpret_cast<unsigned char*>(bytes.data()) + offset;
}
const unsigned char* In(std::string_view bytes) { return reinterpret_cast<const unsigned char*>(bytes.data()); }
// Raw bytes (a buffer's GetData), which need not end in a NUL: never measured.
const unsigned char* In(const char* bytes) { return reinterpret_cast<const unsigned char*>(bytes); }
bool FitsInt(size_t length) { return length <= static_cast<size_t>(INT_MAX); }

size_t KeyLength(const EVP_CIPHER* cipher) {
    return static_cast<size_t>(std::max(EVP_CIPHER_get_key_length(cipher), 0));
}

// The cipher when OpenSSL knows the name and the name ends in "gcm" (any case);
// null with the error reported otherwise. Only the name is examined.
const EVP_CIPHER* AdmitGcm(const std::string& name, const char* refusal, IContext* context) {
    const EVP_CIPHER* cipher = FindCipher(name, context);
    if (!cipher) return nullptr;
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (lower.size() < 3 || lower.compare(lower.size() - 3, 3, "gcm") != 0) {
        Report(context, kFunctionError, refusal);
        return nullptr;
    }
    return cipher;
}

// ---- AES-GCM ----

// Base64(IV || tag || ciphertext); empty after a reported error.
std::string GcmSeal(const EVP_CIPHER* cipher, std::string_view plaintext, std::string_view key, std::string_view aad,
                    int32_t tagLength, IContext* context) {
    const size_t ivLength = static_cast<size_t>(std::max(EVP_CIPHER_get_iv_length(cipher), 0));
    // Room for the tag; a length OpenSSL refuses fails at the tag call, so it
    // only needs to keep the layout inside the buffer.
    const size_t tagRoom = static_cast<size_t>(std::clamp(tagLength, 0, kGcmMaxTag));
    std::string token(ivLength + tagRoom + plaintext.size(), '\0');
    RAND_bytes(Out(token), static_cast<int>(ivLength));

    OpenSSL::CipherContextPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx) {
        Report(context, kFunctionError, "Couldn't create cipher context!");
        return {};
    }
    const OpenSSL::MinimumLengthKey keyBytes(key, KeyLength(cipher));
    if (EVP_EncryptInit_ex(ctx.get(), FetchedCipher(cipher), nullptr, keyBytes.data(), Out(token)) != 1) {
        Report(context, kFunctionError, "Setting up cipher context failed!");
        return {};
    }
    int ignored = 0, updated = 0, finalised = 0;
    unsigned char* ciphertext = Out(token, ivLength + tagRoom);
    if (!FitsInt(aad.size()) || !FitsInt(plaintext.size()) ||
        EVP_EncryptUpdate(ctx.get(), nullptr, &ignored, In(aad), static_cast<int>(aad.size())) != 1 ||
        EVP_EncryptUpdate(ctx.get(), ciphertext, &updated, In(plaintext), static_cast<int>(plaintext.size())) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), ciphertext + updated, &finalised) != 1) {
        Report(context, kFunctionError, "Encryption failed!");
        return {};
    }
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, tagLength, Out(token, ivLength)) != 1) {
        Report(context, kFunctionError, "Getting EVP_CTRL_GCM_GET_TAG failed!");
        return {};
    }
    token.resize(ivLength + tagRoom + static_cast<size_t>(updated + finalised));
    return Codec::Base64Encode(token.data(), token.size());
}

// The plaintext of a token; nullopt after a reported error.
std::optional<std::string> GcmOpen(const EVP_CIPHER* cipher, std::string_view token, std::string_view key,
                                   std::string_view aad, int32_t tagLength, IContext* context) {
    const size_t ivLength = static_cast<size_t>(std::max(EVP_CIPHER_get_iv_length(cipher), 0));
    const std::string decoded = Codec::Base64Decode(token);
    // The IV is always read whole, whatever the tag length says.
    if (decoded.size() < ivLength + static_cast<size_t>(std::max(tagLength, 0))) {
        Report(context, kInvalidArgument, "Bad format!");
        return std::nullopt;
    }
    OpenSSL::CipherContextPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx) {
        Report(context, kFunctionError, "Couldn't create cipher context!");
        return std::nullopt;
    }
    const OpenSSL::MinimumLengthKey keyBytes(key, KeyLength(cipher));
    if (EVP_DecryptInit_ex(ctx.get(), FetchedCipher(cipher), nullptr, keyBytes.data(), In(decoded)) != 1) {
        Report(context, kFunctionError, "Setting up cipher context failed!");
        return std::nullopt;
    }
    auto* tag = const_cast<unsigned char*>(In(decoded)) + ivLength;
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, tagLength, tag) != 1) {
        Report(context, kFunctionError, "Setting EVP_CTRL_GCM_SET_TAG failed!");
        return std::nullopt;
    }
    // The tag control accepts only 1 to 16 bytes, so the tag lies inside the token.
    const std::string_view ciphertext = std::string_view(decoded).substr(ivLength + static_cast<size_t>(tagLength));
    std::string plaintext(ciphertext.size(), '\0');
    int ignored = 0, updated = 0, finalised = 0;
    if (!FitsInt(aad.size()) || !FitsInt(ciphertext.size()) ||
        EVP_DecryptUpdate(ctx.get(), nullptr, &ignored, In(aad), static_cast<int>(aad.size())) != 1 ||
        EVP_DecryptUpdate(ctx.get(), Out(plaintext), &updated, In(ciphertext), static_cast<int>(ciphertext.size())) !=
            1 ||
        EVP_DecryptFinal(ctx.get(), Out(plaintext, static_cast<size_t>(updated)), &finalised) != 1) {
        Report(context, kFunctionError, "Decryption failed!");
        return std::nullopt;
    }
    plaintext.resize(static_cast<size_t>(updated + finalised));
    return plaintext;
}

std::string EncryptAndAuthBytes(std::string_view plaintext, const std::string& cipherName, std::string& key,
                                std::string_view aad, int32_t tagLength, IContext* context) {
    OpenSSL::WipeOnExit wipeKey(key);
    if (plaintext.empty()) return {};
    const EVP_CIPHER* cipher =
        AdmitGcm(cipherName, "Cryptography.EncryptAndAuth is only for GCM cipher implemented!", context);
    if (!cipher) return {};
    return GcmSeal(cipher, plaintext, key, aad, tagLength, context);
}

std::optional<std::string> DecryptAndVerifyBytes(const std::string& token, const std::string& cipherName,
                                                 std::string& key, const std::string& aad, int32_t tagLength,
                                                 IContext* context) {
    OpenSSL::WipeOnExit wipeKey(key);
    const EVP_CIPHER* cipher =
        AdmitGcm(cipherName, "Cryptography.DecryptAndAuth is only for GCM cipher implemented!", context);
    if (!cipher) return std::nullopt;
    return GcmOpen(cipher, token, key, aad, tagLength, context);
}

std::string EncryptAndAuth(std::string plaintext, std::string cipherName, std::string key, std::string aad,
                           int32_t tagLength, IContext* context) {
    return EncryptAndAuthBytes(plaintext, cipherName, key, aad, tagLength, context);
}

std::string EncryptAndAuthDataRef(AutoRefPtr<IDataRef> plaintext, std::string cipherName, std::string key,
                                  std::string aad, int32_t tagLength, IContext* context) {
    const Ombrix::DataBytes input(plaintext);
    return EncryptAndAuthBytes(input.view(), cipherName, key, aad, tagLength, context);
}

std::string DecryptAndVerify(std::string token, std::string cipherName, std::string key, std::string aad,
                             int32_t tagLength, IContext* context) {
    return DecryptAndVerifyBytes(token, cipherName, key, aad, tagLength, context).value_or(std::string());
}

AutoRefPtr<Data> DataRefDecryptAndVerify(std::string token, std::string cipherName, std::string key, std::string aad,
                                         int32_t tagLength, IContext* context) {
    AutoRefPtr<Data> result = Data::Make();
    if (auto plaintext = DecryptAndVerifyBytes(token, cipherName, key, aad, tagLength, context))
        result->Assign(std::move(*plaintext));
    return result;
}

// ---- ChaCha20-Poly1305 ----

// [ciphertext, 16-byte tag]; an empty vector after a reported error.
AutoRefPtr<IVectorGeneric> EncryptChaCha(std::string plaintext, std::string key, AutoRefPtr<IDataRef> nonce,
                                         std::string aad, IContext* context) {
    OpenSSL::WipeOnExit wipeKey(key);
    AutoRefPtr<IVectorGeneric> result;
    if (context)
        if (AutoRefPtr<Ombrix::IVariant> holder = context->CreateInstance(Ombrix::kTypeDataRefVector))
            result = holder->GetVector();

    const EVP_CIPHER* cipher = FindCipher(kChaChaName, context);
    if (!cipher) return result;
    const size_t nonceLength = static_cast<size_t>(std::clamp(EVP_CIPHER_get_iv_length(cipher), 0, EVP_MAX_IV_LENGTH));
    std::string ciphertext(plaintext.size(), '\0');

    OpenSSL::CipherContextPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx) {
        Report(context, kFunctionError, "Couldn't create cipher context!");
        return result;
    }
    // A longer nonce is cut to the cipher's length, a shorter one zero-extended.
    unsigned char nonceCopy[EVP_MAX_IV_LENGTH] = {};
    const unsigned char* nonceBytes = nonceCopy;
    if (nonce) {
        if (const char* direct = nonce->GetData(); direct && nonce->GetSize() >= nonceLength)
            nonceBytes = In(direct);
        else
            nonce->Read(reinterpret_cast<char*>(nonceCopy), nonceLength, 0);
    }
    const OpenSSL::MinimumLengthKey keyBytes(key, KeyLength(cipher));
    if (EVP_EncryptInit_ex(ctx.get(), FetchedCipher(cipher), nullptr, keyBytes.data(), nonceBytes) != 1) {
        Report(context, kFunctionError, "Setting up cipher context failed!");
        return result;
    }
    int ignored = 0, updated = 0, finalised = 0;
    if (!FitsInt(aad.size()) || !FitsInt(plaintext.size()) ||
        EVP_EncryptUpdate(ctx.get(), nullptr, &ignored, In(aad), static_cast<int>(aad.size())) != 1 ||
        EVP_EncryptUpdate(ctx.get(), Out(ciphertext), &updated, In(plaintext), static_cast<int>(plaintext.size())) !=
            1 ||
        EVP_EncryptFinal_ex(ctx.get(), Out(ciphertext, static_cast<size_t>(updated)), &finalised) != 1) {
        Report(context, kFunctionError, "Encryption failed!");
        return result;
    }
    std::string tag(kChaChaTag, '\0');
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kChaChaTag, Out(tag)) != 1) {
        Report(context, kFunctionError, "Getting EVP_CTRL_AEAD_GET_TAG failed!");
        return result;
    }
    ciphertext.resize(static_cast<size_t>(updated + finalised));
    if (result) {
        result->AppendData(AutoRefPtr<IDataRef>(Data::Make(std::move(ciphertext))));
        result->AppendData(AutoRefPtr<IDataRef>(Data::Make(std::move(tag))));
    }
    return result;
}

// The plaintext; empty without an error for a tag that is not 16 bytes or an
// empty ciphertext.
std::string DecryptChaChaBytes(const IDataRef* ciphertext, const IDataRef* tag, std::string& key,
                               const IDataRef* nonce, std::string_view aad, IContext* context) {
    OpenSSL::WipeOnExit wipeKey(key);
    const EVP_CIPHER* cipher = FindCipher(kChaChaName, context);
    if (!cipher) return {};
    if (!tag || tag->GetSize() != kChaChaTag) return {};

    const Ombrix::DataBytes input(ciphertext);
    unsigned char tagBytes[kChaChaTag] = {};
    tag->Read(reinterpret_cast<char*>(tagBytes), sizeof tagBytes, 0);
    if (input.empty()) return {};

    // Zero-extended to the cipher's nonce length; a longer nonce is handed on whole.
    std::optional<OpenSSL::InitVector> nonceBytes;
    if (nonce && nonce->GetSize() != 0) nonceBytes.emplace(nonce, cipher);

    OpenSSL::CipherContextPtr ctx(EVP_CIPHER_CTX_new());
    if (!ctx) {
        Report(context, kFunctionError, "Couldn't create cipher context!");
        return {};
    }
    const OpenSSL::MinimumLengthKey keyBytes(key, KeyLength(cipher));
    if (EVP_DecryptInit_ex(ctx.get(), FetchedCipher(cipher), nullptr, keyBytes.data(), nonceBytes ? nonceBytes->data() : nullptr) !=
        1) {
        Report(context, kFunctionError, "Setting up cipher context failed!");
        return {};
    }
    if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kChaChaTag, tagBytes) != 1) {
        Report(context, kFunctionError, "Setting EVP_CTRL_AEAD_SET_TAG failed!");
        return {};
    }
    std::string plaintext(input.size(), '\0');
    int ignored = 0, updated = 0, finalised = 0;
    if (!FitsInt(aad.size()) || !FitsInt(input.size()) ||
        EVP_DecryptUpdate(ctx.get(), nullptr, &ignored, In(aad), static_cast<int>(aad.size())) != 1 ||
        EVP_DecryptUpdate(ctx.get(), Out(plaintext), &updated, In(input.view()), static_cast<int>(input.size())) !=
            1 ||
        EVP_DecryptFinal(ctx.get(), Out(plaintext, static_cast<size_t>(updated)), &finalised) != 1) {
        Report(context, kFunctionError, "Decryption failed!");
        return {};
    }
    plaintext.resize(static_cast<size_t>(updated + finalised));
    return plaintext;
}

std::string DecryptChaCha(AutoRefPtr<IDataRef> ciphertext, AutoRefPtr<IDataRef> tag, std::string key,
                          AutoRefPtr<IDataRef> nonce, std::string aad, IContext* context) {
    return DecryptChaChaBytes(ciphertext.get(), tag.get(), key, nonce.get(), aad, context);
}

AutoRefPtr<Data> DecryptChaChaDataRef(AutoRefPtr<IDataRef> ciphertext, AutoRefPtr<IDataRef> tag, std::string key,
                                      AutoRefPtr<IDataRef> nonce, std::string aad, IContext* context) {
    return Data::Make(DecryptChaChaBytes(ciphertext.get(), tag.get(), key, nonce.get(), aad, context));
}

}  // namespace
}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(EncryptAndAuth, &Cryptography::EncryptAndAuth)
CRYPTOGRAPHY_ROUTINE(EncryptAndAuthDataRef, &Cryptography::EncryptAndAuthDataRef)
CRYPTOGRAPHY_ROUTINE(DecryptAndVerify, &Cryptography::DecryptAndVerify)
CRYPTOGRAPHY_ROUTINE(DataRefDecryptAndVerify, &Cryptography::DataRefDecryptAndVerify)
CRYPTOGRAPHY_ROUTINE(Encrypt_AEAD_CHACHA20_POLY1305, &Cryptography::EncryptChaCha)
CRYPTOGRAPHY_ROUTINE(Decrypt_AEAD_CHACHA20_POLY1305, &Cryptography::DecryptChaCha)
CRYPTOGRAPHY_ROUTINE(Decrypt_AEAD_CHACHA20_POLY1305DataRef, &Cryptography::DecryptChaChaDataRef)
