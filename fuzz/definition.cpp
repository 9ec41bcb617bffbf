// The engine's definition-text parser: any text either parses or is refused
// with std::runtime_error. What it parses, written out again, parses to the
// same declarations.
#include <stdexcept>

#include "FuzzSupport.h"

namespace {

using Ombrix::Host::Declaration;

std::string Write(const std::vector<Declaration>& declarations) {
    std::string text;
    for (const Declaration& d : declarations) text += d.Text() + " : " + d.entryName + "\n";
    return text;
}

bool Same(const Declaration& a, const Declaration& b) {
    return a.kind == b.kind && a.resultType == b.resultType && a.name == b.name && a.parameters == b.parameters &&
           a.entryName == b.entryName;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<Declaration> parsed;
    try {
        parsed = Ombrix::Host::ParseDefinition(text);
    } catch (const std::runtime_error&) {
        return 0;
    }
    std::vector<Declaration> again;
    try {
        again = Ombrix::Host::ParseDefinition(Write(parsed));
    } catch (const std::runtime_error& e) {
        Fuzz::Fail(std::string("written declarations do not parse: ") + e.what());
    }
    if (again.size() != parsed.size()) Fuzz::Fail("written declarations parse to a different count");
    for (size_t i = 0; i < parsed.size(); ++i)
        if (!Same(parsed[i], again[i])) Fuzz::Fail("written declaration parses differently: " + parsed[i].Text());
    return 0;
}
