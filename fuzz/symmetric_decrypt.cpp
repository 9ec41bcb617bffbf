// Decrypt and DataRefDecrypt over arbitrary ciphertext: AES-128-CBC with a
// fixed key for most inputs, any cipher OpenSSL knows by name for the rest.
// What Encrypt produced with a padded block cipher must decrypt to the
// plaintext again.
#include <openssl/evp.h>

#include <algorithm>

#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

constexpr char kKey[] = "0123456789abcdef";

// Every cipher name in OpenSSL's table, as EVP_get_cipherbyname takes it.
const std::vector<std::string>& CipherNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> found;
        EVP_CIPHER_do_all_sorted(
            [](const EVP_CIPHER*, const char* from, const char*, void* out) {
                if (from) static_cast<std::vector<std::string>*>(out)->emplace_back(from);
            },
            &found);
        if (found.empty()) found.emplace_back("AES-128-CBC");
        return found;
    }();
    return names;
}

// Block ciphers with padding, where decryption must undo encryption exactly.
bool RoundTrips(const std::string& name) {
    const EVP_CIPHER* cipher = EVP_get_cipherbyname(name.c_str());
    if (!cipher || EVP_CIPHER_get_block_size(cipher) <= 1) return false;
    const unsigned long mode = EVP_CIPHER_get_mode(cipher);
    if (mode != EVP_CIPH_CBC_MODE && mode != EVP_CIPH_ECB_MODE) return false;
    if (EVP_CIPHER_get_flags(cipher) & EVP_CIPH_FLAG_AEAD_CIPHER) return false;
    std::string upper(name);
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
    return upper.find("HMAC") == std::string::npos;  // the TLS record ciphers keep a MAC of their own
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const bool anyCipher = input.ConsumeIntegralInRange<int>(0, 3) == 0;
    const bool asData = input.ConsumeBool();
    const bool contiguous = input.ConsumeBool();
    const bool withIv = input.ConsumeBool();
    const std::string cipher = anyCipher ? CipherNames()[input.ConsumeIntegralInRange<size_t>(0, CipherNames().size() - 1)]
                                         : std::string("AES-128-CBC");
    const std::string key = anyCipher ? input.ConsumeRandomLengthString(64) : std::string(kKey);
    const std::string iv = withIv ? input.ConsumeRandomLengthString(32) : std::string();
    const std::string bytes = input.ConsumeRemainingBytesAsString();

    auto decrypt = [&](const std::string& ciphertext) {
        Args args = {Str(cipher), Dat(ciphertext, contiguous), Str(key)};
        if (withIv) args.push_back(Dat(iv, contiguous));
        const CallOutcome outcome = Call(asData ? "Cryptography.DataRefDecrypt" : "Cryptography.Decrypt", args);
        return std::make_pair(outcome.ok(), asData ? ResultBytes(outcome) : ResultString(outcome));
    };

    decrypt(bytes);
    if (!anyCipher) return 0;

    // The same bytes as plaintext.
    Args args = {Str(cipher), Str(bytes), Str(key)};
    if (withIv) args.push_back(Dat(iv, contiguous));
    const CallOutcome encrypted = Call("Cryptography.Encrypt", args);
    const std::string ciphertext = ResultBytes(encrypted);
    if (!encrypted.ok() || ciphertext.empty() || !RoundTrips(cipher)) return 0;
    const auto [ok, plaintext] = decrypt(ciphertext);
    if (!ok || plaintext != bytes) Fail("Decrypt did not undo Encrypt with " + cipher);
    return 0;
}
