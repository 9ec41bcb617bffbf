// Cryptography.Hash over strings and buffers, and Cryptography.HashFile.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>

#include "KeysSupport.h"
#include "VectorSupport.h"

namespace Testing {
namespace {

// The digest as OpenSSL computes it directly.
std::string Expected(const std::string& digest, const std::string& bytes) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), out, &length, EVP_get_digestbyname(digest.c_str()), nullptr), 1);
    return Hex(std::string(reinterpret_cast<char*>(out), length));
}

class DigestTest : public ModuleTest {};

// A buffer without contiguous bytes is read in 100000-byte chunks, a file in 8192-byte ones.
TEST_F(DigestTest, LargeInputsAreReadInChunks) {
    const std::pair<size_t, uint64_t> cases[] = {{0, 1}, {8192, 1}, {8193, 1}, {100000, 1}, {100001, 2}, {250000, 3}};
    const TempDir dir;
    for (const auto& [size, reads] : cases) {
        const std::string bytes = Pattern(size), path = dir.Write(std::to_string(size), bytes);
        auto file = Ombrix::Host::FileData::Open(path);
        ASSERT_TRUE(file && !file->GetData());
        EXPECT_EQ(HexResult(Call("Cryptography.Hash", {Str("SHA256"), Dat(file)})), Expected("SHA256", bytes));
        EXPECT_EQ(file->ReadCalls(), reads) << size;
        EXPECT_EQ(HexResult(Call("Cryptography.HashFile", {Str("SHA512"), Str(path)})), Expected("SHA512", bytes));
    }
    // A file reporting size 0 despite its content (as /proc files do) ends too.
    EXPECT_EQ(HexResult(Call("Cryptography.HashFile", {Str("SHA256"), Str("/proc/self/stat")})).size(), 64u);
}

TEST_F(DigestTest, FailuresReportAndReturnEmpty) {
    const struct { const char* routine; Args args; std::string message; } cases[] = {
        {"ombrix_module_Hash", {Str("NoSuchDigest"), Str("abc")}, "Digest \"NoSuchDigest\" not supported!"},
        {"ombrix_module_HashFile", {Str("NoSuchDigest"), Str("/no/such")}, "Digest \"NoSuchDigest\" not supported!"},
        {"ombrix_module_HashFile", {Str("SHA256"), Str("/no/such")}, "File \"/no/such\" can't be opened!"},
    };
    for (const auto& c : cases) ExpectEmptyResult(c.message, CallEntry(c.routine, c.args), c.message);
}

// Only regular files and character devices are read. Anything else is
// reported as not openable, at once: a FIFO nobody writes to must not block.
TEST_F(DigestTest, NonFilesAreNotOpenedAndNeverBlock) {
    const TempDir dir;
    const std::string fifo = dir.path + "/fifo";  // without a writer
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const struct { std::string path; std::string message; } cases[] = {
        {dir.path, "File \"" + dir.path + "\" can't be opened!"},
        {fifo, "File \"" + fifo + "\" can't be opened!"},
        {"/dev/null", ""},  // a character device: read to its end
    };
    for (const auto& c : cases) {
        auto call = std::async(std::launch::async, [&] { return Call("Cryptography.HashFile", {Str("SHA256"), Str(c.path)}); });
        if (call.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << c.path << " blocked";
            // Release a reader stuck on the FIFO, so the test ends.
            const int writer = ::open(c.path.c_str(), O_WRONLY | O_NONBLOCK);
            if (writer >= 0) ::close(writer);
        }
        const CallOutcome outcome = call.get();
        if (c.message.empty()) {
            EXPECT_TRUE(outcome.ok()) << c.path;
            EXPECT_EQ(HexResult(outcome), Expected("SHA256", "")) << c.path;
        } else {
            ExpectEmptyResult(c.path, outcome, c.message);
        }
    }
}

}  // namespace
}  // namespace Testing
