// Cryptography.Hash over strings and buffers, and Cryptography.HashFile.
#include <openssl/evp.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "Harness.h"

namespace Testing {
namespace {

using Ombrix::Host::FileData;

// The digest as OpenSSL computes it directly.
std::string Expected(const std::string& digest, const std::string& bytes) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), out, &length, EVP_get_digestbyname(digest.c_str()), nullptr), 1);
    return std::string(reinterpret_cast<char*>(out), length);
}

// Bytes that differ from position to position, so a misplaced chunk shows.
std::string Pattern(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 251) & 0xff);
    return bytes;
}

// A private directory for the files one test writes.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/digest-test-XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    std::string Write(const std::string& name, const std::string& bytes) const {
        const std::string path = path_ + "/" + name;
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

class DigestTest : public ModuleTest {};

TEST_F(DigestTest, StringAndBufferDigestsMatchOpenSSL) {
    struct Case {
        const char* digest;
        std::string text;
        size_t size;
    } cases[] = {
        {"SHA256", "abc", 32},
        {"SHA256", "", 32},
        {"sha1", "The quick brown fox", 20},
        {"SHA512", "abc", 64},
        {"MD5", "abc", 16},
        {"SHA3-256", "abc", 32},
        {"SHA256", std::string("a\0b\0c", 5), 32},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.digest) + " over " + Hex(c.text));
        const std::string expected = Expected(c.digest, c.text);
        for (const auto& outcome : {Call("Cryptography.Hash", {Str(c.digest), Str(c.text)}),
                                    Call("Cryptography.Hash", {Str(c.digest), Dat(c.text)})}) {
            EXPECT_TRUE(outcome.ok());
            EXPECT_EQ(ResultBytes(outcome).size(), c.size);
            EXPECT_EQ(Hex(ResultBytes(outcome)), Hex(expected));
        }
    }
}

// A file-backed buffer offers no contiguous bytes: it is read in chunks of
// 100000 bytes and the remainder in one last read.
TEST_F(DigestTest, NonContiguousBufferIsReadInChunks) {
    TempDir dir;
    struct Case {
        size_t size;
        uint64_t reads;
    } cases[] = {{0, 1}, {1, 1}, {100000, 1}, {100001, 2}, {250000, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const std::string bytes = Pattern(c.size);
        AutoRefPtr<FileData> file = FileData::Open(dir.Write("data", bytes));
        ASSERT_TRUE(file);
        ASSERT_EQ(file->GetData(), nullptr);
        const auto outcome = Call("Cryptography.Hash", {Str("SHA256"), Dat(AutoRefPtr<IDataRef>(file))});
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(Hex(ResultBytes(outcome)), Hex(Expected("SHA256", bytes)));
        EXPECT_EQ(file->ReadCalls(), c.reads);
    }
}

TEST_F(DigestTest, FilesOfEveryChunkShapeMatchOpenSSL) {
    TempDir dir;
    for (size_t size : {0, 1, 8191, 8192, 8193, 16384, 100001}) {
        SCOPED_TRACE(size);
        const std::string bytes = Pattern(size);
        const auto outcome = Call("Cryptography.HashFile", {Str("SHA512"), Str(dir.Write("f", bytes))});
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(Hex(ResultBytes(outcome)), Hex(Expected("SHA512", bytes)));
    }
}

// A file whose reported size is 0 although it has content (as /proc files
// do) is read once; the loop must end.
TEST_F(DigestTest, FileWithZeroReportedSizeEnds) {
    const auto outcome = Call("Cryptography.HashFile", {Str("SHA256"), Str("/proc/self/stat")});
    EXPECT_TRUE(outcome.ok());
    EXPECT_EQ(ResultBytes(outcome).size(), 32u);
}

TEST_F(DigestTest, FailuresReportAndReturnEmpty) {
    TempDir dir;
    const std::string file = dir.Write("present", "abc");
    const std::string missing = dir.Path() + "/missing";
    struct Case {
        const char* routine;
        Args args;
        std::string message;
    } cases[] = {
        {"ombrix_module_Hash", {Str("NoSuchDigest"), Str("abc")}, "Digest \"NoSuchDigest\" not supported!"},
        {"ombrix_module_HashData", {Str("sha-0"), Dat("abc")}, "Digest \"sha-0\" not supported!"},
        {"ombrix_module_HashFile", {Str("NoSuchDigest"), Str(file)}, "Digest \"NoSuchDigest\" not supported!"},
        // The digest is checked first: a missing file is not even opened.
        {"ombrix_module_HashFile", {Str("NoSuchDigest"), Str(missing)}, "Digest \"NoSuchDigest\" not supported!"},
        {"ombrix_module_HashFile", {Str("SHA256"), Str(missing)}, "File \"" + missing + "\" can't be opened!"},
        {"ombrix_module_HashFile", {Str("SHA256"), Str("")}, "File \"\" can't be opened!"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.message);
        const auto outcome = CallEntry(c.routine, std::move(c.args));
        ExpectError(outcome, "Error.Ombrix.FunctionError", c.message);
        EXPECT_TRUE(outcome.result->IsAssigned());
        EXPECT_EQ(ResultBytes(outcome), "");
    }
}

// A directory opens but cannot be read: an error, not an endless loop or a digest.
TEST_F(DigestTest, UnreadableFileIsAnError) {
    TempDir dir;
    const auto outcome = Call("Cryptography.HashFile", {Str("SHA256"), Str(dir.Path())});
    ASSERT_EQ(outcome.errors.size(), 1u);
    EXPECT_EQ(outcome.errors[0].id, "Error.Ombrix.FunctionError");
    EXPECT_EQ(ResultBytes(outcome), "");
}

}  // namespace
}  // namespace Testing
