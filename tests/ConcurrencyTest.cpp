// Routines on many host threads at once: each result must equal the one the
// same call gives alone, whatever runs beside it.
#include <atomic>
#include <functional>
#include <thread>

#include "Harness.h"

namespace Testing {
namespace {

TEST(Concurrency, RoutinesAgreeAcrossThreads) {
    // A fresh engine, so the first-use caches (type ids, imports) are raced too.
    Engine engine;
    engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    const std::string key(32, 'k');
    const std::vector<std::pair<const char*, std::function<Args()>>> calls = {
        {"Cryptography.Hash", [] { return Args{Str("SHA256"), Dat(std::string(300000, 'x'))}; }},
        {"Cryptography.HMAC", [] { return Args{Str("SHA512"), Str("key"), Str("message")}; }},
        {"Cryptography.Encrypt", [&] { return Args{Str("AES-256-CBC"), Str("plain text"), Str(key)}; }},
        {"Cryptography.Lookup3Hash", [] { return Args{Str("Concurrency")}; }},
        {"Cryptography.GenerateECKey", [] { return Args{}; }},
        {"Cryptography.X509FromPEM", [] { return Args{Str(ReadFile(DataPath("certs/ca.pem")))}; }},
    };
    // What each call gives alone (key generation is checked for a valid key only).
    auto describe = [&](const CallOutcome& out) {
        const std::string type = out.result ? out.result->GetTypeAsString(nullptr) : "";
        if (type == "DATAREF") return Hex(ResultBytes(out));
        if (type == "STRING") return ResultString(out);
        return type + (out.result && out.result->ObjectValue() ? ":object" : ":empty");
    };
    std::vector<std::string> expected;
    for (const auto& [name, args] : calls) expected.push_back(describe(engine.Call(name, args())));

    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 60; ++i) {
                const size_t which = (t + i) % calls.size();
                const CallOutcome out = engine.Call(calls[which].first, calls[which].second());
                if (!out.ok() || describe(out) != expected[which]) ++mismatches;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace Testing
