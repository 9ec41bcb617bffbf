// Sign and Verify against the openssl command and Wycheproof RSA PKCS#1 v1.5; reports in order.
#include "KeysSupport.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

using SignatureTest = KeysTest;

TEST_F(SignatureTest, SignAndVerifyInEveryFormAgreeWithOpenssl) {
    TempDir dir;
    const std::string message = Pattern(250001);
    const std::string messageFile = dir.Write("message.bin", message);
    const std::string rsaPem = KeyFixture("rsa.pem"), rsaPublicPem = KeyFixture("rsa.pub.pem");
    const AutoRefPtr<IVariant> rsa = Obj(KeyFromPEM(rsaPem)), rsaPublic = Obj(KeyFromPEM(rsaPublicPem));
    const AutoRefPtr<IVariant> ec = Obj(KeyFromFixture("ec.pem"));
    const struct { AutoRefPtr<IVariant> message, signer, verifier; std::string kind; } cases[] = {
        {Str(message), rsa, Dat(rsaPublicPem), "rsa"},
        {Dat(message), Dat(rsaPem), rsa, "rsa"},
        {Dat(message), Dat(rsaPem), Dat(rsaPublicPem), "rsa"},
        {Str(message), Dat(rsaPem + std::string(100000 - rsaPem.size(), '\n')), rsaPublic, "rsa"},  // largest buffer
        {Str(message), ec, Dat(KeyFixture("ec.pub.pem")), "ec"},
        {Dat(message), ec, ec, "ec"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const std::string signature = ResultBytes(Call("Cryptography.Sign", {c.message, c.signer, Str("SHA384")}));
        EXPECT_EQ(RunShell("openssl dgst -sha384 -verify " + KeyFixturePath(c.kind + ".pub.pem") + " -signature " +
                           dir.Write("sig.bin", signature) + " " + messageFile), "Verified OK\n");
        const CallOutcome good = Call("Cryptography.VerifySignature", {c.message, c.verifier, Str("SHA384"), Dat(signature)});
        EXPECT_TRUE(good.ok() && good.result->GetBoolean());
        // Another message or another digest does not verify, and says so.
        for (const Args& bad : {Args{Str(message + "x"), c.verifier, Str("SHA384"), Dat(signature)},
                                Args{c.message, c.verifier, Str("SHA256"), Dat(signature)}}) {
            const CallOutcome outcome = Call("Cryptography.VerifySignature", bad);
            EXPECT_FALSE(outcome.result->GetBoolean());
            ASSERT_EQ(outcome.errors.size(), 1u);
            EXPECT_EQ(outcome.errors[0].id, "Error.Ombrix.FunctionError");
            EXPECT_EQ(outcome.errors[0].message.rfind("Error on 'EVP_VerifyFinal': error:", 0), 0u) << outcome.errors[0].message;
        }
        ExpectErrorQueueEmpty();
    }
}

TEST_F(SignatureTest, SignErrors) {
    const std::string rsaPem = KeyFixture("rsa.pem"), function = "Error.Ombrix.FunctionError";
    const struct { Args args; std::string id, message; } cases[] = {  // no id: an empty result without a report
        {{Str("m"), Dat(""), Str("nope")}, function, "Key Size out of range"},  // size checked before the digest
        {{Dat("m"), Dat(rsaPem + std::string(100001 - rsaPem.size(), '\n')), Str("SHA256")}, function, "Key Size out of range"},
        {{Str("m"), Dat(KeyFixture("ec.pem")), Str("SHA256")}, "", ""},
        {{Str("m"), Dat(KeyFixture("rsa.pub.pem")), Str("SHA256")}, "", ""},
        {{Str("m"), Dat("garbage"), Str("nope")}, "", ""},  // the key is read before the digest
        {{Str("m"), Dat(rsaPem), Str("nope")}, function, "Digest \"nope\" not supported!"},
        {{Dat("m"), Obj(KeyFromPEM(rsaPem)), Str("SHA-9")}, function, "Digest \"SHA-9\" not supported!"},
        {{Dat("m"), Obj(engine_.NewValue("Cryptography.Key")), Str("nope")}, "Error.System.Memory", "Invalid key given!"},
        {{Str("m"), Obj(KeyFromFixture("x25519.pem")), Str("SHA256")}, function, "RSASignMessage didn't work!"},
        {{Dat("m"), Obj(KeyFromFixture("rsa.pub.pem")), Str("SHA256")}, function, "RSASignMessage didn't work!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const CallOutcome outcome = Call("Cryptography.Sign", c.args);
        EXPECT_EQ(ResultBytes(outcome), "");
        if (c.id.empty()) EXPECT_TRUE(outcome.ok());
        else ExpectError(outcome, c.id, c.message);
        ExpectErrorQueueEmpty();
    }
}

TEST_F(SignatureTest, VerifyErrorsComeInTheirOrder) {
    const std::string publicPem = KeyFixture("rsa.pub.pem"), big(100001, 'x');
    const std::string signature = ResultBytes(Call("Cryptography.Sign", {Str("m"), Dat(KeyFixture("rsa.pem")), Str("SHA256")}));
    const KeyValue empty = engine_.NewValue("Cryptography.Key");
    const std::pair<Args, const char*> cases[] = {
        {{Str("m"), Dat(""), Str("nope"), Dat("")}, "Key size out of range"},
        {{Dat("m"), Dat(big), Str("SHA256"), Dat(signature)}, "Key size out of range"},
        {{Str("m"), Dat(KeyFixture("rsa.pem")), Str("SHA256"), Dat(signature)}, "Unable to initialize EVP for public key"},
        {{Str("m"), Dat("garbage"), Str("nope"), Dat("")}, "Unable to initialize EVP for public key"},
        {{Dat("m"), Dat(publicPem), Str("nope"), Dat("")}, "Digest \"nope\" not supported."},
        {{Str("m"), Dat(publicPem), Str("SHA256"), Dat("")}, "Signature size out of range"},
        {{Str("m"), Dat(publicPem), Str("SHA256"), Dat(big)}, "Signature size out of range"},
        {{Dat("m"), Obj(empty), Str("SHA256"), Dat("")}, "Signature size out of range"},
        {{Dat("m"), Obj(empty), Str("nope"), Dat(signature)}, "Digest \"nope\" not supported."},
        {{Str("m"), Obj(empty), Str("SHA256"), Dat(signature)}, "No public key given"},
    };
    for (const auto& [args, message] : cases) {
        const CallOutcome outcome = Call("Cryptography.VerifySignature", args);
        EXPECT_FALSE(outcome.result->GetBoolean()) << message;
        ExpectError(outcome, "Error.Ombrix.FunctionError", message);
        ExpectErrorQueueEmpty();
    }
}

TEST_F(SignatureTest, WycheproofRsaPkcs1Sha256) {
    ForEachVector("rsa_signature_2048_sha256_test.json", 0, {{"valid", 9}, {"invalid", 249}, {"acceptable", 1}},
                  [&](const auto& group, const auto& t) {
        const std::string pem = group["publicKeyPem"], message = Field(t, "msg"), signature = Field(t, "sig");
        const KeyValue rebuilt = ObjectOf(Call("Cryptography.GeneratePublicKey", {Str(group["keyJwk"]["n"]), Str(group["keyJwk"]["e"])}));
        ASSERT_EQ(Text("Cryptography.PublicToPEM", rebuilt), pem);
        for (const Args& args : {Args{Str(message), Dat(pem), Str("SHA256"), Dat(signature)},
                                 Args{Dat(message), Obj(rebuilt), Str("SHA256"), Dat(signature)}}) {
            const CallOutcome outcome = Call("Cryptography.VerifySignature", args);
            if (t["result"] != "acceptable") { EXPECT_EQ(outcome.result->GetBoolean(), t["result"] == "valid"); }
            // A refused signature is reported once; an accepted one not at all.
            EXPECT_EQ(outcome.errors.size(), outcome.result->GetBoolean() ? 0u : 1u);
        }
    });
    ExpectErrorQueueEmpty();
}

}  // namespace
}  // namespace Testing
