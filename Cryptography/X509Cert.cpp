#include "X509Cert.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <climits>

#include "Ombrix/Json.h"
#include "Routine.h"
#include "openssl/NoPassphrase.h"

namespace Cryptography {

X509Cert::X509Cert(const X509Cert& other) : CustomType(other) {
    if (other.cert_ && X509_up_ref(other.cert_.get())) cert_.reset(other.cert_.get());
}

bool X509Cert::ImportPEM(const char* text) {
    if (!text) return false;
    OpenSSL::BioPtr bio(BIO_new_mem_buf(text, -1));
    if (!bio) return false;
    X509* read = PEM_read_bio_X509(bio.get(), nullptr, OpenSSL::NoPassphrase, nullptr);
    if (!read) return false;
    cert_.reset(read);
    return true;
}

bool X509Cert::ImportDER(const Ombrix::IDataRef* der) {
    Ombrix::DataBytes bytes(der);
    if (bytes.size() > static_cast<size_t>(LONG_MAX)) return false;
    const auto* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
    X509* read = d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size()));
    if (!read) return false;
    cert_.reset(read);
    return true;
}

std::string X509Cert::ToPEM() const {
    if (!cert_) return {};
    OpenSSL::BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert_.get()) != 1) return {};
    std::string pem(BIO_number_written(bio.get()), '\0');
    if (BIO_read(bio.get(), pem.data(), static_cast<int>(pem.size())) != static_cast<int>(pem.size())) return {};
    return pem;
}

Ombrix::AutoRefPtr<Ombrix::Data> X509Cert::ToDER() const {
    if (!cert_) return nullptr;
    unsigned char* encoded = nullptr;
    const int length = i2d_X509(cert_.get(), &encoded);
    if (length <= 0) return nullptr;
    auto der = Ombrix::Data::Make(std::string(reinterpret_cast<const char*>(encoded), static_cast<size_t>(length)));
    OPENSSL_free(encoded);
    return der;
}

void X509Cert::Adopt(X509* certificate) noexcept {
    cert_.reset();
    if (certificate && X509_up_ref(certificate)) cert_.reset(certificate);
}

X509* X509Cert::GetOrCreate() noexcept {
    if (!cert_) cert_.reset(X509_new());
    return cert_.get();
}

void X509Cert::Reread() noexcept {
    X509* x = cert_.get();
    if (!x) return;
    ERR_set_mark();
    // Some changes (extensions, name entries, times) leave OpenSSL's cached
    // encoding in place: encode from the fields, so no change is lost.
    i2d_re_X509_tbs(x, nullptr);
    unsigned char* der = nullptr;
    const int length = i2d_X509(x, &der);
    if (length > 0) {
        // A trial read first: reading in place stops half way on an encoding
        // OpenSSL refuses, and that must never happen to the held certificate.
        const unsigned char* trial = der;
        OpenSSL::X509Ptr check(d2i_X509(nullptr, &trial, length));
        if (check && trial == der + length) {
            // A failed read in place would drop a reference: it drops this one.
            X509_up_ref(x);
            const unsigned char* in = der;
            X509* same = x;
            if (d2i_X509(&same, &in, length) == x) X509_free(x);
        }
    }
    OPENSSL_free(der);
    ERR_pop_to_mark();
}

Ombrix::AutoRefPtr<Ombrix::IJSON> X509Cert::Interface_Serialize() const {
    auto json = Ombrix::JSON::JSONWrapper::Make();
    const std::string pem = ToPEM();
    ERR_clear_error();
    if (!json->SetMemberString("value", pem.data(), pem.size())) return nullptr;
    return Ombrix::AutoRefPtr<Ombrix::IJSON>(std::move(json));
}

bool X509Cert::Interface_Deserialize(const Ombrix::IJSON* json) {
    std::string pem;
    if (!json || !json->GetMemberString("value", pem)) return false;
    // The host calls this outside any routine: leave no OpenSSL error behind.
    const bool read = ImportPEM(pem.c_str());
    ERR_clear_error();
    return read;
}

}  // namespace Cryptography

CRYPTOGRAPHY_TYPE_FACTORY(CreateCryptographyX509, Cryptography::X509Cert)
