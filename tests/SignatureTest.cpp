// Sign and Verify against the openssl command and Wycheproof RSA PKCS#1 v1.5; reports in order.
#include "KeysSupport.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

using SignatureTest = KeysTest;

TEST_F(SignatureTest, SignAndVerifyInEveryFormAgreeWithOpenssl) {
    TempDir dir;
    const std::string message = Pattern(250001), messageFile = dir.Write("message.bin", message);
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
    }
}

// Sign's and VerifySignature's reports come in the order their checks run; a failed call returns
// an empty signature or false. No id: no report. A signature that does not verify (another message
// or digest; the Wycheproof vectors and StreamingTest have the other forms) quotes OpenSSL's reason.
TEST_F(SignatureTest, ErrorsComeInTheirOrder) {
    const std::string rsaPem = KeyFixture("rsa.pem"), publicPem = KeyFixture("rsa.pub.pem"), big(100001, 'x');
    const std::string signature = ResultBytes(Call("Cryptography.Sign", {Str("m"), Dat(rsaPem), Str("SHA256")}));
    const AutoRefPtr<IVariant> empty = Obj(engine_.NewValue("Cryptography.Key"));
    const std::string sign = "Cryptography.Sign", verify = "Cryptography.VerifySignature";
    const std::string function = "Error.Ombrix.FunctionError", initFailed = "Unable to initialize EVP for public key";
    const std::string badSignature = "Error on 'EVP_VerifyFinal': error:02000068:rsa routines::bad signature";
    const struct { std::string routine; Args args; std::string id, message; } cases[] = {
        {sign, {Str("m"), Dat(""), Str("nope")}, function, "Key Size out of range"},  // size checked before the digest
        {sign, {Dat("m"), Dat(rsaPem + std::string(100001 - rsaPem.size(), '\n')), Str("SHA256")}, function, "Key Size out of range"},
        {sign, {Str("m"), Dat(KeyFixture("ec.pem")), Str("SHA256")}, "", ""},
        {sign, {Str("m"), Dat(publicPem), Str("SHA256")}, "", ""},
        {sign, {Str("m"), Dat("garbage"), Str("nope")}, "", ""},  // the key is read before the digest
        {sign, {Str("m"), Dat(rsaPem), Str("nope")}, function, "Digest \"nope\" not supported!"},
        {sign, {Dat("m"), Obj(KeyFromPEM(rsaPem)), Str("SHA-9")}, function, "Digest \"SHA-9\" not supported!"},
        {sign, {Dat("m"), empty, Str("nope")}, "Error.System.Memory", "Invalid key given!"},
        {sign, {Str("m"), Obj(KeyFromFixture("x25519.pem")), Str("SHA256")}, function, "RSASignMessage didn't work!"},
        {sign, {Dat("m"), Obj(KeyFromPEM(publicPem)), Str("SHA256")}, function, "RSASignMessage didn't work!"},
        {verify, {Str("m"), Dat(""), Str("nope"), Dat("")}, function, "Key size out of range"},
        {verify, {Dat("m"), Dat(big), Str("SHA256"), Dat(signature)}, function, "Key size out of range"},
        {verify, {Str("m"), Dat(rsaPem), Str("SHA256"), Dat(signature)}, function, initFailed},
        {verify, {Str("m"), Dat("garbage"), Str("nope"), Dat("")}, function, initFailed},
        {verify, {Dat("m"), Dat(publicPem), Str("nope"), Dat("")}, function, "Digest \"nope\" not supported."},
        {verify, {Str("m"), Dat(publicPem), Str("SHA256"), Dat("")}, function, "Signature size out of range"},
        {verify, {Str("m"), Dat(publicPem), Str("SHA256"), Dat(big)}, function, "Signature size out of range"},
        {verify, {Dat("m"), empty, Str("SHA256"), Dat("")}, function, "Signature size out of range"},
        {verify, {Dat("m"), empty, Str("nope"), Dat(signature)}, function, "Digest \"nope\" not supported."},
        {verify, {Str("m"), empty, Str("SHA256"), Dat(signature)}, function, "No public key given"},
        {verify, {Str("n"), Obj(KeyFromPEM(publicPem)), Str("SHA256"), Dat(signature)}, function, badSignature},
        {verify, {Dat("m"), Dat(publicPem), Str("SHA384"), Dat(signature)}, function, badSignature},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const CallOutcome outcome = Call(c.routine, c.args);
        EXPECT_FALSE(ResultBytes(outcome).size() || outcome.result->GetBoolean());
        if (c.id.empty()) EXPECT_TRUE(outcome.ok());
        else ExpectError(outcome, c.id, c.message);
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
}

}  // namespace
}  // namespace Testing
