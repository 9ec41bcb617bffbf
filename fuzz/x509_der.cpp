// X509FromDER over arbitrary bytes (in place and read through the buffer),
// then the certificate queries. A certificate's own DER reads back unchanged.
#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const bool contiguous = data[0] & 1;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    const CallOutcome read = Call("Cryptography.X509FromDER", {Dat(bytes, contiguous)});
    if (!read.ok()) Fail("X509FromDER reported an error");
    const AutoRefPtr<IVariant> cert = read.result;
    if (!HasObject(cert) || !ResultBoolean(Call("Cryptography.IsValid", {cert}))) return 0;

    const std::string der = ResultBytes(Call("Cryptography.ToDER", {cert}));
    if (der.empty()) return 0;  // OpenSSL reads some certificates it cannot write
    const CallOutcome again = Call("Cryptography.X509FromDER", {Dat(der, contiguous)});
    if (ResultBytes(Call("Cryptography.ToDER", {again.result})) != der)
        Fail("a certificate's DER does not read back unchanged");
    const std::string pem = ResultString(Call("Cryptography.ToPEM", {cert}));
    if (ResultBytes(Call("Cryptography.ToDER", {Call("Cryptography.X509FromPEM", {Str(pem)}).result})) != der)
        Fail("a certificate's PEM does not read back to the same DER");
    ExerciseCertificate(cert);
    return 0;
}
