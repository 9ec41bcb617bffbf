// The TLS client routines against real servers on 127.0.0.1.
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <nlohmann/json.hpp>

#include "Harness.h"
#include "Ombrix/Json.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

using nlohmann::json;
using Ombrix::JSON::JSONWrapper;

const std::string kMissing = "/nonexistent/ombrix-test.pem";

class TlsTest : public ModuleTest {
protected:
    AutoRefPtr<IVariant> NewSession(const json& configuration) {
        CallOutcome created = Call("Cryptography.CreateSSL", {Obj(AutoRefPtr<Ombrix::IUserDefinedType>(
                                                                  JSONWrapper::Make(configuration)))});
        EXPECT_TRUE(created.ok());
        return AutoRefPtr<IVariant>(created.result);
    }
    double State(const AutoRefPtr<IVariant>& s) { return Call("Cryptography.State", {s}).result->GetNumber(); }
    std::string Error(const AutoRefPtr<IVariant>& s) { return ResultString(Call("Cryptography.Error", {s})); }
    bool Connect(const AutoRefPtr<IVariant>& s, int fd) {
        return Call("Cryptography.Connect", {s, Num(fd)}).result->GetBoolean();
    }
    double Read(const AutoRefPtr<IVariant>& s, const AutoRefPtr<IDataRef>& into, double size) {
        return Call("Cryptography.Read", {s, Dat(into), Num(size)}).result->GetNumber();
    }
    double Write(const AutoRefPtr<IVariant>& s, const std::string& data, double length) {
        return Call("Cryptography.Write", {s, Str(data), Num(length)}).result->GetNumber();
    }
    void Shutdown(const AutoRefPtr<IVariant>& s) { EXPECT_TRUE(Call("Cryptography.Shutdown", {s}).ok()); }

    // A session connected (blocking) to the server with a CA-verified configuration.
    AutoRefPtr<IVariant> Connected(const TlsServer& server, Socket& socket) {
        AutoRefPtr<IVariant> session = NewSession({{"CAFile", TlsFile("ca.pem")}, {"Host", "localhost"}});
        socket = ConnectTcp(server.port());
        EXPECT_TRUE(Connect(session, socket.fd())) << Error(session);
        return session;
    }
};

std::string DataBytesOf(const AutoRefPtr<IDataRef>& data) {
    std::string bytes(data->GetSize(), '\0');
    bytes.resize(data->Read(bytes.data(), bytes.size(), 0));
    return bytes;
}

bool StartsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

// A directory removed with everything in it at the end of the test.
struct TempDir {
    std::filesystem::path path;
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ombrix-tls-XXXXXX").string();
        path = ::mkdtemp(pattern.data());
    }
    ~TempDir() { std::filesystem::remove_all(path); }
};

// A directory holding the test CA under its subject hash, as CAPath expects.
void HashCA(const std::filesystem::path& dir) {
    FILE* file = std::fopen(TlsFile("ca.pem").c_str(), "r");
    X509* ca = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    char name[32];
    std::snprintf(name, sizeof name, "%08lx.0", X509_subject_name_hash(ca));
    X509_free(ca);
    std::filesystem::copy_file(TlsFile("ca.pem"), dir / name);
}

