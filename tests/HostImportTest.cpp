// Imported JSON routines (lookup, cache by policy identity, refusals, failures), seen
// through Cryptography.PEMToJson with the host's JSON module absent or fake.
#include <atomic>

#include "CertSupport.h"
#include "Ombrix/Json.h"

namespace Testing {
namespace {

using Ombrix::IContext;
using Ombrix::Host::HostRoutine;

// What the fake JSON routines do, and how often they ran.
enum class Effect { None, ReportError, Interrupt } fromStringEffect;
uint32_t setStatus;
int fromStringCalls, setCalls;

uint32_t FakeFromString(uint32_t, IVariant**, IVariant* result, void*, IContext* context) {
    ++fromStringCalls;
    if (fromStringEffect == Effect::ReportError) context->TriggerErrorHandler(2, "JSON", "Error.Test", "fake failure");
    if (fromStringEffect == Effect::Interrupt) context->SetInterrupted();
    result->SetUserDefined(AutoRefPtr<Ombrix::IUserDefinedType>(Ombrix::JSON::JSONWrapper::Make()));
    return 0;
}
// Set and ArrayAppend hand their first argument back unchanged, or fail with setStatus.
uint32_t FakeSet(uint32_t, IVariant** arguments, IVariant* result, void*, IContext*) {
    ++setCalls;
    if (!setStatus) result->Assign(arguments[0]);
    return setStatus;
}

const std::vector<HostRoutine> kAllFakes = {
    {"FUNCTION JSON JSON.FromString (STRING)", &FakeFromString},
    {"FUNCTION JSON JSON.Set (JSON,STRING,STRING)", &FakeSet},
    {"FUNCTION JSON JSON.Set (JSON,STRING,JSON)", &FakeSet},
    {"FUNCTION JSON JSON.Set (JSON,STRING,NUMBER)", &FakeSet},
    {"FUNCTION JSON JSON.CreateEmptyArray ()", &FakeFromString},  // an object stands in for the array
    {"FUNCTION JSON JSON.ArrayAppend (JSON,JSON)", &FakeSet},
};

// Imports are cached process-wide per policy identity: a new one resolves afresh.
std::atomic<uint64_t> nextPolicy{1000};

// An engine without the JSON module, offered the first fakes of the list, the fakes reset.
std::unique_ptr<Engine> NewEngine(size_t fakes) {
    Engine::Options options;
    options.jsonModule = false;
    auto engine = std::make_unique<Engine>(options);
    engine->Load(CRYPTOGRAPHY_MODULE_PATH);
    engine->SetPolicy("test", nextPolicy++);
    if (fakes) engine->AddHostModule("JSON", {kAllFakes.begin(), kAllFakes.begin() + fakes});
    fromStringEffect = Effect::None;
    fromStringCalls = setCalls = setStatus = 0;
    return engine;
}
CallOutcome Describe(Engine& engine) { return engine.Call("Cryptography.PEMToJson", {Str(CertFixture("ca.pem"))}); }

using HostImport = ::testing::Test;

// A routine is looked up only when the cache holds no entry point for the policy:
// once per use while it is missing, once per policy when it is there.
TEST_F(HostImport, MissingRoutinesCalleeStatusesAndLookups) {
    auto missing = [](const std::string& name) { return "Imported Ombrix function " + name + " doesn't exist!"; };
    const std::string invalidFunction = "Error.Ombrix.InvalidFunction", invalidArgument = "Error.Ombrix.InvalidArgument";
    const struct { size_t offered; uint32_t setStatus; std::string id, message; uint64_t lookups; } cases[] = {
        {0, 0, invalidFunction, missing("JSON.FromString (imported as StringToJson)"), 2},
        {1, 0, invalidFunction, missing("JSON.Set (imported as JSONSetString)"), 3},  // the found one looked up once
        {2, 0, invalidFunction, missing("JSON.Set (imported as JSONSetJson)"), 4},
        {5, 0, invalidFunction, missing("JSON.ArrayAppend (imported as JSONArrayAppendJSON)"), 7},
        {6, 0x20002, invalidArgument, "invalid parameter 2 in function 'JSON.Set'", 2},
        {6, 0x10004, invalidArgument, "invalid object used for parameter 1 in function 'JSON.Set'", 2},
        {6, 0x30001, invalidArgument, "runtime error from function 'JSON.Set'", 2},
        {6, 0x7, invalidArgument, "runtime error from function 'JSON.Set'", 2},
        {6, 0, "", "", 6},  // six imports, each resolved once however often used
    };
    for (const auto& c : cases) {
        const auto engine = NewEngine(c.offered);
        setStatus = c.setStatus;
        const CallOutcome outcome = Describe(*engine);
        if (c.id.empty()) {
            EXPECT_TRUE(outcome.ok());
        } else {
            ExpectError(outcome, c.id, c.message, "Ombrix");
            EXPECT_EQ(JsonText(outcome), "");
        }
        if (c.setStatus) { EXPECT_EQ(setCalls, 1) << c.message; }  // the build stops at the first failure
        Describe(*engine);
        EXPECT_EQ(engine->LookupCount(), c.lookups) << c.offered << " offered: " << c.message;
    }
}

TEST_F(HostImport, ContextInErrorOrInterruptedIsNotCalled) {
    const std::string prefix = "Error calling imported Ombrix function JSON.FromString (imported as StringToJson)";
    const std::tuple<Effect, size_t, std::string> cases[] = {  // effect, reports, logged line
        {Effect::ReportError, 1, prefix + ",context has error \"fake failure\", backtrace: Cryptography.PEMToJson"},
        {Effect::Interrupt, 0, prefix + ", context is already interrupted, backtrace: Cryptography.PEMToJson"},
    };
    for (const auto& [effect, reports, logged] : cases) {
        const auto engine = NewEngine(kAllFakes.size());
        fromStringEffect = effect;
        EXPECT_EQ(Describe(*engine).errors.size(), reports);  // only the fake's own report
        EXPECT_EQ(fromStringCalls, 1);  // the result object; the subject's is refused
        EXPECT_EQ(setCalls, 0);
        std::vector<std::string> lines;
        for (const auto& line : engine->Log().Lines())
            if (line.category == "Ombrix" && line.level == 0 && !line.error) lines.push_back(line.message);
        EXPECT_EQ(lines, std::vector<std::string>{logged});
    }
}

TEST_F(HostImport, ResolutionsAreReusedUntilThePolicyIdentityChanges) {
    const uint64_t shared = nextPolicy++;
    Engine real;
    real.Load(CRYPTOGRAPHY_MODULE_PATH);
    real.SetPolicy("shared", shared);
    const CallOutcome expected = Describe(real);
    ASSERT_TRUE(expected.ok());

    const auto engine = NewEngine(kAllFakes.size());
    engine->SetPolicy("shared", shared);
    EXPECT_EQ(JsonResult(Describe(*engine)), JsonResult(expected));
    EXPECT_EQ(fromStringCalls + setCalls, 0);

    engine->SetPolicy("changed", nextPolicy++);
    EXPECT_TRUE(Describe(*engine).ok());
    EXPECT_GT(fromStringCalls, 0);
}

}  // namespace
}  // namespace Testing
