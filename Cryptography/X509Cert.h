// Cryptography::X509Cert, the class behind the script type Cryptography.X509:
// one OpenSSL X509, created lazily by the first building step.
#pragma once

#include <string>

#include "Ombrix/CustomType.h"
#include "Ombrix/Data.h"
#include "openssl/Handles.h"

namespace Cryptography {

class X509Cert final : public Ombrix::CustomType<X509Cert> {
public:
    static constexpr const char* kTypeName = "Cryptography.X509";

    X509Cert(uint32_t typeId, Ombrix::IContext* context) : CustomType(typeId, context) {}
    // Copies share the X509 (one more OpenSSL reference) and see each other's changes.
    X509Cert(const X509Cert& other);

    // Reads the first certificate of a PEM text (up to its first zero byte).
    bool ImportPEM(const char* text);
    // Reads DER bytes, in place when the buffer offers contiguous bytes.
    bool ImportDER(const Ombrix::IDataRef* der);
    // "" for an empty certificate.
    std::string ToPEM() const;
    // Null for an empty certificate or when encoding fails.
    Ombrix::AutoRefPtr<Ombrix::Data> ToDER() const;
    // Takes its own reference to a borrowed certificate; null empties the object.
    void Adopt(X509* certificate) noexcept;

    bool IsValid() const noexcept { return cert_ != nullptr; }
    X509* Get() const noexcept { return cert_.get(); }
    // The certificate, created with X509_new when there is none yet (null if that fails).
    X509* GetOrCreate() noexcept;
    // Reads the certificate again from its own encoding, in place (clones see
    // it too). OpenSSL works out a certificate's extension data on its first
    // query and keeps it; after a change, this makes later queries see the
    // certificate as it now is. Nothing happens while the certificate cannot
    // be encoded yet, and no entry is left in OpenSSL's error queue.
    void Reread() noexcept;

    // {"value": PEM}
    Ombrix::AutoRefPtr<Ombrix::IJSON> Interface_Serialize() const override;
    bool Interface_Deserialize(const Ombrix::IJSON* json) override;
    using CustomType::Interface_Deserialize;
    using CustomType::Interface_Serialize;

private:
    OpenSSL::X509Ptr cert_;
};

}  // namespace Cryptography
