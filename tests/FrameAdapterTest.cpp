// The calling convention as a host sees it: argument statuses, empty results,
// NUMBER truncation, whole strings, surplus arguments and a null result.
#include <openssl/evp.h>

#include <cstring>

#include "Context.h"
#include "Harness.h"
#include "Ombrix/CustomType.h"
#include "Ombrix/Routine.h"

namespace Testing {
namespace {

using Ombrix::Host::Context;

class FrameTest : public ModuleTest {
protected:
    AutoRefPtr<IVariant> UnsetOf(const char* type) { return AutoRefPtr<IVariant>(Variant::Unset(engine_.FindType(type))); }
    AutoRefPtr<IVariant> NewOf(const char* type) { return Obj(engine_.NewValue(type)); }
};

TEST_F(FrameTest, ArgumentStatuses) {
    struct Case {
        const char* name;
        const char* entry;
        Args args;
        uint32_t status;
    } cases[] = {
        {"missing third argument", "ombrix_module_CreateHMACFromString", {Str("SHA256"), Str("k")}, 0x30001},
        {"no arguments at all", "ombrix_module_Lookup3Hash", {}, 0x10001},
        {"NUMBER for STRING", "ombrix_module_Hash", {Str("SHA256"), Num(1)}, 0x20002},
        {"DATAREF for STRING", "ombrix_module_Hash", {Str("SHA256"), Dat("x")}, 0x20002},
        {"STRING for DATAREF", "ombrix_module_HashData", {Str("SHA256"), Str("x")}, 0x20002},
        {"STRING for NUMBER", "ombrix_module_CreateRandomBytes", {Str("4")}, 0x10002},
        {"null entry", "ombrix_module_Hash", {nullptr, Str("x")}, 0x10002},
        {"first failing argument decides", "ombrix_module_Hash", {Num(1), Num(2)}, 0x10002},
        {"wrong type before a missing one", "ombrix_module_CreateHMACFromString", {Num(1)}, 0x10002},
        {"JSON value for STRING", "ombrix_module_Lookup3Hash", {Obj(engine_.Deserialize("JSON", "{}"))}, 0x10002},
        {"unset custom value for STRING", "ombrix_module_Lookup3Hash", {UnsetOf("JSON")}, 0x10004},
        {"module object for DATAREF", "ombrix_module_HashData", {Str("SHA256"), NewOf("Cryptography.X509")}, 0x20002},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto outcome = CallEntry(c.entry, std::move(c.args));
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_TRUE(outcome.errors.empty());
        // The result is set to the empty value of its kind.
        EXPECT_TRUE(outcome.result->IsAssigned());
        EXPECT_EQ(ResultString(outcome), "");
        EXPECT_EQ(ResultBytes(outcome), "");
    }
}

// Module-typed parameters: an unset variable is kind 4, an object of another
// module class kind 2.
TEST_F(FrameTest, ModuleTypeArguments) {
    const auto* toPem = engine_.FindEntry("ombrix_module_KeyToPEM");
    ASSERT_NE(toPem, nullptr);
    if (!toPem->entry) GTEST_SKIP() << "Cryptography.ToPEM (Key) is not exported by this build";
    struct Case {
        const char* name;
        Args args;
        uint32_t status;
    } cases[] = {
        {"unset Key", {UnsetOf("Cryptography.Key")}, 0x10004},
        {"X509 where a Key is required", {NewOf("Cryptography.X509")}, 0x10002},
        {"STRING where a Key is required", {Str("key")}, 0x10002},
        {"missing Key", {}, 0x10001},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto outcome = CallEntry("ombrix_module_KeyToPEM", std::move(c.args));
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_EQ(ResultString(outcome), "");
    }
}

// The same rules straight through the SDK adapter, with two classes of our own.
struct Probe final : Ombrix::CustomType<Probe> {
    static constexpr const char* kTypeName = "Test.Probe";
    using CustomType::CustomType;
};
struct Other final : Ombrix::CustomType<Other> {
    static constexpr const char* kTypeName = "Test.Other";
    using CustomType::CustomType;
};
constexpr uint32_t kProbeCode = 101, kOtherCode = 105;
constexpr char kTestNamespace[] = "Test";

int probeCalls = 0;
std::string ProbeImpl(AutoRefPtr<Probe> probe, int32_t number) {
    ++probeCalls;
    return std::string(probe->GetName()) + ":" + std::to_string(number);
}

TEST(Adapter, CustomTypeStatusesAndTheImplementationIsSkipped) {
    auto probe = [] { return Obj(AutoRefPtr<Ombrix::IUserDefinedType>(new Probe(kProbeCode, nullptr))); };
    auto other = [] { return Obj(AutoRefPtr<Ombrix::IUserDefinedType>(new Other(kOtherCode, nullptr))); };
    struct Case {
        const char* name;
        Args args;
        uint32_t status;
        const char* result;
    } cases[] = {
        {"both fit", {probe(), Num(-3.9)}, 0, "Test.Probe:-3"},
        {"surplus ignored", {probe(), Num(7), Str("extra"), nullptr}, 0, "Test.Probe:7"},
        {"object of another class", {other(), Num(1)}, 0x10002, ""},
        {"unset variable of the type", {AutoRefPtr<IVariant>(Variant::Unset(kProbeCode)), Num(1)}, 0x10004, ""},
        {"unset variable of another type", {AutoRefPtr<IVariant>(Variant::Unset(kOtherCode)), Num(1)}, 0x10004, ""},
        {"null entry", {nullptr, Num(1)}, 0x10002, ""},
        {"plain value", {Num(1), Num(1)}, 0x10002, ""},
        {"second argument wrong", {probe(), Str("1")}, 0x20002, ""},
        {"second argument missing", {probe()}, 0x20001, ""},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        probeCalls = 0;
        std::vector<IVariant*> raw;
        for (const auto& a : c.args) raw.push_back(a.get());
        AutoRefPtr<Variant> result(new Variant(Ombrix::kTypeString));
        const uint32_t status = Ombrix::Invoke<&ProbeImpl, kTestNamespace>(static_cast<uint32_t>(raw.size()), raw.data(),
                                                                          result.get(), nullptr, nullptr);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(probeCalls, c.status ? 0 : 1);
        EXPECT_TRUE(result->IsAssigned());
        EXPECT_EQ(result->StringValue(), c.result);
    }
}

// Records what each wiped buffer held after the wipe.
std::vector<std::string> wipedBuffers;
struct RecordingWipe {
    static void Wipe(void* bytes, size_t size) noexcept {
        std::memset(bytes, 0, size);
        wipedBuffers.emplace_back(static_cast<const char*>(bytes), size);
    }
};

double TakeSecret(std::string secret, std::string other) { return static_cast<double>(secret.size() + other.size()); }

TEST(Adapter, StringArgumentsAreWipedAfterTheCall) {
    // A short key stays in the moved-from string's inline buffer; a long one moves away.
    for (const std::string& key : {std::string("short key"), std::string(100, 'k')}) {
        SCOPED_TRACE(key.size());
        wipedBuffers.clear();
        Args args{Str(key), Str("x")};
        std::vector<IVariant*> raw{args[0].get(), args[1].get()};
        AutoRefPtr<Variant> result(new Variant(Ombrix::kTypeNumber));
        EXPECT_EQ((Ombrix::Invoke<&TakeSecret, kTestNamespace, RecordingWipe>(2, raw.data(), result.get(), nullptr,
                                                                             nullptr)),
                  0u);
        EXPECT_EQ(result->GetNumber(), static_cast<double>(key.size() + 1));
        ASSERT_EQ(wipedBuffers.size(), 2u);
        for (const std::string& buffer : wipedBuffers) {
            EXPECT_GE(buffer.size(), 15u);  // the whole inline buffer at least
            EXPECT_EQ(buffer.find_first_not_of('\0'), std::string::npos);
        }
    }
}

TEST_F(FrameTest, NumbersAreTruncatedTowardZero) {
    struct Case {
        const char* name;
        const char* routine;
        Args args;
        size_t size;
    } cases[] = {
        {"2.9 is 2", "Cryptography.CreateRandomBytes", {Num(2.9)}, 2},
        {"-0.5 is 0, no error", "Cryptography.CreateRandomBytes", {Num(-0.5)}, 0},
        {"3.9 is 3", "Cryptography.CreateRandomBytesAsString", {Num(3.9)}, 3},
        // PBKDF2 takes 32-bit counts: only the low 32 bits of the truncation count.
        {"4294967297 is 1", "Cryptography.PKCS5PBKDF2HMAC", {Dat("p"), Dat("s"), Num(1.7), Str("SHA1"), Num(4294967297.0)}, 1},
        {"-4294967295 is 1", "Cryptography.PKCS5PBKDF2HMAC", {Dat("p"), Dat("s"), Num(1), Str("SHA1"), Num(-4294967295.0)}, 1},
        {"4294967296.5 is 0", "Cryptography.PKCS5PBKDF2HMAC", {Dat("p"), Dat("s"), Num(1), Str("SHA1"), Num(4294967296.5)}, 0},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto outcome = Call(c.routine, std::move(c.args));
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(ResultBytes(outcome).size() + ResultString(outcome).size(), c.size);
    }
    ExpectError(Call("Cryptography.CreateRandomBytes", {Num(-3.9)}), "Error.Ombrix.InvalidArgument",
                "Negative length parameter!");
}

TEST_F(FrameTest, StringsArriveWholeWithEmbeddedZeros) {
    const std::string text("a\0b\0\0c", 6);
    unsigned char expected[32];
    ASSERT_EQ(EVP_Digest(text.data(), text.size(), expected, nullptr, EVP_sha256(), nullptr), 1);
    const auto outcome = Call("Cryptography.Hash", {Str("SHA256"), Str(text)});
    EXPECT_EQ(ResultBytes(outcome), std::string(reinterpret_cast<char*>(expected), 32));
}

TEST_F(FrameTest, SurplusArgumentsAreIgnored) {
    const auto plain = Call("Cryptography.Lookup3Hash", {Str("abc")});
    const auto extra = CallEntry("ombrix_module_Lookup3Hash", {Str("abc"), Num(1), nullptr, Dat("x")});
    EXPECT_TRUE(extra.ok());
    EXPECT_EQ(ResultString(extra), ResultString(plain));
}

// A null result pointer: the routine still runs (its error report shows it)
// and nothing is assigned; an argument status is still returned.
TEST_F(FrameTest, NullResultPointer) {
    const auto* hash = engine_.FindEntry("ombrix_module_Hash");
    ASSERT_TRUE(hash && hash->entry);
    struct Case {
        const char* name;
        Args args;
        uint32_t status;
        size_t errors;
    } cases[] = {
        {"routine runs", {Str("NoSuchDigest"), Str("x")}, 0, 1},
        {"routine succeeds", {Str("SHA256"), Str("x")}, 0, 0},
        {"argument status", {Str("SHA256")}, 0x20001, 0},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<IVariant*> raw;
        for (const auto& a : c.args) raw.push_back(a.get());
        AutoRefPtr<Context> context(new Context(engine_, hash));
        EXPECT_EQ(hash->entry(static_cast<uint32_t>(raw.size()), raw.data(), nullptr, nullptr, context.get()), c.status);
        EXPECT_EQ(context->Errors().size(), c.errors);
    }
}

// The trivial FIPS routines work on the result directly and leave a null one alone.
TEST_F(FrameTest, FipsRoutinesWithAndWithoutResult) {
    const auto mode = Call("Cryptography.FIPSMode", {});
    EXPECT_TRUE(mode.ok());
    EXPECT_EQ(mode.result->GetNumber(), 0);
    const auto failed = Call("Cryptography.FIPSSelfTestFailed", {});
    EXPECT_TRUE(failed.ok());
    EXPECT_TRUE(failed.result->IsAssigned());
    EXPECT_FALSE(failed.result->GetBoolean());
    for (const char* entry : {"ombrix_module_GetFIPSMode", "ombrix_module_FIPSSelfTestFailed"})
        EXPECT_EQ(engine_.FindEntry(entry)->entry(0, nullptr, nullptr, nullptr, nullptr), 0u) << entry;
}

}  // namespace
}  // namespace Testing
