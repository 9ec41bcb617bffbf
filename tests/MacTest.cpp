// Cryptography.HMAC and Cryptography.PKCS5PBKDF2HMAC against RFC 4231, RFC
// 6070 and Wycheproof vectors, and their error reports.
#include <nlohmann/json.hpp>

#include "Harness.h"

namespace Testing {
namespace {

using nlohmann::json;

json LoadVectors(const std::string& name) { return json::parse(ReadFile(DataPath("wycheproof/" + name))); }

class MacTest : public ModuleTest {
protected:
    // Runs both HMAC overloads and checks they agree; returns the digest.
    std::string Hmac(const std::string& digest, const std::string& key, const std::string& data) {
        const auto fromString = Call("Cryptography.HMAC", {Str(digest), Str(key), Str(data)});
        const auto fromData = Call("Cryptography.HMAC", {Str(digest), Str(key), Dat(data)});
        EXPECT_TRUE(fromString.ok());
        EXPECT_TRUE(fromData.ok());
        EXPECT_EQ(fromString.declaration->entryName, "ombrix_module_CreateHMACFromString");
        EXPECT_EQ(fromData.declaration->entryName, "ombrix_module_CreateHMACFromDataRef");
        EXPECT_EQ(Hex(ResultBytes(fromString)), Hex(ResultBytes(fromData)));
        return ResultBytes(fromString);
    }
    CallOutcome Pbkdf2(const std::string& password, const std::string& salt, double iterations,
                       const std::string& digest, double length) {
        return Call("Cryptography.PKCS5PBKDF2HMAC", {Dat(password), Dat(salt), Num(iterations), Str(digest), Num(length)});
    }
};

TEST_F(MacTest, Rfc4231) {
    const std::string key131(131, '\xaa');
    const std::string largerKeyData =
        "This is a test using a larger than block-size key and a larger than block-size data. The key needs to be "
        "hashed before being used by the HMAC algorithm.";
    struct Case {
        int number;
        std::string key, data;
        const char *sha224, *sha256, *sha384, *sha512;
    } cases[] = {
        {1, std::string(20, '\x0b'), "Hi There", "896fb1128abbdf196832107cd49df33f47b4b1169912ba4f53684b22",
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7",
         "afd03944d84895626b0825f4ab46907f15f9dadbe4101ec682aa034c7cebc59cfaea9ea9076ede7f4af152e8b2fa9cb6",
         "87aa7cdea5ef619d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cdedaa833b7d6b8a702038b274eaea3f4e4be9d914eeb61f1"
         "702e696c203a126854"},
        {2, "Jefe", "what do ya want for nothing?", "a30e01098bc6dbbf45690f3a7e9e6d0f8bbea2a39e6148008fd05e44",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843",
         "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21649",
         "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea2505549758bf75c05a994a6d034f65f8f0e6fdcaeab1a34d4a6b"
         "4b636e070a38bce737"},
        {3, std::string(20, '\xaa'), std::string(50, '\xdd'), "7fb3cb3588c6c1f6ffa9694d7d6ad2649365b0c1f65d69d1ec8333ea",
         "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe",
         "88062608d3e6ad8a0aa2ace014c8a86f0aa635d947ac9febe83ef4e55966144b2a5ab39dc13814b94e3ab6e101a34f27",
         "fa73b0089d56a284efb0f0756c890be9b1b5dbdd8ee81a3655f83e33b2279d39bf3e848279a722c806b485a47e67c807b946a337bee894"
         "2674278859e13292fb"},
        {4, Unhex("0102030405060708090a0b0c0d0e0f10111213141516171819"), std::string(50, '\xcd'),
         "6c11506874013cac6a2abc1bb382627cec6a90d86efc012de7afec5a",
         "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b",
         "3e8a69b7783c25851933ab6290af6ca77a9981480850009cc5577c6e1f573b4e6801dd23c4a7d679ccf8a386c674cffb",
         "b0ba465637458c6990e5a8c5f61d4af7e576d97ff94b872de76f8050361ee3dba91ca5c11aa25eb4d679275cc5788063a5f19741120c4f"
         "2de2adebeb10a298dd"},
        // Truncated to 128 bits in the RFC: the prefix must match.
        {5, std::string(20, '\x0c'), "Test With Truncation", "0e2aea68a90c8d37c988bcdb9fca6fa8",
         "a3b6167473100ee06e0c796c2955552b", "3abf34c3503b2a23a46efc619baef897", "415fad6271580a531d4179bc891d87a6"},
        {6, key131, "Test Using Larger Than Block-Size Key - Hash Key First",
         "95e9a0db962095adaebe9b2d6f0dbce2d499f112f2d2b7273fa6870e",
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54",
         "4ece084485813e9088d2c63a041bc5b44f9ef1012a2b588f3cd11f05033ac4c60c2ef6ab4030fe8296248df163f44952",
         "80b24263c7c1a3ebb71493c1dd7be8b49b46d1f41b4aeec1121b013783f8f3526b56d037e05f2598bd0fd2215d6a1e5295e64f73f63f0a"
         "ec8b915a985d786598"},
        {7, key131, largerKeyData, "3a854166ac5d9f023f54d517d0b39dbd946770db9c2b95c9f6f565d1",
         "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2",
         "6617178e941f020d351e2f254e8fd32c602420feb0b8fb9adccebb82461e99c5a678cc31e799176d3860e6110c46523e",
         "e37b6a775dc87dbaa4dfa9f96e5e3ffddebd71f8867289865df5a32d20cdc944b6022cac3c4982b10d5eeb55c3e4de15134676fb6de044"
         "6065c97440fa8c6a58"},
    };
    for (const auto& c : cases) {
        const std::pair<const char*, const char*> digests[] = {
            {"SHA224", c.sha224}, {"SHA256", c.sha256}, {"SHA384", c.sha384}, {"SHA512", c.sha512}};
        for (const auto& [digest, expected] : digests) {
            SCOPED_TRACE("case " + std::to_string(c.number) + " " + digest);
            const std::string mac = Hex(Hmac(digest, c.key, c.data));
            if (c.number == 5)
                EXPECT_EQ(mac.substr(0, 32), expected);
            else
                EXPECT_EQ(mac, expected);
        }
    }
}

TEST_F(MacTest, WycheproofHmacSha256) {
    const json vectors = LoadVectors("hmac_sha256_test.json");
    int checked = 0;
    for (const auto& group : vectors["testGroups"]) {
        const size_t tagBytes = group["tagSize"].get<size_t>() / 8;
        for (const auto& test : group["tests"]) {
            SCOPED_TRACE("tcId " + std::to_string(test["tcId"].get<int>()));
            const std::string mac = Hmac("SHA256", Unhex(test["key"].get<std::string>()), Unhex(test["msg"].get<std::string>()));
            ASSERT_EQ(mac.size(), 32u);
            const bool matches = Hex(mac.substr(0, tagBytes)) == test["tag"].get<std::string>();
            EXPECT_EQ(matches, test["result"] == "valid");
            ++checked;
        }
    }
    EXPECT_EQ(checked, vectors["numberOfTests"].get<int>());
}

TEST_F(MacTest, HmacSizesAndEmptyData) {
    struct Case {
        const char* digest;
        size_t size;
    } cases[] = {{"SHA1", 20}, {"sha256", 32}, {"SHA512", 64}, {"SHA3-512", 64}, {"MD5", 16}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.digest);
        EXPECT_EQ(Hmac(c.digest, "key", "").size(), c.size);
    }
    // Empty and absent buffers are the empty message.
    const auto absent = Call("Cryptography.HMAC", {Str("SHA256"), Str("key"), Dat(AutoRefPtr<IDataRef>())});
    EXPECT_TRUE(absent.ok());
    EXPECT_EQ(ResultBytes(absent), Hmac("SHA256", "key", ""));
}

TEST_F(MacTest, HmacErrors) {
    struct Case {
        std::string digest, key;
        const char* message;
    } cases[] = {
        // The key is checked before the digest, whatever the digest name.
        {"SHA256", "", "Key is empty"},
        {"NoSuchDigest", "", "Key is empty"},
        {"NoSuchDigest", "key", "Digest \"NoSuchDigest\" not supported!"},
        {"", "key", "Digest \"\" not supported!"},
        // HMAC refuses extendable-output digests.
        {"SHAKE128", "key", "HMAC generation failed!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        for (auto data : {Str("data"), Dat("data")}) {
            const auto outcome = Call("Cryptography.HMAC", {Str(c.digest), Str(c.key), data});
            ExpectError(outcome, "Error.Ombrix.FunctionError", c.message);
            EXPECT_EQ(ResultBytes(outcome), "");
        }
    }
}

TEST_F(MacTest, Rfc6070Pbkdf2Sha1) {
    // The 16777216-iteration case is left out for time.
    struct Case {
        std::string password, salt;
        int iterations;
        int length;
        const char* expected;
    } cases[] = {
        {"password", "salt", 1, 20, "0c60c80f961f0e71f3a9b524af6012062fe037a6"},
        {"password", "salt", 2, 20, "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957"},
        {"password", "salt", 4096, 20, "4b007901b765489abead49d926f721d065a429c1"},
        {"passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096, 25,
         "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"},
        {std::string("pass\0word", 9), std::string("sa\0lt", 5), 4096, 16, "56fa6aa75548099dcc37d7f03425e0c3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        const auto outcome = Pbkdf2(c.password, c.salt, c.iterations, "SHA1", c.length);
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(Hex(ResultBytes(outcome)), c.expected);
    }
}

TEST_F(MacTest, WycheproofPbkdf2HmacSha256) {
    const json vectors = LoadVectors("pbkdf2_hmacsha256_test.json");
    int checked = 0;
    for (const auto& group : vectors["testGroups"]) {
        for (const auto& test : group["tests"]) {
            SCOPED_TRACE("tcId " + std::to_string(test["tcId"].get<int>()));
            ASSERT_EQ(test["result"], "valid");
            const auto outcome = Pbkdf2(Unhex(test["password"].get<std::string>()), Unhex(test["salt"].get<std::string>()),
                                        test["iterationCount"].get<int>(), "SHA256", test["dkLen"].get<int>());
            EXPECT_TRUE(outcome.ok());
            EXPECT_EQ(Hex(ResultBytes(outcome)), test["dk"].get<std::string>());
            ++checked;
        }
    }
    EXPECT_EQ(checked, vectors["numberOfTests"].get<int>());
}

TEST_F(MacTest, Pbkdf2LengthsAndSalt) {
    struct Case {
        const char* name;
        double length;
        size_t size;
    } cases[] = {
        {"zero length: nothing derived", 0, 0},
        {"negative length: nothing derived", -5, 0},
        {"fraction truncated toward zero", 16.9, 16},
        {"only the low 32 bits of the length count", 4294967297.0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto outcome = Pbkdf2("password", "salt", 1, "SHA256", c.length);
        EXPECT_TRUE(outcome.ok());
        EXPECT_TRUE(outcome.result->IsAssigned());
        EXPECT_EQ(ResultBytes(outcome).size(), c.size);
    }
    // An empty salt and an absent one are the same zero-length salt.
    const auto empty = Pbkdf2("password", "", 2, "SHA256", 32);
    const auto absent = Call("Cryptography.PKCS5PBKDF2HMAC",
                             {Dat("password"), Dat(AutoRefPtr<IDataRef>()), Num(2), Str("SHA256"), Num(32)});
    EXPECT_TRUE(empty.ok());
    EXPECT_TRUE(absent.ok());
    EXPECT_EQ(ResultBytes(empty).size(), 32u);
    EXPECT_EQ(ResultBytes(empty), ResultBytes(absent));
}

TEST_F(MacTest, Pbkdf2Errors) {
    struct Case {
        const char* digest;
        double iterations, length;
        const char* message;
    } cases[] = {
        {"NoSuchDigest", 1, 32, "Digest \"NoSuchDigest\" not supported!"},
        // The digest is checked before the length is looked at.
        {"NoSuchDigest", 1, 0, "Digest \"NoSuchDigest\" not supported!"},
        {"SHA256", 0, 32, "PKCS5_PBKDF2_HMAC with digest \"SHA256\" failed!"},
        {"sha1", -1, 32, "PKCS5_PBKDF2_HMAC with digest \"sha1\" failed!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        const auto outcome = Pbkdf2("password", "salt", c.iterations, c.digest, c.length);
        ExpectError(outcome, "Error.Ombrix.FunctionError", c.message);
        EXPECT_EQ(ResultBytes(outcome), "");
    }
}

}  // namespace
}  // namespace Testing
