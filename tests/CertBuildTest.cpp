// Certificate building: a CA and a leaf it signs (openssl verify), and the tricky steps.
#include <ctime>

#include "CertSupport.h"

namespace Testing {
namespace {

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

    const nlohmann::json described = Describe(ca);
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
    const auto purposes = [&](const AutoRefPtr<IVariant>& cert) {
        std::string joined;
        const AutoRefPtr<Ombrix::IVectorGeneric> vector = Result(Call("Cryptography.GetPurpose", {cert}))->GetVector();
        for (uint64_t i = 0; vector && i < vector->GetSize(); ++i) joined += std::string(vector->GetElement(i)->GetString()) + " ";
        return joined;
    };
    const auto state = [&](const AutoRefPtr<IVariant>& cert) {
        return purposes(cert) + (Boolean("Cryptography.HasIssued", {cert, cert}) ? "issued" : "not issued");
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
