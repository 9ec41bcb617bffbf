// Certificate inspection: the JSON description against openssl's own
// printing, digests, times, purposes, the issuer and key tests.
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <regex>
#include <sstream>

#include "CertSupport.h"

namespace Testing {
namespace {

using CertQueries = CertTest;

const char* const kDescribed[] = {"ca.pem", "other_ca.pem", "server.pem", "client.pem", "v1.pem", "noca.pem"};

std::string OpenSSLPrint(const std::string& fixture, const std::string& options) {
    ShellResult result = RunShell("openssl x509 -noout -in " + CertFixturePath(fixture) + " " + options);
    EXPECT_EQ(result.status, 0) << options;
    return result.output;
}

// "name=value\n" -> "value"
std::string ValueAfterEquals(const std::string& line) {
    std::string value = line.substr(line.find('=') + 1);
    while (!value.empty() && value.back() == '\n') value.pop_back();
    return value;
}

// The object of "-nameopt sep_multiline,lname" output; a repeated attribute keeps its last value.
nlohmann::json NameObject(const std::string& printed) {
    nlohmann::json name = nlohmann::json::object();
    std::istringstream lines(printed);
    std::string line;
    std::getline(lines, line);  // "subject="
    while (std::getline(lines, line)) {
        line.erase(0, line.find_first_not_of(' '));
        const size_t equals = line.find('=');
        name[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return name;
}

// Extensions as "-text" prints them: a header at indent 12 ("Name: critical")
// and value lines at indent 16.
nlohmann::json ExtensionArray(const std::string& text) {
    nlohmann::json extensions = nlohmann::json::array();
    std::istringstream lines(text.substr(std::min(text.size(), text.find("X509v3 extensions:"))));
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line) && line.compare(0, 12, std::string(12, ' ')) == 0) {
        if (line[12] != ' ') {
            extensions.push_back({{"name", line.substr(12, line.rfind(':') - 12)}, {"value", ""}});
        } else {
            std::string& value = extensions.back()["value"].get_ref<std::string&>();
            value += (value.empty() ? "" : "\n") + line.substr(16);
        }
    }
    return extensions;
}

nlohmann::json DescriptionFromOpenSSL(const std::string& fixture) {
    const std::string text = OpenSSLPrint(fixture, "-text");
    std::smatch match;
    nlohmann::json expected;
    expected["subject"] = NameObject(OpenSSLPrint(fixture, "-subject -nameopt sep_multiline,lname"));
    expected["issuer"] = NameObject(OpenSSLPrint(fixture, "-issuer -nameopt sep_multiline,lname"));
    // serial=, notBefore=, notAfter=, sha256 Fingerprint= lines.
    std::istringstream lines(OpenSSLPrint(fixture, "-serial -startdate -enddate -fingerprint -sha256"));
    std::string serial, notBefore, notAfter, fingerprint;
    std::getline(lines, serial);
    std::getline(lines, notBefore);
    std::getline(lines, notAfter);
    std::getline(lines, fingerprint);
    // openssl prints whole bytes; a zero serial is "0" in the description.
    expected["serial"] = ValueAfterEquals(serial) == "00" ? "0" : ValueAfterEquals(serial);
    expected["notBefore"] = ValueAfterEquals(notBefore);
    expected["notAfter"] = ValueAfterEquals(notAfter);
    EXPECT_TRUE(std::regex_search(text, match, std::regex("Version: (\\d+)")));
    expected["version"] = std::stoi(match[1]);
    fingerprint = ValueAfterEquals(fingerprint);
    std::transform(fingerprint.begin(), fingerprint.end(), fingerprint.begin(),
                   [](char c) { return c == ':' ? ' ' : static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
    expected["fingerprint"] = fingerprint;
    EXPECT_TRUE(std::regex_search(text, match, std::regex("Signature Algorithm: (\\S+)")));
    expected["signatureAlgorithm"] = match[1];
    if (nlohmann::json extensions = ExtensionArray(text); !extensions.empty()) expected["extension"] = extensions;
    return expected;
}

TEST_F(CertQueries, JsonDescriptionMatchesOpenSSLFieldByField) {
    for (const char* name : kDescribed) {
        SCOPED_TRACE(name);
        CallOutcome outcome = Call("Cryptography.PEMToJson", {Str(CertFixture(name))});
        ASSERT_TRUE(outcome.ok());
        const nlohmann::json actual = JsonResult(outcome);
        const nlohmann::json expected = DescriptionFromOpenSSL(name);
        for (const auto& [key, value] : expected.items()) EXPECT_EQ(actual.value(key, nlohmann::json()), value) << key;
        EXPECT_EQ(actual.size(), expected.size()) << actual.dump(1);
    }
}

TEST_F(CertQueries, JsonDescriptionDetails) {
    const nlohmann::json server = JsonResult(Call("Cryptography.PEMToJson", {Str(CertFixture("server.pem"))}));
    EXPECT_EQ(server["subject"]["organizationalUnitName"], "Second Unit");
    EXPECT_EQ(server["extension"].back(), nlohmann::json({{"name", "1.3.6.1.4.1.55555.1.1"}, {"value", "..hello"}}));
    EXPECT_EQ(server["fingerprint"].get<std::string>().size(), 95u);
    std::string compact = server["fingerprint"];
    compact.erase(std::remove(compact.begin(), compact.end(), ' '), compact.end());
    EXPECT_EQ(ResultString(Call("Cryptography.GetDigestFromCert", {Str("SHA256"), CertFile("server.pem")})), compact);

    const nlohmann::json v1 = JsonResult(Call("Cryptography.PEMToJson", {Str(CertFixture("v1.pem"))}));
    EXPECT_EQ(v1["version"], 1);
    EXPECT_FALSE(v1.contains("extension"));
    EXPECT_EQ(v1["serial"], "0");

    for (const std::string& text : {std::string(), std::string("no certificate"), CertFixture("ca.key")}) {
        CallOutcome outcome = Call("Cryptography.PEMToJson", {Str(text)});
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(JsonResult(outcome), nlohmann::json::object());
    }
}

TEST_F(CertQueries, DigestsMatchOpenSSLFingerprints) {
    const std::pair<const char*, const char*> digests[] = {
        {"SHA256", "-sha256"}, {"sha1", "-sha1"}, {"md5", "-md5"}, {"SHA512", "-sha512"}, {"SHA3-256", "-sha3-256"}};
    for (const auto& [name, option] : digests) {
        SCOPED_TRACE(name);
        std::string expected = ValueAfterEquals(OpenSSLPrint("client.pem", std::string("-fingerprint ") + option));
        expected.erase(std::remove(expected.begin(), expected.end(), ':'), expected.end());
        std::transform(expected.begin(), expected.end(), expected.begin(), ::tolower);
        CallOutcome outcome = Call("Cryptography.GetDigestFromCert", {Str(name), CertFile("client.pem")});
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(ResultString(outcome), expected);
    }
    struct Failure {
        const char* digest;
        bool emptyCert;
        const char* message;
    };
    const Failure failures[] = {
        {"nope", false, "Digest \"nope\" not supported."},
        {"", false, "Digest \"\" not supported."},
        {"SHA256", true, "Digest couldn't be created."},
    };
    for (const Failure& f : failures) {
        SCOPED_TRACE(f.message);
        CallOutcome outcome = Call("Cryptography.GetDigestFromCert", {Str(f.digest), f.emptyCert ? NewCert() : CertFile("ca.pem")});
        ExpectError(outcome, "Error.Ombrix.FunctionError", f.message);
        EXPECT_EQ(ResultString(outcome), "");
    }
}

// A certificate signed with the CA fixture key whose validity texts are
// exactly the given ones, in the given ASN.1 time type.
std::string CertWithTimes(int type, const std::string& text) {
    const std::string keyPem = CertFixture("ca.key");
    std::unique_ptr<BIO, decltype(&BIO_free)> keyBio(BIO_new_mem_buf(keyPem.c_str(), -1), &BIO_free);
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
    std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), &X509_free);
    std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> time(ASN1_STRING_type_new(type), &ASN1_TIME_free);
    ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size()));
    X509_set1_notBefore(cert.get(), time.get());
    X509_set1_notAfter(cert.get(), time.get());
    X509_set_pubkey(cert.get(), key.get());
    X509_sign(cert.get(), key.get(), EVP_sha256());
    std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), &BIO_free);
    PEM_write_bio_X509(out.get(), cert.get());
    char* pem = nullptr;
    const long size = BIO_get_mem_data(out.get(), &pem);
    return std::string(pem, static_cast<size_t>(size));
}

