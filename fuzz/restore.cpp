// Values restored from JSON, as Ombrix.deserialize and a host's saved state
// do: the first input byte picks Cryptography.Key, Cryptography.X509 or
// Cryptography.SSL, the rest is the JSON text. A restored value is queried,
// saved again, and what it saves must restore to the same saved form.
#include <openssl/err.h>

#include <string>

#include "FuzzSupport.h"
#include "Ombrix/Interfaces.h"

namespace {

using namespace Fuzz;
using Ombrix::Host::Variant;

constexpr const char* kTypes[] = {"Cryptography.Key", "Cryptography.X509", "Cryptography.SSL"};

// The JSON text a value saves, "" when it saves nothing.
std::string Saved(const AutoRefPtr<Ombrix::IUserDefinedType>& value) {
    AutoRefPtr<Ombrix::IJSON> json = value->Serialize(nullptr);
    if (!json) return {};
    const CallOutcome text = ModuleEngine().Call("JSON.ToString", {AutoRefPtr<IVariant>(Variant::Object(json))});
    return ResultString(text);
}

void ExerciseKey(const AutoRefPtr<IVariant>& key) {
    if (!ResultBoolean(Call("Cryptography.IsValid", {key}))) return;
    for (const char* query : {"Cryptography.GetKeyType", "Cryptography.GetKeyLength", "Cryptography.ToPEM",
                              "Cryptography.PublicToPEM", "Cryptography.EncodePublicKey",
                              "Cryptography.EncodePrivateKey", "Cryptography.GetExponent", "Cryptography.GetModulus"})
        Call(query, {key});
    const CallOutcome signature = Call("Cryptography.Sign", {Str("message"), key, Str("SHA256")});
    Call("Cryptography.VerifySignature", {Str("message"), key, Str("SHA256"), AutoRefPtr<IVariant>(signature.result)});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string type = kTypes[data[0] % std::size(kTypes)];
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

    // A key value may be an encrypted PEM whose key derivation is slow by design.
    const CallOutcome parsed = ModuleEngine().Call("JSON.FromString", {Str(text)});
    if (HasObject(parsed.result)) {
        AutoRefPtr<Ombrix::IUserDefinedType> held(parsed.result->GetUserDefinedPtr());
        std::string value;
        if (auto json = held.DynamicCast<Ombrix::IJSON>(); json && json->GetMemberString("value", value) &&
                                                             CostlyEncryptedPEM(value))
            return 0;
    }

    ERR_clear_error();
    const AutoRefPtr<Ombrix::IUserDefinedType> restored = ModuleEngine().Deserialize(type, text);
    if (ERR_peek_error()) Fail("restoring a " + type + " left an OpenSSL error queued");
    if (!restored) return 0;
    const AutoRefPtr<IVariant> value(Variant::Object(restored));
    if (type == "Cryptography.Key") ExerciseKey(value);
    if (type == "Cryptography.X509" && ResultBoolean(Call("Cryptography.IsValid", {value}))) ExerciseCertificate(value);

    const std::string saved = Saved(restored);
    if (saved.empty() || saved.find("\"value\":\"\"") != std::string::npos) return 0;
    const AutoRefPtr<Ombrix::IUserDefinedType> again = ModuleEngine().Deserialize(type, saved);
    if (!again) Fail(type + " does not restore from what it saved: " + saved);
    if (Saved(again) != saved) Fail(type + " saves differently after a round trip");
    ERR_clear_error();
    return 0;
}
