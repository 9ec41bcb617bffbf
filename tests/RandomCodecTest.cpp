// The CreateRandom routines (shapes, lengths, errors) and the hex and Base64 codecs.
#include <regex>
#include <set>

#include "../Cryptography/Codec.h"
#include "Harness.h"

namespace Testing {
namespace {

namespace Codec = Cryptography::Codec;

class RandomTest : public ModuleTest {};

TEST_F(RandomTest, LengthsFollowTheCount) {
    const std::regex hex("[0-9a-f]*"), base64("[A-Za-z0-9+/]*={0,2}"), base64url("[A-Za-z0-9_-]*");
    struct Case {
        const char* routine;
        double n;
        size_t length;
        const std::regex* alphabet;
    } cases[] = {
        {"Cryptography.CreateRandomBytes", 0, 0, nullptr},
        {"Cryptography.CreateRandomBytes", 1, 1, nullptr},
        {"Cryptography.CreateRandomBytes", 2.9, 2, nullptr},
        {"Cryptography.CreateRandomBytes", -0.5, 0, nullptr},
        {"Cryptography.CreateRandomBytes", 100000, 100000, nullptr},
        // n hex characters, not n bytes.
        {"Cryptography.CreateRandomBytesAsString", 0, 0, &hex},
        {"Cryptography.CreateRandomBytesAsString", 1, 1, &hex},
        {"Cryptography.CreateRandomBytesAsString", 5, 5, &hex},
        {"Cryptography.CreateRandomBytesAsString", 64, 64, &hex},
        {"Cryptography.CreateRandomBytesAsBase64String", 0, 0, &base64},
        {"Cryptography.CreateRandomBytesAsBase64String", 1, 4, &base64},
        {"Cryptography.CreateRandomBytesAsBase64String", 2, 4, &base64},
        {"Cryptography.CreateRandomBytesAsBase64String", 3, 4, &base64},
        {"Cryptography.CreateRandomBytesAsBase64String", 31, 44, &base64},
        {"Cryptography.CreateRandomBytesAsBase64URLString", 0, 0, &base64url},
        {"Cryptography.CreateRandomBytesAsBase64URLString", 1, 2, &base64url},
        {"Cryptography.CreateRandomBytesAsBase64URLString", 2, 3, &base64url},
        {"Cryptography.CreateRandomBytesAsBase64URLString", 3, 4, &base64url},
        {"Cryptography.CreateRandomBytesAsBase64URLString", 32, 43, &base64url},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.routine) + "(" + std::to_string(c.n) + ")");
        const auto outcome = Call(c.routine, {Num(c.n)});
        EXPECT_TRUE(outcome.ok());
        EXPECT_TRUE(outcome.result->IsAssigned());
        if (!c.alphabet) {
            EXPECT_EQ(ResultBytes(outcome).size(), c.length);
            continue;
        }
        const std::string text = ResultString(outcome);
        EXPECT_EQ(text.size(), c.length);
        EXPECT_TRUE(std::regex_match(text, *c.alphabet)) << text;
    }
    EXPECT_EQ(ResultString(Call("Cryptography.CreateRandomBytesAsBase64String", {Num(1)})).substr(2), "==");
}

TEST_F(RandomTest, BadCountsReportAndReturnEmpty) {
    struct Case {
        double n;
        const char* id;
        const char* message;
    } cases[] = {
        {-1, "Error.Ombrix.InvalidArgument", "Negative length parameter!"},
        {-1e12, "Error.Ombrix.InvalidArgument", "Negative length parameter!"},
        // Beyond RAND_bytes' int range (2^31 narrows to a negative count).
        {2147483648.0, "Error.Ombrix.FunctionError", "CreateRandomBytes failed!"},
    };
    for (const char* routine : {"Cryptography.CreateRandomBytes", "Cryptography.CreateRandomBytesAsString",
                                "Cryptography.CreateRandomBytesAsBase64String",
                                "Cryptography.CreateRandomBytesAsBase64URLString"}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(routine) + "(" + std::to_string(c.n) + ")");
            const auto outcome = Call(routine, {Num(c.n)});
            ExpectError(outcome, c.id, c.message);
            EXPECT_TRUE(outcome.result->IsAssigned());
            EXPECT_EQ(ResultString(outcome) + ResultBytes(outcome), "");
        }
    }
}