TEST_F(TlsTest, ConfigurationFailuresGoToStateAndMessage) {
    struct Case {
        const char* name;
        json configuration;
        double state;
        std::string message;  // exact, or a prefix when it ends with ": "
    };
    const Case cases[] = {
        {"array", json::array(), -1, "Invalid JSON Configuration"},
        {"number", 42, -1, "Invalid JSON Configuration"},
        {"missing CA file", {{"CAFile", kMissing}}, -1, "Failed to load CA file/directory: "},
        {"missing CA file unused without verification", {{"CAFile", kMissing}, {"Verify", false}}, 0, ""},
        {"key without certificate", {{"Key", TlsFile("client.key")}}, -1, "Certificate and private key do not match: "},
        {"key of another type", {{"Cert", TlsFile("client.pem")}, {"Key", TlsFile("stray-rsa.key")}}, -1,
         "Certificate and private key do not match: "},
        {"foreign key of the same type", {{"Cert", TlsFile("client.pem")}, {"Key", TlsFile("stray-ec.key")}}, -1,
         "Failed to load private key: "},
        {"missing client certificate", {{"Cert", kMissing}}, -1, "Failed to load client certificate: "},
        {"missing key", {{"Key", kMissing}}, -1, "Failed to load private key: "},
        {"unknown cipher list", {{"CipherList", "NO-SUCH-CIPHER"}}, -1, "Failed to set cipher list: "},
        {"complete", {{"CAFile", TlsFile("ca.pem")}, {"Cert", TlsFile("client.pem")}, {"Key", TlsFile("client.key")},
                      {"CipherList", "ECDHE+AESGCM"}, {"Host", "localhost"}}, 0, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        AutoRefPtr<IVariant> session = NewSession(c.configuration);
        EXPECT_EQ(State(session), c.state);
        const std::string message = Error(session);
        if (c.message.size() > 2 && c.message.substr(c.message.size() - 2) == ": ") {
            EXPECT_TRUE(StartsWith(message, c.message)) << message;
            EXPECT_GT(message.size(), c.message.size()) << "the OpenSSL reason is appended";
        } else {
            EXPECT_EQ(message, c.message);
        }
        EXPECT_EQ(Error(session), "") << "a message is reported once";
    }
}

TEST_F(TlsTest, HandshakeVerifiesAsConfigured) {
    TempDir hashed;
    HashCA(hashed.path);
    TlsServer server({}, [](SSL*, int) {});
    ASSERT_TRUE(server.ok());
    struct Case {
        const char* name;
        json configuration;
        bool connects;
    };
    const std::string ca = TlsFile("ca.pem"), otherCA = TlsFile("other-ca.pem");
    const Case cases[] = {
        {"trusted CA and matching host", {{"CAFile", ca}, {"Host", "localhost"}}, true},
        {"trusted CA directory", {{"CAPath", hashed.path.string()}, {"Host", "localhost"}}, true},
        {"host mismatch", {{"CAFile", ca}, {"Host", "www.example.org"}}, false},
        {"untrusted CA", {{"CAFile", otherCA}}, false},
        {"untrusted CA without verification", {{"CAFile", otherCA}, {"Verify", false}}, true},
        {"host mismatch without verification", {{"CAFile", ca}, {"Host", "www.example.org"}, {"Verify", false}}, true},
        {"default CA locations only", json::object(), false},
        {"verification without any CA", {{"Verify", true}}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        AutoRefPtr<IVariant> session = NewSession(c.configuration);
        Socket socket = ConnectTcp(server.port());
        EXPECT_EQ(Connect(session, socket.fd()), c.connects);
        EXPECT_EQ(State(session), c.connects ? 1 : -1);
        const std::string message = Error(session);
        if (c.connects)
            EXPECT_EQ(message, "");
        else
            EXPECT_TRUE(StartsWith(message, "SSL_connect failed: ")) << message;
    }
}

// Which CA locations a configuration trusts: OpenSSL's default file is pointed
// at the test CA, so only configurations that load the defaults connect.
TEST_F(TlsTest, DefaultCALocationsFollowTheVerifyRule) {
    TempDir empty;
    ::setenv("SSL_CERT_FILE", TlsFile("ca.pem").c_str(), 1);
    ::setenv("SSL_CERT_DIR", empty.path.c_str(), 1);
    TlsServer server({}, [](SSL*, int) {});
    ASSERT_TRUE(server.ok());
    struct Case {
        const char* name;
        json configuration;
        bool connects;
    };
    const Case cases[] = {
        {"empty configuration loads the defaults", json::object(), true},
        {"host alone loads the defaults", {{"Host", "localhost"}}, true},
        {"explicit Verify keeps them off", {{"Verify", true}}, false},
        {"explicit Verify and defaults", {{"Verify", true}, {"LoadDefaultCAPaths", true}}, true},
        {"a CA directory replaces them", {{"CAPath", empty.path.string()}}, false},
        {"defaults switched off", {{"LoadDefaultCAPaths", false}}, false},
        {"a Verify that is no boolean keeps verification on", {{"Verify", "no"}}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        AutoRefPtr<IVariant> session = NewSession(c.configuration);
        Socket socket = ConnectTcp(server.port());
        EXPECT_EQ(Connect(session, socket.fd()), c.connects) << Error(session);
    }
    ::unsetenv("SSL_CERT_FILE");
    ::unsetenv("SSL_CERT_DIR");
}

TEST_F(TlsTest, ClientCertificateIsPresentedAndClonesShareTheSession) {
    ServerOptions options;
    options.clientCA = TlsFile("ca.pem");
    TlsServer server(options, [](SSL* ssl, int) {
        char subject[256] = {};
        X509_NAME_oneline(X509_get_subject_name(SSL_get0_peer_certificate(ssl)), subject, sizeof subject);
        SSL_write(ssl, subject, static_cast<int>(std::strlen(subject)));
        ReadAll(ssl);
    });
    ASSERT_TRUE(server.ok());
    AutoRefPtr<IVariant> session = NewSession(
        {{"CAFile", TlsFile("ca.pem")}, {"Cert", TlsFile("client.pem")}, {"Key", TlsFile("client.key")}});
    Socket socket = ConnectTcp(server.port());
    ASSERT_TRUE(Connect(session, socket.fd())) << Error(session);
    // A clone drives the same connection and keeps it alive on its own.
    AutoRefPtr<IVariant> clone = session->Clone();
    session = nullptr;
    auto received = Bytes("");
    ASSERT_GT(Read(clone, received, 1000), 0) << Error(clone);
    EXPECT_EQ(DataBytesOf(received), "/CN=Ombrix Test Client");
    Shutdown(clone);
    EXPECT_EQ(State(clone), -2);
}

TEST_F(TlsTest, ConnectFailuresWithoutHandshake) {
    AutoRefPtr<IVariant> configured = NewSession({{"Verify", false}});
    EXPECT_FALSE(Connect(configured, -1));
    EXPECT_EQ(State(configured), -1);
    EXPECT_TRUE(StartsWith(Error(configured), "Failed to set SSL FD")) << "negative socket";

    AutoRefPtr<IVariant> unconfigured = NewSession(json::array());
    Error(unconfigured);
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    Socket a(pair[0]), b(pair[1]);
    EXPECT_FALSE(Connect(unconfigured, a.fd())) << "a session without SSL";
    EXPECT_EQ(State(unconfigured), -1);

    // An unconnected session refuses to shut down and says why.
    AutoRefPtr<IVariant> fresh = NewSession({{"Verify", false}});
    Shutdown(fresh);
    EXPECT_EQ(State(fresh), -1);
    EXPECT_NE(Error(fresh), "");
}

TEST_F(TlsTest, EndOfStreamWithAndWithoutCloseNotify) {
    struct Case {
        const char* name;
        bool closeNotify;
        double lastResult;  // upper bound for the failing case
        double state;
        std::string messagePrefix;
        double stateAfterShutdown;
    };
    const Case cases[] = {
        {"close_notify", true, 0, -2, "SSL_read error: ", -2},
        {"abrupt close", false, 0, -1, "SSL_read error: SSL_R_UNEXPECTED_EOF_WHILE_READING", -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TlsServer server({}, [&c](SSL* ssl, int fd) {
            SSL_write(ssl, "bye", 3);
            if (c.closeNotify) SSL_shutdown(ssl);
            ::shutdown(fd, SHUT_WR);
            char sink[4096];
            while (::read(fd, sink, sizeof sink) > 0) {
            }
        });
        ASSERT_TRUE(server.ok());
        Socket socket;
        AutoRefPtr<IVariant> session = Connected(server, socket);
        auto received = Bytes("");
        EXPECT_EQ(Read(session, received, 0), 0);
        EXPECT_EQ(Read(session, received, -5), -1);
        EXPECT_EQ(Read(session, received, 100), 3);
        EXPECT_EQ(DataBytesOf(received), "bye");
        EXPECT_EQ(State(session), 1);
        const double last = Read(session, received, 100);
        if (c.closeNotify)
            EXPECT_EQ(last, 0);
        else
            EXPECT_LE(last, c.lastResult);
        EXPECT_EQ(DataBytesOf(received), "bye") << "a failed read leaves the buffer alone";
        EXPECT_EQ(State(session), c.state);
        const std::string message = Error(session);
        EXPECT_TRUE(StartsWith(message, c.messagePrefix)) << message;
        if (c.closeNotify) {
            EXPECT_EQ(message, c.messagePrefix);
        }
        Shutdown(session);
        EXPECT_EQ(State(session), c.stateAfterShutdown);
        socket.Close();
    }
}

TEST_F(TlsTest, NonBlockingHandshakeAndReadAskToWaitThenComplete) {
    std::promise<void> send, answer;
    std::shared_future<void> sendSignal = send.get_future().share();
    std::shared_future<void> answerSignal = answer.get_future().share();
    ServerOptions options;
    options.beforeHandshake = [answerSignal] { answerSignal.wait_for(std::chrono::seconds(10)); };
    TlsServer server(options, [sendSignal](SSL* ssl, int) {
        if (sendSignal.wait_for(std::chrono::seconds(10)) != std::future_status::ready) return;
        SSL_write(ssl, "late data", 9);
        ReadAll(ssl);
    });
    ASSERT_TRUE(server.ok());
    AutoRefPtr<IVariant> session = NewSession({{"CAFile", TlsFile("ca.pem")}, {"Host", "localhost"}});
    Socket socket = ConnectTcp(server.port(), true);

    EXPECT_FALSE(Connect(session, socket.fd()));
    EXPECT_EQ(State(session), 2);
    EXPECT_EQ(Error(session), "");
    answer.set_value();
    int attempts = 0;
    while (!Connect(session, socket.fd()) && State(session) == 2 && ++attempts < 20) WaitFor(socket.fd(), POLLIN);
    ASSERT_EQ(State(session), 1) << Error(session);

    auto received = Bytes("unchanged");
    EXPECT_LT(Read(session, received, 100), 0);
    EXPECT_EQ(State(session), 2);
    EXPECT_EQ(Error(session), "");
    EXPECT_EQ(DataBytesOf(received), "unchanged");

    send.set_value();
    double got = -1;
    for (attempts = 0; attempts < 20 && (got = Read(session, received, 100)) < 0 && State(session) == 2; ++attempts)
        WaitFor(socket.fd(), POLLIN);
    EXPECT_EQ(got, 9);
    EXPECT_EQ(DataBytesOf(received), "late data");
    SetNonBlocking(socket.fd(), false);
    Shutdown(session);
    EXPECT_EQ(State(session), -2);
}

TEST_F(TlsTest, WriteRetriedAfterWantWriteKeepsThePendingLength) {
    std::promise<void> drain;
    std::shared_future<void> drainSignal = drain.get_future().share();
    std::promise<std::string> receivedPromise;
    ServerOptions options;
    options.receiveBuffer = 4096;
    TlsServer server(options, [&](SSL* ssl, int) {
        drainSignal.wait_for(std::chrono::seconds(10));
        receivedPromise.set_value(ReadAll(ssl));
    });
    ASSERT_TRUE(server.ok());
    Socket socket;
    AutoRefPtr<IVariant> session = Connected(server, socket);
    const int sendBuffer = 4096;
    setsockopt(socket.fd(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    SetNonBlocking(socket.fd(), true);

    auto chunk = [](int index) {
        std::string text = "chunk " + std::to_string(index) + " ";
        text.resize(100, static_cast<char>('a' + index % 26));
        return text;
    };
    std::string sent;
    double result = 0;
    int index = 0;
    for (; index < 100000; ++index) {
        result = Write(session, chunk(index), 100);
        if (result < 0) break;
        ASSERT_EQ(result, 100);
        sent += chunk(index);
    }
    ASSERT_LT(result, 0) << "the socket never filled up";
    EXPECT_EQ(State(session), 3);
    EXPECT_EQ(Error(session), "");

    drain.set_value();
    const std::string retry = chunk(index) + std::string(50, '+');
    for (int attempts = 0; attempts < 50; ++attempts) {
        WaitFor(socket.fd(), POLLOUT);
        if ((result = Write(session, retry, 150)) >= 0 || State(session) != 3) break;
    }
    EXPECT_EQ(result, 100) << "the retried write keeps the size OpenSSL asked for";
    EXPECT_EQ(State(session), 1);
    sent += chunk(index);
    EXPECT_EQ(Write(session, "tail", 1000), 4) << "the length is clamped to the data";
    sent += "tail";

    SetNonBlocking(socket.fd(), false);
    Shutdown(session);
    std::future<std::string> received = receivedPromise.get_future();
    ASSERT_EQ(received.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(received.get(), sent);
}

}  // namespace
}  // namespace Testing
