// The module frame: its data exports and definition text; registration counting and the
// FIPS decision, in child processes (FIPS mode is process-wide) against a build whose switch
// file is CRYPTOGRAPHY_TEST_FIPS_FILE; host-assigned type numbers, and unloading: a reloaded
// module starts afresh.
#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/opensslv.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <optional>

#include "CertSupport.h"
#include "Ombrix/TypeCodes.h"

namespace Testing {
namespace {

TEST(ModuleFrame, DataExportsAndDefinitionAreExact) {
    Engine engine;
    const auto& module = engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    const std::map<std::string, std::string> expected = {
        {"GetOmbrixModuleName", "Cryptography"}, {"GetModuleVersion", "1.23.7.0"}, {"GetOmbrixSDKVersion", "1.17.10.0"},
        {"GetModuleOmbrixVersion", "1.17.10.0-9999"}, {"GetSDKDependency", "[1.14.4.0-]"}, {"GetState", "stable"},
        {"GetDownwardsCompatibility", "1.14.1"}, {"GetModuleDependencies", "JSON 1.9.0"}, {"GetModuleDependenciesOptional", ""},
        {"GetModuleDependenciesLoadBefore", ""}, {"GetAlternativeFunctionDependencies", ""}, {"GetOptionalFunctionDependencies", ""},
        {"GetAlternativeProcedureDependencies", ""}, {"GetOptionalProcedureDependencies", ""},
        {"GetSupportedPlatforms", "linux,mac,windows"}};
    for (const auto& [name, value] : expected) EXPECT_EQ(module.exports.count(name) ? module.exports.at(name) : "(missing)", value) << name;
    EXPECT_EQ(module.definition, ReadFile(DataPath("module_definition.txt")));
    // Asking again normalises nothing more and hands out the same buffer.
    auto definition = reinterpret_cast<const char* (*)()>(dlsym(module.handle, "GetModuleDefinition"));
    const char* first = definition();
    EXPECT_EQ(definition(), first);
    EXPECT_EQ(first, module.definition);
}

// FIPSMode (0 or 1), plus 2 if FIPSSelfTestFailed says true.
int FipsState(Engine& engine) {
    const auto mode = engine.Call("Cryptography.FIPSMode", {}), failed = engine.Call("Cryptography.FIPSSelfTestFailed", {});
    return mode.ok() && failed.ok() ? static_cast<int>(mode.result->GetNumber()) + 2 * failed.result->GetBoolean() : 123;
}

// The first source that exists decides: switch file, environment, configuration.
// Each child also registers a second time (counted, not logged) and checks that
// FIPS holds until the last deregistration.
TEST(Registration, FipsDecisionAndCounting) {
    const std::optional<std::string> none;
    const std::map<std::string, std::string> on{{"Cryptography.EnableFIPSMode", "true"}};
    struct { std::optional<std::string> file, env; std::map<std::string, std::string> configuration; int fips; } cases[] = {
        {"1", none, {}, 1},
        {"1\n", "1", {}, 0},  // exactly "1" only
        {"0", "1", on, 0},
        {"", "1", {}, 0},
        {none, "0", on, 0},
        {none, "0abc", {}, 0},
        {none, "no", {}, 1},
        {none, "", {}, 1},
        {none, "1", {{"Cryptography.EnableFIPSMode", "false"}}, 1},
        {none, none, on, 1},
        {none, none, {}, 0},
        {"1", none, {{"Cryptography.InitializeOpenSSL", "0"}}, 0},  // wanted, but OpenSSL left alone
    };
    // Other test processes may use the switch file too.
    const int lock = ::open(CRYPTOGRAPHY_TEST_FIPS_FILE ".lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    ::flock(lock, LOCK_EX);
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        std::remove(CRYPTOGRAPHY_TEST_FIPS_FILE);
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            if (c.file) {
                FILE* out = std::fopen(CRYPTOGRAPHY_TEST_FIPS_FILE, "wb");
                if (!out || std::fwrite(c.file->data(), 1, c.file->size(), out) != c.file->size() || std::fclose(out)) _exit(122);
            }
            c.env ? setenv("OPENSSL_FORCE_FIPS_MODE", c.env->c_str(), 1) : unsetenv("OPENSSL_FORCE_FIPS_MODE");
            auto first = std::make_unique<Engine>(Engine::Options{c.configuration});
            first->Load(CRYPTOGRAPHY_TEST_FIPS_MODULE_PATH);
            const int loaded = FipsState(*first);
            if (Engine second; !second.Load(CRYPTOGRAPHY_TEST_FIPS_MODULE_PATH).registered || !second.Log().Lines().empty())
                _exit(124);
            const int afterOne = FipsState(*first);
            first.reset();
            _exit(afterOne == loaded && !EVP_default_properties_is_fips_enabled(nullptr) ? loaded : 125);
        }
        int status = 0;
        const bool exited = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status);
        EXPECT_EQ(exited ? WEXITSTATUS(status) : -1, c.fips) << i;
    }
    std::remove(CRYPTOGRAPHY_TEST_FIPS_FILE);
    ::close(lock);
}

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
        type(key, "Cryptography.Key"), type(cert, "Cryptography.X509"),
        type(json, "JSON"), type(chain, "VECTOR<Cryptography.X509>"),
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
