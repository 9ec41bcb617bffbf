// VerifySignature with a PEM public key in a DATAREF: key, message and
// signature from the input, digest names known and unknown.
#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

constexpr const char* kDigests[] = {"SHA256", "sha1", "SHA512", "MD5", "SHA3-256", "SHAKE128", "no-digest"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const bool messageAsData = input.ConsumeBool();
    const bool contiguous = input.ConsumeBool();
    const std::string digest = input.PickValueInArray(kDigests);
    const std::string message = input.ConsumeRandomLengthString(64);
    const std::string signature = input.ConsumeRandomLengthString(600);
    const std::string key = input.ConsumeRemainingBytesAsString();

    const CallOutcome verified =
        Call("Cryptography.VerifySignature", {messageAsData ? Dat(message, contiguous) : Str(message),
                                              Dat(key, contiguous), Str(digest), Dat(signature, contiguous)});
    // Every refusal is reported; true comes without a report.
    if (ResultBoolean(verified) == !verified.errors.empty())
        Fail("VerifySignature's result and its reports disagree");
    return 0;
}
