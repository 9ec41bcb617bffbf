// Cryptography.Lookup3Hash against a reference written here after Bob Jenkins'
// published hashlittle2 (byte-reading path), with the case fold and fixed seeds.
#include "Harness.h"

namespace Testing {
namespace {

uint32_t Rot(uint32_t x, int k) { return (x << k) | (x >> (32 - k)); }

std::string ReferenceHash(const std::string& text) {
    if (text.empty()) return "0";
    uint32_t a = 0xdeadbeef + static_cast<uint32_t>(text.size()) + 0x12459878, b = a, c = a + 0x34464564;
    for (size_t at = 0;; at += 12) {
        // Little-endian words of the next (zero-padded) 12 bytes, A to Z folded to lower case.
        uint32_t word[3] = {};
        for (size_t i = 0; i < 12 && at + i < text.size(); ++i) {
            const uint8_t byte = static_cast<uint8_t>(text[at + i]);
            word[i / 4] += static_cast<uint32_t>(byte >= 'A' && byte <= 'Z' ? byte | 0x20 : byte) << (8 * (i % 4));
        }
        a += word[0], b += word[1], c += word[2];
        if (text.size() - at <= 12) break;
        a -= c, a ^= Rot(c, 4), c += b, b -= a, b ^= Rot(a, 6), a += c, c -= b, c ^= Rot(b, 8), b += a;
        a -= c, a ^= Rot(c, 16), c += b, b -= a, b ^= Rot(a, 19), a += c, c -= b, c ^= Rot(b, 4), b += a;
    }
    c ^= b, c -= Rot(b, 14), a ^= c, a -= Rot(c, 11), b ^= a, b -= Rot(a, 25), c ^= b, c -= Rot(b, 16);
    a ^= c, a -= Rot(c, 4), b ^= a, b -= Rot(a, 14), c ^= b, c -= Rot(b, 24);
    return std::to_string((static_cast<uint64_t>(b) << 32) | c);
}

class Lookup3Test : public ModuleTest {
protected:
    std::string Hash(const std::string& text) {
        const auto outcome = Call("Cryptography.Lookup3Hash", {Str(text)});
        return outcome.ok() ? ResultString(outcome) : "error";
    }
};

TEST_F(Lookup3Test, MatchesTheReferenceAndFoldsOnlyAsciiLetters) {
    EXPECT_EQ(Hash(""), "0");
    const std::string source = "Quick Brown Fox \x80\xff Jumps Over The Lazy Dog 0123456789", zeros("ab\0cd\0", 6);
    for (size_t length : {1, 3, 4, 5, 11, 12, 13, 24, 25, 50})
        EXPECT_EQ(Hash(source.substr(0, length)), ReferenceHash(source.substr(0, length))) << length;
    EXPECT_EQ(Hash(zeros), ReferenceHash(zeros));  // embedded zero bytes are hashed
    // Only A to Z fold: neighbours of the range and non-ASCII letters do not.
    EXPECT_EQ(Hash("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), Hash("abcdefghijklmnopqrstuvwxyz"));
    for (const auto& [left, right] : {std::pair{"@", "`"}, {"[", "{"}, {"\xc3\x84", "\xc3\xa4"}})
        EXPECT_NE(Hash(left), Hash(right)) << left;
}

}  // namespace
}  // namespace Testing
