// Registration: counting, the start-up log line, configuration, and the FIPS
// decision. Enabling FIPS changes process-wide OpenSSL state, so those cases
// run in child processes against a module build whose FIPS switch file is
// CRYPTOGRAPHY_TEST_FIPS_FILE.
#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/opensslv.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <optional>

#include "Harness.h"
#include "Services.h"

namespace Testing {
namespace {

using Ombrix::Host::Configuration;
using Ombrix::Host::Logger;
using Ombrix::Host::ModuleInfo;
using Ombrix::Host::Policy;

using RegisterFunction = uint32_t (*)(Ombrix::IModuleInfo*);
using DeregisterFunction = void (*)();

struct ModuleLibrary {
    explicit ModuleLibrary(const char* path) : handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (!handle) return;
        registerModule = reinterpret_cast<RegisterFunction>(dlsym(handle, "RegisterModule"));
        deregisterModule = reinterpret_cast<DeregisterFunction>(dlsym(handle, "DeregisterModule"));
    }
    void* handle;
    RegisterFunction registerModule = nullptr;
    DeregisterFunction deregisterModule = nullptr;
};

AutoRefPtr<ModuleInfo> MakeInfo(AutoRefPtr<Logger> logger) {
    return AutoRefPtr<ModuleInfo>(new ModuleInfo("Cryptography", AutoRefPtr<Ombrix::IConfiguration>(new Configuration),
                                                 AutoRefPtr<Ombrix::ILogger>(std::move(logger)),
                                                 AutoRefPtr<Ombrix::IPolicy>(new Policy("p", 1)), nullptr));
}

TEST(Registration, FirstRegistrationLogsLaterOnesAreCounted) {
    Engine engine;
    engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    const auto lines = engine.Log().Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_FALSE(lines[0].error);
    EXPECT_EQ(lines[0].category, "Cryptography");
    EXPECT_EQ(lines[0].level, 10);
    EXPECT_EQ(lines[0].message, "Using " OPENSSL_VERSION_TEXT);

    ModuleLibrary module(CRYPTOGRAPHY_MODULE_PATH);
    ASSERT_TRUE(module.registerModule && module.deregisterModule);
    AutoRefPtr<Logger> second(new Logger);
    EXPECT_EQ(module.registerModule(MakeInfo(second).get()), 0u);
    EXPECT_TRUE(second->Lines().empty());
    EXPECT_EQ(module.registerModule(nullptr), 1u);
    module.deregisterModule();
    // Still registered once: routines keep working.
    EXPECT_TRUE(engine.Call("Cryptography.Hash", {Str("SHA256"), Str("abc")}).ok());
}

TEST(Registration, WithoutOpenSSLInitialisationRoutinesStillWork) {
    Engine::Options options;
    options.configuration["Cryptography.InitializeOpenSSL"] = "false";
    Engine engine(options);
    engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    const auto outcome = engine.Call("Cryptography.Hash", {Str("SHA1"), Str("abc")});
    EXPECT_TRUE(outcome.ok());
    EXPECT_EQ(Hex(ResultBytes(outcome)), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

// Runs body in a child process and returns its exit code (-1 if it died).
int InChild(const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        int code = 120;
        try {
            code = body();
        } catch (...) {
            code = 121;
        }
        _exit(code);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Tests that write the switch file may run in parallel processes: each holds
// this lock while it uses the file.
class FipsFileLock {
public:
    FipsFileLock() : fd_(::open(CRYPTOGRAPHY_TEST_FIPS_FILE ".lock", O_CREAT | O_RDWR | O_CLOEXEC, 0600)) {
        if (fd_ >= 0) ::flock(fd_, LOCK_EX);
    }
    ~FipsFileLock() {
        std::remove(CRYPTOGRAPHY_TEST_FIPS_FILE);
        if (fd_ >= 0) ::close(fd_);
    }
    FipsFileLock(const FipsFileLock&) = delete;
    FipsFileLock& operator=(const FipsFileLock&) = delete;

private:
    int fd_;
};

void SetFipsSources(const std::optional<std::string>& file, const std::optional<std::string>& env) {
    if (file) {
        FILE* out = std::fopen(CRYPTOGRAPHY_TEST_FIPS_FILE, "wb");
        if (!out) _exit(122);
        std::fwrite(file->data(), 1, file->size(), out);
        std::fclose(out);
    } else {
        std::remove(CRYPTOGRAPHY_TEST_FIPS_FILE);
    }
    if (env)
        setenv("OPENSSL_FORCE_FIPS_MODE", env->c_str(), 1);
    else
        unsetenv("OPENSSL_FORCE_FIPS_MODE");
}

// Exit code: FIPSMode (0 or 1), plus 2 if FIPSSelfTestFailed says true.
int ReportFipsState(Engine& engine) {
    const auto mode = engine.Call("Cryptography.FIPSMode", {});
    const auto failed = engine.Call("Cryptography.FIPSSelfTestFailed", {});
    if (!mode.ok() || !failed.ok()) return 123;
    return static_cast<int>(mode.result->GetNumber()) + (failed.result->GetBoolean() ? 2 : 0);
}

TEST(Registration, FipsDecision) {
    const std::optional<std::string> none;
    struct Case {
        const char* name;
        std::optional<std::string> file, env;
        std::map<std::string, std::string> configuration;
        int fips;
    } cases[] = {
        {"file holds exactly 1", "1", none, {}, 1},
        {"file 1 with a newline is not 1, even with the variable", "1\n", "1", {}, 0},
        {"file 0 decides over the variable", "0", "1", {{"Cryptography.EnableFIPSMode", "true"}}, 0},
        {"empty file", "", "1", {}, 0},
        {"file 11", "11", none, {}, 0},
        {"variable 0", none, "0", {{"Cryptography.EnableFIPSMode", "true"}}, 0},
        {"variable starting with 0", none, "0abc", {}, 0},
        {"variable no", none, "no", {}, 1},
        {"empty variable", none, "", {}, 1},
        {"variable 1", none, "1", {{"Cryptography.EnableFIPSMode", "false"}}, 1},
        {"configuration true", none, none, {{"Cryptography.EnableFIPSMode", "true"}}, 1},
        {"configuration false", none, none, {{"Cryptography.EnableFIPSMode", "false"}}, 0},
        {"no source at all", none, none, {}, 0},
        {"wanted, but OpenSSL left alone", "1", none, {{"Cryptography.InitializeOpenSSL", "false"}}, 0},
        {"wanted by configuration, OpenSSL left alone", none, none,
         {{"Cryptography.EnableFIPSMode", "true"}, {"Cryptography.InitializeOpenSSL", "false"}}, 0},
    };
    FipsFileLock lock;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int code = InChild([&] {
            SetFipsSources(c.file, c.env);
            Engine::Options options;
            options.configuration = c.configuration;
            Engine engine(options);
            engine.Load(CRYPTOGRAPHY_TEST_FIPS_MODULE_PATH);
            return ReportFipsState(engine);
        });
        EXPECT_EQ(code, c.fips);
    }
}

// Register twice, deregister once: FIPS stays on; the last deregistration
// turns it off.
TEST(Registration, LastDeregistrationTurnsFipsOff) {
    FipsFileLock lock;
    const int code = InChild([] {
        SetFipsSources("1", std::nullopt);
        Engine engine;
        engine.Load(CRYPTOGRAPHY_TEST_FIPS_MODULE_PATH);
        ModuleLibrary module(CRYPTOGRAPHY_TEST_FIPS_MODULE_PATH);
        if (!module.registerModule || module.registerModule(MakeInfo(AutoRefPtr<Logger>(new Logger)).get()) != 0)
            return 124;
        int state = ReportFipsState(engine);
        module.deregisterModule();
        state = state * 10 + ReportFipsState(engine);
        module.deregisterModule();
        return state * 10 + ReportFipsState(engine);
    });
    EXPECT_EQ(code, 110);
}

}  // namespace
}  // namespace Testing