TEST_F(RandomTest, OutputsDiffer) {
    std::set<std::string> seen;
    for (int i = 0; i < 20; ++i) seen.insert(ResultBytes(Call("Cryptography.CreateRandomBytes", {Num(16)})));
    EXPECT_EQ(seen.size(), 20u);
}

// Version digit fixed at 4; the variant digit stays random (all 16 values occur).
TEST_F(RandomTest, UuidShape) {
    const std::regex shape("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}");
    std::set<char> variants;
    for (int i = 0; i < 400; ++i) {
        const auto outcome = Call("Cryptography.CreateRandomUUID", {});
        ASSERT_TRUE(outcome.ok());
        const std::string uuid = ResultString(outcome);
        ASSERT_TRUE(std::regex_match(uuid, shape)) << uuid;
        variants.insert(uuid[19]);
    }
    EXPECT_EQ(variants.size(), 16u);
}

TEST(Codec, Rfc4648Vectors) {
    struct Case {
        const char *bytes, *base64, *base64url, *hex;
    } cases[] = {
        {"", "", "", ""},
        {"f", "Zg==", "Zg", "66"},
        {"fo", "Zm8=", "Zm8", "666f"},
        {"foo", "Zm9v", "Zm9v", "666f6f"},
        {"foob", "Zm9vYg==", "Zm9vYg", "666f6f62"},
        {"fooba", "Zm9vYmE=", "Zm9vYmE", "666f6f6261"},
        {"foobar", "Zm9vYmFy", "Zm9vYmFy", "666f6f626172"},
        // The two alphabets differ in the last two characters.
        {"\xfb\xff\xbf", "+/+/", "-_-_", "fbffbf"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bytes);
        const std::string bytes = c.bytes;
        EXPECT_EQ(Codec::Base64Encode(bytes.data(), bytes.size()), c.base64);
        EXPECT_EQ(Codec::Base64URLEncode(bytes), c.base64url);
        EXPECT_EQ(Codec::HexEncode(bytes.data(), bytes.size()), c.hex);
        EXPECT_EQ(Codec::Base64Decode(c.base64), bytes);
        EXPECT_EQ(Codec::Base64URLDecode(c.base64url), bytes);
        EXPECT_EQ(Codec::Base64Encode(Bytes(bytes).get()), c.base64);
        EXPECT_EQ(Codec::Base64URLEncode(Bytes(bytes).get()), c.base64url);
    }
    EXPECT_EQ(Codec::Base64Encode(nullptr), "");
    EXPECT_EQ(Codec::Base64URLEncode(static_cast<const Ombrix::IDataRef*>(nullptr)), "");
}

TEST(Codec, RoundTripsEveryLengthAndByte) {
    std::string bytes;
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(Codec::Base64Decode(Codec::Base64Encode(bytes.data(), bytes.size())), bytes) << i;
        EXPECT_EQ(Codec::Base64URLDecode(Codec::Base64URLEncode(bytes)), bytes) << i;
        bytes += static_cast<char>(i * 97 + 13);
    }
}

TEST(Codec, DecoderToleratesLineBreaksAndStopsAtForeignCharacters) {
    struct Case {
        const char *text, *bytes;
    } cases[] = {
        {"Zm9v\r\nYmFy", "foobar"},
        {"Zm9vYg==\n", "foob"},
        {"Zm9v*YmFy", "foo"},
        {"Zm9vYmFy=Zm9v", "foobar"},
        {"Zm9vY", "foo"},  // a lone trailing character carries no byte
    };
    for (const auto& c : cases) EXPECT_EQ(Codec::Base64Decode(c.text), c.bytes) << c.text;
    EXPECT_EQ(Codec::Base64URLDecode("Zm9vYg=="), "foob");
    EXPECT_EQ(Codec::Base64URLDecode("-_-_"), "\xfb\xff\xbf");
    EXPECT_EQ(Codec::Base64Decode("-_-_"), "");
}

}  // namespace
}  // namespace Testing
