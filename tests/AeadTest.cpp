// AES-GCM tokens and ChaCha20-Poly1305 through the engine.
#include <cstring>

#include "../Cryptography/Codec.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

using Cryptography::Codec::Base64Decode;

std::string Base64(const std::string& bytes) { return Cryptography::Codec::Base64Encode(bytes.data(), bytes.size()); }

class Gcm : public ModuleTest {
protected:
    CallOutcome Run(const char* entry, AutoRefPtr<IVariant> data, const std::string& cipher, const std::string& key,
                    const std::string& aad, double tag) {
        return CallEntry(std::string("ombrix_module_") + entry, {data, Str(cipher), Str(key), Str(aad), Num(tag)});
    }
};

// Tokens are IV || tag || ciphertext in Base64; the IV is always 12 bytes.
TEST_F(Gcm, WycheproofVectorsAsTokens) {
    ForEachVector("aes_gcm_test.json", 96, {{"valid", 116}, {"invalid", 81}}, [&](const auto& group, const auto& t) {
        const CallOutcome out = Run("DecryptAndVerify", Str(Base64(Field(t, "iv") + Field(t, "tag") + Field(t, "ct"))),
                                    "aes-" + std::to_string(int(group["keySize"])) + "-gcm", Field(t, "key"),
                                    Field(t, "aad"), int(group["tagSize"]) / 8);
        if (t["result"] != "valid") return ExpectEmptyResult("invalid", out, "Decryption failed!");
        EXPECT_TRUE(out.ok());
        EXPECT_EQ(Hex(ResultString(out)), Hex(Field(t, "msg")));
    });
}

// Both sealing forms give a token with a fresh IV; both opening forms give the plaintext back.
// Every failure is reported with its text.
TEST_F(Gcm, TokenRoundTripAndFailures) {
    const std::string key(32, 'K'), gcm = "AES-256-GCM", refusal = " is only for GCM cipher implemented!";
    const struct { const char* cipher; std::string plain, aad; int tag; } trips[] = {
        {"AES-256-GCM", "hi", "", 16}, {"id-aes128-GCM", std::string(1000, '\0'), "aad", 4}};
    for (const auto& [cipher, plain, aad, tag] : trips) {
        const std::string token = ResultString(Run("EncryptAndAuth", Str(plain), cipher, key, aad, tag));
        const std::string other = ResultString(Run("EncryptAndAuthDataRef", Dat(plain), cipher, key, aad, tag));
        EXPECT_EQ(Base64Decode(token).size(), 12 + tag + plain.size());
        EXPECT_NE(token, other);
        EXPECT_EQ(ResultString(Run("DecryptAndVerify", Str(token), cipher, key, aad, tag)), plain);
        EXPECT_TRUE(ResultBytes(Run("DataRefDecryptAndVerify", Str(other), cipher, key, aad, tag)) == plain);
    }
    const std::string token = ResultString(Run("EncryptAndAuth", Str("secret"), gcm, key, "aad", 16));
    const std::string sealRefusal = "Cryptography.EncryptAndAuth" + refusal;
    const std::string bad = "Bad format!", getTag = "Getting EVP_CTRL_GCM_GET_TAG failed!";
    const struct { bool seal; std::string data, cipher, aad; double tag; std::string message; } cases[] = {
        {true, "x", "AES-256-CBC", "", 16, sealRefusal}, {true, "x", "aes-128-ccm", "", 16, sealRefusal},
        {false, token, "AES-256-CBC", "aad", 16, "Cryptography.DecryptAndAuth" + refusal},
        {true, "x", "aes-512-gcm", "", 16, "Cipher \"aes-512-gcm\" not supported."},
        {false, token, "nope", "aad", 16, "Cipher \"nope\" not supported."},
        {true, "", "nope", "", 16, ""},  // an empty plaintext is silently empty, but an empty token is malformed
        {false, "", gcm, "aad", 16, bad}, {false, Base64(std::string(27, 'a')), gcm, "aad", 16, bad},
        {true, "x", gcm, "", 17, getTag}, {true, "x", gcm, "", 0, getTag}, {true, "x", gcm, "", -4, getTag},
        {false, token, gcm, "aad", 17, "Setting EVP_CTRL_GCM_SET_TAG failed!"},
    };
    for (const auto& c : cases) {
        const auto out = Run(c.seal ? "EncryptAndAuth" : "DecryptAndVerify", Str(c.data), c.cipher, key, c.aad, c.tag);
        const char* id = c.message == bad ? "Error.Ombrix.InvalidArgument" : "Error.Ombrix.FunctionError";
        ExpectEmptyResult(std::to_string(&c - cases), out, c.message, id);
    }
}

