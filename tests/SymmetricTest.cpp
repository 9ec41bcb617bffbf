// Encrypt, Decrypt, DataRefDecrypt and BytesToKey through the engine.
#include "KeysSupport.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

const std::string kWrongKey = "Maybe wrong password. Error on finalizing. Status: 0";
const std::string kRoom = "Maybe corrupt input data. There is not enough space in the output buffer. Needed: ";

class Symmetric : public ModuleTest {
protected:
    // Calls ombrix_module_<entry>, or its InitVec form when an IV is given.
    CallOutcome Run(const std::string& entry, AutoRefPtr<IVariant> data, const std::string& cipher,
                    const std::string& key, const std::string* iv = nullptr) {
        Args args = {Str(cipher), data, Str(key)};
        if (iv) args.push_back(Dat(*iv));
        return CallEntry("ombrix_module_" + entry + (iv ? "InitVec" : ""), std::move(args));
    }
};

TEST_F(Symmetric, WycheproofAesCbcPkcs5) {
    ForEachVector("aes_cbc_pkcs5_test.json", 0, {{"valid", 72}, {"invalid", 144}},
                  [&](const auto& group, const auto& t) {
        const std::string cipher = "AES-" + std::to_string(int(group["keySize"])) + "-CBC";
        const std::string key = Field(t, "key"), iv = Field(t, "iv"), msg = Field(t, "msg"), ct = Field(t, "ct");
        const CallOutcome decrypted = Run("DataRefDecrypt", Dat(ct), cipher, key, &iv);
        if (t["result"] != "valid")  // an empty input is silently empty
            return ExpectEmptyResult("invalid", decrypted, ct.empty() ? "" : kWrongKey);
        EXPECT_EQ(HexResult(Run("Encrypt", Str(msg), cipher, key, &iv)), Hex(ct));
        EXPECT_EQ(HexResult(decrypted), Hex(msg));
        EXPECT_EQ(ResultString(Run("Decrypt", Dat(ct), cipher, key, &iv)), msg);
    });
}

// Keys are cut or zero-extended to the cipher's key length; IVs are zero-extended but never cut (OpenSSL
// reads what it needs); an empty or absent IV is all zeros. A row must match the call with adjusted values.
TEST_F(Symmetric, KeyAndIvAdjustment) {
    const std::string key = "0123456789abcdefghijklmnopqrstuvwxyzABCD", zeros(32, '\0'), none;
    const std::string iv = "IV:0123456789ab!WXYZ", iv8 = iv.substr(0, 8), iv16 = iv.substr(0, 16), plain(40, 'p');
    const struct { const char* cipher; std::string key; const std::string* iv; std::string asKey, asIv; } cases[] = {
        {"AES-256-CBC", key, &iv16, key.substr(0, 32), iv16},
        {"AES-256-CBC", "abc", &iv16, "abc" + zeros.substr(0, 29), iv16},
        {"AES-128-CBC", key, &iv8, key.substr(0, 16), iv8 + zeros.substr(0, 8)},
        {"AES-128-CBC", key, &iv, key.substr(0, 16), iv16},
        {"AES-128-CBC", key, &none, key.substr(0, 16), zeros.substr(0, 16)},
        {"AES-128-CBC", key, nullptr, key.substr(0, 16), zeros.substr(0, 16)},
    };
    for (const auto& c : cases) {
        const std::string expected = ResultBytes(Run("Encrypt", Str(plain), c.cipher, c.asKey, &c.asIv));
        EXPECT_EQ(HexResult(Run("Encrypt", Str(plain), c.cipher, c.key, c.iv)), Hex(expected)) << &c - cases;
        EXPECT_EQ(HexResult(Run("DataRefDecrypt", Dat(expected), c.cipher, c.key, c.iv)), Hex(plain)) << &c - cases;
    }
}

