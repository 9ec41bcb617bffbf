// The pieces both sides share: Data reads and comparisons, type codes,
// overload choice and the host's JSON module.
#include <stdlib.h>

#include <fstream>

#include "Harness.h"
#include "Ombrix/Json.h"

namespace Testing {
namespace {

using Ombrix::Data;
using Ombrix::Host::FileData;

TEST(DataBuffer, ReadHonoursOffsetAndSize) {
    const AutoRefPtr<Data> data = Data::Make("0123456789abcde");
    struct Case {
        uint64_t size, offset;
        const char* bytes;
    } cases[] = {
        {100, 10, "abcde"}, {4, 0, "0123"}, {1, 14, "e"}, {1, 15, ""}, {5, 16, ""}, {0, 3, ""}, {100, 0, "0123456789abcde"},
    };
    for (const auto& c : cases) {
        std::string out(64, '\0');
        const uint64_t got = data->Read(out.data(), c.size, c.offset);
        out.resize(got);
        EXPECT_EQ(out, c.bytes) << "size " << c.size << " offset " << c.offset;
    }
}

// Comparison with a buffer that has no contiguous bytes goes in 8192-byte
// chunks; a difference anywhere, including the last byte of a chunk, counts.
TEST(DataBuffer, IsEqualAcrossChunkBoundaries) {
    char pattern[] = "/tmp/data-equal-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const std::string base(16384, 'x');
    auto fileWith = [&](const std::string& bytes) {
        std::ofstream(dir + "/f", std::ios::binary | std::ios::trunc) << bytes;
        return FileData::Open(dir + "/f");
    };
    auto changedAt = [&](size_t position) {
        std::string bytes = base;
        bytes[position] = 'y';
        return bytes;
    };
    struct Case {
        const char* name;
        std::string other;
        bool equal;
    } cases[] = {
        {"same bytes", base, true},
        {"last byte of the first chunk", changedAt(8191), false},
        {"first byte of the second chunk", changedAt(8192), false},
        {"last byte of the second chunk", changedAt(16383), false},
        {"first byte", changedAt(0), false},
        {"one byte shorter", base.substr(1), false},
    };
    const AutoRefPtr<Data> mine = Data::Make(base);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        AutoRefPtr<FileData> file = fileWith(c.other);
        ASSERT_TRUE(file);
        EXPECT_EQ(mine->IsEqual(file.get()), c.equal);
        EXPECT_EQ(file->IsEqual(mine.get()), c.equal);
        EXPECT_EQ(mine->IsEqual(Bytes(c.other).get()), c.equal);
    }
    EXPECT_TRUE(Data::Make()->IsEqual(Bytes("").get()));
    EXPECT_TRUE(Data::Make()->IsEqual(fileWith("").get()));
    EXPECT_FALSE(Data::Make()->IsEqual(nullptr));
    EXPECT_FALSE(mine->IsEqual(nullptr));
    std::system(("rm -rf '" + dir + "'").c_str());
}

class EngineTest : public ModuleTest {};

TEST_F(EngineTest, TypeCodes) {
    const uint32_t x509 = engine_.FindType("Cryptography.X509");
    const uint32_t key = engine_.FindType("Cryptography.Key");
    struct Case {
        const char* name;
        uint32_t code;
    } cases[] = {
        {"BOOLEAN", 1},
        {"NUMBER", 5},
        {"STRING", 9},
        {"DATAREF", 13},
        {"JSON", 21},
        {"VECTOR<STRING>", 10},
        {"VECTOR<DATAREF>", 14},
        {"VECTOR<Cryptography.X509>", (x509 & ~3u) | 2u},
        {"Unknown.Type", 0},
        {"VECTOR<Unknown.Type>", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(engine_.FindType(c.name), c.code) << c.name;
    for (uint32_t code : {key, x509, engine_.FindType("Cryptography.SSL")}) {
        EXPECT_GT(code, 21u);
        EXPECT_EQ(code & 3u, 1u);
    }
    EXPECT_NE(key, x509);
    EXPECT_EQ(engine_.TypeName(engine_.FindType("VECTOR<Cryptography.X509>")), "VECTOR<Cryptography.X509>");
}

TEST_F(EngineTest, OverloadsAreChosenByArgumentTypes) {
    struct Case {
        const char* name;
        Args args;
        const char* entry;
    } cases[] = {
        {"Cryptography.Hash", {Str("SHA256"), Str("x")}, "ombrix_module_Hash"},
        {"Cryptography.Hash", {Str("SHA256"), Dat("x")}, "ombrix_module_HashData"},
        {"Cryptography.HMAC", {Str("SHA256"), Str("k"), Str("x")}, "ombrix_module_CreateHMACFromString"},
        {"Cryptography.HMAC", {Str("SHA256"), Str("k"), Dat("x")}, "ombrix_module_CreateHMACFromDataRef"},
        // No exact match: the first overload with as many parameters.
        {"Cryptography.Hash", {Num(1), Num(2)}, "ombrix_module_Hash"},
        // No overload of that arity: the first one.
        {"Cryptography.HMAC", {Str("SHA256")}, "ombrix_module_CreateHMACFromString"},
    };
    for (auto& c : cases) {
        const Ombrix::Host::Declaration* chosen = engine_.Choose(c.name, c.args);
        ASSERT_NE(chosen, nullptr) << c.name;
        EXPECT_EQ(chosen->entryName, c.entry);
    }
    EXPECT_THROW(Call("Cryptography.NoSuchRoutine", {}), std::invalid_argument);
}

// The host's JSON module, which the module imports its JSON building from.
TEST_F(EngineTest, JsonModuleRoutines) {
    auto json = [](const CallOutcome& outcome) { return Obj(AutoRefPtr<Ombrix::IUserDefinedType>(outcome.result->ObjectValue())); };
    auto text = [&](const CallOutcome& outcome) { return ResultString(Call("JSON.ToString", {json(outcome)})); };

    const auto object = Call("JSON.FromString", {Str("{\"a\":1}")});
    ASSERT_TRUE(object.ok());
    EXPECT_EQ(text(Call("JSON.Set", {json(object), Str("s"), Str("text")})), "{\"a\":1,\"s\":\"text\"}");
    EXPECT_EQ(text(Call("JSON.Set", {json(object), Str("n"), Num(18446744073709549568.0)})),
              "{\"a\":1,\"n\":18446744073709549568,\"s\":\"text\"}");
    EXPECT_EQ(text(Call("JSON.Set", {json(object), Str("h"), Num(0.5)})),
              "{\"a\":1,\"h\":0.5,\"n\":18446744073709549568,\"s\":\"text\"}");

    const auto array = Call("JSON.CreateEmptyArray", {});
    ASSERT_TRUE(array.ok());
    EXPECT_EQ(text(array), "[]");
    const auto appended = Call("JSON.ArrayAppend", {json(array), json(Call("JSON.FromString", {Str("{\"b\":true}")}))});
    EXPECT_EQ(text(appended), "[{\"b\":true}]");
    EXPECT_EQ(text(Call("JSON.Set", {json(Call("JSON.FromString", {Str("{}")})), Str("list"), json(appended)})),
              "{\"list\":[{\"b\":true}]}");

    struct Failure {
        const char* name;
        Args args;
        const char* message;
    } failures[] = {
        {"JSON.FromString", {Str("{not json")}, "Invalid JSON text"},
        {"JSON.Set", {json(array), Str("k"), Str("v")}, "JSON.Set needs an object"},
        {"JSON.ArrayAppend", {json(object), json(array)}, "JSON.ArrayAppend needs an array"},
    };
    for (auto& f : failures) {
        SCOPED_TRACE(f.message);
        ExpectError(Call(f.name, std::move(f.args)), "Error.Ombrix.InvalidArgument", f.message, "JSON");
    }
}

}  // namespace
}  // namespace Testing
