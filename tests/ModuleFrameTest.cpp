// Loading, data exports, the definition text and registration.
#include <dlfcn.h>

#include "Harness.h"

namespace Testing {
namespace {

TEST(DataExports, AreReturnedExactly) {
    Engine engine;
    const auto& module = engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    const std::pair<const char*, const char*> expected[] = {
        {"GetOmbrixModuleName", "Cryptography"},
        {"GetModuleVersion", "1.23.7.0"},
        {"GetOmbrixSDKVersion", "1.17.10.0"},
        {"GetModuleOmbrixVersion", "1.17.10.0-9999"},
        {"GetSDKDependency", "[1.14.4.0-]"},
        {"GetDownwardsCompatibility", "1.14.1"},
        {"GetModuleDependencies", "JSON 1.9.0"},
        {"GetModuleDependenciesOptional", ""},
        {"GetModuleDependenciesLoadBefore", ""},
        {"GetAlternativeFunctionDependencies", ""},
        {"GetAlternativeProcedureDependencies", ""},
        {"GetOptionalFunctionDependencies", ""},
        {"GetOptionalProcedureDependencies", ""},
        {"GetState", "stable"},
        {"GetSupportedPlatforms", "linux,mac,windows"},
    };
    for (const auto& [name, value] : expected) {
        ASSERT_TRUE(module.exports.count(name)) << name;
        EXPECT_EQ(module.exports.at(name), value) << name;
    }
}

TEST(DataExports, EmptyDependencyExportsShareOneFunction) {
    void* handle = dlopen(CRYPTOGRAPHY_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr);
    void* shared = dlsym(handle, "GetModuleDependenciesOptional");
    for (const char* name : {"GetModuleDependenciesLoadBefore", "GetAlternativeFunctionDependencies",
                             "GetAlternativeProcedureDependencies", "GetOptionalFunctionDependencies",
                             "GetOptionalProcedureDependencies"})
        EXPECT_EQ(dlsym(handle, name), shared) << name;
}

TEST(Definition, IsDeliveredByteExactAndStable) {
    void* handle = dlopen(CRYPTOGRAPHY_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr);
    auto definition = reinterpret_cast<const char* (*)()>(dlsym(handle, "GetModuleDefinition"));
    ASSERT_NE(definition, nullptr);
    const std::string expected = ReadFile(DataPath("module_definition.txt"));
    const std::string first = definition();
    EXPECT_EQ(first, expected);
    EXPECT_EQ(std::string(definition()), first);
    EXPECT_EQ(first.find(",)"), std::string::npos);
    EXPECT_EQ(first.find(",,"), std::string::npos);
}

TEST(Definition, DeclaresEightyEightEntriesThatTheEngineBinds) {
    Engine engine;
    const auto& module = engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    EXPECT_EQ(Ombrix::Host::ParseDefinition(module.definition).size(), 88u);
}

}  // namespace
}  // namespace Testing
