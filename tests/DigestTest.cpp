// Cryptography.Hash over strings and buffers, and Cryptography.HashFile.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
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
    // A file reporting size 0 despite its content (as /proc files do) ends too; a character device is read.
    EXPECT_EQ(HexResult(Call("Cryptography.HashFile", {Str("SHA256"), Str("/proc/self/stat")})).size(), 64u);
    EXPECT_EQ(HexResult(Call("Cryptography.HashFile", {Str("SHA256"), Str("/dev/null")})), Expected("SHA256", ""));
}

// Only regular files and character devices are read. Anything else is
// reported as not openable, at once: a FIFO nobody writes to must not block.
TEST_F(DigestTest, FailuresReportAtOnceAndReturnEmpty) {
    const TempDir dir;
    const std::string fifo = dir.path + "/fifo";  // without a writer
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const auto unopenable = [](const std::string& path) { return "File \"" + path + "\" can't be opened!"; };
    const std::string unsupported = "Digest \"NoSuchDigest\" not supported!";
    const struct { const char* routine; std::string digest, input, message; } cases[] = {
        {"Cryptography.Hash", "NoSuchDigest", "abc", unsupported},
        {"Cryptography.HashFile", "NoSuchDigest", "/no/such", unsupported},
        {"Cryptography.HashFile", "SHA256", "/no/such", unopenable("/no/such")},
        {"Cryptography.HashFile", "SHA256", dir.path, unopenable(dir.path)},
        {"Cryptography.HashFile", "SHA256", fifo, unopenable(fifo)},
    };
    for (const auto& c : cases) {
        auto call = std::async(std::launch::async, [&] { return Call(c.routine, {Str(c.digest), Str(c.input)}); });
        if (call.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << c.input << " blocked";
            // Release a reader stuck on the FIFO, so the test ends.
            const int writer = ::open(c.input.c_str(), O_WRONLY | O_NONBLOCK);
            if (writer >= 0) ::close(writer);
        }
        ExpectEmptyResult(c.input, call.get(), c.message);
    }
}

}  // namespace
}  // namespace Testing
