// Certificate inspection against openssl's own printing: description, digest, key, times, purposes, issuer.
#include <algorithm>
#include <regex>
#include <sstream>

#include "../Cryptography/openssl/Handles.h"
#include "CertSupport.h"

namespace Testing {
namespace {

using CertQueries = CertTest;

std::string OpenSSLPrint(const std::string& fixture, const std::string& options) {
    return RunShell("openssl x509 -noout -in " + CertFixturePath(fixture) + " " + options);
}

// The description openssl's printing implies. Names come from "-nameopt
// sep_multiline,lname" (a repeated attribute keeps its last value), extensions
// from "-text" (a header at indent 12, "Name: critical", value lines at 16).
nlohmann::json DescriptionFromOpenSSL(const std::string& fixture) {
    nlohmann::json expected = {{"extension", nlohmann::json::array()}};
    std::string line;
    for (const std::string part : {"subject", "issuer"}) {
        std::istringstream lines(OpenSSLPrint(fixture, "-nameopt sep_multiline,lname -" + part));
        std::getline(lines, line);  // "subject="
        for (expected[part] = nlohmann::json::object(); std::getline(lines, line);) {
            line.erase(0, line.find_first_not_of(' '));
            expected[part][line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
        }
    }
    std::istringstream values(OpenSSLPrint(fixture, "-serial -startdate -enddate -fingerprint -sha256"));
    for (const char* key : {"serial", "notBefore", "notAfter", "fingerprint"}) {
        std::getline(values, line);
        expected[key] = line.substr(line.find('=') + 1);
    }
    if (expected["serial"] == "00") expected["serial"] = "0";  // openssl prints whole bytes
    std::string fingerprint = expected["fingerprint"];  // "AB:CD" -> "ab cd"
    for (char& c : fingerprint) c = c == ':' ? ' ' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    expected["fingerprint"] = fingerprint;
    const std::string text = OpenSSLPrint(fixture, "-text");
    std::smatch match;
    EXPECT_TRUE(std::regex_search(text, match, std::regex("Version: (\\d+)[\\s\\S]*?Signature Algorithm: (\\S+)")));
    expected["version"] = std::stoi(match[1]);
    expected["signatureAlgorithm"] = match[2];
    std::istringstream lines(text.substr(std::min(text.size(), text.find("X509v3 extensions:"))));
    for (std::getline(lines, line); std::getline(lines, line) && line.compare(0, 12, std::string(12, ' ')) == 0;) {
        nlohmann::json& extensions = expected["extension"];
        if (line[12] != ' ') {
            extensions.push_back({{"name", line.substr(12, line.rfind(':') - 12)}, {"value", ""}});
        } else {
            std::string& value = extensions.back()["value"].get_ref<std::string&>();
            value += (value.empty() ? "" : "\n") + line.substr(16);
        }
    }
    if (expected["extension"].empty()) expected.erase("extension");
    return expected;
}

TEST_F(CertQueries, DescriptionDigestAndPublicKeyMatchOpenSSL) {
    for (const char* name : {"ca.pem", "other_ca.pem", "server.pem", "client.pem", "v1.pem", "noca.pem"}) {
        SCOPED_TRACE(name);
        const nlohmann::json expected = DescriptionFromOpenSSL(name);
        EXPECT_EQ(JsonResult(Call("Cryptography.PEMToJson", {Str(CertFixture(name))})), expected);
        std::string digest = expected["fingerprint"];
        digest.erase(std::remove(digest.begin(), digest.end(), ' '), digest.end());
        EXPECT_EQ(ResultString(Call("Cryptography.GetDigestFromCert", {Str("SHA256"), CertFile(name)})), digest);
        const AutoRefPtr<IVariant> key = Result(Call("Cryptography.GetPublicKeyFromCert", {CertFile(name)}));
        EXPECT_EQ(ResultString(Call("Cryptography.PublicToPEM", {key})), OpenSSLPrint(name, "-pubkey"));
    }
    EXPECT_EQ(JsonResult(Call("Cryptography.PEMToJson", {Str(CertFixture("ca.key"))})), nlohmann::json::object());
    ExpectError(Call("Cryptography.GetDigestFromCert", {Str("nope"), CertFile("ca.pem")}), "Error.Ombrix.FunctionError",
                "Digest \"nope\" not supported.");
    ExpectError(Call("Cryptography.GetDigestFromCert", {Str("SHA256"), NewCert()}), "Error.Ombrix.FunctionError",
                "Digest couldn't be created.");
}

// A certificate whose validity texts are exactly text, in the ASN.1 time type given.
std::string CertWithTimes(int type, const std::string& text) {
    const OpenSSL::PKeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const OpenSSL::X509Ptr cert(X509_new());
    const OpenSSL::Owned<ASN1_TIME, &ASN1_TIME_free> time(ASN1_STRING_type_new(type));
    ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size()));
    X509_set1_notBefore(cert.get(), time.get());
    X509_set1_notAfter(cert.get(), time.get());
    X509_set_pubkey(cert.get(), key.get());
    X509_sign(cert.get(), key.get(), EVP_sha256());
    std::string der(static_cast<size_t>(std::max(i2d_X509(cert.get(), nullptr), 0)), '\0');
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    i2d_X509(cert.get(), &out);
    return der;
}

TEST_F(CertQueries, ValidityTimesAsSecondsSince1970) {
    const std::tuple<int, const char*, double> cases[] = {
        {V_ASN1_UTCTIME, "691231235959Z", 3155759999},  // two-digit years below 70 are 20xx
        {V_ASN1_UTCTIME, "700101000000Z", 0},
        {V_ASN1_UTCTIME, "991231235959Z", 946684799}, {V_ASN1_UTCTIME, "000101000000Z", 946684800},
        {V_ASN1_UTCTIME, "4912312359Z", -1},  // shorter than 12
        {V_ASN1_GENERALIZEDTIME, "20500101000000Z", 2524608000},
        {V_ASN1_GENERALIZEDTIME, "20240102030405.123Z", 1704164645},  // fraction ignored
        {V_ASN1_GENERALIZEDTIME, "20240102030405+0100", 1704164645},  // zone ignored
    };
    for (const auto& [type, text, expected] : cases) {
        const AutoRefPtr<IVariant> cert = Result(Call("Cryptography.X509FromDER", {Dat(CertWithTimes(type, text))}));
        EXPECT_EQ(Number("Cryptography.GetValidNotBefore", {cert}), expected) << text;
        EXPECT_EQ(Number("Cryptography.GetValidNotAfter", {cert}), expected) << text;
    }
    EXPECT_EQ(Number("Cryptography.GetValidNotBefore", {NewCert()}), -1);
}

TEST_F(CertQueries, PurposesFollowKeyUsageAndBasicConstraints) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"server.pem", {"Server"}}, {"client.pem", {"Client"}}, {"ca.pem", {"CA"}},
        {"v1.pem", {"Client", "Server"}},  // self-signed version 1 is no "CA"
        {"noca.pem", {"Client", "Server"}}, {"", {}},
    };
    for (const auto& [name, expected] : cases) {
        const AutoRefPtr<IVariant> result = Result(Call("Cryptography.GetPurpose", {*name ? CertFile(name) : NewCert()}));
        EXPECT_EQ(result->GetType(), Ombrix::kTypeStringVector);
        std::vector<std::string> purposes;
        const AutoRefPtr<Ombrix::IVectorGeneric> vector = result->GetVector();
        for (uint64_t i = 0; vector && i < vector->GetSize(); ++i) purposes.push_back(vector->GetElement(i)->GetString());
        EXPECT_EQ(purposes, expected) << name;
    }
}

