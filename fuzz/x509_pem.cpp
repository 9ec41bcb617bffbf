// X509FromPEM and X509VectorFromPEM over arbitrary text, then the certificate
// queries on what they read. Both read the same first certificate.
#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    const CallOutcome single = Call("Cryptography.X509FromPEM", {Str(text)});
    const CallOutcome bundle = Call("Cryptography.X509VectorFromPEM", {Str(text)});
    if (!single.ok() || !bundle.ok()) Fail("a PEM reader reported an error");
    AutoRefPtr<Ombrix::IVectorGeneric> certificates = bundle.result ? bundle.result->GetVector() : nullptr;
    if (!certificates) Fail("X509VectorFromPEM gave no vector");

    const AutoRefPtr<IVariant> cert = single.result;
    const bool read = HasObject(cert) && ResultBoolean(Call("Cryptography.IsValid", {cert}));
    if (read != (certificates->GetSize() > 0)) Fail("X509FromPEM and X509VectorFromPEM disagree on the first certificate");
    for (uint64_t i = 0; i < certificates->GetSize(); ++i)
        if (!ResultBoolean(Call("Cryptography.IsValid", {certificates->GetElement(i)})))
            Fail("X509VectorFromPEM holds an empty certificate");
    if (!read) return 0;

    const std::string der = ResultBytes(Call("Cryptography.ToDER", {cert}));
    if (ResultBytes(Call("Cryptography.ToDER", {certificates->GetElement(0)})) != der)
        Fail("X509FromPEM and X509VectorFromPEM read different first certificates");
    ExerciseCertificate(cert);
    return 0;
}
