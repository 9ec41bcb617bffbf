// The CreateRandom routines (shapes, lengths, errors) and the hex and Base64 codecs.
#include <regex>
#include <set>

#include "../Cryptography/Codec.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

namespace Codec = Cryptography::Codec;

class RandomTest : public ModuleTest {};

// Bytes and hex strings have n elements (hex: characters, not bytes); Base64 forms encode n bytes (the
// codecs are checked below). A negative count or one beyond RAND_bytes reports and returns empty.
TEST_F(RandomTest, LengthsFollowTheCountAndBadCountsReport) {
    const std::string bytes = "Cryptography.CreateRandomBytes", hex = bytes + "AsString";
    const std::string base64 = bytes + "AsBase64String", base64url = bytes + "AsBase64URLString";
    const struct { std::string routine; double n; size_t length; } cases[] = {
        {bytes, 0, 0}, {bytes, 2.9, 2}, {bytes, -0.5, 0}, {hex, 0, 0}, {hex, 5, 5}, {base64, 1, 4}, {base64, 3, 4},
        {base64, 31, 44}, {base64url, 0, 0}, {base64url, 1, 2}, {base64url, 2, 3}, {base64url, 3, 4}, {base64url, 32, 43},
    };
    for (const auto& c : cases) {
        const auto outcome = Call(c.routine, {Num(c.n)});
        const std::string text = c.routine == bytes ? ResultBytes(outcome) : ResultString(outcome);
        EXPECT_TRUE(outcome.ok() && outcome.result->IsAssigned() && text.size() == c.length) << c.routine << " " << c.n;
        EXPECT_TRUE(c.routine != hex || std::regex_match(text, std::regex("[0-9a-f]*"))) << text;  // an odd n too
    }
    EXPECT_NE(ResultBytes(Call(bytes, {Num(16)})), ResultBytes(Call(bytes, {Num(16)})));
    for (const std::string& routine : {bytes, hex, base64, base64url}) {
        ExpectEmptyResult(routine, Call(routine, {Num(-1)}), "Negative length parameter!", "Error.Ombrix.InvalidArgument");
        // 2^31 is beyond RAND_bytes' int range.
        ExpectEmptyResult(routine, Call(routine, {Num(2147483648.0)}), "CreateRandomBytes failed!");
    }
}

// Version digit fixed at 4; the variant digit stays random (all 16 values occur).
TEST_F(RandomTest, UuidShape) {
    const std::regex shape("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}");
    std::set<char> variants;
    for (int i = 0; i < 400; ++i) {
        const std::string uuid = ResultString(Call("Cryptography.CreateRandomUUID", {}));
        ASSERT_TRUE(std::regex_match(uuid, shape)) << uuid;
        variants.insert(uuid[19]);
    }
    EXPECT_EQ(variants.size(), 16u);
}

TEST(Codec, Rfc4648VectorsRoundTripsAndForeignCharacters) {
    const std::array<std::string, 4> cases[] = {
        {"", "", "", ""}, {"f", "Zg==", "Zg", "66"}, {"fo", "Zm8=", "Zm8", "666f"}, {"foo", "Zm9v", "Zm9v", "666f6f"},
        {"foob", "Zm9vYg==", "Zm9vYg", "666f6f62"}, {"fooba", "Zm9vYmE=", "Zm9vYmE", "666f6f6261"},
        {"foobar", "Zm9vYmFy", "Zm9vYmFy", "666f6f626172"},
        {"\xfb\xff\xbf", "+/+/", "-_-_", "fbffbf"},  // the alphabets differ in their last two characters
    };
    for (const auto& [bytes, base64, base64url, hex] : cases) {
        EXPECT_EQ(Codec::Base64Encode(bytes.data(), bytes.size()), base64);
        EXPECT_EQ(Codec::Base64URLEncode(bytes), base64url);
        EXPECT_EQ(Codec::HexEncode(bytes.data(), bytes.size()), hex);
        EXPECT_EQ(Codec::Base64Decode(base64), bytes);
        EXPECT_EQ(Codec::Base64URLDecode(base64url), bytes);
    }
    std::string bytes;  // round trips of every length and byte
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(Codec::Base64Decode(Codec::Base64Encode(bytes.data(), bytes.size())), bytes) << i;
        EXPECT_EQ(Codec::Base64URLDecode(Codec::Base64URLEncode(bytes)), bytes) << i;
        bytes += static_cast<char>(i * 97 + 13);
    }
    // Line breaks are skipped; any other foreign character (padding included) ends the input.
    const std::pair<const char*, const char*> decoded[] = {
        {"Zm9v\r\nYmFy", "foobar"}, {"Zm9vYg==\n", "foob"}, {"Zm9v*YmFy", "foo"}, {"Zm9vYmFy=Zm9v", "foobar"},
        {"Zm9vY", "foo"}};  // a lone trailing character carries no byte
    for (const auto& [text, bytes] : decoded) EXPECT_EQ(Codec::Base64Decode(text), bytes) << text;
    EXPECT_EQ(Codec::Base64URLDecode("Zm9vYg=="), "foob");
    EXPECT_EQ(Codec::Base64Decode("-_-_"), "");
}

}  // namespace
}  // namespace Testing
