// Sign with a PEM private key in a DATAREF: key and message from the input,
// digest names known and unknown.
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
    const std::string key = input.ConsumeRemainingBytesAsString();
    if (CostlyEncryptedPEM(key)) return 0;

    const CallOutcome signed_ = Call("Cryptography.Sign", {messageAsData ? Dat(message, contiguous) : Str(message),
                                                           Dat(key, contiguous), Str(digest)});
    if (!signed_.ok() && !ResultBytes(signed_).empty()) Fail("Sign reported an error and still gave a signature");
    return 0;
}
