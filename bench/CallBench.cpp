// Small calls through the engine next to the same OpenSSL work done the usual
// way (look the algorithm up by name, new context, one shot, free), and a
// CPU-bound mix of routines on one and on two host threads sharing one engine.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <string>
#include <vector>

#include "Engine.h"
#include "Lookup3.h"
#include "Ombrix/Data.h"

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::IDataRef;
using Ombrix::IVariant;
using Ombrix::Host::Declaration;
using Ombrix::Host::Engine;
using Ombrix::Host::Variant;

using Arguments = std::vector<AutoRefPtr<IVariant>>;

const std::string kKey(32, 'k');
const std::string kIv(16, '\0');

Engine& CallEngine() {
    static Engine* engine = [] {
        auto* e = new Engine;
        e->Load(CRYPTOGRAPHY_MODULE_PATH);
        return e;
    }();
    return *engine;
}

AutoRefPtr<IVariant> Str(std::string s) { return AutoRefPtr<IVariant>(Variant::String(std::move(s))); }
AutoRefPtr<IVariant> Num(double n) { return AutoRefPtr<IVariant>(Variant::Number(n)); }
AutoRefPtr<IVariant> Dat(std::string s) {
    return AutoRefPtr<IVariant>(Variant::DataRef(AutoRefPtr<IDataRef>(Ombrix::Data::Make(std::move(s)))));
}

void RunEntry(benchmark::State& state, const char* entryName, const Arguments& arguments) {
    Engine& engine = CallEngine();
    const Declaration* entry = engine.FindEntry(entryName);
    for (auto _ : state) {
        auto outcome = engine.CallDeclaration(*entry, arguments);
        if (!outcome.ok()) state.SkipWithError(entryName);
        benchmark::DoNotOptimize(outcome.result);
    }
}

void EncryptSmallThroughEngine(benchmark::State& state) {
    RunEntry(state, "ombrix_module_EncryptDataRef", {Str("AES-256-CBC"), Dat(std::string(64, 'p')), Str(kKey)});
}

void EncryptSmallRaw(benchmark::State& state) {
    const std::string input(64, 'p');
    unsigned char out[64 + 16];
    for (auto _ : state) {
        const EVP_CIPHER* cipher = EVP_get_cipherbyname("AES-256-CBC");
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        int n = 0, f = 0;
        EVP_EncryptInit_ex(ctx, cipher, nullptr, reinterpret_cast<const unsigned char*>(kKey.data()),
                           reinterpret_cast<const unsigned char*>(kIv.data()));
        EVP_EncryptUpdate(ctx, out, &n, reinterpret_cast<const unsigned char*>(input.data()),
                          static_cast<int>(input.size()));
        EVP_EncryptFinal_ex(ctx, out + n, &f);
        EVP_CIPHER_CTX_free(ctx);
        benchmark::DoNotOptimize(out);
    }
}

void RandomBytesThroughEngine(benchmark::State& state) {
    RunEntry(state, "ombrix_module_CreateRandomBytes", {Num(16)});
}

void RandomBytesRaw(benchmark::State& state) {
    unsigned char out[16];
    for (auto _ : state) {
        RAND_bytes(out, sizeof out);
        benchmark::DoNotOptimize(out);
    }
}

// One round of the mix: a digest, a MAC, a small encryption, random bytes and
// a hash that needs no OpenSSL. Each thread has its own argument values.
void RoutineMix(benchmark::State& state) {
    Engine& engine = CallEngine();
    struct Call {
        const Declaration* declaration;
        Arguments arguments;
    };
    const std::string message(64, 'm');
    std::vector<Call> calls = {
        {engine.FindEntry("ombrix_module_HashData"), {Str("SHA256"), Dat(message)}},
        {engine.FindEntry("ombrix_module_CreateHMACFromDataRef"), {Str("SHA256"), Str("a secret key"), Dat(message)}},
        {engine.FindEntry("ombrix_module_EncryptDataRef"), {Str("AES-256-CBC"), Dat(message), Str(kKey)}},
        {engine.FindEntry("ombrix_module_CreateRandomBytes"), {Num(16)}},
        {engine.FindEntry("ombrix_module_Lookup3Hash"), {Str(message)}},
    };
    for (auto _ : state) {
        for (const Call& call : calls) {
            auto outcome = engine.CallDeclaration(*call.declaration, call.arguments);
            benchmark::DoNotOptimize(outcome.result);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(calls.size()));
}

// The same round done with OpenSSL directly, the usual way, and a plain C++
// Lookup3: how far OpenSSL itself scales from one thread to two on this
// machine (its name tables, library context and error state are shared).
void RawMix(benchmark::State& state) {
    const std::string message(64, 'm');
    const std::string hmacKey = "a secret key";
    unsigned char out[EVP_MAX_MD_SIZE + 16];
    unsigned int length = 0;
    for (auto _ : state) {
        EVP_Digest(message.data(), message.size(), out, &length, EVP_get_digestbyname("SHA256"), nullptr);
        HMAC(EVP_get_digestbyname("SHA256"), hmacKey.data(), static_cast<int>(hmacKey.size()),
             reinterpret_cast<const unsigned char*>(message.data()), message.size(), out, &length);
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        int n = 0, f = 0;
        unsigned char encrypted[64 + 16];
        EVP_EncryptInit_ex(ctx, EVP_get_cipherbyname("AES-256-CBC"), nullptr,
                           reinterpret_cast<const unsigned char*>(kKey.data()),
                           reinterpret_cast<const unsigned char*>(kIv.data()));
        EVP_EncryptUpdate(ctx, encrypted, &n, reinterpret_cast<const unsigned char*>(message.data()),
                          static_cast<int>(message.size()));
        EVP_EncryptFinal_ex(ctx, encrypted + n, &f);
        EVP_CIPHER_CTX_free(ctx);
        RAND_bytes(out, 16);
        const std::string hashed = std::to_string(Cryptography::Lookup3Hash(message.data(), message.size()));
        benchmark::DoNotOptimize(out);
        benchmark::DoNotOptimize(encrypted);
        benchmark::DoNotOptimize(hashed);
    }
    state.SetItemsProcessed(state.iterations() * 5);
}

}  // namespace

BENCHMARK(EncryptSmallThroughEngine);
BENCHMARK(EncryptSmallRaw);
BENCHMARK(RandomBytesThroughEngine);
BENCHMARK(RandomBytesRaw);
BENCHMARK(RoutineMix)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(RawMix)->Threads(1)->Threads(2)->UseRealTime();
