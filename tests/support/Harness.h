// Test harness: an engine with the module loaded and short value makers.
#pragma once

#include <gtest/gtest.h>

#include "Engine.h"
#include "FileData.h"
#include "Ombrix/Data.h"

namespace Testing {

using Ombrix::AutoRefPtr;
using Ombrix::IDataRef;
using Ombrix::IVariant;
using Ombrix::Host::CallOutcome;
using Ombrix::Host::Engine;
using Ombrix::Host::Variant;
using Args = std::vector<AutoRefPtr<IVariant>>;

inline AutoRefPtr<IVariant> Str(std::string s) { return AutoRefPtr<IVariant>(Variant::String(std::move(s))); }
inline AutoRefPtr<IVariant> Num(double n) { return AutoRefPtr<IVariant>(Variant::Number(n)); }
inline AutoRefPtr<IVariant> Bool(bool b) { return AutoRefPtr<IVariant>(Variant::Boolean(b)); }
inline AutoRefPtr<IDataRef> Bytes(std::string s) { return AutoRefPtr<IDataRef>(Ombrix::Data::Make(std::move(s))); }
inline AutoRefPtr<IVariant> Dat(std::string s) { return AutoRefPtr<IVariant>(Variant::DataRef(Bytes(std::move(s)))); }
inline AutoRefPtr<IVariant> Dat(AutoRefPtr<IDataRef> d) { return AutoRefPtr<IVariant>(Variant::DataRef(std::move(d))); }
inline AutoRefPtr<IVariant> Obj(AutoRefPtr<Ombrix::IUserDefinedType> o) { return AutoRefPtr<IVariant>(Variant::Object(std::move(o))); }

std::string Hex(std::string_view bytes);
std::string Unhex(std::string_view hex);
// Bytes that differ from position to position, so a misplaced chunk shows.
inline std::string Pattern(size_t size, unsigned seed = 0) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 7 + seed) & 0xff);
    return bytes;
}
std::string ReadFile(const std::string& path);
inline std::string DataPath(const std::string& name) { return std::string(TEST_DATA_DIR) + "/" + name; }
std::string ResultBytes(const CallOutcome& outcome);  // "" without a DATAREF result
inline std::string ResultString(const CallOutcome& o) {
    return o.result ? std::string(o.result->GetString(), o.result->GetStringSize()) : std::string();
}

// The elements of a VECTOR result, each as show gives it.
template <typename Show>
std::vector<std::string> Elements(const AutoRefPtr<IVariant>& result, Show show) {
    std::vector<std::string> elements;
    const AutoRefPtr<Ombrix::IVectorGeneric> vector = result ? result->GetVector() : nullptr;
    for (uint64_t i = 0; vector && i < vector->GetSize(); ++i) elements.push_back(show(vector->GetElement(i)));
    return elements;
}

// Each test gets its own engine with the module loaded.
class ModuleTest : public ::testing::Test {
protected:
    ModuleTest() { engine_.Load(CRYPTOGRAPHY_MODULE_PATH); }
    CallOutcome Call(std::string_view name, Args args) { return engine_.Call(name, std::move(args)); }
    CallOutcome CallEntry(std::string_view entry, Args args) { return engine_.CallEntry(entry, std::move(args)); }

    Engine engine_;
};

// Expects exactly one report with this id and message.
void ExpectError(const CallOutcome& outcome, const std::string& id, const std::string& message,
                 const std::string& moduleNamespace = "Cryptography");

}  // namespace Testing
