// Loading: the data exports and the definition text.
#include <dlfcn.h>

#include "Harness.h"

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

}  // namespace
}  // namespace Testing
