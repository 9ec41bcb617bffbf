// DecryptAEADCHACHA20POLY1305 (STRING and DATAREF results) over arbitrary
// ciphertext, tag, key, nonce and additional data; and what
// EncryptAEADCHACHA20POLY1305 sealed, which must open to its plaintext.
#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

// The DATAREF elements of a vector result.
std::vector<std::string> Elements(const CallOutcome& outcome) {
    std::vector<std::string> out;
    AutoRefPtr<Ombrix::IVectorGeneric> vector = outcome.result ? outcome.result->GetVector() : nullptr;
    for (uint64_t i = 0; vector && i < vector->GetSize(); ++i) {
        AutoRefPtr<IDataRef> element = vector->GetElement(i)->GetData();
        std::string bytes(element ? element->GetSize() : 0, '\0');
        if (element) bytes.resize(element->Read(bytes.data(), bytes.size(), 0));
        out.push_back(std::move(bytes));
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const bool sealFirst = input.ConsumeBool();
    const bool asData = input.ConsumeBool();
    const bool contiguous = input.ConsumeBool();
    const size_t tagLength = input.ConsumeBool() ? 16 : input.ConsumeIntegralInRange<size_t>(0, 20);
    const std::string tag = input.ConsumeBytesAsString(tagLength);
    const std::string key = input.ConsumeRandomLengthString(40);
    const std::string nonce = input.ConsumeRandomLengthString(20);
    const std::string aad = input.ConsumeRandomLengthString(64);
    const std::string text = input.ConsumeRemainingBytesAsString();

    auto open = [&](const std::string& ciphertext, const std::string& withTag) {
        const Args args = {Dat(ciphertext, contiguous), Dat(withTag, contiguous), Str(key), Dat(nonce, contiguous),
                           Str(aad)};
        const CallOutcome outcome =
            Call(asData ? "Cryptography.DecryptAEADCHACHA20POLY1305Data" : "Cryptography.DecryptAEADCHACHA20POLY1305",
                 args);
        return std::make_pair(outcome.ok(), asData ? ResultBytes(outcome) : ResultString(outcome));
    };

    if (!sealFirst) {
        open(text, tag);
        return 0;
    }
    const CallOutcome sealed =
        Call("Cryptography.EncryptAEADCHACHA20POLY1305", {Str(text), Str(key), Dat(nonce, contiguous), Str(aad)});
    const std::vector<std::string> parts = Elements(sealed);
    if (!sealed.ok() || parts.size() != 2) Fail("EncryptAEADCHACHA20POLY1305 did not give ciphertext and tag");
    if (text.empty()) return 0;  // an empty ciphertext opens to nothing by definition
    const auto [opened, plaintext] = open(parts[0], parts[1]);
    if (!opened || plaintext != text) Fail("a sealed ChaCha20-Poly1305 message did not open to its plaintext");
    return 0;
}
