// Certificate import and export: PEM, DER, bundles, the saved form.
#include <functional>

#include "CertSupport.h"
#include "FileData.h"

namespace Testing {
namespace {

using CertificateImport = CertTest;

const char* const kCertFixtures[] = {"ca.pem", "server.pem", "client.pem", "v1.pem", "noca.pem"};

std::string OpenSSLDer(const std::string& fixture) {
    ShellResult der = RunShell("openssl x509 -outform DER -in " + CertFixturePath(fixture));
    EXPECT_EQ(der.status, 0);
    return der.output;
}

TEST_F(CertificateImport, PemAndDerRoundTripsMatchOpenSSL) {
    for (const char* name : kCertFixtures) {
        SCOPED_TRACE(name);
        const std::string der = OpenSSLDer(name);
        AutoRefPtr<IVariant> cert = CertFile(name);
        EXPECT_EQ(ToPEM(cert), CertFixture(name));
        EXPECT_EQ(ToDER(cert), der);

        AutoRefPtr<IVariant> fromDer = AutoRefPtr<IVariant>(Call("Cryptography.X509FromDER", {Dat(der)}).result);
        EXPECT_EQ(ToDER(fromDer), der);
        EXPECT_EQ(ToPEM(fromDer), CertFixture(name));

        // A buffer without contiguous bytes is read through Read.
        TempDir dir;
        auto file = Ombrix::Host::FileData::Open(dir.Write("cert.der", der));
        ASSERT_TRUE(file);
        AutoRefPtr<IVariant> fromFile =
            AutoRefPtr<IVariant>(Call("Cryptography.X509FromDER", {Dat(AutoRefPtr<IDataRef>(file))}).result);
        EXPECT_EQ(ToDER(fromFile), der);
    }
}

TEST_F(CertificateImport, SavedFormRestoresTheSameCertificate) {
    for (const char* name : kCertFixtures) {
        SCOPED_TRACE(name);
        AutoRefPtr<IVariant> cert = CertFile(name);
        AutoRefPtr<Ombrix::IJSON> saved = cert->Serialize(nullptr);
        ASSERT_TRUE(saved);
        EXPECT_EQ(nlohmann::json::parse(saved->ToJSONText()), nlohmann::json({{"value", CertFixture(name)}}));
        AutoRefPtr<Ombrix::IUserDefinedType> restored = engine_.Deserialize("Cryptography.X509", saved->ToJSONText());
        ASSERT_TRUE(restored);
        EXPECT_EQ(ToDER(Obj(restored)), ToDER(cert));
    }
    // Text that holds no certificate is refused.
    EXPECT_FALSE(engine_.Deserialize("Cryptography.X509", R"({"value": "nothing"})"));
    EXPECT_FALSE(engine_.Deserialize("Cryptography.X509", R"({"other": 1})"));
}

TEST_F(CertificateImport, UnreadableInputGivesAnEmptyCertificateWithoutError) {
    struct Case {
        const char* label;
        std::function<CallOutcome()> make;
    };
    const Case cases[] = {
        {"CreateX509", [&] { return Call("Cryptography.CreateX509", {}); }},
        {"empty PEM", [&] { return Call("Cryptography.X509FromPEM", {Str("")}); }},
        {"private key PEM", [&] { return Call("Cryptography.X509FromPEM", {Str(CertFixture("ca.key"))}); }},
        {"truncated PEM", [&] { return Call("Cryptography.X509FromPEM", {Str(CertFixture("ca.pem").substr(0, 300))}); }},
        {"garbage DER", [&] { return Call("Cryptography.X509FromDER", {Dat("\x30\x03\x02\x01\x01")}); }},
        {"empty DER", [&] { return Call("Cryptography.X509FromDER", {Dat("")}); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        CallOutcome outcome = c.make();
        ASSERT_TRUE(outcome.ok());
        AutoRefPtr<IVariant> cert(outcome.result);
        EXPECT_FALSE(Boolean("Cryptography.IsValid", {cert}));
        EXPECT_EQ(ToPEM(cert), "");
        CallOutcome der = Call("Cryptography.ToDER", {cert});
        EXPECT_TRUE(der.ok());
        EXPECT_FALSE(der.result->GetData());
    }
}

// Reads every certificate of a vector result back as DER.
std::vector<std::string> VectorDers(CertTest& test, const CallOutcome& outcome) {
    std::vector<std::string> ders;
    AutoRefPtr<Ombrix::IVectorGeneric> vector = outcome.result->GetVector();
    for (uint64_t i = 0; vector && i < vector->GetSize(); ++i) ders.push_back(test.ToDER(vector->GetElement(i)));
    return ders;
}

TEST_F(CertificateImport, VectorFromPemFollowsTheEndMarkerCuts) {
    const std::string ca = OpenSSLDer("ca.pem"), server = OpenSSLDer("server.pem"), client = OpenSSLDer("client.pem");
    const std::string labelled = CertFixture("x509_label.pem");
    struct Case {
        const char* label;
        std::string text;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"three with text around", CertFixture("bundle.pem"), {ca, server, client}},
        {"CR LF line ends", CertFixture("bundle_crlf.pem"), {ca, server, client}},
        {"nothing", "", {}},
        {"a key only", CertFixture("ca.key"), {}},
        // No END CERTIFICATE line: 25 bytes go per pass, and the block is read
        // again while its BEGIN line stays whole (with 50 bytes before it:
        // passes at 0, 25 and 50).
        {"X509 CERTIFICATE label", labelled, {server}},
        {"X509 CERTIFICATE label after 50 bytes", std::string(49, 'x') + "\n" + labelled, {server, server, server}},
        {"X509 CERTIFICATE label after 74 bytes", std::string(73, 'x') + "\n" + labelled, {server, server, server}},
        {"X509 CERTIFICATE label after 75 bytes", std::string(74, 'x') + "\n" + labelled, {server, server, server, server}},
        // The first END CERTIFICATE line is the next block's, so both go at once.
        {"X509 CERTIFICATE label then a plain block", labelled + CertFixture("ca.pem"), {server}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        CallOutcome outcome = Call("Cryptography.X509VectorFromPEM", {Str(c.text)});
        ASSERT_TRUE(outcome.ok());
        EXPECT_EQ(outcome.result->GetType(), engine_.FindType("VECTOR<Cryptography.X509>"));
        EXPECT_EQ(VectorDers(*this, outcome), c.expected);
    }
}

}  // namespace
}  // namespace Testing
