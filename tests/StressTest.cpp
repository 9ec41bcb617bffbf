// Eight threads released by a barrier make the first calls of every routine
// family on a fresh module, sharing a read-only key and certificate; each
// result must equal the same call's alone. ThreadSanitizer runs it too.
// Alone, each call also shows the per-call path: the OpenSSL error queue is
// empty after every entry point whatever was queued before or during the call.
#include <openssl/err.h>
#include <openssl/evp.h>

#include <atomic>
#include <barrier>
#include <functional>
#include <thread>

#include "Harness.h"

namespace Testing {
namespace {

constexpr int kThreads = 8;

TEST(Stress, FirstCallsOfEveryFamilyFromEightThreadsAtOnce) {
    Engine engine;
    engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    // Shared, read-only: only queried and used for signing by the threads.
    const AutoRefPtr<IVariant> key(engine.Call("Cryptography.KeyFromPEM", {Str(ReadFile(DataPath("keys/rsa.pem")))}).result);
    const AutoRefPtr<IVariant> cert(engine.Call("Cryptography.X509FromPEM", {Str(ReadFile(DataPath("certs/ca.pem")))}).result);
    const std::string certPem = ReadFile(DataPath("certs/server.pem"));
    const std::string aesKey(32, 'k'), chachaKey(32, 'c'), nonce(12, 'n');

    using Step = std::function<std::string()>;
    // The text of a result: bytes, strings and numbers as they are, objects by type.
    auto text = [](const CallOutcome& out) -> std::string {
        if (!out.ok()) return "error " + (out.error() ? out.error()->message : std::to_string(out.status));
        const std::string type = out.result ? out.result->GetTypeAsString(nullptr) : "";
        if (type == "DATAREF") return Hex(ResultBytes(out));
        if (type == "STRING") return ResultString(out);
        if (type == "BOOLEAN") return out.result->GetBoolean() ? "true" : "false";
        return type + (out.result && out.result->ObjectValue() ? ":object" : ":empty");
    };
    auto call = [&](const char* name, std::function<Args()> args) -> Step {
        return [&, name, args] { return text(engine.Call(name, args())); };
    };
    const std::vector<Step> families = {
        call("Cryptography.Encrypt", [&] { return Args{Str("AES-256-CBC"), Str("plain text"), Str(aesKey)}; }),
        call("Cryptography.BytesToKey", [] { return Args{Str("AES-128-CBC"), Str("SHA256"), Dat("secret"), Dat("saltsalt"), Num(3)}; }),
        [&] {  // GCM token round trip
            const std::string token = ResultString(engine.Call("Cryptography.EncryptAndAuth",
                {Str("gcm"), Str("aes-256-gcm"), Str(aesKey), Str("aad"), Num(16)}));
            return text(engine.Call("Cryptography.DecryptAndVerify", {Str(token), Str("aes-256-gcm"), Str(aesKey), Str("aad"), Num(16)}));
        },
        call("Cryptography.EncryptAEADCHACHA20POLY1305", [&] { return Args{Str("chacha"), Str(chachaKey), Dat(nonce), Str("aad")}; }),
        call("Cryptography.Hash", [] { return Args{Str("SHA3-256"), Str("message")}; }),
        call("Cryptography.HashFile", [] { return Args{Str("SHA1"), Str(DataPath("certs/ca.pem"))}; }),
        call("Cryptography.HMAC", [] { return Args{Str("SHA512"), Str("key"), Str("message")}; }),
        call("Cryptography.PKCS5PBKDF2HMAC", [] { return Args{Dat("password"), Dat("salt"), Num(10), Str("SHA256"), Num(32)}; }),
        [&] { return std::to_string(ResultBytes(engine.Call("Cryptography.CreateRandomBytes", {Num(16)})).size()); },
        call("Cryptography.KeyFromPEM", [] { return Args{Str(ReadFile(DataPath("keys/ec.pem")))}; }),
        call("Cryptography.GenerateECKey", [] { return Args{}; }),
        call("Cryptography.PublicToPEM", [&] { return Args{key}; }),
        call("Cryptography.GetModulus", [&] { return Args{key}; }),
        call("Cryptography.Sign", [&] { return Args{Str("message"), key, Str("SHA256")}; }),
        call("Cryptography.X509FromPEM", [&] { return Args{Str(certPem)}; }),
        call("Cryptography.ToDER", [&] { return Args{cert}; }),
        call("Cryptography.GetDigestFromCert", [&] { return Args{Str("SHA256"), cert}; }),
        call("Cryptography.HasIssued", [&] { return Args{cert, cert}; }),
        [&] { return text(engine.Call("Cryptography.PEMToJson", {Str(certPem)})); },
        [&] {  // certificate building, signed with the shared key
            const AutoRefPtr<IVariant> built(engine.Call("Cryptography.CreateX509", {}).result);
            engine.Call("Cryptography.SetSubjectName", {built, Str("CN"), Str("stress")});
            engine.Call("Cryptography.AddExtension", {built, Str("basicConstraints"), Str("CA:FALSE")});
            engine.Call("Cryptography.SetKey", {built, key});
            engine.Call("Cryptography.Sign", {built, key});
            return text(engine.Call("Cryptography.ValidateKey", {built, key}));
        },
        [&] {  // TLS session setup and a refused socket
            const AutoRefPtr<IVariant> configuration(
                engine.Call("JSON.FromString", {Str("{\"CAFile\":\"" + DataPath("tls/ca.pem") + "\"}")}).result);
            const AutoRefPtr<IVariant> session(engine.Call("Cryptography.CreateSSL", {configuration}).result);
            return text(engine.Call("Cryptography.Connect", {session, Num(-1)})) +
                   text(engine.Call("Cryptography.Error", {session}));
        },
        // The last two fail inside OpenSSL (an unknown digest, bytes that are not a whole ciphertext).
        call("Cryptography.Hash", [] { return Args{Str("NoSuchDigest"), Str("message")}; }),
        call("Cryptography.DataRefDecrypt", [&] { return Args{Str("AES-256-CBC"), Dat(Pattern(17)), Str(aesKey)}; }),
    };

    std::vector<std::vector<std::string>> seen(kThreads, std::vector<std::string>(families.size()));
    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            // Each thread begins at another family, so different first uses meet.
            for (size_t i = 0; i < families.size(); ++i) {
                const size_t which = (t * 3 + i) % families.size();
                seen[t][which] = families[which]();
            }
        });
    for (auto& thread : threads) thread.join();

    // Alone, after an entry some earlier code left queued.
    for (size_t which = 0; which < families.size(); ++which) {
        ERR_raise(ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM);
        const std::string alone = families[which]();
        EXPECT_EQ(ERR_peek_error(), 0ul) << "family " << which << ": an error queue entry escaped";
        EXPECT_EQ(alone.starts_with("error"), which + 2 >= families.size()) << "family " << which << ": " << alone;
        for (int t = 0; t < kThreads; ++t) EXPECT_EQ(seen[t][which], alone) << "family " << which << ", thread " << t;
    }
}

}  // namespace
}  // namespace Testing
