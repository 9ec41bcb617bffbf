// AES-GCM tokens and ChaCha20-Poly1305 through the engine.
#include "SymmetricSupport.h"

namespace Testing {
namespace {

using Ombrix::Host::FileData;

const std::string kFunctionError = "Error.Ombrix.FunctionError";
const std::string kInvalidArgument = "Error.Ombrix.InvalidArgument";

AutoRefPtr<IVariant> NoData() { return Dat(AutoRefPtr<IDataRef>()); }

// The bytes of each DATAREF element of a vector result.
std::vector<std::string> VectorBytes(const CallOutcome& outcome) {
    std::vector<std::string> out;
    AutoRefPtr<Ombrix::IVectorGeneric> vector = outcome.result ? outcome.result->GetVector() : nullptr;
    for (uint64_t i = 0; vector && i < vector->GetSize(); ++i) {
        AutoRefPtr<IDataRef> data = vector->GetElement(i)->GetData();
        std::string bytes(data ? data->GetSize() : 0, '\0');
        if (data) data->Read(bytes.data(), bytes.size(), 0);
        out.push_back(std::move(bytes));
    }
    return out;
}

class Gcm : public ModuleTest {
protected:
    CallOutcome Seal(const std::string& plain, const std::string& cipher, const std::string& key,
                     const std::string& aad, double tag) {
        return CallEntry("ombrix_module_EncryptAndAuth", {Str(plain), Str(cipher), Str(key), Str(aad), Num(tag)});
    }
    CallOutcome Open(const std::string& token, const std::string& cipher, const std::string& key,
                     const std::string& aad, double tag) {
        return CallEntry("ombrix_module_DecryptAndVerify", {Str(token), Str(cipher), Str(key), Str(aad), Num(tag)});
    }
};

TEST_F(Gcm, WycheproofVectorsAsTokens) {
    const auto file = LoadWycheproof("aes_gcm_test.json");
    int valid = 0, invalid = 0;
    for (const auto& group : file["testGroups"]) {
        if (group["ivSize"] != 96) continue;  // the token always carries a 12-byte IV
        const std::string cipher = "aes-" + std::to_string(group["keySize"].get<int>()) + "-gcm";
        const int tagSize = group["tagSize"].get<int>() / 8;
        for (const auto& t : group["tests"]) {
            SCOPED_TRACE("tcId " + std::to_string(t["tcId"].get<int>()));
            const std::string key = Unhex(t["key"].get<std::string>()), aad = Unhex(t["aad"].get<std::string>());
            const std::string token = Base64(Unhex(t["iv"].get<std::string>()) + Unhex(t["tag"].get<std::string>()) +
                                             Unhex(t["ct"].get<std::string>()));
            const std::string msg = Unhex(t["msg"].get<std::string>());
            const CallOutcome out = Open(token, cipher, key, aad, tagSize);
            if (t["result"] == "valid") {
                ++valid;
                ASSERT_TRUE(out.ok()) << out.error()->message;
                EXPECT_EQ(Hex(ResultString(out)), Hex(msg));
                const CallOutcome data = CallEntry("ombrix_module_DataRefDecryptAndVerify",
                                                   {Str(token), Str(cipher), Str(key), Str(aad), Num(tagSize)});
                EXPECT_EQ(Hex(ResultBytes(data)), Hex(msg));
            } else {
                ++invalid;
                ExpectError(out, kFunctionError, "Decryption failed!");
                EXPECT_EQ(ResultString(out), "");
            }
        }
    }
    EXPECT_EQ(valid, 116);
    EXPECT_EQ(invalid, 81);
}

TEST_F(Gcm, TokenLayoutAndRoundTrip) {
    const std::string key(32, 'K');
    const struct {
        const char* cipher;
        std::string plain, aad;
        int tag;
        size_t tokenChars;
    } cases[] = {
        {"AES-256-GCM", "hello", "", 16, 44},  // 12 + 16 + 5 = 33 bytes
        {"aes-256-GCM", "hello", "header", 16, 44},
        {"id-aes128-GCM", std::string(1000, 'x'), "aad", 12, 4 * ((12 + 12 + 1000 + 2) / 3)},
        {"AES-192-GCM", std::string("\0\1\2", 3), std::string("\0", 1), 4, 28},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cipher);
        const CallOutcome first = Seal(c.plain, c.cipher, key, c.aad, c.tag);
        const CallOutcome second = Seal(c.plain, c.cipher, key, c.aad, c.tag);
        ASSERT_TRUE(first.ok() && second.ok());
        const std::string token = ResultString(first);
        EXPECT_EQ(token.size(), c.tokenChars);
        EXPECT_NE(token, ResultString(second));  // a fresh IV every time

        // IV || tag || ciphertext; the order is checked by the Wycheproof tokens.
        EXPECT_EQ(Unbase64(token).size(), 12 + c.tag + c.plain.size());
        for (const CallOutcome* sealed : {&first, &second}) {
            const CallOutcome opened = Open(ResultString(*sealed), c.cipher, key, c.aad, c.tag);
            ASSERT_TRUE(opened.ok());
            EXPECT_EQ(ResultString(opened), c.plain);
        }
    }
}

TEST_F(Gcm, DataRefPlaintextWithoutContiguousBytes) {
    const std::string plain(250000, 'z'), key(16, 'k');
    const TempFile file(plain);
    auto data = FileData::Open(file.path());
    const CallOutcome sealed = CallEntry("ombrix_module_EncryptAndAuthDataRef",
                                         {Dat(AutoRefPtr<IDataRef>(data)), Str("AES-128-GCM"), Str(key), Str("a"), Num(16)});
    ASSERT_TRUE(sealed.ok());
    EXPECT_GT(data->ReadCalls(), 0u);
    const CallOutcome opened = CallEntry("ombrix_module_DataRefDecryptAndVerify",
                                         {Str(ResultString(sealed)), Str("AES-128-GCM"), Str(key), Str("a"), Num(16)});
    ASSERT_TRUE(opened.ok());
    EXPECT_TRUE(ResultBytes(opened) == plain);
}

TEST_F(Gcm, FailuresAreReportedWithTheirTexts) {
    const std::string key(32, 'K');
    const std::string token = ResultString(Seal("secret message", "AES-256-GCM", key, "aad", 16));
    std::string tampered = Unbase64(token);
    tampered[30] ^= 1;
    const std::string sealRefusal = "Cryptography.EncryptAndAuth is only for GCM cipher implemented!";
    const std::string openRefusal = "Cryptography.DecryptAndAuth is only for GCM cipher implemented!";
    const struct {
        const char* name;
        bool seal;
        std::string data, cipher, key, aad;
        double tag;
        std::string id, message;  // empty message: no error, empty result
    } cases[] = {
        {"CBC refused", true, "x", "AES-256-CBC", key, "", 16, kFunctionError, sealRefusal},
        {"CBC refused on open", false, token, "AES-256-CBC", key, "", 16, kFunctionError, openRefusal},
        {"CCM refused", true, "x", "aes-128-ccm", key, "", 16, kFunctionError, sealRefusal},
        {"unknown GCM name", true, "x", "aes-512-gcm", key, "", 16, kFunctionError,
         "Cipher \"aes-512-gcm\" not supported."},
        {"unknown name on open", false, token, "nope", key, "", 16, kFunctionError, "Cipher \"nope\" not supported."},
        {"empty plaintext", true, "", "nope", key, "", 16, "", ""},
        {"empty token", false, "", "AES-256-GCM", key, "aad", 16, kInvalidArgument, "Bad format!"},
        {"token shorter than IV and tag", false, Base64(std::string(27, 'a')), "AES-256-GCM", key, "aad", 16,
         kInvalidArgument, "Bad format!"},
        {"changed AAD", false, token, "AES-256-GCM", key, "aaD", 16, kFunctionError, "Decryption failed!"},
        {"changed key", false, token, "AES-256-GCM", "k" + key.substr(1), "aad", 16, kFunctionError,
         "Decryption failed!"},
        {"changed token byte", false, Base64(tampered), "AES-256-GCM", key, "aad", 16, kFunctionError,
         "Decryption failed!"},
        {"shorter tag length", false, token, "AES-256-GCM", key, "aad", 12, kFunctionError, "Decryption failed!"},
        {"tag length 17 on seal", true, "x", "AES-256-GCM", key, "", 17, kFunctionError,
         "Getting EVP_CTRL_GCM_GET_TAG failed!"},
        {"tag length 0 on seal", true, "x", "AES-256-GCM", key, "", 0, kFunctionError,
         "Getting EVP_CTRL_GCM_GET_TAG failed!"},
        {"negative tag length on seal", true, "x", "AES-256-GCM", key, "", -4, kFunctionError,
         "Getting EVP_CTRL_GCM_GET_TAG failed!"},
        {"tag length 17 on open", false, token, "AES-256-GCM", key, "aad", 17, kFunctionError,
         "Setting EVP_CTRL_GCM_SET_TAG failed!"},
        {"negative tag length on open", false, token, "AES-256-GCM", key, "aad", -40, kFunctionError,
         "Setting EVP_CTRL_GCM_SET_TAG failed!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CallOutcome out = c.seal ? Seal(c.data, c.cipher, c.key, c.aad, c.tag) : Open(c.data, c.cipher, c.key, c.aad, c.tag);
        if (c.message.empty())
            EXPECT_TRUE(out.ok());
        else
            ExpectError(out, c.id, c.message);
        EXPECT_EQ(ResultString(out), "");
    }
}

class ChaCha : public ModuleTest {
protected:
    CallOutcome Seal(const std::string& plain, const std::string& key, AutoRefPtr<IVariant> nonce,
                     const std::string& aad) {
        return CallEntry("ombrix_module_Encrypt_AEAD_CHACHA20_POLY1305", {Str(plain), Str(key), nonce, Str(aad)});
    }
    CallOutcome Open(AutoRefPtr<IVariant> ct, AutoRefPtr<IVariant> tag, const std::string& key,
                     AutoRefPtr<IVariant> nonce, const std::string& aad) {
        return CallEntry("ombrix_module_Decrypt_AEAD_CHACHA20_POLY1305DataRef", {ct, tag, Str(key), nonce, Str(aad)});
    }
};

TEST_F(ChaCha, WycheproofVectors) {
    const auto file = LoadWycheproof("chacha20_poly1305_test.json");
    int valid = 0, invalid = 0, silent = 0;
    for (const auto& group : file["testGroups"]) {
        if (group["ivSize"] != 96) continue;
        for (const auto& t : group["tests"]) {
            SCOPED_TRACE("tcId " + std::to_string(t["tcId"].get<int>()));
            const std::string key = Unhex(t["key"].get<std::string>()), nonce = Unhex(t["iv"].get<std::string>());
            const std::string aad = Unhex(t["aad"].get<std::string>()), msg = Unhex(t["msg"].get<std::string>());
            const std::string ct = Unhex(t["ct"].get<std::string>()), tag = Unhex(t["tag"].get<std::string>());
            const CallOutcome opened = Open(Dat(ct), Dat(tag), key, Dat(nonce), aad);
            if (t["result"] == "valid") {
                ++valid;
                const CallOutcome sealed = Seal(msg, key, Dat(nonce), aad);
                ASSERT_TRUE(sealed.ok());
                const auto parts = VectorBytes(sealed);
                ASSERT_EQ(parts.size(), 2u);
                EXPECT_EQ(Hex(parts[0]), Hex(ct));
                EXPECT_EQ(Hex(parts[1]), Hex(tag));
                EXPECT_TRUE(opened.ok());
                EXPECT_EQ(Hex(ResultBytes(opened)), Hex(msg));
            } else if (ct.empty()) {
                ++silent;  // an empty ciphertext is never checked
                EXPECT_TRUE(opened.ok());
                EXPECT_EQ(ResultBytes(opened), "");
            } else {
                ++invalid;
                ExpectError(opened, kFunctionError, "Decryption failed!");
            }
        }
    }
    EXPECT_EQ(valid, 256);
    EXPECT_EQ(invalid, 40);
    EXPECT_EQ(silent, 20);
}

TEST_F(ChaCha, StringAndFileBackedForms) {
    const std::string key(32, 'c'), plain(100, 'p'), nonce(12, 'n');
    const auto parts = VectorBytes(Seal(plain, key, Dat(nonce), "aad"));
    ASSERT_EQ(parts.size(), 2u);
    const CallOutcome asString = CallEntry("ombrix_module_Decrypt_AEAD_CHACHA20_POLY1305",
                                           {Dat(parts[0]), Dat(parts[1]), Str(key), Dat(nonce), Str("aad")});
    ASSERT_TRUE(asString.ok());
    EXPECT_EQ(ResultString(asString), plain);

    // Ciphertext without contiguous bytes.
    const TempFile file(parts[0]);
    const CallOutcome fromFile =
        Open(Dat(AutoRefPtr<IDataRef>(FileData::Open(file.path()))), Dat(parts[1]), key, Dat(nonce), "aad");
    ASSERT_TRUE(fromFile.ok());
    EXPECT_EQ(ResultBytes(fromFile), plain);
}

// Encryption cuts a long nonce to 12 bytes; decryption hands it on whole, of
// which OpenSSL reads 12. Both zero-extend a short nonce; no nonce on
// encryption is 12 zero bytes.
TEST_F(ChaCha, NonceHandling) {
    const std::string key(32, 'c'), plain = "nonce rules";
    const std::string n12 = "0123456789ab", n16 = n12 + "cdef", n8 = n12.substr(0, 8);
    const std::string zero12(12, '\0');
    const struct {
        const char* name;
        AutoRefPtr<IVariant> sealNonce, openNonce;
        std::string effective;
    } cases[] = {
        {"16 bytes", Dat(n16), Dat(n16), n12},
        {"16 bytes, opened with 12", Dat(n16), Dat(n12), n12},
        {"8 bytes", Dat(n8), Dat(n8), n8 + std::string(4, '\0')},
        {"8 bytes, opened zero-extended", Dat(n8), Dat(n8 + std::string(4, '\0')), n8 + std::string(4, '\0')},
        {"8 bytes without contiguous bytes", Dat(AutoRefPtr<IDataRef>(new CountingData(n8))), Dat(n8),
         n8 + std::string(4, '\0')},
        {"none", NoData(), Dat(zero12), zero12},
        {"none on both sides", NoData(), NoData(), zero12},
        {"empty", Dat(""), Dat(zero12), zero12},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto parts = VectorBytes(Seal(plain, key, c.sealNonce, ""));
        ASSERT_EQ(parts.size(), 2u);
        const auto reference = VectorBytes(Seal(plain, key, Dat(c.effective), ""));
        EXPECT_EQ(Hex(parts[0] + parts[1]), Hex(reference[0] + reference[1]));
        const CallOutcome opened = Open(Dat(parts[0]), Dat(parts[1]), key, c.openNonce, "");
        ASSERT_TRUE(opened.ok()) << opened.error()->message;
        EXPECT_EQ(ResultBytes(opened), plain);
    }
}

TEST_F(ChaCha, FailuresAndSilentEmptyResults) {
    const std::string key(32, 'c'), nonce(12, 'n');
    const auto parts = VectorBytes(Seal("authentic", key, Dat(nonce), "aad"));
    ASSERT_EQ(parts.size(), 2u);
    std::string ct = parts[0], tag = parts[1];
    ct[0] ^= 1;
    tag[15] ^= 1;
    const struct {
        const char* name;
        AutoRefPtr<IVariant> ct, tag;
        std::string key, aad;
        std::string message;  // empty: no error
    } cases[] = {
        {"15-byte tag", Dat(parts[0]), Dat(parts[1].substr(0, 15)), key, "aad", ""},
        {"17-byte tag", Dat(parts[0]), Dat(parts[1] + "x"), key, "aad", ""},
        {"absent tag", Dat(parts[0]), NoData(), key, "aad", ""},
        {"empty ciphertext", Dat(""), Dat(parts[1]), key, "aad", ""},
        {"changed AAD", Dat(parts[0]), Dat(parts[1]), key, "aaD", "Decryption failed!"},
        {"changed ciphertext", Dat(ct), Dat(parts[1]), key, "aad", "Decryption failed!"},
        {"changed tag", Dat(parts[0]), Dat(tag), key, "aad", "Decryption failed!"},
        {"changed key", Dat(parts[0]), Dat(parts[1]), "C" + key.substr(1), "aad", "Decryption failed!"},
        {"short key", Dat(parts[0]), Dat(parts[1]), "short", "aad", "Decryption failed!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CallOutcome out = Open(c.ct, c.tag, c.key, Dat(nonce), c.aad);
        if (c.message.empty())
            EXPECT_TRUE(out.ok());
        else
            ExpectError(out, kFunctionError, c.message);
        EXPECT_EQ(ResultBytes(out), "");
    }
}

}  // namespace
}  // namespace Testing
