// Shared pieces: in-place Data writes and the host's JSON module.
#include <cstring>

#include "Harness.h"
#include "Ombrix/Json.h"

namespace Testing {
namespace {

using Ombrix::Data;

// In-place writes, inline and on the heap: kept up to the truncation, replaced whole by an assignment.
TEST(DataBuffer, WrittenInPlaceThenTruncatedOrReplaced) {
    struct Case { const char* what; uint64_t keep; const char* assigned; /* null: none afterwards */ } cases[] = {
        {"kept whole", ~0ull, nullptr},
        {"truncated", 4, nullptr},
        {"truncated to nothing", 0, nullptr},
        {"replaced by an assignment", 4, "xyz"},
    };
    for (const size_t size : {size_t{10}, size_t{Data::kInlineBytes}, size_t{Data::kInlineBytes + 1}, size_t{5000}}) {
        std::string written(size, '\0');
        for (size_t i = 0; i < size; ++i) written[i] = static_cast<char>('a' + i % 26);
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.what) + ", " + std::to_string(size) + " bytes");
            const std::string expected = c.assigned ? c.assigned : written.substr(0, std::min<uint64_t>(c.keep, size));
            const AutoRefPtr<Data> data = Data::Make("old bytes");
            std::memcpy(data->PrepareForWriting(size), written.data(), size);
            data->Truncate(c.keep);
            if (c.assigned) data->Assign(c.assigned, std::strlen(c.assigned));
            EXPECT_EQ(data->GetSize(), expected.size());
            EXPECT_EQ(std::string(data->View()), expected);
            EXPECT_EQ(std::string(data->GetData(), data->GetSize()), expected);
            EXPECT_TRUE(data->IsEqual(Data::Make(expected).get()));
            const AutoRefPtr<Ombrix::IDataRef> copy = data->Clone();
            EXPECT_TRUE(copy->IsEqual(data.get()));
        }
    }
}

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

// The host's JSON module, which the module imports its JSON building from.
TEST_F(EngineTest, JsonModuleRoutines) {
    auto json = [](const CallOutcome& outcome) { return Obj(outcome.result->ObjectValue()); };
    auto text = [&](const CallOutcome& outcome) { return ResultString(Call("JSON.ToString", {json(outcome)})); };
    const auto object = Call("JSON.FromString", {Str("{\"a\":1}")});
    const auto array = Call("JSON.CreateEmptyArray", {});
    EXPECT_EQ(text(array), "[]");
    const auto appended = Call("JSON.ArrayAppend", {json(array), json(Call("JSON.FromString", {Str("{\"b\":true}")}))});
    CallOutcome set;
    for (auto& [key, value] : std::vector<std::pair<const char*, AutoRefPtr<IVariant>>>{
             {"s", Str("text")}, {"n", Num(18446744073709549568.0)}, {"h", Num(0.5)}, {"list", json(appended)}})
        set = Call("JSON.Set", {json(object), Str(key), value});
    EXPECT_EQ(text(set), "{\"a\":1,\"s\":\"text\",\"n\":18446744073709549568,\"h\":0.5,\"list\":[{\"b\":true}]}");
    struct { const char* name; Args args; const char* message; } failures[] = {
        {"JSON.FromString", {Str("{not json")}, "Invalid JSON text"},
        {"JSON.Set", {json(array), Str("k"), Str("v")}, "JSON.Set needs an object"},
        {"JSON.ArrayAppend", {json(object), json(array)}, "JSON.ArrayAppend needs an array"},
    };
    for (auto& f : failures) ExpectError(Call(f.name, std::move(f.args)), "Error.Ombrix.InvalidArgument", f.message, "JSON");
}

}  // namespace
}  // namespace Testing
