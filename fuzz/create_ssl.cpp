// CreateSSL with a configuration parsed from the input by JSON.FromString.
// File settings name test fixtures (a file setting is read from disk, so
// arbitrary paths would read arbitrary files), and the default CA locations
// point at fixtures too.
#include "FuzzSupport.h"
#include "Ombrix/Interfaces.h"

using namespace Fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const CallOutcome parsed =
        ModuleEngine().Call("JSON.FromString", {Str(std::string(reinterpret_cast<const char*>(data), size))});
    if (!parsed.ok() || !HasObject(parsed.result)) return 0;
    AutoRefPtr<Ombrix::IUserDefinedType> held(parsed.result->GetUserDefinedPtr());
    AutoRefPtr<Ombrix::IJSON> configuration = held.DynamicCast<Ombrix::IJSON>();
    if (!configuration) Fail("JSON.FromString gave no JSON value");
    RestrictFileSettings(*configuration);

    const CallOutcome created = Call("Cryptography.CreateSSL", {parsed.result});
    if (!created.ok() || !HasObject(created.result)) Fail("CreateSSL did not give a session");
    const double state = ResultNumber(Call("Cryptography.State", {created.result}));
    const std::string error = ResultString(Call("Cryptography.Error", {created.result}));
    if (state < 0 && error.empty()) Fail("a failed session has no message");
    return 0;
}
