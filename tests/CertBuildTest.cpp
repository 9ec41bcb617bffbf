// Certificate building: a CA and a leaf it signs, checked by openssl verify,
// and the effect of each building step.
#include <ctime>
#include <functional>

#include "CertSupport.h"

namespace Testing {
namespace {

using Ombrix::Host::Variant;

class CertBuild : public CertTest {
public:
    // Version 3, names, a year of validity from a minute ago, the key.
    AutoRefPtr<IVariant> Draft(const std::vector<std::pair<std::string, std::string>>& subject,
                               const std::vector<std::pair<std::string, std::string>>& issuer,
                               const AutoRefPtr<IVariant>& key, double serial) {
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
    void Extend(const AutoRefPtr<IVariant>& cert, const std::string& name, const std::string& value) {
        Do("Cryptography.AddExtension", {cert, Str(name), Str(value)});
    }
    nlohmann::json Describe(const AutoRefPtr<IVariant>& cert) {
        return JsonResult(Call("Cryptography.PEMToJson", {Str(ToPEM(cert))}));
    }
    // Signs a self-issued draft with the CA fixture key and describes it.
    nlohmann::json SignAndDescribe(const AutoRefPtr<IVariant>& cert) {
        Do("Cryptography.Sign", {cert, KeyFile("ca.key")});
        return Describe(cert);
    }
};

const std::vector<std::pair<std::string, std::string>> kRootName = {{"O", "Ombrix Build"}, {"CN", "Built Root"}};

TEST_F(CertBuild, CaAndLeafItSignsPassOpenSSLVerify) {
    AutoRefPtr<IVariant> caKey = KeyFile("ca.key"), leafKey = KeyFile("server.key");
    AutoRefPtr<IVariant> ca = Draft(kRootName, kRootName, caKey, 4294967297.0);
    Extend(ca, "basicConstraints", "critical,CA:TRUE");
    Extend(ca, "keyUsage", "critical,keyCertSign,cRLSign");
    Extend(ca, "subjectKeyIdentifier", "hash");
    Do("Cryptography.Sign", {ca, caKey});

    AutoRefPtr<IVariant> leaf = Draft({{"CN", "leaf.test"}}, kRootName, leafKey, 2);
    Extend(leaf, "basicConstraints", "CA:FALSE");
    Extend(leaf, "extendedKeyUsage", "serverAuth");
    Extend(leaf, "subjectAltName", "DNS:leaf.test");
    Do("Cryptography.Sign", {leaf, caKey});

    TempDir dir;
    const std::string caFile = dir.Write("ca.pem", ToPEM(ca)), leafFile = dir.Write("leaf.pem", ToPEM(leaf));
    const ShellResult verified = RunShell("openssl verify -CAfile " + caFile + " " + caFile + " " + leafFile + " 2>&1");
    EXPECT_EQ(verified.status, 0) << verified.output;
    EXPECT_EQ(verified.output, caFile + ": OK\n" + leafFile + ": OK\n");

    EXPECT_TRUE(Boolean("Cryptography.HasIssued", {ca, leaf}));
    EXPECT_TRUE(Boolean("Cryptography.HasIssued", {ca, ca}));
    EXPECT_FALSE(Boolean("Cryptography.HasIssued", {leaf, leaf}));
    EXPECT_TRUE(Boolean("Cryptography.ValidateKey", {leaf, leafKey}));
    const double lifetime =
        Number("Cryptography.GetValidNotAfter", {ca}) - Number("Cryptography.GetValidNotBefore", {ca});
    EXPECT_NEAR(lifetime, 31536060, 1);

    const nlohmann::json described = Describe(ca);
    EXPECT_EQ(described["serial"], "01");  // 2^32 + 1 keeps its low 32 bits
    EXPECT_EQ(described["version"], 3);
    EXPECT_EQ(described["subject"], nlohmann::json({{"organizationName", "Ombrix Build"}, {"commonName", "Built Root"}}));
    EXPECT_EQ(described["issuer"], described["subject"]);
    EXPECT_EQ(described["signatureAlgorithm"], "sha256WithRSAEncryption");
    EXPECT_EQ(described["extension"].size(), 3u);
}

TEST_F(CertBuild, SelfSignedIsItsOwnIssuerOnlyAsCaAndWithASigningKey) {
    struct Case {
        const char* signingKey;
        bool basicConstraints;
        bool expected;
    };
    const Case cases[] = {
        {"ca.key", true, true},
        {"ca.key", false, false},
        {"client.key", true, false},  // signed by a key other than the certified one
        {"x25519.key", true, false},  // cannot sign: stays unsigned
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.signingKey);
        AutoRefPtr<IVariant> cert = Draft({{"CN", "self"}}, {{"CN", "self"}}, KeyFile("ca.key"), 1);
        if (c.basicConstraints) Extend(cert, "basicConstraints", "critical,CA:TRUE");
        Do("Cryptography.Sign", {cert, KeyFile(c.signingKey)});
        EXPECT_EQ(Boolean("Cryptography.HasIssued", {cert, cert}), c.expected);
    }
}

TEST_F(CertBuild, NumbersKeepTheirLow32Bits) {
    const std::pair<double, const char*> serials[] = {
        {4294967297.0, "01"}, {255, "FF"}, {3.9, "03"}, {-3.9, "-03"}, {-1, "-01"}, {2147483648.0, "-80000000"}};
    for (const auto& [serial, expected] : serials) {
        SCOPED_TRACE(serial);
        EXPECT_EQ(SignAndDescribe(Draft({{"CN", "s"}}, {{"CN", "s"}}, KeyFile("ca.key"), serial))["serial"], expected);
    }
    const std::pair<double, int> versions[] = {{0, 1}, {2, 3}, {4294967296.0 + 2, 3}};
    for (const auto& [version, expected] : versions) {
        SCOPED_TRACE(version);
        AutoRefPtr<IVariant> cert = Draft({{"CN", "v"}}, {{"CN", "v"}}, KeyFile("ca.key"), 1);
        Do("Cryptography.SetVersion", {cert, Num(version)});
        EXPECT_EQ(SignAndDescribe(cert)["version"], expected);
    }
}

TEST_F(CertBuild, ValidityIsSetRelativeToNow) {
    const std::pair<double, double> offsets[] = {{86400, 86400}, {0, 0}, {-86400, -86400}, {4294967296.0 + 10, 10}};
    AutoRefPtr<IVariant> cert = NewCert();
    for (const auto& [offset, effective] : offsets) {
        SCOPED_TRACE(offset);
        const double now = static_cast<double>(std::time(nullptr));
        Do("Cryptography.AdjustNotAfter", {cert, Num(offset)});
        Do("Cryptography.AdjustNotBefore", {cert, Num(offset)});
        EXPECT_NEAR(Number("Cryptography.GetValidNotAfter", {cert}), now + effective, 2);
        EXPECT_NEAR(Number("Cryptography.GetValidNotBefore", {cert}), now + effective, 2);
    }
}

TEST_F(CertBuild, NameEntriesAppendInOrderAndUnknownFieldsAreIgnored) {
    AutoRefPtr<IVariant> cert = Draft({{"CN", "a"}, {"OU", "x"}, {"noSuchField", "z"}, {"OU", "y"}, {"2.5.4.10", "dotted"},
                                       {"organizationName", "long"}},
                                      {{"C", "DE"}, {"C", "toolong"}}, KeyFile("ca.key"), 1);
    SignAndDescribe(cert);
    TempDir dir;
    const std::string file = dir.Write("cert.pem", ToPEM(cert));
    const ShellResult names = RunShell("openssl x509 -noout -subject -issuer -nameopt RFC2253 -in " + file);
    // RFC 2253 lists the entries last first; "C" takes two letters only.
    EXPECT_EQ(names.output, "subject=O=long,O=dotted,OU=y,OU=x,CN=a\nissuer=C=DE\n");
}

TEST_F(CertBuild, ExtensionsThatCannotBeBuiltAreSkipped) {
    AutoRefPtr<IVariant> cert = Draft({{"CN", "e"}}, {{"CN", "e"}}, KeyFile("ca.key"), 1);
    Extend(cert, "noSuchExtension", "value");
    Extend(cert, "basicConstraints", "CA:MAYBE");
    Extend(cert, "", "");
    EXPECT_FALSE(SignAndDescribe(cert).contains("extension"));

    // Key identifiers come from the certificate's own key.
    Extend(cert, "subjectKeyIdentifier", "hash");
    Extend(cert, "authorityKeyIdentifier", "keyid:always");
    Extend(cert, "1.3.6.1.5.5.7.1.24", "DER:30:03:02:01:05");  // tlsfeature by number
    const nlohmann::json extensions = SignAndDescribe(cert)["extension"];
    ASSERT_EQ(extensions.size(), 3u);
    EXPECT_EQ(extensions[0]["name"], "X509v3 Subject Key Identifier");
    EXPECT_EQ(extensions[1]["value"], extensions[0]["value"]);
    EXPECT_EQ(extensions[2]["name"], "TLS Feature");
}

TEST_F(CertBuild, StepsCreateTheCertificateLazilyAndClonesShareIt) {
    AutoRefPtr<IVariant> cert = NewCert();
    AutoRefPtr<IVariant> emptyKey = Obj(engine_.NewValue("Cryptography.Key"));
    EXPECT_FALSE(Boolean("Cryptography.IsValid", {cert}));
    Do("Cryptography.SetKey", {cert, emptyKey});  // no key: only the certificate comes into being
    Do("Cryptography.Sign", {cert, emptyKey});
    EXPECT_TRUE(Boolean("Cryptography.IsValid", {cert}));

    // A bare certificate (no times, no key, no signature) is inspected without harm.
    EXPECT_EQ(ToPEM(cert), "");
    EXPECT_EQ(ToDER(cert), "");
    EXPECT_EQ(Number("Cryptography.GetValidNotBefore", {cert}), -1);
    EXPECT_EQ(Number("Cryptography.GetValidNotAfter", {cert}), -1);
    EXPECT_FALSE(Boolean("Cryptography.HasIssued", {cert, cert}));
    EXPECT_FALSE(Boolean("Cryptography.ValidateKey", {cert, KeyFile("ca.key")}));
    EXPECT_TRUE(Call("Cryptography.GetPurpose", {cert}).ok());
    EXPECT_TRUE(Call("Cryptography.GetPublicKeyFromCert", {cert}).ok());
    ExpectError(Call("Cryptography.GetDigestFromCert", {Str("SHA256"), cert}), "Error.Ombrix.FunctionError",
                "Digest couldn't be created.");

    AutoRefPtr<IVariant> clone = cert->Clone();
    Do("Cryptography.SetSerialNumber", {clone, Num(77)});
    Do("Cryptography.AdjustNotBefore", {clone, Num(0)});
    Do("Cryptography.AdjustNotAfter", {clone, Num(60)});
    Do("Cryptography.SetKey", {clone, KeyFile("ca.key")});
    Do("Cryptography.Sign", {clone, KeyFile("ca.key")});
    EXPECT_EQ(Describe(cert)["serial"], "4D");
}

}  // namespace
}  // namespace Testing
