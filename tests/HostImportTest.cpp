// Calls into the host's JSON module: lookup by name and signature, the cache
// keyed by policy identity, and the refusal and failure paths, seen through
// Cryptography.PEMToJson in engines whose JSON module is absent or fake.
#include <atomic>

#include "CertSupport.h"
#include "Ombrix/Json.h"

namespace Testing {
namespace {

using Ombrix::IContext;
using Ombrix::Host::HostRoutine;

// What the fake JSON routines do, and how often they ran.
struct FakeJson {
    enum class Effect { None, ReportError, Interrupt };
    static inline Effect fromStringEffect = Effect::None;
    static inline uint32_t setStatus = 0;
    static inline int fromStringCalls = 0;
    static inline int setCalls = 0;

    static void Reset() {
        fromStringEffect = Effect::None;
        setStatus = 0;
        fromStringCalls = setCalls = 0;
    }
    static void Return(IVariant* result, AutoRefPtr<Ombrix::IJSON> json) {
        result->SetUserDefined(AutoRefPtr<Ombrix::IUserDefinedType>(std::move(json)));
    }
    static uint32_t FromString(uint32_t, IVariant**, IVariant* result, void*, IContext* context) {
        ++fromStringCalls;
        if (fromStringEffect == Effect::ReportError)
            context->TriggerErrorHandler(2, "JSON", "Error.Test", "fake failure");
        if (fromStringEffect == Effect::Interrupt) context->SetInterrupted();
        Return(result, Ombrix::JSON::JSONWrapper::Make());
        return 0;
    }
    // Set and ArrayAppend hand their first argument back unchanged.
    static uint32_t Set(uint32_t, IVariant** arguments, IVariant* result, void*, IContext*) {
        ++setCalls;
        if (setStatus) return setStatus;
        result->Assign(arguments[0]);
        return 0;
    }
    static uint32_t CreateEmptyArray(uint32_t, IVariant**, IVariant* result, void*, IContext*) {
        Return(result, Ombrix::JSON::JSONWrapper::Make(nlohmann::json::array()));
        return 0;
    }
    static uint32_t ArrayAppend(uint32_t, IVariant** arguments, IVariant* result, void*, IContext*) {
        result->Assign(arguments[0]);
        return 0;
    }
};

const HostRoutine kFromString{"FUNCTION JSON JSON.FromString (STRING)", &FakeJson::FromString};
const HostRoutine kSetString{"FUNCTION JSON JSON.Set (JSON,STRING,STRING)", &FakeJson::Set};
const HostRoutine kSetJson{"FUNCTION JSON JSON.Set (JSON,STRING,JSON)", &FakeJson::Set};
const HostRoutine kSetNumber{"FUNCTION JSON JSON.Set (JSON,STRING,NUMBER)", &FakeJson::Set};
const HostRoutine kCreateEmptyArray{"FUNCTION JSON JSON.CreateEmptyArray ()", &FakeJson::CreateEmptyArray};
const HostRoutine kArrayAppend{"FUNCTION JSON JSON.ArrayAppend (JSON,JSON)", &FakeJson::ArrayAppend};
const std::vector<HostRoutine> kAllFakes = {kFromString, kSetString, kSetJson, kSetNumber, kCreateEmptyArray, kArrayAppend};

Engine::Options WithoutJsonModule() {
    Engine::Options options;
    options.jsonModule = false;
    return options;
}

// Imports are cached process-wide per policy identity; each engine here gets
// an identity of its own so that it resolves afresh.
uint64_t FreshPolicyIdentity() {
    static std::atomic<uint64_t> next{1000};
    return next++;
}

class HostImport : public ::testing::Test {
protected:
    HostImport() : engine_(WithoutJsonModule()) {
        FakeJson::Reset();
        engine_.Load(CRYPTOGRAPHY_MODULE_PATH);
        engine_.SetPolicy("test", FreshPolicyIdentity());
    }
    CallOutcome Describe(Engine& engine) { return engine.Call("Cryptography.PEMToJson", {Str(CertFixture("ca.pem"))}); }
    std::vector<std::string> OmbrixLog() {
        std::vector<std::string> lines;
        for (const auto& line : engine_.Log().Lines())
            if (line.category == "Ombrix" && line.level == 0 && !line.error) lines.push_back(line.message);
        return lines;
    }

