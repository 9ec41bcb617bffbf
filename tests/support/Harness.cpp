#include "Harness.h"

#include <fstream>
#include <sstream>

namespace Testing {

std::string Hex(std::string_view bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

std::string Unhex(std::string_view hex) {
    std::string out;
    out.reserve(hex.size() / 2);
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    return out;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::string DataPath(const std::string& name) { return std::string(TEST_DATA_DIR) + "/" + name; }

std::string ResultBytes(const CallOutcome& outcome) {
    if (!outcome.result) return {};
    AutoRefPtr<IDataRef> data = outcome.result->GetData();
    if (!data) return {};
    std::string bytes(data->GetSize(), '\0');
    bytes.resize(data->Read(bytes.data(), bytes.size(), 0));
    return bytes;
}

std::string ResultString(const CallOutcome& outcome) {
    return outcome.result ? std::string(outcome.result->GetString(), outcome.result->GetStringSize()) : std::string();
}

ModuleTest::ModuleTest() { engine_.Load(CRYPTOGRAPHY_MODULE_PATH); }

void ExpectError(const CallOutcome& outcome, const std::string& id, const std::string& message,
                 const std::string& moduleNamespace) {
    EXPECT_EQ(outcome.status, 0u);
    ASSERT_EQ(outcome.errors.size(), 1u) << "expected one error report";
    EXPECT_EQ(outcome.errors[0].id, id);
    EXPECT_EQ(outcome.errors[0].message, message);
    EXPECT_EQ(outcome.errors[0].moduleNamespace, moduleNamespace);
    EXPECT_EQ(outcome.errors[0].severity, 2);
}

}  // namespace Testing
