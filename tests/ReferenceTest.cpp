// docs/reference.md against the definition text: an entry per declaration, exact, nothing extra.
#include <algorithm>
#include <set>

#include "Harness.h"
#include "ReferenceIndex.h"

namespace Testing {
namespace {

using OmbrixTool::ReferenceEntry;

// Every disagreement between the declarations and the entries, one line each.
std::vector<std::string> Drift(const std::vector<std::string>& declared, const std::vector<ReferenceEntry>& entries) {
    std::vector<std::string> problems, missing, extra;
    std::set<std::string> names;
    std::multiset<std::string> documented;
    for (const ReferenceEntry& entry : entries) {
        if (!names.insert(entry.name).second) problems.push_back("two entries named " + entry.name);
        for (const std::string& line : entry.declarations) {
            documented.insert(line);
            if (OmbrixTool::DeclaredName(line) != entry.name)
                problems.push_back("entry " + entry.name + " lists a declaration of another name: " + line);
        }
    }
    const std::multiset<std::string> module(declared.begin(), declared.end());
    std::ranges::set_difference(module, documented, std::back_inserter(missing));
    std::ranges::set_difference(documented, module, std::back_inserter(extra));
    for (const std::string& line : missing) problems.push_back("no entry (or listed too few times) for: " + line);
    for (const std::string& line : extra) problems.push_back("not declared by the module (or not that often): " + line);
    return problems;
}

TEST(ReferenceTest, EveryDeclarationHasAnEntryWithItsExactText) {
    Engine engine;
    const auto declared = OmbrixTool::DefinitionDeclarations(engine.Load(CRYPTOGRAPHY_MODULE_PATH).definition);
    ASSERT_EQ(declared.size(), 88u);
    const std::string reference = ReadFile(std::string(PROJECT_SOURCE_DIR) + "/docs/reference.md");
    const std::vector<std::string> problems = Drift(declared, OmbrixTool::ParseReference(reference));
    EXPECT_TRUE(problems.empty()) << ::testing::PrintToString(problems);
}

}  // namespace
}  // namespace Testing
