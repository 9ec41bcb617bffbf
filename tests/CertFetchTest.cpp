// X509FetchFromServer against servers on 127.0.0.1: what it returns, which
// server name it sends, and how it ends when nobody answers.
#include <chrono>

#include "Harness.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

class CertFetchTest : public ModuleTest {
protected:
    CallOutcome Fetch(const std::string& host, double port) {
        return Call("Cryptography.X509FetchFromServer", {Str(host), Num(port)});
    }
};

// The PEM text of a certificate result ("" for an empty certificate).
std::string PemOf(const CallOutcome& outcome) {
    AutoRefPtr<Ombrix::IJSON> saved = outcome.result->Serialize(nullptr);
    std::string pem;
    EXPECT_TRUE(saved && saved->GetMemberString("value", pem)) << "not a certificate value";
    return pem;
}

TEST_F(CertFetchTest, ReturnsTheCertificateTheServerPresents) {
    struct Case {
        const char* name;
        std::string serverCert;                       // base name of the default certificate
        std::map<std::string, std::string> byName;    // server name -> base name
        std::string host;
        std::string expected;                         // base name of the certificate returned
    };
    const Case cases[] = {
        {"self-signed, unverified", "self", {}, "127.0.0.1", "self"},
        {"chosen by server name", "server", {{"localhost", "alpha"}, {"127.0.0.1", "beta"}}, "localhost", "alpha"},
        {"chosen by another server name", "server", {{"localhost", "alpha"}, {"127.0.0.1", "beta"}}, "127.0.0.1",
         "beta"},
        {"unknown server name gets the default", "server", {{"alpha.test", "alpha"}}, "localhost", "server"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ServerOptions options;
        options.cert = TlsFile(c.serverCert + ".pem");
        options.key = TlsFile(c.serverCert + ".key");
        options.byServerName = c.byName;
        TlsServer server(options, [](SSL*, int) {});
        ASSERT_TRUE(server.ok());
        const CallOutcome outcome = Fetch(c.host, server.port());
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(PemOf(outcome), ReadFile(TlsFile(c.expected + ".pem")));
        EXPECT_EQ(server.LastServerName(), c.host);
        EXPECT_GT(outcome.resumptions, 0) << "the call suspends while it waits for the server";
    }
}

TEST_F(CertFetchTest, PortZeroMeansHttpsPort) {
    ServerOptions options;
    options.port = 443;
    TlsServer server(options, [](SSL*, int) {});
    if (!server.ok()) GTEST_SKIP() << "port 443 is not available here";
    const CallOutcome outcome = Fetch("127.0.0.1", 0);
    EXPECT_EQ(PemOf(outcome), ReadFile(TlsFile("server.pem")));
}

TEST_F(CertFetchTest, NoServerGivesAnEmptyCertificate) {
    int silentPort = 0;
    Socket silent = ListenTcp(&silentPort);  // accepts connections in the kernel, never answers
    ASSERT_GE(silent.fd(), 0);
    struct Case {
        const char* name;
        std::string host;
        int port;
        double maxSeconds;
    };
    const Case cases[] = {
        {"closed port", "127.0.0.1", ClosedPort(), 2},
        {"server that never answers", "127.0.0.1", silentPort, 12},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto start = std::chrono::steady_clock::now();
        const CallOutcome outcome = Fetch(c.host, c.port);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(outcome.ok()) << "no error is raised";
        EXPECT_EQ(PemOf(outcome), "");
        EXPECT_LT(took.count(), c.maxSeconds);
    }
}

}  // namespace
}  // namespace Testing
