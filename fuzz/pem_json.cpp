// PEMToJson over arbitrary text, its description written out as JSON text.
// Unreadable input gives an empty description, never a report.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Fuzz;
    const CallOutcome described =
        Call("Cryptography.PEMToJson", {Str(std::string(reinterpret_cast<const char*>(data), size))});
    if (!described.ok()) Fail("PEMToJson reported an error");
    if (!HasObject(described.result)) Fail("PEMToJson gave no JSON value");
    const CallOutcome written = Call("JSON.ToString", {described.result});
    if (!written.ok() || ResultString(written).empty()) Fail("the description does not write as JSON text");
    return 0;
}
