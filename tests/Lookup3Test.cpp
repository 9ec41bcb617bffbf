// Cryptography.Lookup3Hash against values of Bob Jenkins' published hashlittle2
// (byte-reading path) with A-Z folded to lower case and the seeds 0x12459878 and
// 0x34464564, computed with an independent implementation of it.
#include "Harness.h"

namespace Testing {
namespace {

class Lookup3Test : public ModuleTest {
protected:
    std::string Hash(const std::string& text) { return ResultString(Call("Cryptography.Lookup3Hash", {Str(text)})); }
};

TEST_F(Lookup3Test, MatchesTheReferenceAndFoldsOnlyAsciiLetters) {
    EXPECT_EQ(Hash(""), "0");
    const std::string source = "Quick Brown Fox \x80\xff Jumps Over The Lazy Dog 0123456789";
    const std::pair<size_t, const char*> cases[] = {
        {1, "10618425517708001691"}, {3, "9485226770359212361"}, {4, "15888659448693351768"},
        {5, "853894743238514994"}, {11, "8664019045677079144"}, {12, "14306839804069764189"},
        {13, "2469302496425338708"}, {24, "11378557687656062038"}, {25, "14055461973430218816"},
        {50, "777261293479379780"}};
    for (const auto& [length, hash] : cases) EXPECT_EQ(Hash(source.substr(0, length)), hash) << length;
    EXPECT_EQ(Hash(std::string("ab\0cd\0", 6)), "7647703262752370418");  // embedded zero bytes are hashed
    // Only A to Z fold: neighbours of the range and non-ASCII letters do not.
    EXPECT_EQ(Hash("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), Hash("abcdefghijklmnopqrstuvwxyz"));
    for (const auto& [left, right] : {std::pair{"@", "`"}, {"[", "{"}, {"\xc3\x84", "\xc3\xa4"}})
        EXPECT_NE(Hash(left), Hash(right)) << left;
}

}  // namespace
}  // namespace Testing
