// The calling convention as a host sees it: argument statuses, wiped strings, and the
// engine's overload choice (an overload with as many parameters as arguments is run or reports
// the wrong position; surplus arguments are ignored only when no overload takes that many).
#include <cstring>

#include "KeysSupport.h"
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

using OverloadTest = KeysTest;

TEST_F(OverloadTest, ChoiceAndTheStatusOfAMisfit) {
    const KeyValue rsa = KeyFromFixture("rsa.pem");
    ASSERT_TRUE(rsa);
    const struct { const char* routine; Args args; const char* entry; uint32_t status; } cases[] = {
        // No overload takes that many: the longest leading match runs.
        {"Cryptography.Sign", {Str("a"), Obj(rsa), Str("SHA256"), Str("extra")}, "ombrix_module_Sign2", 0},
        {"Cryptography.Sign", {Dat("a"), Obj(rsa), Str("SHA256"), Num(1), nullptr}, "ombrix_module_SignData2", 0},
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Str("x"), Str("k"), Dat(""), Num(7)}, "ombrix_module_EncryptInitVec", 0},
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Dat("x"), Str("k"), Dat("iv"), Str("")}, "ombrix_module_EncryptDataRefInitVec", 0},
        {"Cryptography.Hash", {Str("SHA256"), Dat("x"), Str("extra")}, "ombrix_module_HashData", 0},
        // Overloads of that many exist and none fits: no fall-back to a
        // shorter one; the one fitting the most leading arguments reports.
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Str("x"), Str("k"), Num(7)}, "ombrix_module_EncryptInitVec", 0x40002},
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Str("x"), Str("k"), Str("iv")}, "ombrix_module_EncryptInitVec", 0x40002},
        {"Cryptography.Sign", {Str("m"), Obj(rsa), Num(256)}, "ombrix_module_Sign2", 0x30002},
        {"Cryptography.VerifySignature", {Str("m"), Obj(rsa), Str("SHA256"), Str("sig")}, "ombrix_module_VerifySignature2", 0x40002},
        {"Cryptography.Hash", {Str("SHA256"), Num(5)}, "ombrix_module_Hash", 0x20002},
        {"Cryptography.Sign", {Num(1), Obj(rsa), Str("SHA256")}, "ombrix_module_Sign", 0x10002},
        // Nothing fits and no overload takes that many.
        {"Cryptography.Encrypt", {Str("AES-128-CBC")}, "ombrix_module_EncryptDataRef", 0x20001},
        {"Cryptography.Encrypt", {Num(1), Str("x"), Str("k"), Dat(""), Num(7)}, "ombrix_module_EncryptDataRef", 0x10002},
    };
    for (const auto& c : cases) {
        const CallOutcome outcome = Call(c.routine, c.args);
        ASSERT_TRUE(outcome.declaration);
        EXPECT_EQ(outcome.declaration->entryName + " " + std::to_string(outcome.status),
                  std::string(c.entry) + " " + std::to_string(c.status)) << &c - cases;
        EXPECT_TRUE(outcome.errors.empty()) << &c - cases;
    }
}

// A host that converts STRING arguments for DATAREF parameters (as `ombrix`
// lends Lua strings): the overload needing fewest conversions wins, so an
// exact STRING overload keeps its strings.
TEST_F(OverloadTest, ConversionsCountAgainstAnOverload) {
    const auto stringAsData = [](const IVariant* argument, uint32_t code) {
        using Fit = Engine::Fit;
        if (!argument) return Fit::None;
        if (argument->GetType() == code) return Fit::Exact;
        return argument->GetType() == Ombrix::kTypeString && code == Ombrix::kTypeDataRef ? Fit::Converted : Fit::None;
    };
    const KeyValue rsa = KeyFromFixture("rsa.pem");
    const struct { const char* routine; Args args; const char* entry; } cases[] = {
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Str("x"), Str("k"), Str("iv")}, "ombrix_module_EncryptInitVec"},
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Dat("x"), Str("k"), Str("iv")}, "ombrix_module_EncryptDataRefInitVec"},
        {"Cryptography.Hash", {Str("SHA256"), Str("x")}, "ombrix_module_Hash"},
        {"Cryptography.VerifySignature", {Str("m"), Obj(rsa), Str("SHA256"), Str("sig")}, "ombrix_module_VerifySignature2"},
        {"Cryptography.Sign", {Str("m"), Str("k"), Str("SHA256")}, "ombrix_module_Sign"},
    };
    for (const auto& c : cases) {
        const Ombrix::Host::ArgumentPointers pointers(c.args);
        const auto* chosen = Engine::ChooseAmong(engine_.Overloads(c.routine), pointers.Span(), stringAsData);
        ASSERT_TRUE(chosen) << &c - cases;
        EXPECT_EQ(chosen->entryName, c.entry) << &c - cases;
    }
}

}  // namespace
}  // namespace Testing
