// Certificate building with fields from the input: subject and issuer
// entries (SetSubjectName / SetIssuerName) and extensions (AddExtension, whose
// value is OpenSSL's configuration syntax: lists, "critical,", "DER:", "ASN1:",
// references). The input is text, one operation per line:
//   S name=value   subject entry        I name=value   issuer entry
//   E name=value   extension            V n / N n      version / serial
//   B n / A n      adjust not-before / not-after by n seconds
// A first line "ca" starts from a fixture certificate instead of a new one.
// At the end the certificate is signed with a fixed EC key and queried; when
// its PEM reads back as a certificate, that one's PEM must be the same.
#include <cstdlib>
#include <string>
#include <string_view>

#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

constexpr size_t kMaxOperations = 16;

const AutoRefPtr<IVariant>& SigningKey() {
    static const AutoRefPtr<IVariant> key = [] {
        const CallOutcome read = Call("Cryptography.KeyFromPEM", {Str(ReadFile(DataPath("keys/ec.pem")))});
        if (!HasObject(read.result)) Fail("fixture key did not load");
        return AutoRefPtr<IVariant>(read.result);
    }();
    return key;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    auto nextLine = [&] {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        return std::string(line);
    };

    AutoRefPtr<IVariant> cert;
    if (text.starts_with("ca\n")) {
        nextLine();
        cert = AutoRefPtr<IVariant>(Call("Cryptography.X509FromPEM", {Str(ReadFile(DataPath("tls/ca.pem")))}).result);
    } else {
        cert = AutoRefPtr<IVariant>(Call("Cryptography.CreateX509", {}).result);
        // A new certificate has no validity period until it is adjusted.
        Call("Cryptography.AdjustNotBefore", {cert, Num(0)});
        Call("Cryptography.AdjustNotAfter", {cert, Num(86400)});
    }
    if (!HasObject(cert)) Fail("no certificate to build on");

    for (size_t done = 0; done < kMaxOperations && !text.empty(); ++done) {
        const std::string line = nextLine();
        if (line.size() < 2) continue;
        const std::string body = line.substr(2);
        const size_t equals = body.find('=');
        const std::string name = body.substr(0, equals);
        const std::string value = equals == std::string::npos ? std::string() : body.substr(equals + 1);
        switch (line[0]) {
            case 'S': Call("Cryptography.SetSubjectName", {cert, Str(name), Str(value)}); break;
            case 'I': Call("Cryptography.SetIssuerName", {cert, Str(name), Str(value)}); break;
            case 'E': Call("Cryptography.AddExtension", {cert, Str(name), Str(value)}); break;
            case 'V': Call("Cryptography.SetVersion", {cert, Num(std::atof(body.c_str()))}); break;
            case 'N': Call("Cryptography.SetSerialNumber", {cert, Num(std::atof(body.c_str()))}); break;
            case 'B': Call("Cryptography.AdjustNotBefore", {cert, Num(std::atof(body.c_str()))}); break;
            case 'A': Call("Cryptography.AdjustNotAfter", {cert, Num(std::atof(body.c_str()))}); break;
            default: break;
        }
    }

    Call("Cryptography.SetKey", {cert, SigningKey()});
    Call("Cryptography.Sign", {cert, SigningKey()});
    ExerciseCertificate(cert);
    const std::string pem = ResultString(Call("Cryptography.ToPEM", {cert}));
    ModuleEngine().Call("JSON.ToString", {AutoRefPtr<IVariant>(Call("Cryptography.PEMToJson", {Str(pem)}).result)});
    if (pem.empty()) return 0;
    const AutoRefPtr<IVariant> again(Call("Cryptography.X509FromPEM", {Str(pem)}).result);
    if (!ResultBoolean(Call("Cryptography.IsValid", {again}))) return 0;
    if (ResultString(Call("Cryptography.ToPEM", {again})) != pem)
        Fail("a built certificate's PEM does not read back the same");
    return 0;
}
