// docs/reference.md against the definition text: an entry per declaration, exact, nothing extra.
#include <algorithm>
#include <functional>
#include <map>
#include <stdexcept>

#include "Harness.h"
#include "ReferenceIndex.h"

namespace Testing {
namespace {

using OmbrixTool::DeclaredName;
using OmbrixTool::DefinitionDeclarations;
using OmbrixTool::ParseReference;
using OmbrixTool::ReferenceEntry;

std::string Reference() { return ReadFile(std::string(PROJECT_SOURCE_DIR) + "/docs/reference.md"); }

// Every disagreement between the declarations and the entries, one line each.
std::vector<std::string> Drift(const std::vector<std::string>& declared, const std::vector<ReferenceEntry>& entries) {
    std::vector<std::string> problems;
    std::map<std::string, int> documented;
    std::map<std::string, int> headings;
    for (const ReferenceEntry& entry : entries) {
        if (++headings[entry.name] == 2) problems.push_back("two entries named " + entry.name);
        for (const std::string& line : entry.declarations) {
            ++documented[line];
            if (DeclaredName(line) != entry.name)
                problems.push_back("entry " + entry.name + " lists a declaration of another name: " + line);
        }
    }
    std::map<std::string, int> module;
    for (const std::string& line : declared) ++module[line];
    for (const auto& [line, count] : module) {
        if (!documented.count(line)) problems.push_back("no entry for: " + line);
        else if (documented[line] != count) problems.push_back("listed " + std::to_string(documented[line]) + " times: " + line);
    }
    for (const auto& [line, count] : documented)
        if (!module.count(line)) problems.push_back("not declared by the module: " + line);
    return problems;
}

class ReferenceTest : public ModuleTest {
protected:
    std::vector<std::string> Declared() {
        for (const auto& module : engine_.Modules())
            if (module->name == "Cryptography") return DefinitionDeclarations(module->definition);
        ADD_FAILURE() << "the Cryptography module is not loaded";
        return {};
    }
};

TEST_F(ReferenceTest, EveryDeclarationHasAnEntryWithItsExactText) {
    const std::vector<std::string> declared = Declared();
    ASSERT_EQ(declared.size(), 88u);
    const std::vector<std::string> problems = Drift(declared, ParseReference(Reference()));
    EXPECT_TRUE(problems.empty()) << ::testing::PrintToString(problems);
}

}  // namespace
}  // namespace Testing
