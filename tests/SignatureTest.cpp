// Signing and verification: every key and message form against the openssl
// command, streaming of file-backed messages, the error texts and their order,
// and the Wycheproof RSA PKCS#1 v1.5 SHA-256 vectors.
#include <nlohmann/json.hpp>

#include <functional>

#include "KeysSupport.h"

namespace Testing {
namespace {

using Ombrix::Host::FileData;

class SignatureTest : public KeysTest {
protected:
    // Above 100000 bytes and not a multiple of it: three reads when streamed.
    static std::string Message() {
        std::string message(250001, '\0');
        for (size_t i = 0; i < message.size(); ++i) message[i] = static_cast<char>((i * 131 + i / 7) & 0xff);
        return message;
    }

    static AutoRefPtr<IVariant> FileArg(const AutoRefPtr<FileData>& file) {
        return Dat(AutoRefPtr<IDataRef>(file));
    }

    bool VerifyResult(const CallOutcome& outcome) { return outcome.result && outcome.result->GetBoolean(); }

    // The signature of a Sign call that must succeed.
    std::string SignBytes(Args args) {
        const CallOutcome outcome = Call("Cryptography.Sign", std::move(args));
        EXPECT_TRUE(outcome.ok()) << (outcome.error() ? outcome.error()->message : "");
        return ResultBytes(outcome);
    }
};

TEST_F(SignatureTest, RsaSignaturesMatchOpensslInEveryForm) {
    TempDir dir;
    const std::string message = Message();
    const std::string messageFile = dir.Write("message.bin", message);
    RunCommand("openssl dgst -sha256 -sign " + KeyFixturePath("rsa.pem") + " -out " + dir.Path() + "/sig.bin " +
               messageFile);
    const std::string expected = ReadFile(dir.Path() + "/sig.bin");
    ASSERT_EQ(expected.size(), 256u);

    const KeyValue key = KeyFromFixture("rsa.pem");
    const std::string pem = KeyFixture("rsa.pem");
    const std::string traditionalPem = KeyFixture("rsa.traditional.pem");
    const struct {
        const char* name;
        std::function<AutoRefPtr<IVariant>()> message;
        AutoRefPtr<IVariant> key;
    } cases[] = {
        {"text, Key", [&] { return Str(message); }, Obj(key)},
        {"bytes, Key", [&] { return Dat(message); }, Obj(key)},
        {"file, Key", [&] { return FileArg(FileData::Open(messageFile)); }, Obj(key)},
        {"text, PEM", [&] { return Str(message); }, Dat(pem)},
        {"bytes, PEM", [&] { return Dat(message); }, Dat(pem)},
        {"file, PEM", [&] { return FileArg(FileData::Open(messageFile)); }, Dat(pem)},
        {"text, PKCS#1 PEM", [&] { return Str(message); }, Dat(traditionalPem)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(Hex(SignBytes({c.message(), c.key, Str("SHA256")})), Hex(expected));
        ExpectErrorQueueEmpty();
    }
}

TEST_F(SignatureTest, FileMessagesStreamInBoundedChunks) {
    TempDir dir;
    const std::string message = Message();
    const AutoRefPtr<FileData> file = FileData::Open(dir.Write("message.bin", message));
    ASSERT_TRUE(file);
    const KeyValue key = KeyFromFixture("rsa.pem");
    const std::string signature = SignBytes({FileArg(file), Obj(key), Str("sha512")});
    EXPECT_EQ(file->ReadCalls(), 3u) << "100000 + 100000 + 50001 bytes";
    EXPECT_EQ(signature, SignBytes({Str(message), Obj(key), Str("sha512")}));
}

TEST_F(SignatureTest, EcSignaturesVerifyWithOpenssl) {
    TempDir dir;
    const std::string messageFile = dir.Write("message.bin", Message());
    const std::string signature =
        SignBytes({FileArg(FileData::Open(messageFile)), Obj(KeyFromFixture("ec.pem")), Str("SHA256")});
    const std::string command = "openssl dgst -sha256 -verify " + KeyFixturePath("ec.pub.pem") + " -signature " +
                                dir.Write("sig.bin", signature) + " " + messageFile + " 2>&1";
    EXPECT_EQ(RunCommand(command), "Verified OK\n");
}

TEST_F(SignatureTest, SignaturesVerifyInEveryForm) {
    TempDir dir;
    const std::string message = Message();
    const std::string messageFile = dir.Write("message.bin", message);
    for (const char* kind : {"rsa", "ec"}) {
        SCOPED_TRACE(kind);
        const std::string name = kind;
        const KeyValue privateKey = KeyFromFixture(name + ".pem");
        const KeyValue publicKey = KeyFromFixture(name + ".pub.pem");
        const std::string publicPem = KeyFixture(name + ".pub.pem");
        const std::string signature = SignBytes({Str(message), Obj(privateKey), Str("SHA384")});
        ASSERT_FALSE(signature.empty());

        const struct {
            const char* name;
            std::function<AutoRefPtr<IVariant>()> message;
            AutoRefPtr<IVariant> key;
        } forms[] = {
            {"text, PEM", [&] { return Str(message); }, Dat(publicPem)},
            {"bytes, PEM", [&] { return Dat(message); }, Dat(publicPem)},
            {"file, PEM", [&] { return FileArg(FileData::Open(messageFile)); }, Dat(publicPem)},
            {"text, public Key", [&] { return Str(message); }, Obj(publicKey)},
            {"bytes, private Key", [&] { return Dat(message); }, Obj(privateKey)},
            {"file, public Key", [&] { return FileArg(FileData::Open(messageFile)); }, Obj(publicKey)},
        };
        for (const auto& form : forms) {
            SCOPED_TRACE(form.name);
            const CallOutcome good =
                Call("Cryptography.VerifySignature", {form.message(), form.key, Str("SHA384"), Dat(signature)});
            EXPECT_TRUE(good.ok());
            EXPECT_TRUE(VerifyResult(good));

            // Another message or another digest does not verify, and says so.
            for (const Args& bad : {Args{Str(message + "x"), form.key, Str("SHA384"), Dat(signature)},
                                    Args{form.message(), form.key, Str("SHA256"), Dat(signature)}}) {
                const CallOutcome outcome = Call("Cryptography.VerifySignature", bad);
                EXPECT_FALSE(VerifyResult(outcome));
                ASSERT_EQ(outcome.errors.size(), 1u);
                EXPECT_EQ(outcome.errors[0].id, "Error.Ombrix.FunctionError");
                EXPECT_EQ(outcome.errors[0].message.rfind("Error on 'EVP_VerifyFinal': error:", 0), 0u)
                    << outcome.errors[0].message;
            }
            ExpectErrorQueueEmpty();
        }
    }
}

TEST_F(SignatureTest, SignErrors) {
    const std::string rsaPem = KeyFixture("rsa.pem");
    const KeyValue empty = engine_.NewValue("Cryptography.Key");
    const KeyValue x25519 = KeyFromFixture("x25519.pem");
    const KeyValue rsaPublic = KeyFromFixture("rsa.pub.pem");
    const std::string memory = "Error.System.Memory", function = "Error.Ombrix.FunctionError";
    const struct {
        const char* name;
        Args args;
        std::string id, message;  // no id: an empty result without a report
    } cases[] = {
        {"empty key buffer", {Str("m"), Dat(""), Str("SHA256")}, function, "Key Size out of range"},
        {"key buffer over 100000 bytes",
         {Dat("m"), Dat(rsaPem + std::string(100001 - rsaPem.size(), '\n')), Str("SHA256")},
         function, "Key Size out of range"},
        {"key size checked before the digest", {Str("m"), Dat(""), Str("nope")}, function, "Key Size out of range"},
        {"EC key buffer", {Str("m"), Dat(KeyFixture("ec.pem")), Str("SHA256")}, "", ""},
        {"encrypted RSA key buffer", {Str("m"), Dat(KeyFixture("rsa.encrypted.pem")), Str("SHA256")}, "", ""},
        {"garbage key buffer", {Dat("m"), Dat("garbage"), Str("SHA256")}, "", ""},
        {"key decoded before the digest", {Str("m"), Dat("garbage"), Str("nope")}, "", ""},
        {"unknown digest, PEM", {Str("m"), Dat(rsaPem), Str("nope")}, function, "Digest \"nope\" not supported!"},
        {"unknown digest, Key", {Dat("m"), Obj(KeyFromPEM(rsaPem)), Str("SHA-9")}, function,
         "Digest \"SHA-9\" not supported!"},
        {"empty Key", {Str("m"), Obj(empty), Str("SHA256")}, memory, "Invalid key given!"},
        {"empty Key checked before the digest", {Dat("m"), Obj(empty), Str("nope")}, memory, "Invalid key given!"},
        {"X25519 Key", {Str("m"), Obj(x25519), Str("SHA256")}, function, "RSASignMessage didn't work!"},
        {"public Key", {Dat("m"), Obj(rsaPublic), Str("SHA256")}, function, "RSASignMessage didn't work!"},
        {"public key buffer", {Str("m"), Dat(KeyFixture("rsa.pub.pem")), Str("SHA256")}, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CallOutcome outcome = Call("Cryptography.Sign", c.args);
        EXPECT_EQ(ResultBytes(outcome), "");
        if (c.id.empty()) {
            EXPECT_TRUE(outcome.ok());
        } else {
            ExpectError(outcome, c.id, c.message);
        }
        ExpectErrorQueueEmpty();
    }
}

TEST_F(SignatureTest, KeyBufferOfExactly100000BytesIsAccepted) {
    const std::string pem = KeyFixture("rsa.pem");
    const std::string padded = pem + std::string(100000 - pem.size(), '\n');
    EXPECT_EQ(SignBytes({Str("m"), Dat(padded), Str("SHA256")}), SignBytes({Str("m"), Dat(pem), Str("SHA256")}));
}

TEST_F(SignatureTest, VerifyErrorsComeInTheirOrder) {
    const std::string publicPem = KeyFixture("rsa.pub.pem");
    const std::string signature = SignBytes({Str("m"), Dat(KeyFixture("rsa.pem")), Str("SHA256")});
    const KeyValue empty = engine_.NewValue("Cryptography.Key");
    const std::string big(100001, 'x');
    const struct {
        const char* name;
        Args args;
        std::string message;
    } cases[] = {
        {"empty key buffer", {Str("m"), Dat(""), Str("nope"), Dat("")}, "Key size out of range"},
        {"key buffer over 100000 bytes", {Dat("m"), Dat(big), Str("SHA256"), Dat(signature)}, "Key size out of range"},
        {"private key buffer", {Str("m"), Dat(KeyFixture("rsa.pem")), Str("SHA256"), Dat(signature)},
         "Unable to initialize EVP for public key"},
        {"key read before the digest", {Str("m"), Dat("garbage"), Str("nope"), Dat("")},
         "Unable to initialize EVP for public key"},
        {"unknown digest", {Str("m"), Dat(publicPem), Str("nope"), Dat(signature)}, "Digest \"nope\" not supported."},
        {"digest checked before the signature size", {Dat("m"), Dat(publicPem), Str("nope"), Dat("")},
         "Digest \"nope\" not supported."},
        {"empty signature", {Str("m"), Dat(publicPem), Str("SHA256"), Dat("")}, "Signature size out of range"},
        {"signature over 100000 bytes", {Str("m"), Dat(publicPem), Str("SHA256"), Dat(big)},
         "Signature size out of range"},
        {"empty Key", {Str("m"), Obj(empty), Str("SHA256"), Dat(signature)}, "No public key given"},
        {"signature size checked before the key", {Dat("m"), Obj(empty), Str("SHA256"), Dat("")},
         "Signature size out of range"},
        {"digest checked before the key", {Dat("m"), Obj(empty), Str("nope"), Dat(signature)},
         "Digest \"nope\" not supported."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CallOutcome outcome = Call("Cryptography.VerifySignature", c.args);
        ASSERT_TRUE(outcome.result);
        EXPECT_FALSE(outcome.result->GetBoolean());
        ExpectError(outcome, "Error.Ombrix.FunctionError", c.message);
        ExpectErrorQueueEmpty();
    }
}

TEST_F(SignatureTest, MismatchReportQuotesTheFinalChecksOwnError) {
    const std::string signature = SignBytes({Str("m"), Dat(KeyFixture("rsa.pem")), Str("SHA256")});
    const Args mismatch = {Str("other"), Dat(KeyFixture("rsa.pub.pem")), Str("SHA256"), Dat(signature)};
    const std::string fresh = Call("Cryptography.VerifySignature", mismatch).errors.at(0).message;
    EXPECT_EQ(fresh.rfind("Error on 'EVP_VerifyFinal': error:", 0), 0u) << fresh;
    // A failed import in an earlier call leaves nothing behind for this report.
    Call("Cryptography.KeyFromPEM", {Str("-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n")});
    EXPECT_EQ(Call("Cryptography.VerifySignature", mismatch).errors.at(0).message, fresh);

    // X25519 keys cannot verify at all.
    const CallOutcome x25519 =
        Call("Cryptography.VerifySignature",
             {Str("m"), Obj(KeyFromFixture("x25519.pem")), Str("SHA256"), Dat(signature)});
    EXPECT_FALSE(VerifyResult(x25519));
    ASSERT_EQ(x25519.errors.size(), 1u);
    EXPECT_EQ(x25519.errors[0].message.rfind("Error on 'EVP_VerifyFinal': error:", 0), 0u) << x25519.errors[0].message;
    ExpectErrorQueueEmpty();
}

TEST_F(SignatureTest, WycheproofRsaPkcs1Sha256) {
    const auto vectors = nlohmann::json::parse(ReadFile(DataPath("wycheproof/rsa_signature_2048_sha256_test.json")));
    int checked = 0, valid = 0;
    for (const auto& group : vectors.at("testGroups")) {
        const std::string pem = group.at("publicKeyPem");
        const KeyValue rebuilt = Generate("Cryptography.GeneratePublicKey",
                                          {Str(group.at("keyJwk").at("n")), Str(group.at("keyJwk").at("e"))});
        ASSERT_EQ(TextOf("Cryptography.PublicToPEM", rebuilt), pem);
        for (const auto& test : group.at("tests")) {
            SCOPED_TRACE("tcId " + std::to_string(test.at("tcId").get<int>()));
            const std::string message = Unhex(test.at("msg").get<std::string>());
            const std::string signature = Unhex(test.at("sig").get<std::string>());
            const std::string result = test.at("result");
            const CallOutcome outcomes[] = {
                Call("Cryptography.VerifySignature", {Str(message), Dat(pem), Str("SHA256"), Dat(signature)}),
                Call("Cryptography.VerifySignature", {Dat(message), Obj(rebuilt), Str("SHA256"), Dat(signature)}),
            };
            for (const auto& outcome : outcomes) {
                ASSERT_TRUE(outcome.result);
                if (result == "valid") {
                    EXPECT_TRUE(outcome.result->GetBoolean());
                    EXPECT_TRUE(outcome.ok());
                } else if (result == "invalid") {
                    EXPECT_FALSE(outcome.result->GetBoolean());
                    EXPECT_EQ(outcome.errors.size(), 1u) << "a refused signature is reported";
                }
                EXPECT_EQ(outcome.result->GetBoolean(), outcome.ok());
            }
            ++checked;
            valid += result == "valid";
        }
    }
    EXPECT_EQ(checked, vectors.at("numberOfTests").get<int>());
    EXPECT_GT(valid, 0);
    ExpectErrorQueueEmpty();
}

}  // namespace
}  // namespace Testing
