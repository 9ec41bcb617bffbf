// JSON members keep the order they were first set in, through every door.
#include <nlohmann/json.hpp>

#include "CertSupport.h"

namespace Testing {
namespace {

using Ordered = nlohmann::ordered_json;

// The member names of an object, in their order, joined by commas.
std::string Keys(const Ordered& object) {
    std::string keys;
    for (const auto& [key, value] : object.items()) keys += (keys.empty() ? "" : ",") + key;
    return keys;
}

class JsonOrder : public CertTest {
protected:
    AutoRefPtr<IVariant> Parse(const std::string& text) { return Result(Call("JSON.FromString", {Str(text)})); }
};

TEST_F(JsonOrder, HostRoutinesKeepInsertionOrder) {
    const std::string start = R"({"b":1,"a":2,"c":{"z":0,"y":[{"q":1,"p":2}]}})";
    const struct { const char* key; AutoRefPtr<IVariant> value; std::string expected; } cases[] = {
        {nullptr, nullptr, start},  // parsed and written as it came
        {"b", Str("x"), R"({"b":"x","a":2,"c":{"z":0,"y":[{"q":1,"p":2}]}})"},  // replaced in place
        {"0", Num(3), R"({"b":1,"a":2,"c":{"z":0,"y":[{"q":1,"p":2}]},"0":3})"},  // a new member goes last
        {"c", nullptr, R"({"b":1,"a":2,"c":{"n":1,"m":2}})"},
    };
    for (const auto& c : cases) {
        const AutoRefPtr<IVariant> object = Parse(start);
        CallOutcome outcome = Call("JSON.ToString", {object});
        if (c.key) {
            const AutoRefPtr<IVariant> value = c.value ? c.value : Parse(R"({"n":1,"m":2})");
            ASSERT_TRUE(Call("JSON.Set", {object, Str(c.key), value}).ok());
            outcome = Call("JSON.ToString", {object});
        }
        EXPECT_EQ(ResultString(outcome), c.expected) << (c.key ? c.key : "parse");
    }
}

TEST_F(JsonOrder, SavingAndRestoringKeepsTheOrder) {
    const char* texts[] = {R"({"z":1,"a":2})", R"([{"b":true,"a":null},{"d":"x","c":1.5}])", R"({"value":"v","id":1})"};
    for (const char* text : texts) {
        const auto restored = engine_.Deserialize("JSON", text);
        ASSERT_TRUE(restored) << text;
        const auto saved = restored->Serialize(nullptr);
        ASSERT_TRUE(saved) << text;
        EXPECT_EQ(saved->ToJSONText(), text);
        EXPECT_EQ(restored->Clone().DynamicCast<Ombrix::IJSON>()->ToJSONText(), text);
    }
}

// Members in the order they are set; name entries in the order of the name,
// a repeated attribute keeping its first place and its last value.
TEST_F(JsonOrder, CertificateDescriptionFollowsTheCertificate) {
    const Ordered described = Ordered::parse(JsonText(Call("Cryptography.PEMToJson", {Str(CertFixture("server.pem"))})));
    const struct { std::string what; std::string actual, expected; } cases[] = {
        {"top", Keys(described), "subject,issuer,serial,notBefore,notAfter,version,fingerprint,signatureAlgorithm,extension"},
        {"subject", Keys(described["subject"]), "countryName,organizationName,organizationalUnitName,commonName"},
        {"issuer", Keys(described["issuer"]), "countryName,organizationName,commonName"},
        {"unit", described["subject"]["organizationalUnitName"].get<std::string>(), "Second Unit"},
        {"extension", Keys(described["extension"][0]), "name,value"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.actual, c.expected) << c.what;
}

}  // namespace
}  // namespace Testing
