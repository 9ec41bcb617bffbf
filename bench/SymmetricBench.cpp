// Encrypting a 16 MiB buffer through the engine against raw OpenSSL into a
// buffer of the same size. The peak-heap counter is the most memory held at
// once during one call, per input byte: 1.0 means the only large allocation
// is the ciphertext itself (the input is read in place, the output never
// copied again).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <openssl/evp.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "Engine.h"
#include "Ombrix/Data.h"

namespace {

std::atomic<int64_t> liveBytes{0}, peakBytes{0};

void* Track(void* p) {
    if (!p) throw std::bad_alloc();
    const int64_t now = liveBytes += static_cast<int64_t>(malloc_usable_size(p));
    for (int64_t peak = peakBytes.load(); now > peak && !peakBytes.compare_exchange_weak(peak, now);) {
    }
    return p;
}

void Untrack(void* p) {
    if (!p) return;
    liveBytes -= static_cast<int64_t>(malloc_usable_size(p));
    std::free(p);
}

}  // namespace

void* operator new(std::size_t size) { return Track(std::malloc(size ? size : 1)); }
void* operator new[](std::size_t size) { return Track(std::malloc(size ? size : 1)); }
void operator delete(void* p) noexcept { Untrack(p); }
void operator delete[](void* p) noexcept { Untrack(p); }
void operator delete(void* p, std::size_t) noexcept { Untrack(p); }
void operator delete[](void* p, std::size_t) noexcept { Untrack(p); }

namespace {

constexpr size_t kInput = 16u << 20;
const std::string kKey(32, 'k');

using Ombrix::AutoRefPtr;
using Ombrix::Host::Variant;

void ResetPeak() { peakBytes = liveBytes.load(); }

void ModuleEncrypt(benchmark::State& state, const char* cipher) {
    Ombrix::Host::Engine engine;
    engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    AutoRefPtr<Ombrix::IDataRef> input(Ombrix::Data::Make(std::string(kInput, 'p')));
    std::vector<AutoRefPtr<Ombrix::IVariant>> args = {
        AutoRefPtr<Ombrix::IVariant>(Variant::String(cipher)),
        AutoRefPtr<Ombrix::IVariant>(Variant::DataRef(input)),
        AutoRefPtr<Ombrix::IVariant>(Variant::String(kKey)),
    };
    int64_t worst = 0;
    for (auto _ : state) {
        const int64_t before = liveBytes.load();
        ResetPeak();
        auto outcome = engine.CallEntry("ombrix_module_EncryptDataRef", args);
        worst = std::max(worst, peakBytes.load() - before);
        if (!outcome.ok()) state.SkipWithError("encryption failed");
        benchmark::DoNotOptimize(outcome);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kInput));
    state.counters["peak_heap_per_input_byte"] = static_cast<double>(worst) / kInput;
}

void RawOpenSSL(benchmark::State& state, const char* cipherName) {
    const EVP_CIPHER* cipher = EVP_get_cipherbyname(cipherName);
    const std::string input(kInput, 'p');
    const std::string iv(16, '\0');
    int64_t worst = 0;
    for (auto _ : state) {
        const int64_t before = liveBytes.load();
        ResetPeak();
        std::string out(kInput + 16, '\0');
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        int n = 0, f = 0;
        auto* o = reinterpret_cast<unsigned char*>(out.data());
        EVP_EncryptInit_ex(ctx, cipher, nullptr, reinterpret_cast<const unsigned char*>(kKey.data()),
                           reinterpret_cast<const unsigned char*>(iv.data()));
        EVP_EncryptUpdate(ctx, o, &n, reinterpret_cast<const unsigned char*>(input.data()), static_cast<int>(kInput));
        EVP_EncryptFinal_ex(ctx, o + n, &f);
        EVP_CIPHER_CTX_free(ctx);
        out.resize(static_cast<size_t>(n + f));
        worst = std::max(worst, peakBytes.load() - before);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kInput));
    state.counters["peak_heap_per_input_byte"] = static_cast<double>(worst) / kInput;
}

// Decryption of the ciphertext of 16 MiB, through DataRefDecrypt and raw.
std::string RawCiphertext(const EVP_CIPHER* cipher, const std::string& iv) {
    std::string out(kInput + 16, '\0');
    const std::string input(kInput, 'p');
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n = 0, f = 0;
    auto* o = reinterpret_cast<unsigned char*>(out.data());
    EVP_EncryptInit_ex(ctx, cipher, nullptr, reinterpret_cast<const unsigned char*>(kKey.data()),
                       reinterpret_cast<const unsigned char*>(iv.data()));
    EVP_EncryptUpdate(ctx, o, &n, reinterpret_cast<const unsigned char*>(input.data()), static_cast<int>(kInput));
    EVP_EncryptFinal_ex(ctx, o + n, &f);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(n + f));
    return out;
}

void ModuleDecrypt(benchmark::State& state, const char* cipherName) {
    Ombrix::Host::Engine engine;
    engine.Load(CRYPTOGRAPHY_MODULE_PATH);
    auto encrypted = engine.CallEntry("ombrix_module_EncryptDataRef",
                                      {AutoRefPtr<Ombrix::IVariant>(Variant::String(cipherName)),
                                       AutoRefPtr<Ombrix::IVariant>(Variant::DataRef(
                                           AutoRefPtr<Ombrix::IDataRef>(Ombrix::Data::Make(std::string(kInput, 'p'))))),
                                       AutoRefPtr<Ombrix::IVariant>(Variant::String(kKey))});
    std::vector<AutoRefPtr<Ombrix::IVariant>> args = {
        AutoRefPtr<Ombrix::IVariant>(Variant::String(cipherName)),
        AutoRefPtr<Ombrix::IVariant>(Variant::DataRef(encrypted.result->GetData())),
        AutoRefPtr<Ombrix::IVariant>(Variant::String(kKey)),
    };
    for (auto _ : state) {
        auto outcome = engine.CallEntry("ombrix_module_DataRefDecrypt", args);
        if (!outcome.ok()) state.SkipWithError("decryption failed");
        benchmark::DoNotOptimize(outcome);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kInput));
}

void RawDecrypt(benchmark::State& state, const char* cipherName) {
    const EVP_CIPHER* cipher = EVP_get_cipherbyname(cipherName);
    const std::string iv(16, '\0');
    const std::string input = RawCiphertext(cipher, iv);
    for (auto _ : state) {
        std::string out(input.size() + 16, '\0');
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        int n = 0, f = 0;
        auto* o = reinterpret_cast<unsigned char*>(out.data());
        EVP_DecryptInit_ex(ctx, cipher, nullptr, reinterpret_cast<const unsigned char*>(kKey.data()),
                           reinterpret_cast<const unsigned char*>(iv.data()));
        EVP_DecryptUpdate(ctx, o, &n, reinterpret_cast<const unsigned char*>(input.data()),
                          static_cast<int>(input.size()));
        EVP_DecryptFinal_ex(ctx, o + n, &f);
        EVP_CIPHER_CTX_free(ctx);
        out.resize(static_cast<size_t>(n + f));
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kInput));
}

BENCHMARK_CAPTURE(ModuleEncrypt, aes_256_cbc, "AES-256-CBC")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RawOpenSSL, aes_256_cbc, "AES-256-CBC")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ModuleDecrypt, aes_256_cbc, "AES-256-CBC")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RawDecrypt, aes_256_cbc, "AES-256-CBC")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ModuleEncrypt, aes_256_ctr, "AES-256-CTR")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RawOpenSSL, aes_256_ctr, "AES-256-CTR")->Unit(benchmark::kMillisecond);

}  // namespace
