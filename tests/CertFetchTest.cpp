// X509FetchFromServer against servers on 127.0.0.1: what it returns, which
// server name it sends, and how it ends when nobody answers.
#include <chrono>

#include "Harness.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

class CertFetchTest : public ModuleTest {
protected:
    // The PEM text of the certificate fetched ("" for an empty certificate).
    std::string Fetch(const std::string& host, int port, int* resumptions = nullptr) {
        const CallOutcome outcome = Call("Cryptography.X509FetchFromServer", {Str(host), Num(port)});
        EXPECT_TRUE(outcome.ok()) << "no error is raised";
        if (resumptions) *resumptions = outcome.resumptions;
        std::string pem;
        AutoRefPtr<Ombrix::IJSON> saved = outcome.result->Serialize(nullptr);
        EXPECT_TRUE(saved && saved->GetMemberString("value", pem)) << "not a certificate value";
        return pem;
    }
};

TEST_F(CertFetchTest, ReturnsTheCertificateTheServerPresents) {
    const struct { std::string serverCert, host, expected; } cases[] = {  // certificate base names
        {"self", "127.0.0.1", "self"},       // self-signed: nothing is verified
        {"server", "localhost", "alpha"},    // chosen by the server name sent
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host);
        ServerOptions options;
        options.cert = c.serverCert;
        options.byServerName = {{"localhost", "alpha"}};
        TlsServer server(options, [](SSL*, int) {});
        int resumptions = 0;
        EXPECT_EQ(Fetch(c.host, server.port(), &resumptions), ReadFile(TlsFile(c.expected + ".pem")));
        EXPECT_EQ(server.LastServerName(), c.host);
        EXPECT_GT(resumptions, 0) << "the call suspends while it waits for the server";
    }
}

TEST_F(CertFetchTest, NoServerGivesAnEmptyCertificate) {
    int closedPort = 0, silentPort = 0;
    ListenTcp(&closedPort);                  // closed again at once
    Socket silent = ListenTcp(&silentPort);  // accepts in the kernel, never answers
    // The silent server costs one 5 s wait for the handshake, no more.
    for (const auto& [port, maxSeconds] : {std::pair{closedPort, 2.0}, std::pair{silentPort, 8.0}}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Fetch("127.0.0.1", port), "") << port;
        EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), maxSeconds) << port;
    }
}

}  // namespace
}  // namespace Testing
