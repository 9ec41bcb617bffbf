#include "RoutineArguments.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "Ombrix/TypeCodes.h"

namespace Fuzz {

namespace {

constexpr size_t kMaxKept = 16;

// Names the routines look up, option values and texts that get far.
constexpr const char* kWords[] = {
    "SHA256", "sha1", "SHA512", "MD5", "SHA3-256", "SHAKE128", "BLAKE2b512", "SM3", "sha512-224", "",
    "aes-128-cbc", "AES-256-CBC", "aes-256-gcm", "aes-128-gcm", "aes-192-gcm", "chacha20-poly1305", "chacha20",
    "des-ede3-cbc", "aes-128-ecb", "aes-256-ctr", "aes-128-ccm", "aes-256-xts", "id-aes128-wrap", "rc4",
    "RSA", "EC", "CN", "O", "OU", "C", "emailAddress", "2.5.4.3", "example.com",
    "basicConstraints", "critical,CA:TRUE,pathlen:0", "keyUsage", "digitalSignature, keyCertSign",
    "subjectAltName", "DNS:example.com, IP:127.0.0.1, email:copy", "extendedKeyUsage", "serverAuth,clientAuth",
    "subjectKeyIdentifier", "hash", "authorityKeyIdentifier", "keyid:always,issuer", "nsComment",
    "crlDistributionPoints", "URI:http://example.com/ca.crl", "certificatePolicies", "@section",
    "AQAB", "0123456789abcdef", "k3y-of-thirty-two-bytes-length!!", "nonce-12byte", "iv-of-16-bytes!!"};

constexpr const char* kPemFixtures[] = {"keys/ec.pem", "keys/rsa.pem", "keys/rsa.pub.pem", "keys/ec.pub.pem",
                                        "keys/x25519.pem", "keys/ed25519.pub.pem", "keys/rsa.traditional.pem",
                                        "keys/rsa.encrypted.pem", "keys/rsa.traditional-encrypted.pem",
                                        "tls/ca.pem", "tls/server.pem", "certs/bundle.pem", "certs/v1.pem",
                                        "keys/rsa.der", "keys/ec.pub.der"};

constexpr const char* kJsonTexts[] = {"{}", "{\"Verify\":false}", "{\"Verify\":true}", "[1]", "3",
                                      "{\"CAFile\":\"tls/ca.pem\",\"Host\":\"localhost\"}",
                                      "{\"Verify\":false,\"Cert\":\"tls/client.pem\",\"Key\":\"tls/client.key\"}",
                                      "{\"LoadDefaultCAPaths\":true,\"CipherList\":\"HIGH\"}"};

constexpr const char* kTypes[] = {"STRING", "NUMBER", "DATAREF", "BOOLEAN", "JSON",
                                  "Cryptography.Key", "Cryptography.X509", "Cryptography.SSL"};

const std::string& Fixture(size_t index) {
    static std::vector<std::string> texts = [] {
        std::vector<std::string> read;
        for (const char* name : kPemFixtures) read.push_back(ReadFile(DataPath(name)));
        return read;
    }();
    return texts[index % texts.size()];
}

}  // namespace

std::string ArgumentMaker::AnyType() { return kTypes[input_.ConsumeIntegralInRange<size_t>(0, std::size(kTypes) - 1)]; }

std::string ArgumentMaker::Text() {
    switch (input_.ConsumeIntegralInRange(0, 3)) {
        case 0: return kWords[input_.ConsumeIntegralInRange<size_t>(0, std::size(kWords) - 1)];
        case 1: return Fixture(input_.ConsumeIntegral<uint8_t>());
        default: return input_.ConsumeRandomLengthString(2048);
    }
}

std::string ArgumentMaker::Bytes() {
    if (input_.ConsumeIntegralInRange(0, 4) == 0) return Fixture(input_.ConsumeIntegral<uint8_t>());
    return input_.ConsumeRandomLengthString(2048);
}

double ArgumentMaker::Number() {
    static constexpr double kSpecial[] = {std::numeric_limits<double>::quiet_NaN(),
                                          std::numeric_limits<double>::infinity(),
                                          -std::numeric_limits<double>::infinity(),
                                          2147483648.0, 4294967296.0 + 16, -2147483649.0, 1e300, -0.0, 0.5, -1,
                                          9223372036854775807.0, 12, 16, 32};
    switch (input_.ConsumeIntegralInRange(0, 3)) {
        case 0: return kSpecial[input_.ConsumeIntegralInRange<size_t>(0, std::size(kSpecial) - 1)];
        case 1: {
            const uint64_t bits = input_.ConsumeIntegral<uint64_t>();
            double raw;
            std::memcpy(&raw, &bits, sizeof raw);
            return raw;
        }
        default: return input_.ConsumeIntegralInRange<int>(-4, 4096);
    }
}

AutoRefPtr<IVariant> ArgumentMaker::Json() {
    const std::string text = input_.ConsumeBool()
                                 ? kJsonTexts[input_.ConsumeIntegralInRange<size_t>(0, std::size(kJsonTexts) - 1)]
                                 : input_.ConsumeRandomLengthString(1024);
    CallOutcome parsed = ModuleEngine().Call("JSON.FromString", {Str(text)});
    if (!HasObject(parsed.result)) return nullptr;
    AutoRefPtr<Ombrix::IUserDefinedType> held(parsed.result->GetUserDefinedPtr());
    if (AutoRefPtr<Ombrix::IJSON> json = held.DynamicCast<Ombrix::IJSON>()) RestrictFileSettings(*json);
    return AutoRefPtr<IVariant>(parsed.result);
}

AutoRefPtr<IVariant> ArgumentMaker::Earlier(uint32_t code) {
    std::vector<AutoRefPtr<IVariant>> matching;
    for (const auto& value : kept_)
        if (value->GetType() == code) matching.push_back(value);
    if (matching.empty()) return nullptr;
    return matching[input_.ConsumeIntegralInRange<size_t>(0, matching.size() - 1)];
}

AutoRefPtr<IVariant> ArgumentMaker::Object(const std::string& type, bool& proper) {
    Engine& engine = ModuleEngine();
    const uint32_t code = engine.FindType(type);
    switch (input_.ConsumeIntegralInRange(0, 3)) {
        case 0:
            if (auto earlier = Earlier(code)) {
                proper = HasObject(earlier);
                return earlier;
            }
            [[fallthrough]];
        case 1: {  // made by the module from a fixture
            CallOutcome made;
            if (type == "Cryptography.Key") made = Call("Cryptography.KeyFromPEM", {Str(Fixture(input_.ConsumeIntegralInRange(0, 6)))});
            else if (type == "Cryptography.X509") made = Call("Cryptography.X509FromPEM", {Str(Fixture(9 + input_.ConsumeIntegralInRange(0, 3)))});
            else if (auto configuration = Json()) made = Call("Cryptography.CreateSSL", {configuration});
            if (HasObject(made.result)) {
                proper = true;
                return AutoRefPtr<IVariant>(made.result);
            }
            break;
        }
        case 2:  // a fresh value of the type
            if (auto fresh = engine.NewValue(type)) {
                proper = true;
                return AutoRefPtr<IVariant>(Ombrix::Host::Variant::Object(fresh));
            }
            break;
        default: break;
    }
    return AutoRefPtr<IVariant>(Ombrix::Host::Variant::Unset(code));  // an unset object
}

AutoRefPtr<IVariant> ArgumentMaker::Make(const std::string& type, bool& proper) {
    proper = true;
    if (type == "STRING") {
        if (input_.ConsumeIntegralInRange(0, 5) == 0)
            if (auto earlier = Earlier(Ombrix::kTypeString)) return earlier;
        return Str(Text());
    }
    if (type == "DATAREF") {
        if (input_.ConsumeIntegralInRange(0, 4) == 0)
            if (auto earlier = Earlier(Ombrix::kTypeDataRef)) return earlier;
        const bool contiguous = input_.ConsumeIntegralInRange(0, 3) != 0;
        return Dat(Bytes(), contiguous);
    }
    if (type == "NUMBER") return Num(Number());
    if (type == "BOOLEAN") return AutoRefPtr<IVariant>(Ombrix::Host::Variant::Boolean(input_.ConsumeBool()));
    if (type == "JSON") {
        if (auto json = Json()) return json;
        proper = false;
        return AutoRefPtr<IVariant>(Ombrix::Host::Variant::Unset(ModuleEngine().FindType("JSON")));
    }
    proper = false;
    return Object(type, proper);
}

void ArgumentMaker::Keep(const AutoRefPtr<Ombrix::Host::Variant>& result) {
    if (!result) return;
    auto keep = [&](AutoRefPtr<IVariant> value) {
        if (!value) return;
        if (kept_.size() >= kMaxKept) kept_.erase(kept_.begin());
        kept_.push_back(std::move(value));
    };
    if (AutoRefPtr<Ombrix::IVectorGeneric> vector = result->GetVector()) {
        for (uint64_t i = 0; i < vector->GetSize() && i < 4; ++i) keep(vector->GetElement(i));
        return;
    }
    keep(AutoRefPtr<IVariant>(result));
}

}  // namespace Fuzz
