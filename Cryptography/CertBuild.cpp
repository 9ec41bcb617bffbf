// Certificate building procedures. Each works in place on the certificate
// (created on first use) and fails silently: a step OpenSSL refuses leaves the
// certificate as it was. NUMBER arguments arrive as the low 32 bits of their
// truncation, so larger values wrap.
#include <openssl/x509v3.h>

#include "Key.h"
#include "Routine.h"
#include "X509Cert.h"

namespace Cryptography {

namespace {

using Ombrix::AutoRefPtr;
using CertRef = AutoRefPtr<X509Cert>;
using KeyRef = AutoRefPtr<Key>;

// Runs one change on the certificate (created first when there is none), then
// lets later queries see the changed certificate.
template <class Change>
void Build(const CertRef& cert, Change&& change) {
    X509* x = cert->GetOrCreate();
    if (!x) return;
    change(x);
    cert->Reread();
}

void SetVersion(CertRef cert, int32_t version) {
    Build(cert, [&](X509* x) { X509_set_version(x, version); });
}

void SetSerialNumber(CertRef cert, int32_t serial) {
    Build(cert, [&](X509* x) { ASN1_INTEGER_set(X509_get_serialNumber(x), serial); });
}

// Appends one entry (its own set) to a name; an unknown field changes nothing.
void AddNameEntry(X509_NAME* name, const std::string& field, const std::string& value) {
    if (!name) return;
    X509_NAME_add_entry_by_txt(name, field.c_str(), MBSTRING_ASC, reinterpret_cast<const unsigned char*>(value.c_str()),
                               -1, -1, 0);
}

void SetSubjectName(CertRef cert, std::string field, std::string value) {
    Build(cert, [&](X509* x) { AddNameEntry(X509_get_subject_name(x), field, value); });
}

void SetIssuerName(CertRef cert, std::string field, std::string value) {
    Build(cert, [&](X509* x) { AddNameEntry(X509_get_issuer_name(x), field, value); });
}

// The time becomes now + offset, whatever it was before.
void AdjustNotBefore(CertRef cert, int32_t offset) {
    Build(cert, [&](X509* x) { X509_gmtime_adj(X509_getm_notBefore(x), offset); });
}

void AdjustNotAfter(CertRef cert, int32_t offset) {
    Build(cert, [&](X509* x) { X509_gmtime_adj(X509_getm_notAfter(x), offset); });
}

// The certificate keeps only the public part of the key.
void SetKey(CertRef cert, KeyRef key) {
    Build(cert, [&](X509* x) {
        if (key && key->PKey()) X509_set_pubkey(x, key->PKey());
    });
}

// The value uses OpenSSL's configuration syntax ("critical,CA:TRUE"). The
// certificate is its own issuer in the extension context, so key identifiers
// that refer to the issuer come from the certificate's own key.
void AddExtension(CertRef cert, std::string name, std::string value) {
    Build(cert, [&](X509* x) {
        const int nid = OBJ_txt2nid(name.c_str());
        X509V3_CTX context;
        X509V3_set_ctx(&context, x, x, nullptr, nullptr, 0);
        X509V3_set_ctx_nodb(&context);
        OpenSSL::X509ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
        if (extension) X509_add_ext(x, extension.get(), -1);
    });
}

// SHA-256 for every key type; a key that cannot sign leaves the certificate unsigned.
void Sign(CertRef cert, KeyRef key) {
    Build(cert, [&](X509* x) {
        if (key && key->PKey()) X509_sign(x, key->PKey(), EVP_sha256());
    });
}

}  // namespace

}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(X509SetVersion, &Cryptography::SetVersion)
CRYPTOGRAPHY_ROUTINE(X509SetSerialNumber, &Cryptography::SetSerialNumber)
CRYPTOGRAPHY_ROUTINE(X509SetSubjectName, &Cryptography::SetSubjectName)
CRYPTOGRAPHY_ROUTINE(X509SetIssuerName, &Cryptography::SetIssuerName)
CRYPTOGRAPHY_ROUTINE(X509AdjustNotBefore, &Cryptography::AdjustNotBefore)
CRYPTOGRAPHY_ROUTINE(X509AdjustNotAfter, &Cryptography::AdjustNotAfter)
CRYPTOGRAPHY_ROUTINE(X509SetKey, &Cryptography::SetKey)
CRYPTOGRAPHY_ROUTINE(X509AddExtension, &Cryptography::AddExtension)
CRYPTOGRAPHY_ROUTINE(X509Sign, &Cryptography::Sign)
