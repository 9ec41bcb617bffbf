// Key helpers: fixtures of tests/data/keys/make.sh, a shell runner, a scratch folder.
#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "Harness.h"

namespace Testing {

inline std::string KeyFixturePath(const std::string& name) { return DataPath("keys/" + name); }
inline std::string KeyFixture(const std::string& name) { return ReadFile(KeyFixturePath(name)); }

// What a shell command writes to standard output.
inline std::string RunShell(const std::string& command) {
    std::string output;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, got);
        pclose(pipe);
    }
    return output;
}

// A scratch folder removed with the test.
struct TempDir {
    std::string path = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "ombrix-test-XXXXXX").string();
        return mkdtemp(pattern.data()) ? pattern : std::string();
    }();
    ~TempDir() { std::error_code ignored; if (!path.empty()) std::filesystem::remove_all(path, ignored); }
    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream(path + "/" + name, std::ios::binary) << content;
        return path + "/" + name;
    }
};

using KeyValue = AutoRefPtr<Ombrix::IUserDefinedType>;

class KeysTest : public ModuleTest {
protected:
    static KeyValue ObjectOf(const CallOutcome& outcome) { return outcome.result ? outcome.result->ObjectValue() : KeyValue(); }
    KeyValue KeyFromPEM(const std::string& pem) { return ObjectOf(Call("Cryptography.KeyFromPEM", {Str(pem)})); }
    KeyValue KeyFromFixture(const std::string& name) { return KeyFromPEM(KeyFixture(name)); }
    // The text a routine taking only the key returns.
    std::string Text(const std::string& routine, const KeyValue& key) { return ResultString(Call(routine, {Obj(key)})); }
    bool IsValid(const KeyValue& key) { return Call("Cryptography.IsValid", {Obj(key)}).result->GetBoolean(); }
};

}  // namespace Testing
