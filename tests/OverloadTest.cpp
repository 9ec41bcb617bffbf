// Overload choice by the engine: an overload with as many parameters as
// arguments is run or reports the wrong position; surplus arguments are
// ignored only when no overload takes that many.
#include "KeysSupport.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

class OverloadTest : public KeysTest {};

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
