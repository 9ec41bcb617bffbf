// Wycheproof files and an empty-result check.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "Harness.h"

namespace Testing {

inline std::string Field(const nlohmann::json& test, const char* name) { return Unhex(test[name].get<std::string>()); }

// Runs check on each test of a Wycheproof file (only groups with this IV size,
// when one is given) and expects this many tests of each result.
inline void ForEachVector(const std::string& file, int ivBits, const std::map<std::string, int>& expected,
                          const std::function<void(const nlohmann::json&, const nlohmann::json&)>& check) {
    std::map<std::string, int> counts;
    const auto vectors = nlohmann::json::parse(ReadFile(DataPath("wycheproof/" + file)));
    for (const auto& group : vectors["testGroups"]) {
        if (ivBits && group["ivSize"] != ivBits) continue;
        for (const auto& test : group["tests"]) {
            SCOPED_TRACE(test["tcId"]);
            check(group, test);
            ++counts[test["result"].get<std::string>()];
        }
    }
    EXPECT_EQ(counts, expected);
}

// The result bytes in hex, or the report of a failed call.
inline std::string HexResult(const CallOutcome& out) {
    return out.ok() ? Hex(ResultBytes(out)) : "error: " + (out.error() ? out.error()->message : "status");
}

inline AutoRefPtr<IVariant> NoData() { return Dat(AutoRefPtr<IDataRef>()); }

// Expects the report (none when message is empty) and an empty result.
inline void ExpectEmptyResult(const std::string& row, const CallOutcome& out, const std::string& message,
                              const std::string& id = "Error.Ombrix.FunctionError") {
    SCOPED_TRACE(row);
    if (!message.empty()) ExpectError(out, id, message);
    EXPECT_TRUE(out.result && out.result->IsAssigned());
    EXPECT_EQ((message.empty() ? HexResult(out) : Hex(ResultBytes(out))) + ResultString(out), "");
}

}  // namespace Testing
