// Data exports, registration and OpenSSL start-up and shutdown.
#include "Module.h"

#include <openssl/conf.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/opensslv.h>
#include <openssl/ssl.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Fetched.h"
#include "Routine.h"

using Ombrix::AutoRefPtr;
using Ombrix::IConfiguration;
using Ombrix::ILogger;
using Ombrix::IModuleInfo;

namespace Cryptography {

namespace {

std::atomic<int32_t> registrations{0};
// Whether the module brought OpenSSL up; rewritten by each first registration
// that has a configuration.
std::atomic<bool> opensslInitialized{true};

// Content of the FIPS switch file when it exists; only the single byte "1" asks for FIPS.
bool FipsFileWantsFips(const char* path) {
    std::string content;
    if (FILE* file = std::fopen(path, "rb")) {
        char chunk[8192];
        size_t got;
        while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) content.append(chunk, got);
        std::fclose(file);
    }
    return content == "1";
}

// The first source that exists decides: the kernel switch file, then the
// environment variable, then the host configuration.
bool FipsWanted(const IConfiguration* configuration) {
    const char* path = FipsEnabledPath();
    struct stat info {};
    if (::stat(path, &info) == 0) return FipsFileWantsFips(path);
    if (const char* forced = std::getenv("OPENSSL_FORCE_FIPS_MODE")) return forced[0] != '0';
    return configuration && configuration->GetBoolean("Cryptography.EnableFIPSMode", false);
}

bool InitializeOpenSSL(const IConfiguration* configuration, ILogger* logger) {
    const bool fips = FipsWanted(configuration);
    if (configuration) opensslInitialized = configuration->GetBoolean("Cryptography.InitializeOpenSSL", true);
    if (!opensslInitialized) return true;

    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    if (fips && !EVP_default_properties_is_fips_enabled(nullptr)) {
        const bool enabled = EVP_default_properties_enable_fips(nullptr, 1);
        DefaultPropertiesChanged();
        if (!enabled) {
            if (logger) logger->ErrorLog(kModuleName, "Could not enable FIPS mode in OpenSSL!", 0, nullptr);
            return false;
        }
    }
    return true;
}

void AssignNumber(Ombrix::IVariant* result, double value) {
    if (result) result->AssignNumber(value);
}

}  // namespace

}  // namespace Cryptography

CRYPTOGRAPHY_EXPORT const char* GetOmbrixModuleName() { return "Cryptography"; }
CRYPTOGRAPHY_EXPORT const char* GetModuleVersion() { return "1.23.7.0"; }
CRYPTOGRAPHY_EXPORT const char* GetOmbrixSDKVersion() { return "1.17.10.0"; }
CRYPTOGRAPHY_EXPORT const char* GetModuleOmbrixVersion() { return "1.17.10.0-9999"; }
CRYPTOGRAPHY_EXPORT const char* GetSDKDependency() { return "[1.14.4.0-]"; }
CRYPTOGRAPHY_EXPORT const char* GetDownwardsCompatibility() { return "1.14.1"; }
CRYPTOGRAPHY_EXPORT const char* GetModuleDependencies() { return "JSON 1.9.0"; }
CRYPTOGRAPHY_EXPORT const char* GetState() { return "stable"; }
CRYPTOGRAPHY_EXPORT const char* GetSupportedPlatforms() { return "linux,mac,windows"; }

// The module has no optional or alternative dependencies: one function answers
// all six exports.
CRYPTOGRAPHY_EXPORT const char* GetModuleDependenciesOptional() { return ""; }
#define CRYPTOGRAPHY_EMPTY_DEPENDENCIES(Name) \
    CRYPTOGRAPHY_EXPORT const char* Name() __attribute__((alias("GetModuleDependenciesOptional")));
CRYPTOGRAPHY_EMPTY_DEPENDENCIES(GetModuleDependenciesLoadBefore)
CRYPTOGRAPHY_EMPTY_DEPENDENCIES(GetAlternativeFunctionDependencies)
CRYPTOGRAPHY_EMPTY_DEPENDENCIES(GetAlternativeProcedureDependencies)
CRYPTOGRAPHY_EMPTY_DEPENDENCIES(GetOptionalFunctionDependencies)
CRYPTOGRAPHY_EMPTY_DEPENDENCIES(GetOptionalProcedureDependencies)

// Only the first registration does any work; later ones are counted.
CRYPTOGRAPHY_EXPORT uint32_t RegisterModule(IModuleInfo* info) {
    using namespace Cryptography;
    if (!info) return 1;
    if (registrations.fetch_add(1) != 0) return 0;
    try {
        AutoRefPtr<ILogger> logger = info->GetLogger();
        AutoRefPtr<IConfiguration> configuration = info->GetConfiguration();
        if (logger) logger->DebugLog(kModuleName, 10, "Using " OPENSSL_VERSION_TEXT, 0, nullptr);
        if (!InitializeOpenSSL(configuration.get(), logger.get())) {
            if (logger) logger->ErrorLog(kModuleName, "Could not initialize OpenSSL!", 0, nullptr);
            return 1;
        }
    } catch (...) {
        return 1;
    }
    return 0;
}

// The last deregistration turns FIPS off and unloads OpenSSL's configuration modules.
CRYPTOGRAPHY_EXPORT void DeregisterModule() {
    using namespace Cryptography;
    if (registrations.fetch_sub(1) == 1 && opensslInitialized) {
        const bool wasFips = EVP_default_properties_is_fips_enabled(nullptr);
        EVP_default_properties_enable_fips(nullptr, 0);
        CONF_modules_unload(1);
        if (wasFips) DefaultPropertiesChanged();
    }
}

CRYPTOGRAPHY_EXPORT uint32_t ombrix_module_GetFIPSMode(uint32_t, Ombrix::IVariant**, Ombrix::IVariant* result, void*,
                                                       Ombrix::IContext*) {
    Cryptography::AssignNumber(result, EVP_default_properties_is_fips_enabled(nullptr));
    return 0;
}

CRYPTOGRAPHY_EXPORT uint32_t ombrix_module_FIPSSelfTestFailed(uint32_t, Ombrix::IVariant**, Ombrix::IVariant* result,
                                                              void*, Ombrix::IContext*) {
    if (result) result->AssignBoolean(false);
    return 0;
}
