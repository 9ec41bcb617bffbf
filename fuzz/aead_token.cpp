// AES-GCM tokens: DecryptAndVerify and DataRefDecryptAndVerify over arbitrary
// token text, cipher names, keys and tag lengths; and tokens sealed by
// EncryptAndAuth, which must open to their plaintext.
#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

// GCM ciphers under several spellings, a known cipher that is not GCM and an
// unknown name that ends in "gcm".
constexpr const char* kCipherNames[] = {"aes-128-gcm",  "aes-192-gcm", "aes-256-gcm", "id-aes128-GCM",
                                        "ARIA-256-GCM", "AES-128-GCM", "aes-128-cbc", "none-gcm"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const bool sealFirst = input.ConsumeBool();
    const bool asData = input.ConsumeBool();
    const std::string cipher =
        input.ConsumeBool() ? input.ConsumeRandomLengthString(24) : std::string(input.PickValueInArray(kCipherNames));
    const double tagLength = input.ConsumeBool() ? input.ConsumeIntegralInRange<int>(-1, 18)
                                                 : input.ConsumeFloatingPoint<double>();
    const std::string key = input.ConsumeRandomLengthString(40);
    const std::string aad = input.ConsumeRandomLengthString(64);
    const std::string text = input.ConsumeRemainingBytesAsString();

    auto open = [&](const std::string& token) {
        const Args args = {Str(token), Str(cipher), Str(key), Str(aad), Num(tagLength)};
        const CallOutcome outcome =
            Call(asData ? "Cryptography.DataRefDecryptAndVerify" : "Cryptography.DecryptAndVerify", args);
        return std::make_pair(outcome.ok(), asData ? ResultBytes(outcome) : ResultString(outcome));
    };

    if (!sealFirst) {
        open(text);
        return 0;
    }
    const CallOutcome sealed =
        Call("Cryptography.EncryptAndAuth", {Str(text), Str(cipher), Str(key), Str(aad), Num(tagLength)});
    const std::string token = ResultString(sealed);
    if (!sealed.ok() || token.empty()) return 0;
    const auto [opened, plaintext] = open(token);
    if (!opened || plaintext != text) Fail("a token sealed by EncryptAndAuth did not open to its plaintext");
    return 0;
}
