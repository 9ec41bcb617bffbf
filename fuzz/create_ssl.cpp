// CreateSSL with a configuration parsed from the input by JSON.FromString.
// File settings name test fixtures (a file setting is read from disk, so
// arbitrary paths would read arbitrary files), and the default CA locations
// point at fixtures too.
#include <cstdlib>

#include "FuzzSupport.h"
#include "Ombrix/Interfaces.h"

namespace {

using namespace Fuzz;

constexpr const char* kFileSettings[] = {"CAFile", "CAPath", "Cert", "Key"};

// Readable without a password: an encrypted key would prompt on the terminal.
constexpr const char* kFixtures[] = {"tls/ca.pem",      "tls/client.pem", "tls/client.key", "tls/stray-ec.key",
                                     "certs/bundle.pem", "certs/ca.key",  "keys/ec.pem",    "keys/x25519.pem",
                                     "tls",              "certs",         "no-such-file",   ""};

std::string FixturePath(const std::string& chosen) {
    for (const char* fixture : kFixtures)
        if (chosen == fixture) return *fixture ? DataPath(fixture) : std::string();
    size_t hash = 0;
    for (unsigned char c : chosen) hash = hash * 31 + c;
    const std::string fixture = kFixtures[hash % std::size(kFixtures)];
    return fixture.empty() ? fixture : DataPath(fixture);
}

// Set before any input runs; OpenSSL reads them when a session loads the defaults.
[[maybe_unused]] const bool kDefaultLocationsSet = [] {
    setenv("SSL_CERT_FILE", DataPath("tls/ca.pem").c_str(), 1);
    setenv("SSL_CERT_DIR", DataPath("tls").c_str(), 1);
    return true;
}();

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const CallOutcome parsed =
        ModuleEngine().Call("JSON.FromString", {Str(std::string(reinterpret_cast<const char*>(data), size))});
    if (!parsed.ok() || !HasObject(parsed.result)) return 0;
    AutoRefPtr<Ombrix::IUserDefinedType> held(parsed.result->GetUserDefinedPtr());
    AutoRefPtr<Ombrix::IJSON> configuration = held.DynamicCast<Ombrix::IJSON>();
    if (!configuration) Fail("JSON.FromString gave no JSON value");
    if (configuration->IsObject()) {
        for (const char* setting : kFileSettings) {
            std::string chosen;
            if (configuration->GetMemberString(setting, chosen)) {
                const std::string path = FixturePath(chosen);
                configuration->SetMemberString(setting, path.data(), path.size());
            }
        }
    }

    const CallOutcome created = Call("Cryptography.CreateSSL", {parsed.result});
    if (!created.ok() || !HasObject(created.result)) Fail("CreateSSL did not give a session");
    const double state = ResultNumber(Call("Cryptography.State", {created.result}));
    const std::string error = ResultString(Call("Cryptography.Error", {created.result}));
    if (state < 0 && error.empty()) Fail("a failed session has no message");
    return 0;
}
