// Registration counting and the FIPS decision, in child processes (FIPS mode is
// process-wide) against a build whose switch file is CRYPTOGRAPHY_TEST_FIPS_FILE.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <optional>

#include "Harness.h"

namespace Testing {
namespace {

// FIPSMode (0 or 1), plus 2 if FIPSSelfTestFailed says true.
int FipsState(Engine& engine) {
    const auto mode = engine.Call("Cryptography.FIPSMode", {}), failed = engine.Call("Cryptography.FIPSSelfTestFailed", {});
    return mode.ok() && failed.ok() ? static_cast<int>(mode.result->GetNumber()) + 2 * failed.result->GetBoolean() : 123;
}

// The first source that exists decides: switch file, environment, configuration.
// Each child also registers a second time (counted, not logged) and checks that
// FIPS holds until the last deregistration.
TEST(Registration, FipsDecisionAndCounting) {
    const std::optional<std::string> none;
    const std::map<std::string, std::string> on{{"Cryptography.EnableFIPSMode", "true"}};
    struct { std::optional<std::string> file, env; std::map<std::string, std::string> configuration; int fips; } cases[] = {
        {"1", none, {}, 1},
        {"1\n", "1", {}, 0},  // exactly "1" only
        {"0", "1", on, 0},
        {"", "1", {}, 0},
        {none, "0", on, 0},
        {none, "0abc", {}, 0},
        {none, "no", {}, 1},
        {none, "", {}, 1},
        {none, "1", {{"Cryptography.EnableFIPSMode", "false"}}, 1},
        {none, none, on, 1},
        {none, none, {}, 0},
        {"1", none, {{"Cryptography.InitializeOpenSSL", "0"}}, 0},  // wanted, but OpenSSL left alone
    };
    // Other test processes may use the switch file too.
    const int lock = ::open(CRYPTOGRAPHY_TEST_FIPS_FILE ".lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    ::flock(lock, LOCK_EX);
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        std::remove(CRYPTOGRAPHY_TEST_FIPS_FILE);
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            if (c.file) {
                FILE* out = std::fopen(CRYPTOGRAPHY_TEST_FIPS_FILE, "wb");
                if (!out || std::fwrite(c.file->data(), 1, c.file->size(), out) != c.file->size() || std::fclose(out)) _exit(122);
            }
            c.env ? setenv("OPENSSL_FORCE_FIPS_MODE", c.env->c_str(), 1) : unsetenv("OPENSSL_FORCE_FIPS_MODE");
            auto first = std::make_unique<Engine>(Engine::Options{c.configuration});
            first->Load(CRYPTOGRAPHY_TEST_FIPS_MODULE_PATH);
            const int loaded = FipsState(*first);
            if (Engine second; !second.Load(CRYPTOGRAPHY_TEST_FIPS_MODULE_PATH).registered || !second.Log().Lines().empty())
                _exit(124);
            const int afterOne = FipsState(*first);
            first.reset();
            _exit(afterOne == loaded && !EVP_default_properties_is_fips_enabled(nullptr) ? loaded : 125);
        }
        int status = 0;
        const bool exited = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status);
        EXPECT_EQ(exited ? WEXITSTATUS(status) : -1, c.fips) << i;
    }
    std::remove(CRYPTOGRAPHY_TEST_FIPS_FILE);
    ::close(lock);
}

}  // namespace
}  // namespace Testing
