// Certificate import and export: PEM, DER, bundles, the saved form.
#include "CertSupport.h"

namespace Testing {
namespace {

using CertificateImport = CertTest;

TEST_F(CertificateImport, PemDerAndSavedFormsRoundTrip) {
    TempDir dir;
    for (const std::string name : {"ca.pem", "server.pem", "client.pem", "v1.pem", "noca.pem"}) {
        SCOPED_TRACE(name);
        const std::string pem = CertFixture(name), der = RunShell("openssl x509 -outform DER -in " + CertFixturePath(name));
        // A file-backed buffer has no contiguous bytes: it is read through Read.
        const auto file = Ombrix::Host::FileData::Open(dir.Write(name + ".der", der));
        for (const AutoRefPtr<IVariant>& cert : {Cert(pem), Result(Call("Cryptography.X509FromDER", {Dat(der)})),
                                                 Result(Call("Cryptography.X509FromDER", {Dat(AutoRefPtr<IDataRef>(file))}))}) {
            EXPECT_EQ(ToPEM(cert), pem);
            EXPECT_EQ(ToDER(cert), der);
        }
        const AutoRefPtr<Ombrix::IJSON> saved = Cert(pem)->Serialize(nullptr);
        EXPECT_EQ(nlohmann::json::parse(saved->ToJSONText()), nlohmann::json({{"value", pem}}));
        EXPECT_EQ(ToDER(Obj(engine_.Deserialize("Cryptography.X509", saved->ToJSONText()))), der);
    }
    EXPECT_FALSE(engine_.Deserialize("Cryptography.X509", R"({"value": "nothing"})"));
    EXPECT_FALSE(engine_.Deserialize("Cryptography.X509", R"({"other": 1})"));
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
        EXPECT_EQ(result->GetType(), engine_.FindType("VECTOR<Cryptography.X509>"));
        std::vector<std::string> ders;
        const AutoRefPtr<Ombrix::IVectorGeneric> vector = result->GetVector();
        for (uint64_t i = 0; vector && i < vector->GetSize(); ++i) ders.push_back(ToDER(vector->GetElement(i)));
        EXPECT_EQ(ders, c.ders) << c.name;
    }
}

}  // namespace
}  // namespace Testing
