// Overload choice: surplus arguments are ignored, the longest leading match runs.
#include "KeysSupport.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

class OverloadTest : public KeysTest {};

TEST_F(OverloadTest, SurplusArgumentsPickTheLongestLeadingMatch) {
    const KeyValue rsa = KeyFromFixture("rsa.pem");
    ASSERT_TRUE(rsa);
    const struct { const char* routine; Args args; const char* entry; uint32_t status; } cases[] = {
        {"Cryptography.Sign", {Str("a"), Obj(rsa), Str("SHA256"), Str("extra")}, "ombrix_module_Sign2", 0},
        {"Cryptography.Sign", {Dat("a"), Obj(rsa), Str("SHA256"), Num(1), nullptr}, "ombrix_module_SignData2", 0},
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Str("x"), Str("k"), Dat(""), Num(7)}, "ombrix_module_EncryptInitVec", 0},
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Str("x"), Str("k"), Num(7)}, "ombrix_module_Encrypt", 0},
        {"Cryptography.Encrypt", {Str("AES-128-CBC"), Dat("x"), Str("k"), Dat("iv"), Str("")}, "ombrix_module_EncryptDataRefInitVec", 0},
        {"Cryptography.Hash", {Str("SHA256"), Dat("x"), Str("extra")}, "ombrix_module_HashData", 0},
        // Nothing fits: the first overload with as many parameters, else the first, reports.
        {"Cryptography.Hash", {Str("SHA256"), Num(5)}, "ombrix_module_Hash", 0x20002},
        {"Cryptography.Sign", {Num(1), Obj(rsa), Str("SHA256")}, "ombrix_module_Sign", 0x10002},
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

}  // namespace
}  // namespace Testing
