// Hash and HMAC through the engine against the same OpenSSL calls made
// directly, so the cost of the host boundary and the routine frame shows.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "Engine.h"
#include "Ombrix/Data.h"

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::IDataRef;
using Ombrix::IVariant;
using Ombrix::Host::Engine;
using Ombrix::Host::Variant;

constexpr size_t kLarge = 16 << 20;

std::string Bytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + 7);
    return bytes;
}

Engine& SharedEngine() {
    static Engine* engine = [] {
        auto* e = new Engine;
        e->Load(CRYPTOGRAPHY_MODULE_PATH);
        return e;
    }();
    return *engine;
}

AutoRefPtr<IVariant> Str(std::string s) { return AutoRefPtr<IVariant>(Variant::String(std::move(s))); }
AutoRefPtr<IVariant> Dat(std::string s) {
    return AutoRefPtr<IVariant>(Variant::DataRef(AutoRefPtr<IDataRef>(Ombrix::Data::Make(std::move(s)))));
}

void HashDataRefThroughEngine(benchmark::State& state) {
    Engine& engine = SharedEngine();
    const auto* entry = engine.FindEntry("ombrix_module_HashData");
    std::vector<AutoRefPtr<IVariant>> args = {Str("SHA256"), Dat(Bytes(static_cast<size_t>(state.range(0))))};
    for (auto _ : state) {
        auto outcome = engine.CallDeclaration(*entry, args);
        benchmark::DoNotOptimize(outcome.result);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void HashRawEvpDigest(benchmark::State& state) {
    const std::string bytes = Bytes(static_cast<size_t>(state.range(0)));
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    for (auto _ : state) {
        EVP_Digest(bytes.data(), bytes.size(), out, &length, EVP_get_digestbyname("SHA256"), nullptr);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void HmacThroughEngine(benchmark::State& state) {
    Engine& engine = SharedEngine();
    const auto* entry = engine.FindEntry("ombrix_module_CreateHMACFromDataRef");
    std::vector<AutoRefPtr<IVariant>> args = {Str("SHA256"), Str("a secret key"),
                                              Dat(Bytes(static_cast<size_t>(state.range(0))))};
    for (auto _ : state) {
        auto outcome = engine.CallDeclaration(*entry, args);
        benchmark::DoNotOptimize(outcome.result);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void HmacRaw(benchmark::State& state) {
    const std::string bytes = Bytes(static_cast<size_t>(state.range(0)));
    const std::string key = "a secret key";
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    for (auto _ : state) {
        HMAC(EVP_get_digestbyname("SHA256"), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), out, &length);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(HashDataRefThroughEngine)->Arg(64)->Arg(kLarge);
BENCHMARK(HashRawEvpDigest)->Arg(64)->Arg(kLarge);
BENCHMARK(HmacThroughEngine)->Arg(64)->Arg(kLarge);
BENCHMARK(HmacRaw)->Arg(64)->Arg(kLarge);