class ChaCha : public ModuleTest {
protected:
    // The ciphertext and the tag.
    std::vector<std::string> Seal(const std::string& plain, const std::string& key, AutoRefPtr<IVariant> nonce,
                                  const std::string& aad) {
        const auto out = CallEntry("ombrix_module_Encrypt_AEAD_CHACHA20_POLY1305", {Str(plain), Str(key), nonce, Str(aad)});
        return Elements(out.result, [](const AutoRefPtr<IVariant>& part) {
            return std::string(Ombrix::DataBytes(part->GetData()).view());
        });
    }
    CallOutcome Open(AutoRefPtr<IVariant> ct, AutoRefPtr<IVariant> tag, const std::string& key,
                     AutoRefPtr<IVariant> nonce, const std::string& aad, const char* entry = "DataRef") {
        return CallEntry(std::string("ombrix_module_Decrypt_AEAD_CHACHA20_POLY1305") + entry,
                         {ct, tag, Str(key), nonce, Str(aad)});
    }
};

// An empty ciphertext is never checked: no report, an empty result.
TEST_F(ChaCha, WycheproofVectors) {
    ForEachVector("chacha20_poly1305_test.json", 96, {{"valid", 256}, {"invalid", 60}},
                  [&](const auto&, const auto& t) {
        const std::string key = Field(t, "key"), nonce = Field(t, "iv"), aad = Field(t, "aad"), ct = Field(t, "ct");
        const CallOutcome opened = Open(Dat(ct), Dat(Field(t, "tag")), key, Dat(nonce), aad);
        if (t["result"] != "valid") return ExpectEmptyResult("invalid", opened, ct.empty() ? "" : "Decryption failed!");
        EXPECT_EQ(Seal(Field(t, "msg"), key, Dat(nonce), aad), (std::vector<std::string>{ct, Field(t, "tag")}));
        EXPECT_EQ(HexResult(opened), Hex(Field(t, "msg")));
    });
}

// Encryption cuts a long nonce to 12 bytes; decryption passes it whole (OpenSSL
// reads 12). Both zero-extend a short nonce; an empty or absent one is 12 zero bytes.
TEST_F(ChaCha, NonceHandling) {
    const std::string key(32, 'c'), plain = "nonce rules", n12 = "0123456789ab", n16 = n12 + "cdef", zero(12, '\0');
    const std::string n8 = n12.substr(0, 8);
    // A written buffer of the first `size` bytes: the rest stay in it, or with all of them
    // nothing follows, not even a terminator (the sanitizer build catches a read past them).
    auto written = [](const std::string& bytes, size_t size) {
        AutoRefPtr<Ombrix::Data> data = Ombrix::Data::Make();
        std::memcpy(data->PrepareForWriting(bytes.size()), bytes.data(), bytes.size());
        data->Truncate(size);
        return Dat(AutoRefPtr<IDataRef>(std::move(data)));
    };
    const struct { AutoRefPtr<IVariant> seal, open; std::string effective; } cases[] = {
        {Dat(n16), Dat(n16), n12}, {Dat(n16), Dat(n12), n12}, {Dat(n8), Dat(n8), n8 + zero.substr(0, 4)},
        {NoData(), NoData(), zero}, {Dat(""), Dat(zero), zero}, {written(n12, 12), written(n12, 12), n12},
        {written(n12, 1), written(n12, 1), n12.substr(0, 1) + zero.substr(0, 11)}};
    for (const auto& c : cases) {
        const auto parts = Seal(plain, key, c.seal, "");
        ASSERT_EQ(parts.size(), 2u);
        EXPECT_EQ(parts, Seal(plain, key, Dat(c.effective), "")) << &c - cases;
        EXPECT_EQ(HexResult(Open(Dat(parts[0]), Dat(parts[1]), key, c.open, "")), Hex(plain)) << &c - cases;
    }
}

// A tag that is not 16 bytes, like an empty ciphertext, gives an empty result and no report; a short key
// fails (wrong tags, texts and associated data: the Wycheproof vectors).
TEST_F(ChaCha, FailuresAndSilentEmptyResults) {
    const std::string key(32, 'c'), nonce(12, 'n');
    const auto parts = Seal("authentic", key, Dat(nonce), "aad");
    ASSERT_EQ(parts.size(), 2u);
    const std::string ct = parts[0], tag = parts[1];
    EXPECT_EQ(ResultString(Open(Dat(ct), Dat(tag), key, Dat(nonce), "aad", "")), "authentic");  // the STRING form
    const struct { AutoRefPtr<IVariant> ct, tag; std::string key, message; } cases[] = {
        {Dat(ct), Dat(tag.substr(0, 15)), key, ""}, {Dat(ct), Dat(tag + "x"), key, ""}, {Dat(ct), NoData(), key, ""},
        {Dat(""), Dat(tag), key, ""}, {Dat(ct), Dat(tag), "short", "Decryption failed!"},
    };
    for (const auto& c : cases)
        ExpectEmptyResult(std::to_string(&c - cases), Open(c.ct, c.tag, c.key, Dat(nonce), "aad"), c.message);
}

}  // namespace
}  // namespace Testing
