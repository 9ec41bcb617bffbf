// KeyFromPEM with and without a password over arbitrary text, then every key
// query on what it read. The PEM forms a key writes must read back as a key of
// the same type and size.
#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

std::string Text(std::string_view routine, const AutoRefPtr<IVariant>& key) {
    return ResultString(Call(routine, {key}));
}

bool Valid(const AutoRefPtr<IVariant>& key) { return HasObject(key) && ResultBoolean(Call("Cryptography.IsValid", {key})); }

void ExpectSameKey(const std::string& pem, const AutoRefPtr<IVariant>& original, const char* form) {
    if (pem.empty()) return;  // not every key type has a PEM form of its own
    // Text holding "PRIVATE" anywhere, even inside the Base64 body, is read as a
    // private key by rule, so such a public PEM cannot read back.
    if (pem.find("PRIVATE") != std::string::npos && pem.find("PRIVATE KEY-----") == std::string::npos) return;
    const CallOutcome read = Call("Cryptography.KeyFromPEM", {Str(pem)});
    if (!Valid(read.result)) Fail(std::string("the ") + form + " PEM of a key does not read back");
    if (Text("Cryptography.GetKeyType", read.result) != Text("Cryptography.GetKeyType", original) ||
        ResultNumber(Call("Cryptography.GetKeyLength", {read.result})) !=
            ResultNumber(Call("Cryptography.GetKeyLength", {original})))
        Fail(std::string("a key read back from its ") + form + " PEM differs in type or size");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const bool withPassword = input.ConsumeBool();
    const std::string password = withPassword ? input.ConsumeRandomLengthString(32) : std::string();
    const std::string text = input.ConsumeRemainingBytesAsString();
    if (CostlyEncryptedPEM(text)) return 0;

    const CallOutcome read = withPassword ? Call("Cryptography.KeyFromPEM", {Str(text), Str(password)})
                                          : Call("Cryptography.KeyFromPEM", {Str(text)});
    if (!read.ok()) Fail("KeyFromPEM reported an error");
    const AutoRefPtr<IVariant> key = read.result;
    if (!Valid(key)) return 0;

    Call("Cryptography.GetKeyType", {key});
    Call("Cryptography.GetKeyLength", {key});
    Call("Cryptography.GetModulus", {key});
    Call("Cryptography.GetExponent", {key});
    Call("Cryptography.EncodePrivateKey", {key});
    Call("Cryptography.EncodePublicKey", {key});
    ExpectSameKey(Text("Cryptography.PublicToPEM", key), key, "public");
    ExpectSameKey(Text("Cryptography.ToPEM", key), key, "full");
    return 0;
}
