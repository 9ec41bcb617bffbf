// Host-assigned type numbers, and unloading: a reloaded module starts afresh.
#include <dlfcn.h>
#include <openssl/opensslv.h>

#include "CertSupport.h"
#include "Ombrix/TypeCodes.h"

namespace Testing {
namespace {

// Whether the module library is mapped in this process right now.
bool ModuleMapped() {
    void* handle = dlopen(CRYPTOGRAPHY_MODULE_PATH, RTLD_NOW | RTLD_NOLOAD);
    if (handle) dlclose(handle);
    return handle != nullptr;
}

// What one round of calls through an engine gives: digest, key, certificate,
// JSON, and whether each value carries the type code this engine handed out.
std::vector<std::string> Round(Engine& engine) {
    const auto type = [&](const CallOutcome& outcome, const char* name) {
        const uint32_t code = outcome.result ? outcome.result->GetType() : 0;
        return std::string(name) + (code == engine.FindType(name) ? " typed" : " mistyped " + std::to_string(code));
    };
    const CallOutcome key = engine.Call("Cryptography.KeyFromPEM", {Str(CertFixture("ca.key"))});
    const CallOutcome cert = engine.Call("Cryptography.X509FromPEM", {Str(CertFixture("ca.pem"))});
    const CallOutcome json = engine.Call("Cryptography.PEMToJson", {Str(CertFixture("ca.pem"))});
    const CallOutcome chain = engine.Call("Cryptography.X509VectorFromPEM", {Str(CertFixture("bundle.pem"))});
    const auto keyValue = AutoRefPtr<IVariant>(key.result), certValue = AutoRefPtr<IVariant>(cert.result);
    std::vector<std::string> seen = {
        Hex(ResultBytes(engine.Call("Cryptography.Hash", {Str("SHA256"), Str("abc")}))),
        type(key, "Cryptography.Key"),
        type(cert, "Cryptography.X509"),
        type(json, "JSON"),
        type(chain, "VECTOR<Cryptography.X509>"),
        ResultString(engine.Call("Cryptography.GetDigestFromCert", {Str("SHA256"), certValue})),
        engine.Call("Cryptography.ValidateKey", {certValue, keyValue}).result->GetBoolean() ? "matches" : "differs",
        JsonText(json),
    };
    for (const CallOutcome* outcome : {&key, &cert, &json, &chain})
        if (!outcome->ok()) seen.push_back("failed: " + (outcome->error() ? outcome->error()->message : "status"));
    return seen;
}

// Registration logs the OpenSSL version only on the first registration of a
// loaded module: seeing it says the registration counter started at zero.
bool FreshRegistration(Engine& engine) {
    for (const auto& line : engine.Log().Lines())
        if (line.category == "Cryptography" && line.level == 10 && !line.error &&
            line.message == "Using " OPENSSL_VERSION_TEXT)
            return true;
    return false;
}

// Load, register, call, deregister, unload: the library is gone after each
// cycle, and nothing cached (type ids, registration count) reaches the next,
// which numbers its types differently; the module uses the host's codes.
TEST(ModuleReload, HundredCyclesStartFresh) {
    ASSERT_FALSE(ModuleMapped());
    std::vector<std::string> reference;
    const uint32_t bases[] = {Ombrix::kBaseFirstCustom, 9, 17, 40, Ombrix::kBaseFirstCustom + 1};
    for (uint32_t cycle = 0; cycle < 100; ++cycle) {
        {
            Engine::Options numbering;
            const uint32_t base = numbering.firstCustomBase = bases[cycle % std::size(bases)];
            Engine engine(numbering);
            EXPECT_EQ(engine.FindType("JSON"), Ombrix::MakeTypeCode(base, Ombrix::Container::Single));
            engine.Load(CRYPTOGRAPHY_MODULE_PATH);
            ASSERT_TRUE(ModuleMapped());
            EXPECT_TRUE(FreshRegistration(engine)) << "cycle " << cycle;
            const std::vector<std::string> seen = Round(engine);
            if (reference.empty()) reference = seen;
            ASSERT_EQ(seen, reference) << "cycle " << cycle;
        }
        ASSERT_FALSE(ModuleMapped()) << "still mapped after cycle " << cycle;
    }
    EXPECT_EQ(reference.size(), 8u);
}

}  // namespace
}  // namespace Testing
