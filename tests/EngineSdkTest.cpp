// Shared pieces: lent host values and the host's JSON module.
#include "Harness.h"
#include "Ombrix/Json.h"

namespace Testing {
namespace {

// A lent buffer reads the lender's bytes in place and never writes to them;
// Owning (what a parked call does) copies them into the buffer itself, so a holder keeps them.
TEST(HostValues, LentBuffersOwnTheirBytesWhenTold) {
    std::string lent = "lent bytes";
    const auto value = Ombrix::Host::Variant::LentData(lent.data(), lent.size());
    const AutoRefPtr<IDataRef> held = value->GetData();
    EXPECT_TRUE(value->IsLent() && value->Shared());
    EXPECT_EQ(held->GetData(), lent.data());
    EXPECT_EQ(Ombrix::Host::Variant::Owning(value.get()).get(), value.get());
    lent.assign("XXXX XXXXX");
    EXPECT_FALSE(value->IsLent());
    EXPECT_EQ(std::string(held->GetData(), held->GetSize()), "lent bytes");
    const auto written = Ombrix::Host::Variant::LentData(lent.data(), lent.size());
    written->GetData()->Assign("new", 3);
    EXPECT_EQ(lent, "XXXX XXXXX");
    EXPECT_EQ(std::string(written->GetData()->GetData(), written->GetData()->GetSize()), "new");
}

using EngineTest = ModuleTest;

// Host values compare by type and value, JSON values by value; no element past an array's end.
TEST(HostValues, ComparisonsAndArrayBounds) {
    EXPECT_TRUE(Variant::Number(2)->IsEqual(Variant::Number(2).get()));
    EXPECT_FALSE(Variant::Number(2)->IsEqual(Variant::Number(3).get()));
    const auto one = Ombrix::JSON::JSONWrapper::Make(1), two = Ombrix::JSON::JSONWrapper::Make(2);
    EXPECT_TRUE(one->LessThan(two.get()) && !two->LessThan(one.get()));
    const auto array = Ombrix::JSON::JSONWrapper::Make(Ombrix::JSON::Document::array({1}));
    EXPECT_TRUE(array->GetElement(0) && !array->GetElement(1));
}

// The host's JSON module, which the module imports its JSON building from. Members keep the
// order they were first set in: parsed as they came, a replaced one in its place, a new one last.
TEST_F(EngineTest, JsonModuleRoutines) {
    auto call = [&](std::string_view routine, Args args) { return AutoRefPtr<IVariant>(Call(routine, args).result); };
    auto parse = [&](const std::string& text) { return call("JSON.FromString", {Str(text)}); };
    auto text = [&](const AutoRefPtr<IVariant>& json) { return ResultString(Call("JSON.ToString", {json})); };
    const std::string parsed = R"({"b":1,"a":2,"c":{"z":0,"y":[{"q":1,"p":2}]}})";
    const AutoRefPtr<IVariant> object = parse(parsed), array = call("JSON.CreateEmptyArray", {});
    EXPECT_EQ(text(object), parsed);
    EXPECT_EQ(text(array), "[]");
    const AutoRefPtr<IVariant> appended = call("JSON.ArrayAppend", {array, parse(R"({"y":true,"x":1})")});
    AutoRefPtr<IVariant> set;
    for (auto& [key, value] : std::vector<std::pair<const char*, AutoRefPtr<IVariant>>>{
             {"b", Str("text")}, {"n", Num(18446744073709549568.0)}, {"h", Num(0.5)}, {"c", parse(R"({"n":1,"m":2})")},
             {"list", appended}})
        set = call("JSON.Set", {object, Str(key), value});
    EXPECT_EQ(text(object),
              R"({"b":"text","a":2,"c":{"n":1,"m":2},"n":18446744073709549568,"h":0.5,"list":[{"y":true,"x":1}]})");
    EXPECT_EQ(text(set), text(object));  // changed in place and handed back
    // Saving and restoring, and a clone, keep the order too.
    const AutoRefPtr<Ombrix::IUserDefinedType> restored = engine_.Deserialize("JSON", text(object));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->Serialize(nullptr)->ToJSONText(), text(object));
    EXPECT_EQ(restored->Clone().DynamicCast<Ombrix::IJSON>()->ToJSONText(), text(object));
    struct { const char* name; Args args; const char* message; } failures[] = {
        {"JSON.FromString", {Str("{not json")}, "Invalid JSON text"},
        {"JSON.Set", {array, Str("k"), Str("v")}, "JSON.Set needs an object"},
        {"JSON.ArrayAppend", {object, array}, "JSON.ArrayAppend needs an array"},
    };
    for (auto& f : failures)
        ExpectError(Call(f.name, std::move(f.args)), "Error.Ombrix.InvalidArgument", f.message, "JSON");
}

}  // namespace
}  // namespace Testing