    Engine engine_;
};

TEST_F(HostImport, EachMissingRoutineIsNamedWithItsImportName) {
    struct Case {
        std::vector<HostRoutine> offered;
        const char* missing;
    };
    const Case cases[] = {
        {{}, "JSON.FromString (imported as StringToJson)"},
        {{kFromString}, "JSON.Set (imported as JSONSetString)"},
        {{kFromString, kSetString}, "JSON.Set (imported as JSONSetJson)"},
        {{kFromString, kSetString, kSetJson}, "JSON.Set (imported as JSONSetUInt64)"},
        {{kFromString, kSetString, kSetJson, kSetNumber}, "JSON.CreateEmptyArray (imported as JSONCreateEmptyArray)"},
        {{kFromString, kSetString, kSetJson, kSetNumber, kCreateEmptyArray}, "JSON.ArrayAppend (imported as JSONArrayAppendJSON)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.missing);
        Engine engine(WithoutJsonModule());
        engine.Load(CRYPTOGRAPHY_MODULE_PATH);
        engine.SetPolicy("test", FreshPolicyIdentity());
        if (!c.offered.empty()) engine.AddHostModule("JSON", c.offered);
        CallOutcome outcome = Describe(engine);
        ExpectError(outcome, "Error.Ombrix.InvalidFunction",
                    std::string("Imported Ombrix function ") + c.missing + " doesn't exist!", "Ombrix");
        EXPECT_EQ(JsonResult(outcome), nlohmann::json());
    }
}

TEST_F(HostImport, CalleeStatusesBecomeMessages) {
    engine_.AddHostModule("JSON", kAllFakes);
    const std::pair<uint32_t, const char*> cases[] = {
        {0x20002, "invalid parameter 2 in function 'JSON.Set'"},
        {0x10004, "invalid object used for parameter 1 in function 'JSON.Set'"},
        {0x30001, "runtime error from function 'JSON.Set'"},
        {0x7, "runtime error from function 'JSON.Set'"},
    };
    for (const auto& [status, message] : cases) {
        SCOPED_TRACE(message);
        FakeJson::Reset();
        FakeJson::setStatus = status;
        CallOutcome outcome = Describe(engine_);
        ExpectError(outcome, "Error.Ombrix.InvalidArgument", message, "Ombrix");
        EXPECT_EQ(FakeJson::setCalls, 1);  // the build stops at the first failure
        EXPECT_EQ(JsonResult(outcome), nlohmann::json());
    }
}

TEST_F(HostImport, ContextInErrorOrInterruptedIsNotCalled) {
    engine_.AddHostModule("JSON", kAllFakes);
    const std::string prefix = "Error calling imported Ombrix function JSON.FromString (imported as StringToJson)";
    struct Case {
        FakeJson::Effect effect;
        size_t errors;
        std::string logged;
    };
    const Case cases[] = {
        {FakeJson::Effect::ReportError, 1,
         prefix + ",context has error \"fake failure\", backtrace: Cryptography.PEMToJson"},
        {FakeJson::Effect::Interrupt, 0, prefix + ", context is already interrupted, backtrace: Cryptography.PEMToJson"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.logged);
        FakeJson::Reset();
        FakeJson::fromStringEffect = c.effect;
        const size_t logged = OmbrixLog().size();
        CallOutcome outcome = Describe(engine_);
        EXPECT_EQ(outcome.errors.size(), c.errors);  // only the fake's own report
        EXPECT_EQ(FakeJson::fromStringCalls, 1);     // the result object; the subject's is refused
        EXPECT_EQ(FakeJson::setCalls, 0);
        const std::vector<std::string> lines = OmbrixLog();
        ASSERT_EQ(lines.size(), logged + 1);
        EXPECT_EQ(lines.back(), c.logged);
    }
}

TEST_F(HostImport, ResolutionsAreReusedUntilThePolicyIdentityChanges) {
    const uint64_t shared = FreshPolicyIdentity();
    Engine real;
    real.Load(CRYPTOGRAPHY_MODULE_PATH);
    real.SetPolicy("shared", shared);
    CallOutcome expected = Describe(real);
    ASSERT_TRUE(expected.ok());

    engine_.AddHostModule("JSON", kAllFakes);
    engine_.SetPolicy("shared", shared);
    CallOutcome reused = Describe(engine_);
    EXPECT_TRUE(reused.ok());
    EXPECT_EQ(FakeJson::fromStringCalls + FakeJson::setCalls, 0);
    EXPECT_EQ(JsonResult(reused), JsonResult(expected));

    engine_.SetPolicy("changed", FreshPolicyIdentity());
    EXPECT_TRUE(Describe(engine_).ok());
    EXPECT_GT(FakeJson::fromStringCalls, 0);
    EXPECT_GT(FakeJson::setCalls, 0);
}

}  // namespace
}  // namespace Testing
