// Keys against the openssl command's files: import, export, properties, generation, saved form.
#include <nlohmann/json.hpp>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "KeysSupport.h"

namespace Testing {
namespace {

// What the module reports when OpenSSL refuses an RSA public key given only one
// of modulus and exponent: its own text, then the reason OpenSSL queues for the
// refusal, taken from the running OpenSSL (3.0 queues none).
std::string RefusedPublicKeyMessage(const char* onlyParameter) {
    unsigned char number[] = {1, 0, 1};  // 65537 in either byte order; its value does not matter
    OSSL_PARAM params[] = {OSSL_PARAM_construct_BN(onlyParameter, number, sizeof number), OSSL_PARAM_construct_end()};
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* key = nullptr;
    EXPECT_EQ(EVP_PKEY_fromdata_init(ctx), 1);
    EXPECT_LE(EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_KEYPAIR, params), 0) << onlyParameter;
    EVP_PKEY_free(key);
    EVP_PKEY_CTX_free(ctx);
    std::string message = "Generation of public key generation";
    if (const unsigned long code = ERR_peek_last_error(); code && ERR_reason_error_string(code))
        message.append(", failure reason:[").append(ERR_reason_error_string(code)).append("]");
    ERR_clear_error();
    return message;
}

// Each kind of key read from every form the openssl command writes, and one generated.
TEST_F(KeysTest, ImportedAndGeneratedKeysMatchTheOpensslCommand) {
    const auto properties = [this](const KeyValue& key) {  // type, length in bits, exponent
        const int bits = int(Call("Cryptography.GetKeyLength", {Obj(key)}).result->GetNumber());
        return Text("Cryptography.GetKeyType", key) + " " + std::to_string(bits) + " " +
               Text("Cryptography.GetExponent", key);
    };
    const struct { std::string kind; bool traditional; const char *properties, *generate; Args args; } kinds[] = {
        {"rsa", true, "RSA 2048 AQAB", "Cryptography.GenerateRSAKey", {Num(2048)}},
        {"ec", true, "prime256v1 256 ", "Cryptography.GenerateECKey", {}},
        {"x25519", false, "X25519 253 ", "Cryptography.GenerateX25519Key", {}},  // no private PEM
    };
    for (const auto& k : kinds) {
        const std::string publicPem = KeyFixture(k.kind + ".pub.pem");
        const std::string traditional = k.traditional ? KeyFixture(k.kind + ".traditional.pem") : "";
        for (const std::string form : {".pem", ".traditional.pem", ".pub.pem"}) {
            if (!k.traditional && form == ".traditional.pem") continue;
            SCOPED_TRACE(k.kind + form);
            const bool isPublic = form == ".pub.pem";
            const KeyValue key = KeyFromFixture(k.kind + form);
            ASSERT_TRUE(IsValid(key));
            EXPECT_EQ(Text("Cryptography.ToPEM", key), isPublic ? publicPem : traditional);
            EXPECT_EQ(Text("Cryptography.PublicToPEM", key), publicPem);
            EXPECT_EQ(ResultBytes(Call("Cryptography.EncodePublicKey", {Obj(key)})), KeyFixture(k.kind + ".pub.der"));
            EXPECT_EQ(properties(key), k.properties);
            const CallOutcome encoded = Call("Cryptography.EncodePrivateKey", {Obj(key)});
            EXPECT_EQ(ResultBytes(encoded), isPublic ? "" : KeyFixture(k.kind + ".der"));
            if (!isPublic) continue;  // the report quotes OpenSSL's first error, cut to 119 characters
            ASSERT_EQ(encoded.errors.size(), 1u);
            EXPECT_EQ(encoded.errors[0].id, "Error.Ombrix.InvalidArgument");
            EXPECT_EQ(encoded.errors[0].message.rfind("Invalid key:error:", 0), 0u) << encoded.errors[0].message;
            EXPECT_LE(encoded.errors[0].message.size(), std::string("Invalid key:").size() + 119);
        }
        // A generated key has the same properties, is written in the same form and reads back.
        const KeyValue generated = ObjectOf(Call(k.generate, k.args));
        ASSERT_TRUE(IsValid(generated)) << k.kind;
        EXPECT_EQ(properties(generated), k.properties);
        const std::string pem = Text("Cryptography.ToPEM", generated);
        const std::string ownPublic = Text("Cryptography.PublicToPEM", generated);
        EXPECT_EQ(pem.substr(0, pem.find('\n')), traditional.substr(0, traditional.find('\n')));
        EXPECT_EQ(Text("Cryptography.PublicToPEM", KeyFromPEM(k.traditional ? pem : ownPublic)), ownPublic);
    }
    EXPECT_EQ(Text("Cryptography.GetKeyType", KeyFromFixture("ed25519.pub.pem")), "Unknown");
}

TEST_F(KeysTest, PemTextAndPasswordRules) {
    const std::string publicPem = KeyFixture("rsa.pub.pem"), traditional = KeyFixture("rsa.traditional.pem");
    const std::string pkcs8 = KeyFixture("rsa.encrypted.pem"), pkcs1 = KeyFixture("rsa.traditional-encrypted.pem");
    const auto password = Str("ombrix-test-password");
    const struct { const char* name; Args args; std::string pem; } cases[] = {  // pem: ToPEM's; "" if refused
        {"text ends at a zero byte", {Str(publicPem + '\0' + "-----BEGIN")}, publicPem},
        {"leading zero byte", {Str('\0' + publicPem)}, ""},
        {"PRIVATE anywhere selects the private reader", {Str("PRIVATE comment\n" + publicPem)}, ""},
        {"encrypted without password", {Str(pkcs8)}, ""},
        {"encrypted, wrong password", {Str(pkcs8), Str("wrong password")}, ""},
        {"encrypted, empty password", {Str(pkcs8), Str("")}, ""},
        {"encrypted", {Str(pkcs8), password}, traditional},
        {"encrypted PKCS#1 without password", {Str(pkcs1)}, ""},
        {"encrypted PKCS#1", {Str(pkcs1), password}, traditional},
    };
    for (const auto& c : cases) {
        const CallOutcome outcome = Call("Cryptography.KeyFromPEM", c.args);
        EXPECT_TRUE(outcome.ok()) << c.name;  // an unreadable PEM gives an empty Key, unreported
        ASSERT_TRUE(ObjectOf(outcome)) << c.name;
        EXPECT_EQ(Text("Cryptography.ToPEM", ObjectOf(outcome)), c.pem) << c.name;
    }
}

TEST_F(KeysTest, PublicKeyFromModulusAndExponentAndGenerationFailures) {
    const std::string modulus = KeyFixture("rsa.modulus.txt");
    const KeyValue fixture = KeyFromFixture("rsa.pem");
    std::string wrapped = "AAAA" + modulus;  // leading zero bytes, line breaks, padding
    for (size_t at = 64; at < wrapped.size(); at += 66) wrapped.insert(at, "\r\n");
    const char* rebuild = "Cryptography.GeneratePublicKey";
    const std::string tooSmall = "Generation of RSA key, failure reason:[key size too small]";
    const struct { const char* routine; Args args; std::string message; } cases[] = {  // message: "" for success
        {rebuild, {Str(Text("Cryptography.GetModulus", fixture)), Str(Text("Cryptography.GetExponent", fixture))}, ""},
        {rebuild, {Str(wrapped + "=="), Str("AAAAAQAB\n")}, ""},
        {rebuild, {Str(modulus), Str("")}, RefusedPublicKeyMessage(OSSL_PKEY_PARAM_RSA_N)},
        {rebuild, {Str(""), Str("AQAB")}, RefusedPublicKeyMessage(OSSL_PKEY_PARAM_RSA_E)},
        {"Cryptography.GenerateRSAKey", {Num(511)}, tooSmall},
        {"Cryptography.GenerateRSAKey", {Num(-2048)}, tooSmall},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const CallOutcome outcome = Call(c.routine, c.args);
        ASSERT_TRUE(ObjectOf(outcome)) << "a Key is returned in every case";
        if (!c.message.empty()) ExpectError(outcome, "Error.Ombrix.FunctionError", c.message);
        else EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(Text("Cryptography.ToPEM", ObjectOf(outcome)), c.message.empty() ? KeyFixture("rsa.pub.pem") : "");  // public
    }
}

TEST_F(KeysTest, SerializedKeysRestore) {
    const KeyValue generated = ObjectOf(Call("Cryptography.GenerateECKey", {})), clone(generated->Clone());
    for (const KeyValue& key : {KeyFromFixture("rsa.pem"), KeyFromFixture("x25519.pub.pem"), generated, clone}) {
        ASSERT_TRUE(IsValid(key));
        const std::string pem = Text("Cryptography.ToPEM", key), saved = key->Serialize(nullptr)->ToJSONText();
        EXPECT_EQ(nlohmann::json::parse(saved), nlohmann::json({{"value", pem}}));
        EXPECT_EQ(Text("Cryptography.ToPEM", engine_.Deserialize("Cryptography.Key", saved)), pem);
    }
    for (const char* text : {"{}", R"({"value":"not a key"})", R"({"value":""})", R"({"value":42})"})
        EXPECT_FALSE(engine_.Deserialize("Cryptography.Key", text)) << text;
    EXPECT_EQ(engine_.NewValue("Cryptography.Key")->Serialize(nullptr)->ToJSONText(), R"({"value":""})");
}

}  // namespace
}  // namespace Testing
