// CreateSSL through the engine: with the default CA locations (the system CA
// bundle) and without verification, so the cost of trusting the defaults shows.
#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>

#include "Engine.h"
#include "Ombrix/Json.h"

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::IVariant;
using Ombrix::Host::Engine;
using Ombrix::Host::Variant;

void CreateSSLThroughEngine(benchmark::State& state, nlohmann::json configuration) {
    Engine engine;
    engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    const std::vector<AutoRefPtr<IVariant>> args = {AutoRefPtr<IVariant>(Variant::Object(
        AutoRefPtr<Ombrix::IUserDefinedType>(Ombrix::JSON::JSONWrapper::Make(std::move(configuration)))))};
    for (auto _ : state) {
        auto outcome = engine.Call("Cryptography.CreateSSL", args);
        benchmark::DoNotOptimize(outcome.result);
    }
}

}  // namespace

BENCHMARK_CAPTURE(CreateSSLThroughEngine, default_ca_paths, nlohmann::json::object());
BENCHMARK_CAPTURE(CreateSSLThroughEngine, no_verification, nlohmann::json{{"Verify", false}});