TEST_F(CertQueries, ValidityTimesAsSecondsSince1970) {
    struct Case {
        int type;
        const char* text;
        double expected;
    };
    const Case cases[] = {
        {V_ASN1_UTCTIME, "491231235959Z", 2524607999},
        {V_ASN1_UTCTIME, "700101000000Z", 0},
        {V_ASN1_UTCTIME, "991231235959Z", 946684799},
        {V_ASN1_UTCTIME, "000101000000Z", 946684800},
        {V_ASN1_UTCTIME, "691231235959Z", 3155759999},
        {V_ASN1_UTCTIME, "4912312359Z", -1},  // shorter than 12
        {V_ASN1_GENERALIZEDTIME, "20500101000000Z", 2524608000},
        {V_ASN1_GENERALIZEDTIME, "19700101000000Z", 0},
        {V_ASN1_GENERALIZEDTIME, "19991231235959Z", 946684799},
        {V_ASN1_GENERALIZEDTIME, "20240102030405.123Z", 1704164645},  // fraction ignored
        {V_ASN1_GENERALIZEDTIME, "20240102030405+0100", 1704164645},  // zone ignored
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        AutoRefPtr<IVariant> cert = Cert(CertWithTimes(c.type, c.text));
        ASSERT_TRUE(Boolean("Cryptography.IsValid", {cert}));
        EXPECT_EQ(Number("Cryptography.GetValidNotBefore", {cert}), c.expected);
        EXPECT_EQ(Number("Cryptography.GetValidNotAfter", {cert}), c.expected);
    }
    // An openssl-made certificate ending after 2049 (GeneralizedTime).
    const std::string end = ValueAfterEquals(OpenSSLPrint("ca.pem", "-enddate"));
    const ShellResult seconds = RunShell("date -u -d '" + end + "' +%s");
    EXPECT_EQ(Number("Cryptography.GetValidNotAfter", {CertFile("ca.pem")}), std::stod(seconds.output));

    EXPECT_EQ(Number("Cryptography.GetValidNotBefore", {NewCert()}), -1);
    EXPECT_EQ(Number("Cryptography.GetValidNotAfter", {NewCert()}), -1);
}

