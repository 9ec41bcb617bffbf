#include "Key.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstring>
#include <string_view>

#include "Codec.h"
#include "Ombrix/Json.h"
#include "Routine.h"
#include "openssl/WipeOnExit.h"

namespace Cryptography {

namespace {

// Hands OpenSSL the password without a terminating zero; no password: 0.
int PasswordCallback(char* buffer, int size, int /*rwflag*/, void* password) {
    if (!password || size <= 0) return 0;
    const size_t length = std::min(std::strlen(static_cast<const char*>(password)), static_cast<size_t>(size));
    std::memcpy(buffer, password, length);
    return static_cast<int>(length);
}

// A BIGNUM parameter of the key as Base64URL of its minimal big-endian bytes.
std::string BigNumParamBase64URL(const EVP_PKEY* pkey, const char* name) {
    BIGNUM* raw = nullptr;
    if (!EVP_PKEY_get_bn_param(pkey, name, &raw)) return {};
    const OpenSSL::BigNumPtr number(raw);
    std::string bytes((BN_num_bits(number.get()) + 7) / 8, '\0');
    BN_bn2bin(number.get(), reinterpret_cast<unsigned char*>(bytes.data()));
    return Codec::Base64URLEncode(bytes);
}

}  // namespace

Key::Key(const Key& other) : CustomType(other), isPrivate_(other.isPrivate_) {
    if (other.pkey_ && EVP_PKEY_up_ref(other.pkey_.get())) pkey_.reset(other.pkey_.get());
}

void Key::Reset(EVP_PKEY* pkey, bool isPrivate) noexcept {
    pkey_.reset(pkey);
    isPrivate_ = isPrivate;
}

bool Key::FromPEM(const char* text, const char* password) {
    if (!text) return false;
    const bool isPrivate = std::string_view(text).find("PRIVATE") != std::string_view::npos;
    OpenSSL::BioPtr bio(BIO_new_mem_buf(text, -1));
    if (!bio) return false;
    void* callbackData = const_cast<char*>(password);
    EVP_PKEY* read = isPrivate ? PEM_read_bio_PrivateKey(bio.get(), nullptr, PasswordCallback, callbackData)
                               : PEM_read_bio_PUBKEY(bio.get(), nullptr, PasswordCallback, callbackData);
    if (!read) return false;
    Reset(read, isPrivate);
    return true;
}

std::string Key::ToPEM(bool publicOnly, Ombrix::IContext* context) const {
    if (!pkey_) return {};
    // Secure memory is wiped when the BIO is freed, so no private key text
    // stays behind in the heap.
    OpenSSL::BioPtr bio(BIO_new(BIO_s_secmem()));
    if (!bio) return {};
    bool written;
    if (!isPrivate_ || publicOnly) {
        written = PEM_write_bio_PUBKEY(bio.get(), pkey_.get()) == 1;
    } else {
        OpenSSL::EncoderContextPtr encoder(
            OSSL_ENCODER_CTX_new_for_pkey(pkey_.get(), EVP_PKEY_KEYPAIR, "PEM", "type-specific", nullptr));
        if (!encoder) {
            ReportOpenSSLError(context, "Preparation of PEM export");
            return {};
        }
        written = OSSL_ENCODER_to_bio(encoder.get(), bio.get()) == 1;
    }
    if (!written) return {};
    std::string pem(BIO_number_written(bio.get()), '\0');
    if (BIO_read(bio.get(), pem.data(), static_cast<int>(pem.size())) != static_cast<int>(pem.size())) return {};
    return pem;
}

std::string Key::GetKeyType() const {
    if (!pkey_) return {};
    switch (EVP_PKEY_get_base_id(pkey_.get())) {
        case EVP_PKEY_RSA:
            return "RSA";
        case EVP_PKEY_EC: {
            size_t length = 0;
            if (!EVP_PKEY_get_utf8_string_param(pkey_.get(), OSSL_PKEY_PARAM_GROUP_NAME, nullptr, 0, &length))
                return {};
            std::string group(length + 1, '\0');
            if (!EVP_PKEY_get_utf8_string_param(pkey_.get(), OSSL_PKEY_PARAM_GROUP_NAME, group.data(), group.size(),
                                                &length))
                return {};
            group.resize(length);
            return group;
        }
        case EVP_PKEY_X25519:
            return "X25519";
        default:
            return "Unknown";
    }
}

std::string Key::GetExponent() const {
    if (GetKeyType() != "RSA") return {};
    return BigNumParamBase64URL(pkey_.get(), OSSL_PKEY_PARAM_RSA_E);
}

std::string Key::GetModulus() const {
    if (GetKeyType() != "RSA") return {};
    return BigNumParamBase64URL(pkey_.get(), OSSL_PKEY_PARAM_RSA_N);
}

Ombrix::AutoRefPtr<Ombrix::IJSON> Key::Interface_Serialize() const {
    auto json = Ombrix::JSON::JSONWrapper::Make();
    std::string pem = ToPEM(false);
    ERR_clear_error();
    const OpenSSL::WipeOnExit wipe(pem);
    if (!json->SetMemberString("value", pem.data(), pem.size())) return nullptr;
    return Ombrix::AutoRefPtr<Ombrix::IJSON>(std::move(json));
}

bool Key::Interface_Deserialize(const Ombrix::IJSON* json) {
    std::string pem;
    const OpenSSL::WipeOnExit wipe(pem);
    if (!json || !json->GetMemberString("value", pem)) return false;
    // The host calls this outside any routine: leave no OpenSSL error behind.
    const bool read = FromPEM(pem.c_str(), nullptr);
    ERR_clear_error();
    return read;
}

}  // namespace Cryptography

CRYPTOGRAPHY_TYPE_FACTORY(CreateCryptographyKey, Cryptography::Key)
