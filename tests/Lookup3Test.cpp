// Cryptography.Lookup3Hash against a reference written here after Bob
// Jenkins' published hashlittle2 (its byte-reading path), with the case fold
// and the fixed seeds applied.
#include "Harness.h"

namespace Testing {
namespace {

#define REF_ROT(x, k) (((x) << (k)) | ((x) >> (32 - (k))))
#define REF_MIX(a, b, c)                  \
    {                                     \
        a -= c; a ^= REF_ROT(c, 4);  c += b; \
        b -= a; b ^= REF_ROT(a, 6);  a += c; \
        c -= b; c ^= REF_ROT(b, 8);  b += a; \
        a -= c; a ^= REF_ROT(c, 16); c += b; \
        b -= a; b ^= REF_ROT(a, 19); a += c; \
        c -= b; c ^= REF_ROT(b, 4);  b += a; \
    }
#define REF_FINAL(a, b, c)               \
    {                                    \
        c ^= b; c -= REF_ROT(b, 14);     \
        a ^= c; a -= REF_ROT(c, 11);     \
        b ^= a; b -= REF_ROT(a, 25);     \
        c ^= b; c -= REF_ROT(b, 16);     \
        a ^= c; a -= REF_ROT(c, 4);      \
        b ^= a; b -= REF_ROT(a, 14);     \
        c ^= b; c -= REF_ROT(b, 24);     \
    }

uint32_t F(uint8_t byte) { return (byte >= 0x41 && byte <= 0x5a) ? (byte | 0x20) : byte; }

std::string ReferenceHash(const std::string& text) {
    size_t length = text.size();
    if (length == 0) return "0";
    const auto* k = reinterpret_cast<const uint8_t*>(text.data());
    uint32_t pc = 0x12459878, pb = 0x34464564;
    uint32_t a, b, c;
    a = b = c = 0xdeadbeef + ((uint32_t)length) + pc;
    c += pb;
    while (length > 12) {
        a += F(k[0]);
        a += F(k[1]) << 8;
        a += F(k[2]) << 16;
        a += F(k[3]) << 24;
        b += F(k[4]);
        b += F(k[5]) << 8;
        b += F(k[6]) << 16;
        b += F(k[7]) << 24;
        c += F(k[8]);
        c += F(k[9]) << 8;
        c += F(k[10]) << 16;
        c += F(k[11]) << 24;
        REF_MIX(a, b, c);
        length -= 12;
        k += 12;
    }
    switch (length) {
        case 12: c += F(k[11]) << 24; [[fallthrough]];
        case 11: c += F(k[10]) << 16; [[fallthrough]];
        case 10: c += F(k[9]) << 8; [[fallthrough]];
        case 9: c += F(k[8]); [[fallthrough]];
        case 8: b += F(k[7]) << 24; [[fallthrough]];
        case 7: b += F(k[6]) << 16; [[fallthrough]];
        case 6: b += F(k[5]) << 8; [[fallthrough]];
        case 5: b += F(k[4]); [[fallthrough]];
        case 4: a += F(k[3]) << 24; [[fallthrough]];
        case 3: a += F(k[2]) << 16; [[fallthrough]];
        case 2: a += F(k[1]) << 8; [[fallthrough]];
        case 1: a += F(k[0]); break;
    }
    REF_FINAL(a, b, c);
    return std::to_string(((uint64_t)b << 32) | c);
}

class Lookup3Test : public ModuleTest {
protected:
    std::string Hash(const std::string& text) {
        const auto outcome = Call("Cryptography.Lookup3Hash", {Str(text)});
        EXPECT_TRUE(outcome.ok());
        return ResultString(outcome);
    }
};

TEST_F(Lookup3Test, MatchesTheReferenceAcrossBlockBoundaries) {
    const std::string source = "Quick Brown Fox \x80\xff Jumps Over The Lazy Dog 0123456789";
    for (size_t length : {1, 2, 3, 4, 5, 8, 9, 11, 12, 13, 23, 24, 25, 36, 37, 50}) {
        const std::string text = source.substr(0, length);
        SCOPED_TRACE(text);
        EXPECT_EQ(Hash(text), ReferenceHash(text));
    }
    // Embedded zero bytes are hashed.
    const std::string zeros("ab\0cd\0", 6);
    EXPECT_EQ(Hash(zeros), ReferenceHash(zeros));
    EXPECT_NE(Hash(zeros), Hash("abcd"));
}

TEST_F(Lookup3Test, EmptyTextIsZero) { EXPECT_EQ(Hash(""), "0"); }

TEST_F(Lookup3Test, FoldsOnlyAsciiLetters) {
    struct Case {
        const char *left, *right;
        bool same;
    } cases[] = {
        {"Hello", "hELLO", true},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZ", "abcdefghijklmnopqrstuvwxyz", true},
        {"Stra\xc3\x9f" "E", "stra\xc3\x9f" "e", true},
        // Only A to Z fold: neighbours of the range and non-ASCII letters do not.
        {"@", "`", false},
        {"[", "{", false},
        {"\xc3\x84", "\xc3\xa4", false},
        {"abc", "abd", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.left) + " / " + c.right);
        EXPECT_EQ(Hash(c.left) == Hash(c.right), c.same);
        EXPECT_EQ(Hash(c.left), ReferenceHash(c.left));
    }
}

}  // namespace
}  // namespace Testing
