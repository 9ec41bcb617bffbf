// File-backed buffers (read in 100000-byte chunks) give the contiguous results; HMAC is HMAC()'s.
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "KeysSupport.h"

namespace Testing {
namespace {

std::string RawHmac(const char* digest, const std::string& key, const std::string& data) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!HMAC(EVP_get_digestbyname(digest), key.data(), static_cast<int>(key.size()),
              reinterpret_cast<const unsigned char*>(data.data()), data.size(), out, &length))
        return "failed";
    return std::string(reinterpret_cast<char*>(out), length);
}

class StreamingTest : public KeysTest {
protected:
    AutoRefPtr<IVariant> FileOf(const std::string& bytes) {
        const std::string path = dir_.Write("message" + std::to_string(files_++), bytes);
        return Dat(AutoRefPtr<IDataRef>(Ombrix::Host::FileData::Open(path)));
    }
    TempDir dir_;
    int files_ = 0;
};

// Around the chunk size and its multiples, for every routine that reads a
// DATAREF message: the file-backed result equals the contiguous one.
TEST_F(StreamingTest, ChunkedBuffersGiveTheContiguousResults) {
    const AutoRefPtr<IVariant> rsa = Obj(KeyFromFixture("rsa.pem")), rsaPublic = Dat(KeyFixture("rsa.pub.pem"));
    const std::string key = Pattern(64, 5);
    // The same report and result for the bytes in a file and in memory; returns the result.
    const auto same = [&](const std::string& routine, const std::function<Args(AutoRefPtr<IVariant>)>& args,
                          const std::string& bytes) {
        SCOPED_TRACE(routine);
        const CallOutcome fromFile = Call(routine, args(FileOf(bytes))), fromWhole = Call(routine, args(Dat(bytes)));
        EXPECT_EQ(fromFile.error() ? fromFile.error()->message : "", fromWhole.error() ? fromWhole.error()->message : "");
        EXPECT_EQ(Hex(ResultBytes(fromFile)), Hex(ResultBytes(fromWhole)));
        return ResultBytes(fromWhole);
    };
    for (const size_t size : {0, 1, 15, 16, 17, 99999, 100000, 100001, 199999, 200000, 200016, 250007}) {
        SCOPED_TRACE(size);
        const std::string message = Pattern(size, 3);
        EXPECT_EQ(same("Cryptography.HMAC", [](auto m) { return Args{Str("SHA256"), Str("key"), m}; }, message),
                  RawHmac("SHA256", "key", message));
        for (const char* cipher : {"AES-256-CBC", "AES-128-CTR", "DES-EDE3-CBC", "ChaCha20", "AES-128-XTS", "id-aes128-wrap-pad"}) {
            SCOPED_TRACE(cipher);
            const auto args = [&](auto m) { return Args{Str(cipher), m, Str(key)}; };
            const std::string encrypted = same("Cryptography.Encrypt", args, message);
            if (size == 0 || encrypted.empty()) continue;
            const std::string decrypted = same("Cryptography.DataRefDecrypt", args, encrypted);
            // Decryption keeps one block of room, which a stream cipher's output never leaves.
            if (std::string_view(cipher).ends_with("CBC")) {
                EXPECT_EQ(decrypted, message);
            }
        }
        const auto signArgs = [&](auto m) { return Args{m, rsa, Str("SHA256")}; };
        const std::string signature = same("Cryptography.Sign", signArgs, message);
        // It verifies with the public PEM; a changed message fails with the Key.
        const Args args = {FileOf(message), rsaPublic, Str("SHA256"), Dat(signature)};
        const CallOutcome verified = Call("Cryptography.VerifySignature", args);
        EXPECT_TRUE(verified.result && verified.result->GetBoolean() && verified.errors.empty());
        if (size == 0) continue;
        ExpectError(Call("Cryptography.VerifySignature", {FileOf(Pattern(size, 4)), rsa, Str("SHA256"), Dat(signature)}),
                    "Error.Ombrix.FunctionError",
                    "Error on 'EVP_VerifyFinal': error:02000068:rsa routines::bad signature");
    }
}

// The digest-level HMAC against HMAC() itself: keys shorter than, equal to
// and longer than each digest's block, for every digest family.
TEST_F(StreamingTest, HmacMatchesOpenSSL) {
    const std::string data = Pattern(1000, 9);
    for (const char* digest : {"MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512", "SHA512-224", "SHA512-256",
                               "SHA3-224", "SHA3-256", "SHA3-384", "SHA3-512", "BLAKE2s256", "BLAKE2b512", "SM3",
                               "MD5-SHA1", "RIPEMD160", "SHAKE128", "SHAKE256", "MD4"}) {
        for (const size_t keySize : {1, 20, 63, 64, 65, 104, 128, 136, 137, 144, 145, 300}) {
            SCOPED_TRACE(std::string(digest) + " key " + std::to_string(keySize));
            const std::string key = Pattern(keySize, 1);
            const std::string expected = RawHmac(digest, key, data);
            for (const auto& message : {Str(data), FileOf(data)}) {
                const CallOutcome outcome = Call("Cryptography.HMAC", {Str(digest), Str(key), message});
                if (expected == "failed")  // digests HMAC() refuses are refused the same way
                    ExpectError(outcome, "Error.Ombrix.FunctionError", "HMAC generation failed!");
                else
                    EXPECT_EQ(Hex(ResultBytes(outcome)), Hex(expected));
            }
        }
    }
}

}  // namespace
}  // namespace Testing