// Every report of Encrypt, Decrypt and BytesToKey, and their silently empty results.
TEST_F(Symmetric, FailuresAreReportedWithTheirTexts) {
    const std::string key(32, 'k'), xtsKey(32, 'x');  // equal XTS halves: OpenSSL refuses the key
    const std::string ct = ResultBytes(Run("Encrypt", Str("attack at dawn, bring the whole army"), "AES-256-CBC", key));
    const auto derive = [](const char* cipher, const char* digest, double count) -> Args {
        return {Str(cipher), Str(digest), Dat("pw"), Dat(""), Num(count)};
    };
    const struct { const char* entry; Args args; std::string message; } cases[] = {
        {"ombrix_module_Encrypt", {Str("AES-999-CBC"), Str("x"), Str(key)}, "Cipher \"AES-999-CBC\" not supported."},
        {"ombrix_module_Decrypt", {Str("nope"), Dat(ct), Str(key)}, "Cipher \"nope\" not supported."},
        {"ombrix_module_Decrypt", {Str("AES-256-CBC"), Dat(ct), Str(std::string(32, 'K'))}, kWrongKey},
        {"ombrix_module_Encrypt", {Str("AES-128-XTS"), Str(key), Str(xtsKey)}, "Error on 'EVP_EncryptInit'. Status: 0"},
        // Decryption checks the XTS key only when data arrives.
        {"ombrix_module_Decrypt", {Str("AES-128-XTS"), Dat(key), Str(xtsKey)}, "Error on update. Status: 0"},
        // An empty or absent ciphertext is silently empty, before the cipher name is looked at.
        {"ombrix_module_Decrypt", {Str("nope"), Dat(""), Str(key)}, ""},
        {"ombrix_module_DataRefDecryptInitVec", {Str("nope"), NoData(), Str(key), Dat("iv")}, ""},
        {"ombrix_module_BytesToKey", derive("aes-999-cbc", "sha256", 1), "Cipher \"aes-999-cbc\" not supported."},
        {"ombrix_module_BytesToKey", derive("aes-256-cbc", "sha999", 1), "Digest \"sha999\" not supported."},
        {"ombrix_module_BytesToKey", derive("aes-128-cbc", "sha256", -1), ""},  // a negative count: no key
        // Before every OpenSSL call one whole block of room must remain; decryption
        // gets exactly the ciphertext's length, so a stream cipher fails at the end.
        {"ombrix_module_DataRefDecrypt", {Str("AES-128-CBC"), Dat("ccccc"), Str(key)}, kRoom + "16, but there is only: 5"},
        {"ombrix_module_DataRefDecrypt", {Str("DES-EDE3-CBC"), Dat("ccccc"), Str(key)}, kRoom + "8, but there is only: 5"},
        {"ombrix_module_DataRefDecrypt", {Str("AES-128-CTR"), Dat("ccccc"), Str(key)}, kRoom + "6, but there is only: 5"},
        // Key-wrap ciphers write past the rounded-up room in one update: reported, never written out of bounds.
        {"ombrix_module_Encrypt", {Str("id-aes128-wrap-pad"), Str(std::string(17, 'p')), Str(key)}, kRoom + "40, but there is only: 24"},
        {"ombrix_module_Encrypt", {Str("id-aes256-wrap-pad"), Str("p"), Str(key)}, kRoom + "24, but there is only: 8"},
    };
    for (const auto& c : cases) ExpectEmptyResult(c.entry, CallEntry(c.entry, c.args), c.message);
}

// The key and IV, in hex, that `openssl enc -P` prints for the password "secret".
std::string OpenSSLEncKeyAndIv(const std::string& cipher, const std::string& digest, const std::string& saltHex) {
    return RunShell("openssl enc -" + cipher + " -md " + digest + " -pass pass:secret -P " +
                    (saltHex.empty() ? "-nosalt" : "-S " + saltHex) +
                    " 2>/dev/null | sed -n 's/^\\(key\\|iv *\\)=//p' | tr -d '\\n' | tr A-F a-f");
}

// Fewer than 8 salt bytes mean no salt; more are cut to 8. Count 0 runs no extra
// round, as 1 does. An empty or absent secret derives nothing: the key and the IV
// are zero bytes of the cipher's lengths, whatever the digest, salt and count.
TEST_F(Symmetric, BytesToKeyMatchesOpenSSLEnc) {
    const std::string salt8 = "0102030405060708";
    const struct { const char *cipher, *digest, *secret; std::string salt; double count; } cases[] = {
        {"aes-256-cbc", "sha256", "secret", salt8, 1}, {"aes-256-cbc", "sha256", "secret", "", 1},
        {"aes-256-cbc", "sha256", "secret", "01020304", 1}, {"aes-256-cbc", "sha256", "secret", salt8 + "aabbccdd", 1},
        {"aes-128-ecb", "md5", "secret", "", 1}, {"aes-256-cbc", "md5", "secret", salt8, 1},  // no IV; three rounds
        {"aes-128-cbc", "sha256", "secret", "", 0}, {"aes-128-cbc", "md5", "", "", 1},
        {"aes-256-cbc", "sha256", "", salt8, 3}, {"aes-128-ecb", "sha1", "", "", 1},
        {"chacha20", "sha512", nullptr, "", 0},
        {"aes-192-cbc", "sha256", "", "", -1},  // no rounds run at all, so no count is refused
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.cipher) + " " + c.digest + " " + c.salt + " " + std::to_string(c.count));
        const std::string salt = c.salt.size() < 16 ? "" : c.salt.substr(0, 16);  // 8 bytes or none
        const std::string hex = OpenSSLEncKeyAndIv(c.cipher, c.digest, salt);
        const CallOutcome outcome = CallEntry("ombrix_module_BytesToKey", {Str(c.cipher), Str(c.digest),
            c.secret ? Dat(c.secret) : NoData(), Dat(Unhex(c.salt)), Num(c.count)});
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(HexResult(outcome), c.secret && *c.secret ? hex : std::string(hex.size(), '0'));
    }
}

}  // namespace
}  // namespace Testing
