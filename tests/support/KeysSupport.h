// Helpers for the key and signature suites: key fixtures made by the openssl
// command (tests/data/keys/make.sh), and short forms of the key routines.
#pragma once

#include <openssl/err.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "Harness.h"

namespace Testing {

inline const char* kFixturePassword = "ombrix-test-password";

inline std::string KeyFixturePath(const std::string& name) { return DataPath("keys/" + name); }
inline std::string KeyFixture(const std::string& name) { return ReadFile(KeyFixturePath(name)); }

// Runs a shell command and returns what it wrote to standard output.
inline std::string RunCommand(const std::string& command) {
    std::string output;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        size_t got;
        while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
        pclose(pipe);
    }
    return output;
}

// A scratch folder removed with the test.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ombrix-keys-XXXXXX").string();
        path_ = mkdtemp(pattern.data()) ? pattern : std::string();
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    std::string Write(const std::string& name, const std::string& content) const {
        const std::string file = path_ + "/" + name;
        FILE* out = std::fopen(file.c_str(), "wb");
        if (out) {
            std::fwrite(content.data(), 1, content.size(), out);
            std::fclose(out);
        }
        return file;
    }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

using KeyValue = AutoRefPtr<Ombrix::IUserDefinedType>;

class KeysTest : public ModuleTest {
protected:
    // The custom value a routine returned (null when it returned none).
    static KeyValue ObjectOf(const CallOutcome& outcome) {
        return outcome.result ? outcome.result->ObjectValue() : KeyValue();
    }
    KeyValue KeyFromPEM(const std::string& pem) { return ObjectOf(Call("Cryptography.KeyFromPEM", {Str(pem)})); }
    KeyValue KeyFromFixture(const std::string& name) { return KeyFromPEM(KeyFixture(name)); }
    KeyValue Generate(const std::string& routine, Args args = {}) { return ObjectOf(Call(routine, std::move(args))); }

    // A key routine taking only the key, with its result as text.
    std::string TextOf(const std::string& routine, const KeyValue& key) {
        return ResultString(Call(routine, {Obj(key)}));
    }
    std::string DerOf(const std::string& routine, const KeyValue& key) {
        return ResultBytes(Call(routine, {Obj(key)}));
    }
    bool IsValid(const KeyValue& key) {
        const CallOutcome outcome = Call("Cryptography.IsValid", {Obj(key)});
        return outcome.result && outcome.result->GetBoolean();
    }
    double Length(const KeyValue& key) {
        const CallOutcome outcome = Call("Cryptography.GetKeyLength", {Obj(key)});
        return outcome.result ? outcome.result->GetNumber() : -1;
    }
};

// Nothing a routine did may stay in this thread's OpenSSL error queue.
inline void ExpectErrorQueueEmpty() { EXPECT_EQ(ERR_peek_error(), 0ul) << "OpenSSL error queue not empty"; }

}  // namespace Testing