TEST_F(CertQueries, IssuerAndKeyRelations) {
    const std::tuple<const char*, const char*, const char*, bool> cases[] = {
        {"HasIssued", "ca.pem", "server.pem", true},   {"HasIssued", "ca.pem", "ca.pem", true},
        {"HasIssued", "v1.pem", "v1.pem", true},       {"HasIssued", "other_ca.pem", "server.pem", false},  // other key
        {"HasIssued", "server.pem", "ca.pem", false},  {"HasIssued", "server.pem", "server.pem", false},
        {"HasIssued", "noca.pem", "noca.pem", false},  // self-signed without basicConstraints
        {"HasIssued", "", "server.pem", false},        {"HasIssued", "ca.pem", "", false},
        {"ValidateKey", "server.pem", "server.key", true}, {"ValidateKey", "client.pem", "client.key", true},
        {"ValidateKey", "server.pem", "ca.key", false},    {"ValidateKey", "", "ca.key", false},
    };
    auto value = [&](const std::string& name) {
        return name.empty() ? NewCert() : name.ends_with(".key") ? KeyFile(name) : CertFile(name);
    };
    for (const auto& [routine, first, second, expected] : cases)
        EXPECT_EQ(Boolean(std::string("Cryptography.") + routine, {value(first), value(second)}), expected)
            << routine << " " << first << " " << second;
}

}  // namespace
}  // namespace Testing
