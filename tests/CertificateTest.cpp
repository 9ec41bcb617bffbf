// Certificates: import and export (PEM, DER, bundles, the saved form), inspection against
// openssl's own printing (description in order, digest, key, times, purposes, issuer), and
// building: a CA and a leaf it signs (openssl verify), and the tricky steps.
#include <algorithm>
#include <ctime>
#include <regex>
#include <sstream>

#include "../Cryptography/openssl/Handles.h"
#include "CertSupport.h"

namespace Testing {
namespace {

using CertQueries = CertTest;
using CertificateImport = CertTest;

std::string OpenSSLPrint(const std::string& fixture, const std::string& options) {
    return RunShell("openssl x509 -noout -in " + CertFixturePath(fixture) + " " + options);
}

// The description openssl's printing implies, members in the module's order. Names come
// from "-nameopt sep_multiline,lname" in the certificate's order (a repeated attribute
// keeps its first place and its last value), extensions from "-text" (a header at
// indent 12, "Name: critical", value lines at 16).
nlohmann::ordered_json DescriptionFromOpenSSL(const std::string& fixture) {
    nlohmann::ordered_json expected = {{"subject", nullptr}, {"issuer", nullptr}, {"serial", nullptr},
                                       {"notBefore", nullptr}, {"notAfter", nullptr}, {"version", nullptr},
                                       {"fingerprint", nullptr}, {"signatureAlgorithm", nullptr},
                                       {"extension", nlohmann::ordered_json::array()}};
    std::string line;
    for (const std::string part : {"subject", "issuer"}) {
        std::istringstream lines(OpenSSLPrint(fixture, "-nameopt sep_multiline,lname -" + part));
        std::getline(lines, line);  // "subject="
        for (expected[part] = nlohmann::ordered_json::object(); std::getline(lines, line);) {
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
        nlohmann::ordered_json& extensions = expected["extension"];
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

// Each fixture's PEM, DER and saved forms round-trip (DER also from a file-backed buffer, which
// has no contiguous bytes and is read through Read); description, digest and key match openssl's.
TEST_F(CertQueries, FixturesRoundTripAndMatchOpenSSL) {
    TempDir dir;
    for (const std::string name : {"ca.pem", "other_ca.pem", "server.pem", "client.pem", "v1.pem", "noca.pem"}) {
        SCOPED_TRACE(name);
        const std::string pem = CertFixture(name), der = RunShell("openssl x509 -outform DER -in " + CertFixturePath(name));
        const auto file = Ombrix::Host::FileData::Open(dir.Write(name + ".der", der));
        for (const AutoRefPtr<IVariant>& cert : {Cert(pem), Result(Call("Cryptography.X509FromDER", {Dat(der)})),
                                                 Result(Call("Cryptography.X509FromDER", {Dat(AutoRefPtr<IDataRef>(file))}))}) {
            EXPECT_EQ(ToPEM(cert), pem);
            EXPECT_EQ(ToDER(cert), der);
        }
        const AutoRefPtr<IVariant> cert = Cert(pem);
        const AutoRefPtr<Ombrix::IJSON> saved = cert->Serialize(nullptr);
        EXPECT_EQ(nlohmann::json::parse(saved->ToJSONText()), nlohmann::json({{"value", pem}}));
        EXPECT_EQ(ToDER(Obj(engine_.Deserialize("Cryptography.X509", saved->ToJSONText()))), der);

        const nlohmann::ordered_json expected = DescriptionFromOpenSSL(name);
        EXPECT_EQ(JsonResult(Call("Cryptography.PEMToJson", {Str(pem)})), expected);
        std::string digest = expected["fingerprint"];
        digest.erase(std::remove(digest.begin(), digest.end(), ' '), digest.end());
        EXPECT_EQ(ResultString(Call("Cryptography.GetDigestFromCert", {Str("SHA256"), cert})), digest);
        const AutoRefPtr<IVariant> key = Result(Call("Cryptography.GetPublicKeyFromCert", {cert}));
        EXPECT_EQ(ResultString(Call("Cryptography.PublicToPEM", {key})), OpenSSLPrint(name, "-pubkey"));
    }
    EXPECT_FALSE(engine_.Deserialize("Cryptography.X509", R"({"value": "nothing"})"));
    EXPECT_FALSE(engine_.Deserialize("Cryptography.X509", R"({"other": 1})"));
    EXPECT_EQ(JsonText(Call("Cryptography.PEMToJson", {Str(CertFixture("ca.key"))})), "{}");
    ExpectError(Call("Cryptography.GetDigestFromCert", {Str("nope"), CertFile("ca.pem")}), "Error.Ombrix.FunctionError",
                "Digest \"nope\" not supported.");
    ExpectError(Call("Cryptography.GetDigestFromCert", {Str("SHA256"), NewCert()}), "Error.Ombrix.FunctionError",
                "Digest couldn't be created.");
}

TEST_F(CertificateImport, VectorFromPemFollowsTheEndMarkerCuts) {
    const std::string ca = ToDER(CertFile("ca.pem")), server = ToDER(CertFile("server.pem"));
    const std::string client = ToDER(CertFile("client.pem")), labelled = CertFixture("x509_label.pem");
    // Without an END CERTIFICATE line a block is read again 25 bytes on, while its BEGIN line stays whole.
    const struct { const char* name; std::string text; std::vector<std::string> ders; } cases[] = {
        {"three with text around", CertFixture("bundle.pem"), {ca, server, client}},
        {"CR LF line ends", CertFixture("bundle_crlf.pem"), {ca, server, client}},
        {"a key only", CertFixture("ca.key"), {}},
        {"X509 CERTIFICATE label", labelled, {server}},
        {"label after 74 bytes", std::string(73, 'x') + "\n" + labelled, {server, server, server}},
        {"label after 75 bytes", std::string(74, 'x') + "\n" + labelled, {server, server, server, server}},
        {"label, then a block whose END line ends both", labelled + CertFixture("ca.pem"), {server}},
    };
    for (const auto& c : cases) {
        const AutoRefPtr<IVariant> result = Result(Call("Cryptography.X509VectorFromPEM", {Str(c.text)}));
        EXPECT_EQ(Elements(result, [&](const AutoRefPtr<IVariant>& cert) { return ToDER(cert); }), c.ders) << c.name;
    }
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
    for (const auto& [name, expected] : cases) EXPECT_EQ(Purposes(*name ? CertFile(name) : NewCert()), expected) << name;
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

using Names = std::vector<std::pair<std::string, std::string>>;

class CertBuild : public CertTest {
public:
    // Version 3, names, a year of validity from a minute ago, the key.
    AutoRefPtr<IVariant> Draft(const Names& subject, const Names& issuer, const AutoRefPtr<IVariant>& key, double serial) {
        AutoRefPtr<IVariant> cert = NewCert();
        Do("Cryptography.SetVersion", {cert, Num(2)});
        Do("Cryptography.SetSerialNumber", {cert, Num(serial)});
        for (const auto& [field, value] : subject) Do("Cryptography.SetSubjectName", {cert, Str(field), Str(value)});
        for (const auto& [field, value] : issuer) Do("Cryptography.SetIssuerName", {cert, Str(field), Str(value)});
        Do("Cryptography.AdjustNotBefore", {cert, Num(-60)});
        Do("Cryptography.AdjustNotAfter", {cert, Num(31536000)});
        Do("Cryptography.SetKey", {cert, key});
        return cert;
    }
    void Extend(const AutoRefPtr<IVariant>& cert, const Names& extensions) {
        for (const auto& [name, value] : extensions) Do("Cryptography.AddExtension", {cert, Str(name), Str(value)});
    }
    auto Describe(const AutoRefPtr<IVariant>& cert) { return JsonResult(Call("Cryptography.PEMToJson", {Str(ToPEM(cert))})); }
};

TEST_F(CertBuild, CaAndLeafItSignsPassOpenSSLVerify) {
    const AutoRefPtr<IVariant> caKey = KeyFile("ca.key"), leafKey = KeyFile("server.key");
    const Names root = {{"O", "Ombrix Build"}, {"CN", "Built Root"}};
    const AutoRefPtr<IVariant> ca = Draft(root, root, caKey, 4294967297.0);
    Extend(ca, {{"basicConstraints", "critical,CA:TRUE"}, {"keyUsage", "critical,keyCertSign,cRLSign"},
                {"subjectKeyIdentifier", "hash"}});
    Do("Cryptography.Sign", {ca, caKey});
    // Subject entries append in order; unknown fields and extensions that cannot be built are skipped.
    const AutoRefPtr<IVariant> leaf =
        Draft({{"CN", "leaf.test"}, {"OU", "x"}, {"noSuchField", "z"}, {"OU", "y"}, {"2.5.4.10", "dotted"}}, root, leafKey, 2);
    Extend(leaf, {{"basicConstraints", "CA:FALSE"}, {"noSuchExtension", "v"}, {"basicConstraints", "CA:MAYBE"},
                  {"extendedKeyUsage", "serverAuth"}, {"subjectAltName", "DNS:leaf.test"}});
    Do("Cryptography.Sign", {leaf, caKey});

    TempDir dir;
    const std::string caFile = dir.Write("ca.pem", ToPEM(ca)), leafFile = dir.Write("leaf.pem", ToPEM(leaf));
    EXPECT_EQ(RunShell("openssl verify -CAfile " + caFile + " " + caFile + " " + leafFile + " 2>&1"),
              caFile + ": OK\n" + leafFile + ": OK\n");
    EXPECT_EQ(RunShell("openssl x509 -noout -subject -nameopt RFC2253 -in " + leafFile),  // last entry first
              "subject=O=dotted,OU=y,OU=x,CN=leaf.test\n");
    EXPECT_EQ(Describe(leaf)["extension"].size(), 3u);
    EXPECT_TRUE(Boolean("Cryptography.HasIssued", {ca, leaf}));
    EXPECT_NEAR(Number("Cryptography.GetValidNotAfter", {ca}) - Number("Cryptography.GetValidNotBefore", {ca}), 31536060, 1);

    const auto described = Describe(ca);
    EXPECT_EQ(described["serial"], "01");  // 2^32 + 1 keeps its low 32 bits
    EXPECT_EQ(described["version"], 3);
}

TEST_F(CertBuild, StepsCreateTheCertificateLazilyAndClonesShareIt) {
    const AutoRefPtr<IVariant> cert = NewCert();
    EXPECT_FALSE(Boolean("Cryptography.IsValid", {cert}));
    // Setting no key only brings the certificate into being.
    Do("Cryptography.SetKey", {cert, Obj(engine_.NewValue("Cryptography.Key"))});
    EXPECT_TRUE(Boolean("Cryptography.IsValid", {cert}));
    // A bare certificate (no times, no key, no signature) is inspected without harm.
    EXPECT_EQ(ToPEM(cert) + ToDER(cert), "");
    EXPECT_FALSE(Boolean("Cryptography.HasIssued", {cert, cert}));
    EXPECT_FALSE(Boolean("Cryptography.ValidateKey", {cert, KeyFile("ca.key")}));
    EXPECT_TRUE(Call("Cryptography.GetPublicKeyFromCert", {cert}).ok());
    Do("Cryptography.AdjustNotAfter", {cert->Clone(), Num(60)});  // a clone shares the certificate
    EXPECT_NEAR(Number("Cryptography.GetValidNotAfter", {cert}), static_cast<double>(std::time(nullptr)) + 60, 2);
}

// Queries asked before a certificate is finished see the later extensions too:
// OpenSSL's cached view of the extensions follows every building step.
TEST_F(CertBuild, QueriesBeforeAndAfterExtensionsSeeTheCurrentCertificate) {
    const AutoRefPtr<IVariant> key = KeyFile("ca.key");
    const Names self = {{"CN", "Queried Early"}};
    const auto state = [&](const AutoRefPtr<IVariant>& cert) {
        std::string joined;
        for (const std::string& purpose : Purposes(cert)) joined += purpose + " ";
        return joined + (Boolean("Cryptography.HasIssued", {cert, cert}) ? "issued" : "not issued");
    };
    const struct { Names extensions; bool resign; std::string before, after; } cases[] = {
        {{{"basicConstraints", "critical,CA:TRUE"}}, true, "Client Server not issued", "Client Server CA issued"},
        {{{"basicConstraints", "critical,CA:TRUE"}}, false, "Client Server not issued", "Client Server CA not issued"},
        {{{"extendedKeyUsage", "serverAuth"}}, true, "Client Server not issued", "Server not issued"},
        {{{"basicConstraints", "critical,CA:TRUE"}, {"keyUsage", "critical,digitalSignature"}}, true,
         "Client Server not issued", "Client Server not issued"},
    };
    for (const auto& c : cases) {
        const AutoRefPtr<IVariant> cert = Draft(self, self, key, 7);
        Do("Cryptography.Sign", {cert, key});
        EXPECT_EQ(state(cert), c.before) << &c - cases;
        Extend(cert, c.extensions);
        if (c.resign) Do("Cryptography.Sign", {cert, key});
        EXPECT_EQ(state(cert), c.after) << &c - cases;
        // A clone sees the same, and the certificate reads back unchanged.
        EXPECT_EQ(state(cert->Clone()), c.after) << &c - cases;
        EXPECT_EQ(state(Cert(ToPEM(cert))), c.after) << &c - cases;
    }
}

}  // namespace
}  // namespace Testing
