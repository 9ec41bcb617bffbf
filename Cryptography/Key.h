// Cryptography::Key, the class behind the script type Cryptography.Key: one
// OpenSSL EVP_PKEY (RSA, EC or X25519, private or public).
#pragma once

#include <string>

#include "Ombrix/CustomType.h"
#include "openssl/Handles.h"

namespace Cryptography {

class Key final : public Ombrix::CustomType<Key> {
public:
    static constexpr const char* kTypeName = "Cryptography.Key";

    Key(uint32_t typeId, Ombrix::IContext* context) : CustomType(typeId, context) {}
    // Copies share the EVP_PKEY (one more OpenSSL reference).
    Key(const Key& other);

    // Reads a PEM key: private when the text contains "PRIVATE", else public.
    // password may be null. On failure the key held is left unchanged.
    bool FromPEM(const char* text, const char* password);
    // PUBLIC KEY block for public keys or when publicOnly; else the
    // algorithm's own private block. "" for an empty key. An encoder failure
    // is reported on context (when given).
    std::string ToPEM(bool publicOnly, Ombrix::IContext* context = nullptr) const;

    // "RSA", the EC group name ("" when unreadable), "X25519" or "Unknown";
    // "" for an empty key.
    std::string GetKeyType() const;
    // RSA public exponent and modulus as unpadded Base64URL of their minimal
    // big-endian bytes; "" for an empty or non-RSA key.
    std::string GetExponent() const;
    std::string GetModulus() const;

    bool IsValid() const noexcept { return pkey_ != nullptr; }
    bool IsPrivate() const noexcept { return isPrivate_; }
    EVP_PKEY* PKey() const noexcept { return pkey_.get(); }
    // Replaces the key held (taking ownership of pkey, which may be null).
    void Reset(EVP_PKEY* pkey, bool isPrivate) noexcept;

    // {"value": PEM}
    Ombrix::AutoRefPtr<Ombrix::IJSON> Interface_Serialize() const override;
    bool Interface_Deserialize(const Ombrix::IJSON* json) override;
    using CustomType::Interface_Deserialize;
    using CustomType::Interface_Serialize;

private:
    OpenSSL::PKeyPtr pkey_;
    bool isPrivate_ = false;
};

}  // namespace Cryptography
