// The calling convention as a host sees it: statuses, truncation, whole strings, null results.
#include <cstring>

#include "Harness.h"
#include "Ombrix/Routine.h"

namespace Testing {
namespace {

using FrameTest = ModuleTest;

// A failing argument leaves the result empty and reports nothing; without a result
// the status is the same. Kind 4 marks an unset variable of a custom type.
TEST_F(FrameTest, ArgumentStatuses) {
    auto unset = [&](const char* type) { return AutoRefPtr<IVariant>(Variant::Unset(engine_.FindType(type))); };
    struct { const char* entry; Args args; uint32_t status; } cases[] = {
        {"CreateHMACFromString", {Str("SHA256"), Str("k")}, 0x30001},
        {"Lookup3Hash", {}, 0x10001},
        {"Hash", {Str("SHA256"), Dat("x")}, 0x20002},
        {"HashData", {Str("SHA256"), Str("x")}, 0x20002},
        {"CreateRandomBytes", {Str("4")}, 0x10002},
        {"Hash", {nullptr, Str("x")}, 0x10002},
        {"Hash", {Num(1), Num(2)}, 0x10002},          // the first failing argument decides
        {"CreateHMACFromString", {Num(1)}, 0x10002},  // a wrong type before a missing one
        {"Lookup3Hash", {Obj(engine_.Deserialize("JSON", "{}"))}, 0x10002},
        {"Lookup3Hash", {unset("JSON")}, 0x10004},
        {"KeyToPEM", {unset("Cryptography.Key")}, 0x10004},
        {"KeyToPEM", {Obj(engine_.NewValue("Cryptography.X509"))}, 0x10002},  // an object of another module class
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& declaration = *engine_.FindEntry(std::string("ombrix_module_") + cases[i].entry);
        const auto outcome = engine_.CallDeclaration(declaration, cases[i].args);
        EXPECT_EQ(outcome.status, cases[i].status) << i;
        EXPECT_TRUE(outcome.errors.empty()) << i;
        EXPECT_TRUE(outcome.result->IsAssigned()) << i;
        EXPECT_EQ(ResultString(outcome) + ResultBytes(outcome), "") << i;
        EXPECT_EQ(engine_.CallDeclaration(declaration, cases[i].args, false).status, cases[i].status) << i;
    }
}

// Records what each wiped buffer held after the wipe.
std::vector<std::string> wiped;
struct RecordingWipe {
    static void Wipe(void* bytes, size_t size) noexcept {
        std::memset(bytes, 0, size);
        wiped.emplace_back(static_cast<const char*>(bytes), size);
    }
};
double TakeSecret(std::string secret, std::string other) { return static_cast<double>(secret.size() + other.size()); }
constexpr char kTestNamespace[] = "Test";

TEST(Adapter, StringArgumentsAreWipedAfterTheCall) {
    // A short key stays in the moved-from string's inline buffer; a long one moves away.
    for (const std::string& key : {std::string("short key"), std::string(100, 'k')}) {
        wiped.clear();
        Args args{Str(key), Str("x")};
        IVariant* raw[] = {args[0].get(), args[1].get()};
        AutoRefPtr<Variant> result(new Variant(Ombrix::kTypeNumber));
        EXPECT_EQ((Ombrix::Invoke<&TakeSecret, kTestNamespace, RecordingWipe>(2, raw, result.get(), nullptr, nullptr)), 0u);
        EXPECT_EQ(result->GetNumber(), key.size() + 1.0);
        ASSERT_EQ(wiped.size(), 2u) << key.size();
        // Each wipe covers the whole inline buffer at least.
        for (const std::string& buffer : wiped)
            EXPECT_TRUE(buffer.size() >= 15 && buffer.find_first_not_of('\0') == std::string::npos) << Hex(buffer);
    }
}

TEST_F(FrameTest, WholeStringsAndSurplusArgumentsIgnored) {
    const auto outcome = CallEntry("ombrix_module_Hash", {Str("SHA256"), Str(std::string("a\0b\0\0c", 6)), Num(1), nullptr, Dat("x")});
    EXPECT_TRUE(outcome.ok());
    EXPECT_EQ(Hex(ResultBytes(outcome)), "66a2256f272ef4528aa5f2685496a4412d81f1560ad6b1a16bec1560cf23c85d");
}

}  // namespace
}  // namespace Testing
