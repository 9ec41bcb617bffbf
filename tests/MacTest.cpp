// HMAC and PBKDF2 against RFC 4231, RFC 6070 and Wycheproof vectors, and their reports.
#include "VectorSupport.h"

namespace Testing {
namespace {

class MacTest : public ModuleTest {
protected:
    // The hex MAC (StreamingTest checks that every form of the message gives the same).
    std::string Hmac(const std::string& digest, const std::string& key, const std::string& data) {
        return HexResult(Call("Cryptography.HMAC", {Str(digest), Str(key), Str(data)}));
    }
    CallOutcome Pbkdf2(const std::string& password, const std::string& salt, double count, const char* digest,
                       double length) {
        return Call("Cryptography.PKCS5PBKDF2HMAC", {Dat(password), Dat(salt), Num(count), Str(digest), Num(length)});
    }
};

// RFC 4231 cases 1-7, a row's MACs for SHA-224, -256, -384, -512 in one string (case 5: 128-bit
// prefixes); then Wycheproof's HMAC-SHA256 tests.
TEST_F(MacTest, HmacVectors) {
    const std::string key131(131, '\xaa');
    const struct { std::string key, data; std::string macs; } cases[] = {
        {std::string(20, '\x0b'), "Hi There",
         "896fb1128abbdf196832107cd49df33f47b4b1169912ba4f53684b22b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e3"
         "2cff7afd03944d84895626b0825f4ab46907f15f9dadbe4101ec682aa034c7cebc59cfaea9ea9076ede7f4af152e8b2fa9cb687aa7cdea5ef61"
         "9d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cdedaa833b7d6b8a702038b274eaea3f4e4be9d914eeb61f1702e696c203a126854"},
        {"Jefe", "what do ya want for nothing?",
         "a30e01098bc6dbbf45690f3a7e9e6d0f8bbea2a39e6148008fd05e445bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964e"
         "c3843af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21649164b7a7bfcf819"
         "e2e395fbe73b56e0a387bd64222e831fd610270cd7ea2505549758bf75c05a994a6d034f65f8f0e6fdcaeab1a34d4a6b4b636e070a38bce737"},
        {std::string(20, '\xaa'), std::string(50, '\xdd'),
         "7fb3cb3588c6c1f6ffa9694d7d6ad2649365b0c1f65d69d1ec8333ea773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced"
         "565fe88062608d3e6ad8a0aa2ace014c8a86f0aa635d947ac9febe83ef4e55966144b2a5ab39dc13814b94e3ab6e101a34f27fa73b0089d56a2"
         "84efb0f0756c890be9b1b5dbdd8ee81a3655f83e33b2279d39bf3e848279a722c806b485a47e67c807b946a337bee8942674278859e13292fb"},
        {Unhex("0102030405060708090a0b0c0d0e0f10111213141516171819"), std::string(50, '\xcd'),
         "6c11506874013cac6a2abc1bb382627cec6a90d86efc012de7afec5a82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff4672"
         "9665b3e8a69b7783c25851933ab6290af6ca77a9981480850009cc5577c6e1f573b4e6801dd23c4a7d679ccf8a386c674cffbb0ba465637458c"
         "6990e5a8c5f61d4af7e576d97ff94b872de76f8050361ee3dba91ca5c11aa25eb4d679275cc5788063a5f19741120c4f2de2adebeb10a298dd"},
        {std::string(20, '\x0c'), "Test With Truncation",
         "0e2aea68a90c8d37c988bcdb9fca6fa8a3b6167473100ee06e0c796c2955552b3abf34c3503b2a23a46efc619baef897415fad6271580a531d4"
         "179bc891d87a6"},
        {key131, "Test Using Larger Than Block-Size Key - Hash Key First",
         "95e9a0db962095adaebe9b2d6f0dbce2d499f112f2d2b7273fa6870e60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee"
         "37f544ece084485813e9088d2c63a041bc5b44f9ef1012a2b588f3cd11f05033ac4c60c2ef6ab4030fe8296248df163f4495280b24263c7c1a3"
         "ebb71493c1dd7be8b49b46d1f41b4aeec1121b013783f8f3526b56d037e05f2598bd0fd2215d6a1e5295e64f73f63f0aec8b915a985d786598"},
        {key131, "This is a test using a larger than block-size key and a larger than block-size data. The key needs to be "
                 "hashed before being used by the HMAC algorithm.",
         "3a854166ac5d9f023f54d517d0b39dbd946770db9c2b95c9f6f565d19b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3"
         "a35e26617178e941f020d351e2f254e8fd32c602420feb0b8fb9adccebb82461e99c5a678cc31e799176d3860e6110c46523ee37b6a775dc87d"
         "baa4dfa9f96e5e3ffddebd71f8867289865df5a32d20cdc944b6022cac3c4982b10d5eeb55c3e4de15134676fb6de0446065c97440fa8c6a58"},
    };
    for (const auto& c : cases) {
        const size_t cut = c.macs.size() == 128 ? 32 : std::string::npos;
        std::string macs;
        for (const char* digest : {"SHA224", "SHA256", "SHA384", "SHA512"})
            macs += Hmac(digest, c.key, c.data).substr(0, cut);
        EXPECT_EQ(macs, c.macs);
    }
    ForEachVector("hmac_sha256_test.json", 0, {{"valid", 66}, {"invalid", 108}}, [&](const auto& group, const auto& test) {
        const std::string mac = Hmac("SHA256", Field(test, "key"), Field(test, "msg"));
        ASSERT_EQ(mac.size(), 64u);
        const auto tag = test["tag"].template get<std::string>();
        EXPECT_EQ(mac.substr(0, size_t(group["tagSize"]) / 4) == tag, test["result"] == "valid");
    });
}

// RFC 6070 (the 16777216-iteration case left out for time), then Wycheproof's PBKDF2-HMAC-SHA256.
TEST_F(MacTest, Pbkdf2Vectors) {
    const struct { std::string password, salt; int iterations, length; const char* expected; } cases[] = {
        {"password", "salt", 1, 20, "0c60c80f961f0e71f3a9b524af6012062fe037a6"},
        {"password", "salt", 2, 20, "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957"},
        {"password", "salt", 4096, 20, "4b007901b765489abead49d926f721d065a429c1"},
        {"passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096, 25,
         "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"},
        {std::string("pass\0word", 9), std::string("sa\0lt", 5), 4096, 16, "56fa6aa75548099dcc37d7f03425e0c3"}};
    for (const auto& c : cases)
        EXPECT_EQ(HexResult(Pbkdf2(c.password, c.salt, c.iterations, "SHA1", c.length)), c.expected);
    ForEachVector("pbkdf2_hmacsha256_test.json", 0, {{"valid", 60}}, [&](const auto&, const auto& test) {
        const auto outcome = Pbkdf2(Field(test, "password"), Field(test, "salt"), test["iterationCount"], "SHA256",
                                    test["dkLen"]);
        EXPECT_EQ(HexResult(outcome), test["dk"].template get<std::string>());
    });
}

// The length is truncated toward zero, to its low 32 bits; none or a negative one derives nothing.
TEST_F(MacTest, LengthsAbsentBuffersAndErrors) {
    for (const auto& [length, size] : {std::pair{0.0, 0u}, {-5.0, 0u}, {16.9, 16u}, {4294967297.0, 1u},
                                       {-4294967295.0, 1u}, {4294967296.5, 0u}}) {
        const auto outcome = Pbkdf2("password", "salt", 1, "SHA256", length);
        EXPECT_TRUE(outcome.ok() && outcome.result->IsAssigned() && ResultBytes(outcome).size() == size) << length;
    }
    // An absent buffer is an empty one: the empty message, the zero-length salt.
    EXPECT_EQ(HexResult(Call("Cryptography.HMAC", {Str("SHA256"), Str("key"), NoData()})), Hmac("SHA256", "key", ""));
    const auto absent = Call("Cryptography.PKCS5PBKDF2HMAC", {Dat("password"), NoData(), Num(2), Str("SHA256"), Num(32)});
    EXPECT_EQ(HexResult(absent).size(), 64u);
    EXPECT_EQ(HexResult(absent), HexResult(Pbkdf2("password", "", 2, "SHA256", 32)));
    // Reports: key before digest before length (StreamingTest has the extendable-output digests HMAC refuses).
    const std::pair<Args, const char*> cases[] = {
        {{Str("NoSuchDigest"), Str(""), Dat("data")}, "Key is empty"},
        {{Str("NoSuchDigest"), Str("key"), Dat("data")}, "Digest \"NoSuchDigest\" not supported!"},
        {{Dat("pw"), Dat("salt"), Num(1), Str("NoSuchDigest"), Num(0)}, "Digest \"NoSuchDigest\" not supported!"},
        {{Dat("pw"), Dat("salt"), Num(0), Str("sha1"), Num(32)}, "PKCS5_PBKDF2_HMAC with digest \"sha1\" failed!"},
    };
    for (const auto& [args, message] : cases)
        ExpectEmptyResult(message, Call(args.size() == 3 ? "Cryptography.HMAC" : "Cryptography.PKCS5PBKDF2HMAC", args),
                          message);
}

}  // namespace
}  // namespace Testing
