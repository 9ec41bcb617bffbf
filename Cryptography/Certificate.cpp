// Certificate creation and PEM/DER import and export. None of these routines
// reports an error: unreadable input gives an empty certificate.
#include <algorithm>
#include <string_view>

#include "Routine.h"
#include "X509Cert.h"

namespace Cryptography {

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::IContext;
using CertRef = AutoRefPtr<X509Cert>;

constexpr std::string_view kEndMarker = "-----END CERTIFICATE-----";

uint32_t CertificateVectorTypeId(IContext* context) {
    static const uint32_t id = context ? context->FindType("VECTOR<Cryptography.X509>") : 0;
    return id;
}

CertRef CreateX509(IContext* context) { return X509Cert::New(context); }

CertRef X509FromPEM(std::string text, IContext* context) {
    CertRef cert = X509Cert::New(context);
    if (cert) cert->ImportPEM(text.c_str());
    return cert;
}

// Reads certificates one after another: after each one read, everything up to
// one byte past the first END CERTIFICATE line is dropped (25 bytes when there
// is none), so blocks with another END label are read again until their BEGIN
// line is gone.
AutoRefPtr<Ombrix::IVectorGeneric> X509VectorFromPEM(std::string text, IContext* context) {
    if (!context) return nullptr;
    AutoRefPtr<Ombrix::IVariant> holder = context->CreateInstance(CertificateVectorTypeId(context));
    if (!holder) return nullptr;
    AutoRefPtr<Ombrix::IVectorGeneric> certificates = holder->GetVector();
    if (!certificates) return nullptr;

    std::string working = std::move(text);
    for (;;) {
        CertRef cert = X509Cert::New(context);
        if (!cert || !cert->ImportPEM(working.c_str())) break;
        certificates->AppendUserDefined(AutoRefPtr<Ombrix::IUserDefinedType>(std::move(cert)));
        const size_t found = working.find(kEndMarker);
        const long long position = found == std::string::npos ? -1 : static_cast<long long>(found);
        const size_t cut = std::min(static_cast<size_t>(position + 1 + static_cast<long long>(kEndMarker.size())),
                                    working.size());
        working.erase(0, cut);
    }
    return certificates;
}

CertRef X509FromDER(AutoRefPtr<Ombrix::IDataRef> der, IContext* context) {
    CertRef cert = X509Cert::New(context);
    if (cert) cert->ImportDER(der.get());
    return cert;
}

std::string ToPEM(CertRef cert) { return cert->ToPEM(); }

AutoRefPtr<Ombrix::Data> ToDER(CertRef cert) { return cert->ToDER(); }

}  // namespace

}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(CreateX509, &Cryptography::CreateX509)
CRYPTOGRAPHY_ROUTINE(PEMToX509, &Cryptography::X509FromPEM)
CRYPTOGRAPHY_ROUTINE(PEMToX509Vec, &Cryptography::X509VectorFromPEM)
CRYPTOGRAPHY_ROUTINE(DERToX509, &Cryptography::X509FromDER)
CRYPTOGRAPHY_ROUTINE(X509ToPEM, &Cryptography::ToPEM)
CRYPTOGRAPHY_ROUTINE(X509ToDER, &Cryptography::ToDER)
