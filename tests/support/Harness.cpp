#include "Harness.h"

#include <fstream>
#include <sstream>

namespace Testing {

std::string Hex(std::string_view bytes) {
    std::string out;
    for (unsigned char c : bytes) out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return out;
}

std::string Unhex(std::string_view hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    return out;
}

std::string ReadFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string ResultBytes(const CallOutcome& outcome) {
    AutoRefPtr<IDataRef> data = outcome.result ? outcome.result->GetData() : AutoRefPtr<IDataRef>();
    std::string bytes(data ? data->GetSize() : 0, '\0');
    if (data) bytes.resize(data->Read(bytes.data(), bytes.size(), 0));
    return bytes;
}

void ExpectError(const CallOutcome& outcome, const std::string& id, const std::string& message,
                 const std::string& moduleNamespace) {
    EXPECT_EQ(outcome.status, 0u);
    ASSERT_EQ(outcome.errors.size(), 1u) << "expected one error report";
    const auto& e = outcome.errors[0];
    EXPECT_EQ(e.moduleNamespace + " " + e.id + " (severity " + std::to_string(e.severity) + "): " + e.message,
              moduleNamespace + " " + id + " (severity 2): " + message);
}

}  // namespace Testing
