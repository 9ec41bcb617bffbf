// Encrypt, Decrypt, DataRefDecrypt and BytesToKey through the engine.
#include <array>
#include <cstdio>
#include <memory>

#include "SymmetricSupport.h"

namespace Testing {
namespace {

using Ombrix::Host::FileData;

const std::string kFunctionError = "Error.Ombrix.FunctionError";

AutoRefPtr<IVariant> NoData() { return Dat(AutoRefPtr<IDataRef>()); }

class Symmetric : public ModuleTest {
protected:
    CallOutcome Encrypt(const std::string& cipher, const std::string& plain, const std::string& key,
                        const std::string* iv = nullptr) {
        return iv ? CallEntry("ombrix_module_EncryptInitVec", {Str(cipher), Str(plain), Str(key), Dat(*iv)})
                  : CallEntry("ombrix_module_Encrypt", {Str(cipher), Str(plain), Str(key)});
    }
    CallOutcome Decrypt(const std::string& cipher, const std::string& ct, const std::string& key,
                        const std::string* iv = nullptr) {
        return iv ? CallEntry("ombrix_module_DataRefDecryptInitVec", {Str(cipher), Dat(ct), Str(key), Dat(*iv)})
                  : CallEntry("ombrix_module_DataRefDecrypt", {Str(cipher), Dat(ct), Str(key)});
    }
};

TEST_F(Symmetric, WycheproofAesCbcPkcs5) {
    const auto file = LoadWycheproof("aes_cbc_pkcs5_test.json");
    int valid = 0, invalid = 0;
    for (const auto& group : file["testGroups"]) {
        const std::string cipher = "AES-" + std::to_string(group["keySize"].get<int>()) + "-CBC";
        for (const auto& t : group["tests"]) {
            SCOPED_TRACE("tcId " + std::to_string(t["tcId"].get<int>()));
            const std::string key = Unhex(t["key"].get<std::string>()), iv = Unhex(t["iv"].get<std::string>());
            const std::string msg = Unhex(t["msg"].get<std::string>()), ct = Unhex(t["ct"].get<std::string>());
            const CallOutcome encrypted = Encrypt(cipher, msg, key, &iv);
            ASSERT_TRUE(encrypted.ok());
            const CallOutcome decrypted = Decrypt(cipher, ct, key, &iv);
            if (t["result"] == "valid") {
                ++valid;
                EXPECT_EQ(Hex(ResultBytes(encrypted)), Hex(ct));
                EXPECT_TRUE(decrypted.ok());
                EXPECT_EQ(Hex(ResultBytes(decrypted)), Hex(msg));
                // The STRING form carries the same bytes.
                EXPECT_EQ(ResultString(CallEntry("ombrix_module_DecryptInitVec",
                                                 {Str(cipher), Dat(ct), Str(key), Dat(iv)})),
                          msg);
                continue;
            }
            ++invalid;
            EXPECT_NE(Hex(ResultBytes(encrypted)), Hex(ct));
            EXPECT_EQ(ResultBytes(decrypted), "");
            if (ct.empty())
                EXPECT_TRUE(decrypted.ok());  // an empty ciphertext is silently empty
            else
                ExpectError(decrypted, kFunctionError, "Maybe wrong password. Error on finalizing. Status: 0");
        }
    }
    EXPECT_EQ(valid, 72);
    EXPECT_EQ(invalid, 144);
}

TEST_F(Symmetric, OutputIsRoundedUpToTheNextWholeBlock) {
    const std::string key = "0123456789abcdef0123456789abcdef";
    const struct {
        const char* cipher;
        size_t plain, expected;
    } cases[] = {
        {"AES-128-CBC", 0, 16}, {"AES-128-CBC", 15, 16}, {"AES-128-CBC", 16, 32}, {"aes-128-ecb", 16, 32},
        {"AES-256-CBC", 33, 48}, {"DES-EDE3-CBC", 8, 16}, {"AES-128-CTR", 10, 10}, {"ChaCha20", 7, 7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.cipher) + " " + std::to_string(c.plain));
        const std::string plain(c.plain, 'p');
        const CallOutcome out = Encrypt(c.cipher, plain, key);
        ASSERT_TRUE(out.ok()) << out.error()->message;
        EXPECT_EQ(ResultBytes(out).size(), c.expected);
        const size_t keyLength = EVP_CIPHER_get_key_length(EVP_get_cipherbyname(c.cipher));
        EXPECT_EQ(Hex(ResultBytes(out)), Hex(OracleCipher(c.cipher, key.substr(0, keyLength), "", plain, true)));
    }
}

// Before every OpenSSL call one whole block of room must remain; decryption
// gets exactly the ciphertext's length, so a stream cipher fails at the end.
TEST_F(Symmetric, RoomCheckCountsOneBlock) {
    const struct {
        const char* cipher;
        size_t ciphertext;
        const char* needed;
    } cases[] = {
        {"AES-128-CBC", 5, "16, but there is only: 5"},
        {"AES-256-ECB", 15, "16, but there is only: 15"},
        {"DES-EDE3-CBC", 4, "8, but there is only: 4"},
        {"AES-128-CTR", 10, "11, but there is only: 10"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cipher);
        const CallOutcome out = Decrypt(c.cipher, std::string(c.ciphertext, 'c'), std::string(32, 'k'));
        ExpectError(out, kFunctionError,
                    std::string("Maybe corrupt input data. There is not enough space in the output buffer. Needed: ") +
                        c.needed);
        EXPECT_EQ(ResultBytes(out), "");
    }
}

// Key-wrap ciphers write more than the rounded-up room in a single update;
// the output must stay inside the buffer and the final room check reports it.
TEST_F(Symmetric, KeyWrapOutputBeyondTheRoomIsReported) {
    const struct {
        const char* cipher;
        size_t plain;
        const char* needed;
    } cases[] = {
        {"id-aes128-wrap-pad", 17, "40, but there is only: 24"},
        {"id-aes256-wrap-pad", 1, "24, but there is only: 8"},
        {"id-aes128-wrap", 16, "32, but there is only: 24"},
        {"des3-wrap", 16, "40, but there is only: 24"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cipher);
        const CallOutcome out = Encrypt(c.cipher, std::string(c.plain, 'p'), std::string(32, 'k'));
        ExpectError(out, kFunctionError,
                    std::string("Maybe corrupt input data. There is not enough space in the output buffer. Needed: ") +
                        c.needed);
        EXPECT_EQ(ResultBytes(out), "");
    }
}

// Keys are cut or zero-extended to the cipher's key length; IVs are
// zero-extended but never cut (OpenSSL reads only the length it needs).
TEST_F(Symmetric, KeyAndIvAdjustment) {
    const std::string key40 = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
    const std::string iv16 = Unhex("000102030405060708090a0b0c0d0e0f");
    const std::string iv8 = iv16.substr(0, 8), iv20 = iv16 + "WXYZ";
    const std::string zeros16(16, '\0'), empty;
    const std::string plain = "The quick brown fox jumps over the lazy dog";
    const struct {
        const char* name;
        const char* cipher;
        std::string key;
        const std::string* iv;
        std::string effectiveKey, effectiveIv;
    } cases[] = {
        {"long key is cut", "AES-256-CBC", key40, &iv16, key40.substr(0, 32), iv16},
        {"short key is zero-extended", "AES-256-CBC", "abc", &iv16, "abc" + std::string(29, '\0'), iv16},
        {"empty key is all zeros", "AES-128-CBC", "", &iv16, std::string(16, '\0'), iv16},
        {"short IV is zero-extended", "AES-128-CBC", key40, &iv8, key40.substr(0, 16), iv8 + std::string(8, '\0')},
        {"long IV is passed whole", "AES-128-CBC", key40, &iv20, key40.substr(0, 16), iv16},
        {"empty IV means no IV", "AES-128-CBC", key40, &empty, key40.substr(0, 16), zeros16},
        {"no IV argument", "AES-128-CBC", key40, nullptr, key40.substr(0, 16), zeros16},
        {"ECB ignores the IV", "AES-192-ECB", key40, &iv16, key40.substr(0, 24), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string expected = OracleCipher(c.cipher, c.effectiveKey, c.effectiveIv, plain, true);
        const CallOutcome encrypted = Encrypt(c.cipher, plain, c.key, c.iv);
        ASSERT_TRUE(encrypted.ok());
        EXPECT_EQ(Hex(ResultBytes(encrypted)), Hex(expected));
        const CallOutcome decrypted = Decrypt(c.cipher, expected, c.key, c.iv);
        ASSERT_TRUE(decrypted.ok());
        EXPECT_EQ(ResultBytes(decrypted), plain);
    }
}

TEST_F(Symmetric, FailuresAreReportedWithTheirTexts) {
    const std::string key(32, 'k');
    const std::string ct = ResultBytes(Encrypt("AES-256-CBC", "attack at dawn, bring the whole army", key));
    const std::string xtsKey(32, 'x');  // both XTS halves equal: OpenSSL refuses the key
    const struct {
        const char* name;
        std::string entry;
        Args args;
        std::string message;  // empty: no error and an empty result
    } cases[] = {
        {"unknown cipher (Encrypt)", "ombrix_module_Encrypt", {Str("AES-999-CBC"), Str("x"), Str(key)},
         "Cipher \"AES-999-CBC\" not supported."},
        {"unknown cipher (Decrypt)", "ombrix_module_Decrypt", {Str("nope"), Dat(ct), Str(key)},
         "Cipher \"nope\" not supported."},
        {"wrong key", "ombrix_module_Decrypt", {Str("AES-256-CBC"), Dat(ct), Str(std::string(32, 'K'))},
         "Maybe wrong password. Error on finalizing. Status: 0"},
        {"truncated ciphertext", "ombrix_module_DataRefDecrypt", {Str("AES-256-CBC"), Dat(ct.substr(0, 32)), Str(key)},
         "Maybe wrong password. Error on finalizing. Status: 0"},
        {"refused key (Encrypt)", "ombrix_module_Encrypt", {Str("AES-128-XTS"), Str(std::string(32, 'p')), Str(xtsKey)},
         "Error on 'EVP_EncryptInit'. Status: 0"},
        // Decryption checks the XTS key only when data arrives.
        {"refused key (Decrypt)", "ombrix_module_Decrypt", {Str("AES-128-XTS"), Dat(std::string(32, 'c')), Str(xtsKey)},
         "Error on update. Status: 0"},
        {"empty ciphertext, unknown cipher", "ombrix_module_Decrypt", {Str("nope"), Dat(""), Str(key)}, ""},
        {"absent ciphertext", "ombrix_module_DataRefDecryptInitVec", {Str("nope"), NoData(), Str(key), Dat("iv")}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CallOutcome out = CallEntry(c.entry, c.args);
        if (c.message.empty())
            EXPECT_TRUE(out.ok());
        else
            ExpectError(out, kFunctionError, c.message);
        EXPECT_EQ(out.result->GetType() == Ombrix::kTypeString ? ResultString(out) : ResultBytes(out), "");
    }
}

TEST_F(Symmetric, DataRefWithoutContiguousBytesIsReadThroughRead) {
    std::string plain(300000, '\0');
    for (size_t i = 0; i < plain.size(); ++i) plain[i] = static_cast<char>(i * 7);
    const std::string key(32, 'k'), iv(16, 'i');
    const std::string expected = OracleCipher("AES-256-CBC", key, iv, plain, true);

    const TempFile plainFile(plain), cipherFile(expected);
    auto plainData = FileData::Open(plainFile.path());
    auto cipherData = FileData::Open(cipherFile.path());
    ASSERT_TRUE(plainData && cipherData);

    const CallOutcome encrypted = CallEntry("ombrix_module_EncryptDataRefInitVec",
                                            {Str("AES-256-CBC"), Dat(AutoRefPtr<IDataRef>(plainData)), Str(key), Dat(iv)});
    ASSERT_TRUE(encrypted.ok());
    EXPECT_TRUE(ResultBytes(encrypted) == expected);
    EXPECT_GT(plainData->ReadCalls(), 0u);

    const CallOutcome decrypted = CallEntry("ombrix_module_DataRefDecryptInitVec",
                                            {Str("AES-256-CBC"), Dat(AutoRefPtr<IDataRef>(cipherData)), Str(key), Dat(iv)});
    ASSERT_TRUE(decrypted.ok());
    EXPECT_TRUE(ResultBytes(decrypted) == plain);
    EXPECT_GT(cipherData->ReadCalls(), 0u);
}

// A buffer that offers contiguous bytes is used in place: no Read call, and
// the result buffer is the one OpenSSL wrote into.
TEST_F(Symmetric, LargeContiguousInputIsUsedInPlace) {
    std::string plain(16u << 20, '\0');
    for (size_t i = 0; i < plain.size(); i += 4096) plain[i] = static_cast<char>(i >> 12);
    const std::string key(16, 'k');
    const std::string expected = OracleCipher("AES-128-CBC", key, "", plain, true);

    AutoRefPtr<CountingData> input(new CountingData(plain));
    const CallOutcome encrypted =
        CallEntry("ombrix_module_EncryptDataRef", {Str("AES-128-CBC"), Dat(AutoRefPtr<IDataRef>(input)), Str(key)});
    ASSERT_TRUE(encrypted.ok());
    EXPECT_EQ(input->Reads(), 0u);
    EXPECT_GT(input->Directs(), 0u);
    AutoRefPtr<IDataRef> result = encrypted.result->GetData();
    ASSERT_TRUE(result && result->GetData());
    EXPECT_EQ(result->GetSize(), plain.size() + 16);
    EXPECT_TRUE(std::string_view(result->GetData(), result->GetSize()) == expected);

    AutoRefPtr<CountingData> ciphertext(new CountingData(expected));
    const CallOutcome decrypted = CallEntry("ombrix_module_DataRefDecrypt",
                                            {Str("AES-128-CBC"), Dat(AutoRefPtr<IDataRef>(ciphertext)), Str(key)});
    ASSERT_TRUE(decrypted.ok());
    EXPECT_EQ(ciphertext->Reads(), 0u);
    EXPECT_TRUE(ResultBytes(decrypted) == plain);
}

// What `openssl enc -P` prints for a password and salt, as key || IV bytes.
std::string OpenSSLEncKeyAndIv(const std::string& cipher, const std::string& digest, const std::string& password,
                               const std::string& saltHex) {
    const std::string command = "openssl enc -" + cipher + " -md " + digest + " -pass pass:" + password +
                                (saltHex.empty() ? " -nosalt" : " -S " + saltHex) + " -P 2>/dev/null";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) return "<openssl not run>";
    std::string hex;
    std::array<char, 512> line{};
    while (fgets(line.data(), line.size(), pipe.get())) {
        std::string text(line.data());
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
        for (const char* prefix : {"key=", "iv ="})
            if (text.rfind(prefix, 0) == 0) hex += text.substr(4);
    }
    for (char& c : hex) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return hex;
}

TEST_F(Symmetric, BytesToKeyMatchesOpenSSLEnc) {
    const std::string salt8 = "0102030405060708";
    const struct {
        const char* name;
        const char* cipher;
        const char* digest;
        std::string password;
        std::string saltGiven;     // hex, given to the module
        std::string saltEffective; // hex, given to openssl enc ("" = no salt)
        size_t length;
    } cases[] = {
        {"AES-256-CBC with salt", "aes-256-cbc", "sha256", "secret", salt8, salt8, 48},
        {"no salt", "aes-256-cbc", "sha256", "secret", "", "", 48},
        {"4-byte salt means no salt", "aes-256-cbc", "sha256", "secret", "01020304", "", 48},
        {"12-byte salt uses its first 8", "aes-256-cbc", "sha256", "secret", salt8 + "aabbccdd", salt8, 48},
        {"ECB has no IV part", "aes-128-ecb", "md5", "secret", "", "", 16},
        {"triple DES with SHA1", "des-ede3-cbc", "sha1", "correct-horse", "ffeeddccbbaa9988", "ffeeddccbbaa9988", 32},
        {"MD5 chained over three rounds", "aes-256-cbc", "md5", "pw", salt8, salt8, 48},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CallOutcome out = CallEntry("ombrix_module_BytesToKey", {Str(c.cipher), Str(c.digest), Dat(c.password),
                                                                       Dat(Unhex(c.saltGiven)), Num(1)});
        ASSERT_TRUE(out.ok());
        EXPECT_EQ(ResultBytes(out).size(), c.length);
        EXPECT_EQ(Hex(ResultBytes(out)), OpenSSLEncKeyAndIv(c.cipher, c.digest, c.password, c.saltEffective));
    }
}

TEST_F(Symmetric, BytesToKeyReadsSecretAndSaltThroughRead) {
    const TempFile secretFile("secret"), saltFile(Unhex("0102030405060708aabb"));
    auto secret = FileData::Open(secretFile.path());
    auto salt = FileData::Open(saltFile.path());
    const CallOutcome out = CallEntry("ombrix_module_BytesToKey",
                                      {Str("aes-256-cbc"), Str("sha256"), Dat(AutoRefPtr<IDataRef>(secret)),
                                       Dat(AutoRefPtr<IDataRef>(salt)), Num(1)});
    ASSERT_TRUE(out.ok());
    EXPECT_EQ(Hex(ResultBytes(out)), OpenSSLEncKeyAndIv("aes-256-cbc", "sha256", "secret", "0102030405060708"));
}

TEST_F(Symmetric, BytesToKeyWithANegativeCountGivesNoKey) {
    // Count 0 runs no extra round (as 1 does); a negative count is refused at once.
    const CallOutcome zero = CallEntry("ombrix_module_BytesToKey", {Str("aes-128-cbc"), Str("sha256"), Dat("pw"), Dat(""), Num(0)});
    const CallOutcome one = CallEntry("ombrix_module_BytesToKey", {Str("aes-128-cbc"), Str("sha256"), Dat("pw"), Dat(""), Num(1)});
    EXPECT_EQ(ResultBytes(zero), ResultBytes(one));
    const CallOutcome negative =
        CallEntry("ombrix_module_BytesToKey", {Str("aes-128-cbc"), Str("sha256"), Dat("pw"), Dat(""), Num(-1)});
    EXPECT_TRUE(negative.ok());
    EXPECT_EQ(ResultBytes(negative), "");
}

TEST_F(Symmetric, BytesToKeyRejectsUnknownNames) {
    const struct {
        const char* cipher;
        const char* digest;
        const char* message;
    } cases[] = {
        {"aes-999-cbc", "sha256", "Cipher \"aes-999-cbc\" not supported."},
        {"aes-256-cbc", "sha999", "Digest \"sha999\" not supported."},
    };
    for (const auto& c : cases) {
        const CallOutcome out =
            CallEntry("ombrix_module_BytesToKey", {Str(c.cipher), Str(c.digest), Dat("pw"), Dat(""), Num(1)});
        ExpectError(out, kFunctionError, c.message);
        EXPECT_EQ(ResultBytes(out), "");
    }
}

}  // namespace
}  // namespace Testing
