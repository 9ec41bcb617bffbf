#include "FuzzSupport.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "Ombrix/Data.h"
#include "openssl/Handles.h"

namespace Fuzz {

namespace {

using Ombrix::Host::Variant;

// Holds its bytes but offers no contiguous view of them.
class ReadOnlyData final : public Ombrix::UseCounted<IDataRef> {
public:
    explicit ReadOnlyData(std::string bytes) : bytes_(std::move(bytes)) {}

    uint64_t GetSize() const override { return bytes_.size(); }
    bool Assign(const char* bytes, uint64_t size) override {
        bytes_.assign(bytes ? bytes : "", bytes ? size : 0);
        return true;
    }
    uint64_t Read(char* destination, uint64_t size, uint64_t offset) const override {
        if (offset >= bytes_.size()) return 0;
        const uint64_t count = std::min<uint64_t>(size, bytes_.size() - offset);
        std::memcpy(destination, bytes_.data() + offset, count);
        return count;
    }
    bool IsEqual(const IDataRef* other) const override {
        return other && Ombrix::Data(bytes_).IsEqual(other);
    }
    AutoRefPtr<IDataRef> Clone() const override { return AutoRefPtr<IDataRef>(new ReadOnlyData(bytes_)); }
    const char* GetData() const override { return nullptr; }

private:
    std::string bytes_;
};

template <class T>
struct OpenSSLFree {
    void operator()(T* p) const { OPENSSL_free(p); }
};
template <class T>
using Freed = std::unique_ptr<T, OpenSSLFree<T>>;
struct SigFree {
    void operator()(X509_SIG* sig) const { X509_SIG_free(sig); }
};
using SigPtr = std::unique_ptr<X509_SIG, SigFree>;

// Above any iteration count or cost a key file needs for a fuzz input.
constexpr unsigned long kLargestCheapParameter = 4096;

// Walks DER elements in [at, end): whether an INTEGER above the cheap limit
// sits anywhere inside, at any depth. What cannot be walked (indefinite or
// overlong lengths, deep nesting) counts as large, so the input is left out.
bool HasLargeInteger(const unsigned char* at, const unsigned char* end, int depth) {
    if (depth > 8) return true;
    while (at < end) {
        if (end - at < 2) return true;
        const unsigned char tag = at[0];
        size_t length = at[1];
        at += 2;
        if (length & 0x80) {
            const size_t width = length & 0x7f;
            if (width == 0 || width > 3 || static_cast<size_t>(end - at) < width) return true;
            length = 0;
            for (size_t i = 0; i < width; ++i) length = (length << 8) | *at++;
        }
        if (static_cast<size_t>(end - at) < length) return true;
        if (tag == 0x02) {
            if (length > 8) return true;
            unsigned long long value = 0;
            for (size_t i = 0; i < length; ++i) value = (value << 8) | at[i];
            if (value > kLargestCheapParameter) return true;
        } else if ((tag & 0x20) && HasLargeInteger(at, at + length, depth + 1)) {
            return true;
        }
        at += length;
    }
    return false;
}

}  // namespace

Engine& ModuleEngine() {
    static Engine* engine = [] {
        // Read by OpenSSL when a session loads the default CA locations.
        setenv("SSL_CERT_FILE", DataPath("tls/ca.pem").c_str(), 1);
        setenv("SSL_CERT_DIR", DataPath("tls").c_str(), 1);
        auto* created = new Engine;
        try {
            created->Load(CRYPTOGRAPHY_MODULE_PATH);
        } catch (const std::exception& e) {
            Fail(std::string("module did not load: ") + e.what());
        }
        if (!created->Unresolved().empty()) Fail("module has unbound entry points: " + created->Unresolved().front());
        return created;
    }();
    return *engine;
}

AutoRefPtr<IVariant> Str(std::string text) { return AutoRefPtr<IVariant>(Variant::String(std::move(text))); }
AutoRefPtr<IVariant> Num(double number) { return AutoRefPtr<IVariant>(Variant::Number(number)); }

AutoRefPtr<IVariant> Dat(std::string bytes, bool contiguous) {
    AutoRefPtr<IDataRef> data = contiguous ? AutoRefPtr<IDataRef>(Ombrix::Data::Make(std::move(bytes)))
                                           : AutoRefPtr<IDataRef>(new ReadOnlyData(std::move(bytes)));
    return AutoRefPtr<IVariant>(Variant::DataRef(std::move(data)));
}

CallOutcome Call(std::string_view name, Args arguments) {
    ERR_clear_error();
    CallOutcome outcome = ModuleEngine().Call(name, std::move(arguments));
    const std::string routine(name);
    if (outcome.status != 0) Fail(routine + " refused its arguments, status " + std::to_string(outcome.status));
    if (const unsigned long queued = ERR_peek_error()) {
        char text[256];
        ERR_error_string_n(queued, text, sizeof text);
        Fail(routine + " left an OpenSSL error queued: " + text);
    }
    for (const auto& error : outcome.errors)
        if (error.id.empty() || error.message.empty()) Fail(routine + " reported an error without id or message");
    return outcome;
}

std::string ResultString(const CallOutcome& outcome) {
    return outcome.result ? std::string(outcome.result->GetString(), outcome.result->GetStringSize()) : std::string();
}

std::string ResultBytes(const CallOutcome& outcome) {
    AutoRefPtr<IDataRef> data = outcome.result ? outcome.result->GetData() : nullptr;
    if (!data) return {};
    std::string bytes(data->GetSize(), '\0');
    bytes.resize(data->Read(bytes.data(), bytes.size(), 0));
    return bytes;
}

bool ResultBoolean(const CallOutcome& outcome) { return outcome.result && outcome.result->GetBoolean(); }
double ResultNumber(const CallOutcome& outcome) { return outcome.result ? outcome.result->GetNumber() : 0; }

bool HasObject(const AutoRefPtr<IVariant>& value) {
    return value && AutoRefPtr<Ombrix::IUserDefinedType>(value->GetUserDefinedPtr());
}

void ExerciseCertificate(const AutoRefPtr<IVariant>& cert) {
    Call("Cryptography.ToPEM", {cert});
    Call("Cryptography.GetValidNotBefore", {cert});
    Call("Cryptography.GetValidNotAfter", {cert});
    Call("Cryptography.GetPurpose", {cert});
    Call("Cryptography.GetDigestFromCert", {Str("SHA256"), cert});
    Call("Cryptography.HasIssued", {cert, cert});
    const CallOutcome key = Call("Cryptography.GetPublicKeyFromCert", {cert});
    if (!HasObject(key.result)) return;
    Call("Cryptography.ValidateKey", {cert, key.result});
    if (!ResultBoolean(Call("Cryptography.IsValid", {key.result}))) return;
    Call("Cryptography.GetKeyType", {key.result});
    Call("Cryptography.GetKeyLength", {key.result});
    Call("Cryptography.PublicToPEM", {key.result});
    Call("Cryptography.EncodePublicKey", {key.result});
}

std::string DataPath(const std::string& name) { return std::string(FUZZ_TEST_DATA_DIR) + "/" + name; }

std::string FixturePath(const std::string& chosen) {
    // Encrypted keys among them: without a password they are refused, never prompted for.
    static constexpr const char* kFixtures[] = {
        "tls/ca.pem",  "tls/client.pem", "tls/client.key", "tls/stray-ec.key", "certs/bundle.pem",
        "certs/ca.key", "keys/ec.pem",   "keys/x25519.pem", "keys/rsa.encrypted.pem",
        "keys/rsa.traditional-encrypted.pem", "tls", "certs", "no-such-file", ""};
    for (const char* fixture : kFixtures)
        if (chosen == fixture) return *fixture ? DataPath(fixture) : std::string();
    size_t hash = 0;
    for (unsigned char c : chosen) hash = hash * 31 + c;
    const std::string fixture = kFixtures[hash % std::size(kFixtures)];
    return fixture.empty() ? fixture : DataPath(fixture);
}

void RestrictFileSettings(Ombrix::IJSON& configuration) {
    if (!configuration.IsObject()) return;
    for (const char* setting : {"CAFile", "CAPath", "Cert", "Key"}) {
        std::string chosen;
        if (configuration.GetMemberString(setting, chosen)) {
            const std::string path = FixturePath(chosen);
            configuration.SetMemberString(setting, path.data(), path.size());
        }
    }
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void Fail(const std::string& what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what.c_str());
    std::abort();
}

bool CostlyEncryptedPEM(std::string_view text) {
    // OpenSSL's key readers try an encrypted structure in a block of any name,
    // so every block is examined.
    OpenSSL::BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (!bio) return true;
    bool costly = false;
    for (;;) {
        char* rawName = nullptr;
        char* rawHeader = nullptr;
        unsigned char* rawBody = nullptr;
        long length = 0;
        if (PEM_read_bio(bio.get(), &rawName, &rawHeader, &rawBody, &length) != 1) break;
        const Freed<char> name(rawName), header(rawHeader);
        const Freed<unsigned char> body(rawBody);
        const unsigned char* cursor = body.get();
        const SigPtr sig(d2i_X509_SIG(nullptr, &cursor, length));
        if (!sig) continue;
        const X509_ALGOR* algorithm = nullptr;
        X509_SIG_get0(sig.get(), &algorithm, nullptr);
        unsigned char* rawEncoded = nullptr;
        const int size = i2d_X509_ALGOR(algorithm, &rawEncoded);
        const Freed<unsigned char> encoded(rawEncoded);
        costly = size <= 0 || HasLargeInteger(encoded.get(), encoded.get() + size, 0);
        if (costly) break;
    }
    ERR_clear_error();
    return costly;
}

}  // namespace Fuzz

// Loads the module before fuzzing starts, so its coverage counters are known
// from the first input on.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::ModuleEngine();
    return 0;
}