std::vector<std::string> Strings(const CallOutcome& outcome) {
    std::vector<std::string> strings;
    AutoRefPtr<Ombrix::IVectorGeneric> vector = outcome.result->GetVector();
    for (uint64_t i = 0; vector && i < vector->GetSize(); ++i) strings.push_back(vector->GetElement(i)->GetString());
    return strings;
}

TEST_F(CertQueries, PurposesFollowKeyUsageAndBasicConstraints) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"server.pem", {"Server"}},
        {"client.pem", {"Client"}},
        {"ca.pem", {"CA"}},
        {"v1.pem", {"Client", "Server"}},  // self-signed version 1 is no "CA"
        {"noca.pem", {"Client", "Server"}},
        {"", {}},
    };
    for (const auto& [name, expected] : cases) {
        SCOPED_TRACE(name);
        CallOutcome outcome = Call("Cryptography.GetPurpose", {*name ? CertFile(name) : NewCert()});
        ASSERT_TRUE(outcome.ok());
        EXPECT_EQ(outcome.result->GetType(), Ombrix::kTypeStringVector);
        EXPECT_EQ(Strings(outcome), expected);
    }
}

TEST_F(CertQueries, HasIssuedNeedsNameKeyCaAndSignature) {
    struct Case {
        const char* issuer;
        const char* subject;
        bool expected;
    };
    const Case cases[] = {
        {"ca.pem", "server.pem", true},      {"ca.pem", "client.pem", true},
        {"ca.pem", "ca.pem", true},          {"v1.pem", "v1.pem", true},
        {"other_ca.pem", "server.pem", false},  // same name, other key
        {"server.pem", "ca.pem", false},     {"server.pem", "server.pem", false},
        {"noca.pem", "noca.pem", false},     // self-signed without basicConstraints
        {"", "server.pem", false},           {"ca.pem", "", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.issuer) + " -> " + c.subject);
        auto cert = [&](const char* name) { return *name ? CertFile(name) : NewCert(); };
        EXPECT_EQ(Boolean("Cryptography.HasIssued", {cert(c.issuer), cert(c.subject)}), c.expected);
    }
}

TEST_F(CertQueries, ValidateKeyMatchesThePublicKey) {
    struct Case {
        const char* cert;
        const char* key;
        bool expected;
    };
    const Case cases[] = {
        {"server.pem", "server.key", true}, {"client.pem", "client.key", true}, {"ca.pem", "ca.key", true},
        {"server.pem", "ca.key", false},    {"client.pem", "v1.key", false},    {"", "ca.key", false},
        {"ca.pem", "", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.cert) + " / " + c.key);
        AutoRefPtr<IVariant> key = *c.key ? KeyFile(c.key) : Obj(engine_.NewValue("Cryptography.Key"));
        EXPECT_EQ(Boolean("Cryptography.ValidateKey", {*c.cert ? CertFile(c.cert) : NewCert(), key}), c.expected);
    }
}

TEST_F(CertQueries, PublicKeyFromCertIsTheCertifiedKey) {
    for (const char* name : {"server.pem", "client.pem", "v1.pem"}) {
        SCOPED_TRACE(name);
        CallOutcome outcome = Call("Cryptography.GetPublicKeyFromCert", {CertFile(name)});
        AutoRefPtr<Ombrix::IJSON> saved = outcome.result->Serialize(nullptr);
        std::string pem;
        ASSERT_TRUE(outcome.ok() && saved && saved->GetMemberString("value", pem));
        EXPECT_EQ(pem, OpenSSLPrint(name, "-pubkey"));
    }
}

}  // namespace
}  // namespace Testing
