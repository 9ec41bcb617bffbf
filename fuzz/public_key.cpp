// GeneratePublicKey over arbitrary Base64URL modulus and exponent texts; a key
// it builds must describe itself consistently and survive its PEM form.
#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

std::string Text(std::string_view routine, const AutoRefPtr<IVariant>& key) {
    return ResultString(Call(routine, {key}));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string exponent = input.ConsumeRandomLengthString(64);
    const std::string modulus = input.ConsumeRemainingBytesAsString();

    const CallOutcome built = Call("Cryptography.GeneratePublicKey", {Str(modulus), Str(exponent)});
    const AutoRefPtr<IVariant> key = built.result;
    if (!ResultBoolean(Call("Cryptography.IsValid", {key}))) return 0;

    Call("Cryptography.GetKeyLength", {key});
    Call("Cryptography.GetKeyType", {key});
    Call("Cryptography.EncodePublicKey", {key});
    const std::string n = Text("Cryptography.GetModulus", key);
    const std::string e = Text("Cryptography.GetExponent", key);

    // The canonical texts build the same key again.
    const CallOutcome again = Call("Cryptography.GeneratePublicKey", {Str(n), Str(e)});
    if (again.ok() && ResultBoolean(Call("Cryptography.IsValid", {again.result})) &&
        (Text("Cryptography.GetModulus", again.result) != n || Text("Cryptography.GetExponent", again.result) != e))
        Fail("GeneratePublicKey from GetModulus/GetExponent gave a different key");

    // Text holding "PRIVATE" anywhere, even inside the Base64 body, is read as a
    // private key by rule, so such a public PEM cannot read back.
    const std::string pem = Text("Cryptography.PublicToPEM", key);
    if (pem.empty() || pem.find("PRIVATE") != std::string::npos) return 0;
    const CallOutcome read = Call("Cryptography.KeyFromPEM", {Str(pem)});
    if (!ResultBoolean(Call("Cryptography.IsValid", {read.result})))
        Fail("the PEM form of a built key does not read back");
    if (Text("Cryptography.GetModulus", read.result) != n) Fail("a built key's modulus changed through PEM");
    return 0;
}
