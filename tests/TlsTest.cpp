// The TLS client routines against real servers on 127.0.0.1.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <nlohmann/json.hpp>

#include "Harness.h"
#include "KeysSupport.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

using nlohmann::json;
using Session = AutoRefPtr<IVariant>;
using Buffer = AutoRefPtr<IDataRef>;

class TlsTest : public ModuleTest {
protected:
    Session NewSession(const json& configuration) {
        const Session parsed(Call("JSON.FromString", {Str(configuration.dump())}).result);
        return Session(Call("Cryptography.CreateSSL", {parsed}).result);
    }
    double State(const Session& s) { return Call("Cryptography.State", {s}).result->GetNumber(); }
    std::string Error(const Session& s) { return ResultString(Call("Cryptography.Error", {s})); }
    bool Connect(const Session& s, int fd) { return Call("Cryptography.Connect", {s, Num(fd)}).result->GetBoolean(); }
    double Read(const Session& s, const Buffer& into, int n) { return Call("Cryptography.Read", {s, Dat(into), Num(n)}).result->GetNumber(); }
    double Write(const Session& s, std::string data, int n) { return Call("Cryptography.Write", {s, Str(data), Num(n)}).result->GetNumber(); }
    void Shutdown(const Session& s) { EXPECT_TRUE(Call("Cryptography.Shutdown", {s}).ok()); }
    // A blocking socket connected to the port on 127.0.0.1.
    Socket Dial(int port) {
        return Socket(static_cast<int>(Call("Net.Connect", {Str("127.0.0.1"), Num(port)}).result->GetNumber()));
    }

    // The session's text for a failed socket write where the running OpenSSL
    // queues the system's error (3.5 does, 3.0 does not: empty): what a plain
    // client of the server gets that writes after its close_notify until the
    // socket reports it. The system's text and number, then the queued entry's.
    std::string QueuedSocketWriteError(int port) {
        const Socket socket = Dial(port);
        const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
        const std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context.get()), &SSL_free);
        SSL_set_fd(ssl.get(), socket.fd);
        EXPECT_EQ(SSL_connect(ssl.get()), 1);
        char sink[16];
        while (SSL_read(ssl.get(), sink, sizeof sink) > 0) {}
        ERR_clear_error();
        for (int i = 0; i < 50 && SSL_write(ssl.get(), "x", 1) > 0; ++i) ::usleep(10000);
        std::string text;
        while (const unsigned long entry = ERR_get_error()) {
            if (ERR_GET_LIB(entry) != ERR_LIB_SYS || !text.empty()) continue;
            const std::string system = std::strerror(ERR_GET_REASON(entry));
            text = system + " (" + std::to_string(ERR_GET_REASON(entry)) + ") " + system + ". ";
        }
        return text;
    }

    // Repeats step while the session waits for the socket (state 2 or 3), waiting on it in between.
    double Retry(const Session& s, int fd, const std::function<double()>& step) {
        double result = step();
        for (int i = 0; i < 50 && result <= 0 && State(s) >= 2; ++i, result = step())
            Call("Net.Wait", {Num(fd), Str(State(s) == 2 ? "r" : "w"), Num(5000)});
        return result;
    }
};

const json kVerifying = {{"CAFile", TlsFile("ca.pem")}, {"Host", "localhost"}};

TEST_F(TlsTest, ConfigurationFailuresGoToStateAndMessage) {
    const std::string missing = "/nonexistent/ombrix-test.pem";
    // The message is exact, or a prefix the OpenSSL reason follows when it ends with ": ".
    const struct { json configuration; double state; std::string message; } cases[] = {
        {json::array(), -1, "Invalid JSON Configuration"},
        {{{"CAFile", missing}}, -1, "Failed to load CA file/directory: "},
        {{{"CAFile", missing}, {"Verify", false}}, 0, ""},  // CA locations are only loaded to verify
        {{{"Key", TlsFile("client.key")}}, -1, "Certificate and private key do not match: "},
        {{{"Cert", missing}}, -1, "Failed to load client certificate: "},
        {{{"Key", missing}}, -1, "Failed to load private key: "},
        {{{"CipherList", "NO-SUCH-CIPHER"}}, -1, "Failed to set cipher list: "},
        {{{"CAFile", TlsFile("ca.pem")}, {"Cert", TlsFile("client.pem")}, {"Key", TlsFile("client.key")},
          {"CipherList", "ECDHE+AESGCM"}, {"Host", "localhost"}}, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.configuration.dump());
        Session session = NewSession(c.configuration);
        EXPECT_EQ(State(session), c.state);
        const std::string message = Error(session);
        EXPECT_TRUE(c.message.ends_with(": ") ? message.starts_with(c.message) && message.size() > c.message.size()
                                              : message == c.message) << message;
        EXPECT_EQ(Error(session), "") << "a message is reported once";
    }
}

// OpenSSL's default CA file is pointed at a copy of the test CA, so a
// configuration without a CA of its own connects only when it loads the
// defaults. Sessions with the default CA locations share one store, which
// follows each change of that file (content, replacement, removal).
TEST_F(TlsTest, HandshakeVerifiesAsConfigured) {
    TlsServer server({.clientCA = TlsFile("ca.pem")}, [](SSL* ssl, int) {
        char subject[256] = {};
        X509_NAME_oneline(X509_get_subject_name(SSL_get0_peer_certificate(ssl)), subject, sizeof subject);
        SSL_write(ssl, subject, static_cast<int>(std::strlen(subject)));
    });
    TempDir dir;
    const std::string trusted = ReadFile(TlsFile("ca.pem")), caFile = dir.Write("bundle.pem", trusted);
    ::setenv("SSL_CERT_FILE", caFile.c_str(), 1);
    ::setenv("SSL_CERT_DIR", dir.path.c_str(), 1);  // holds no hashed certificate names
    const json clientCert = {{"Cert", TlsFile("client.pem")}, {"Key", TlsFile("client.key")}}, otherCA = TlsFile("other-ca.pem");
    const struct { json configuration; bool connects; } cases[] = {
        {kVerifying, true},
        {{{"CAFile", TlsFile("ca.pem")}, {"Host", "www.example.org"}}, false},
        {{{"CAFile", otherCA}}, false},
        {{{"CAFile", otherCA}, {"Verify", false}}, true},
        {json::object(), true},  // the defaults
        {{{"Verify", true}}, false},
        {{{"Verify", true}, {"LoadDefaultCAPaths", true}}, true},
        {{{"CAPath", TlsFile("")}}, false},
        {{{"LoadDefaultCAPaths", false}}, false},
        {{{"Verify", "no"}}, false},  // not a boolean: verification stays on, the defaults off
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.configuration.dump());
        json configuration = c.configuration;
        configuration.update(clientCert);  // the server asks for the client certificate
        Session session = NewSession(configuration);
        Socket socket = Dial(server.port());
        EXPECT_EQ(Connect(session, socket.fd), c.connects);
        EXPECT_EQ(State(session), c.connects ? 1 : -1);
        const std::string message = Error(session);
        EXPECT_TRUE(c.connects ? message.empty() : message.starts_with("SSL_connect failed: ")) << message;
        if (!c.connects) continue;
        Session clone = session->Clone();
        session = nullptr;  // the clone keeps the connection alive on its own
        auto received = Bytes("");
        EXPECT_EQ(Read(clone, received, 1000), 22) << Error(clone);
        EXPECT_EQ(Ombrix::DataBytes(received).view(), "/CN=Ombrix Test Client");
    }
    const std::string other = ReadFile(TlsFile("other-ca.pem"));
    const struct { const char* step; std::optional<std::string> content; bool connects; } steps[] = {
        {"no file", std::nullopt, false}, {"another CA", other, false}, {"both", other + trusted, true},
        {"removed", std::nullopt, false}, {"back", trusted, true},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.step);
        std::filesystem::remove(caFile);
        if (s.content) dir.Write("bundle.pem", *s.content);
        Session session = NewSession(clientCert);
        Socket socket = Dial(server.port());
        EXPECT_EQ(Connect(session, socket.fd), s.connects) << Error(session);
    }
    ::unsetenv("SSL_CERT_FILE");
    ::unsetenv("SSL_CERT_DIR");
}

TEST_F(TlsTest, EndOfStreamShutdownAndStates) {
    // state and whole error text: after the read that meets the end (and returns 0), and after Shutdown.
    // Without close_notify OpenSSL's reason follows the EOF marker; a second read finds the system error
    // cleared (SSL_ERROR_SYSCALL, errno 0).
    const std::string eof = "SSL_read error: SSL_R_UNEXPECTED_EOF_WHILE_READING";
    const std::string reason = ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_UNEXPECTED_EOF_WHILE_READING));
    const struct { bool closeNotify; double state, again; std::string message, after; } cases[] = {
        {true, -2, 0, "SSL_read error: ", "SSL_read error: "},
        {false, -1, -1, eof + reason + ". ", eof},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        TlsServer server({}, [&c](SSL* ssl, int fd) {
            SSL_write(ssl, "bye", 3);
            if (c.closeNotify) return void(SSL_shutdown(ssl));  // and the connection closes
            ::shutdown(fd, SHUT_WR);
            for (char sink[64]; ::read(fd, sink, sizeof sink) > 0;) {}  // until the client closes
        });
        const std::string writeError = c.closeNotify ? QueuedSocketWriteError(server.port()) : "";
        const bool failsWrite = !writeError.empty();
        Socket socket = Dial(server.port());
        Session session = NewSession(kVerifying);
        ASSERT_TRUE(Connect(session, socket.fd)) << Error(session);
        auto received = Bytes("");
        EXPECT_EQ(Write(session, "x", -1), -1);
        EXPECT_EQ(Read(session, received, 0), 0);
        EXPECT_EQ(Read(session, received, -5), -1);
        EXPECT_EQ(Read(session, received, 1), 1);
        EXPECT_EQ(Read(session, received, 100), 2);
        EXPECT_EQ(State(session), 1);
        EXPECT_EQ(Read(session, received, 100), 0);
        EXPECT_EQ(Ombrix::DataBytes(received).view(), "ye") << "a failed read leaves the buffer alone";
        EXPECT_EQ(State(session), c.state);
        EXPECT_EQ(Error(session), c.message);
        EXPECT_EQ(Read(session, received, 100), c.again);
        EXPECT_EQ(Error(session), c.after);
        // Writes to a peer that has gone end once the socket reports it. OpenSSL 3.0 takes the failed
        // write for the end of the session (0, state -2); an OpenSSL that queues the socket's error
        // makes it a failed write with the system's text (-1, state -1).
        if (c.closeNotify) {
            double written = 1;
            for (int i = 0; i < 50 && written > 0; ++i, ::usleep(10000)) written = Write(session, "x", 1);
            EXPECT_EQ(written, failsWrite ? -1 : 0);
            EXPECT_EQ(Error(session), "SSL_write error: " + writeError);
        }
        Shutdown(session);
        EXPECT_EQ(State(session), failsWrite ? -1 : c.state);
    }
}

// The handshake waits for the server (state 2), the writes for the socket to
// drain (state 3); both complete when retried.
TEST_F(TlsTest, NonBlockingHandshakeAndWriteCompleteOnRetry) {
    std::promise<void> answer, drain;
    std::promise<std::string> received;
    ServerOptions options{.receiveBuffer = 4096};
    options.beforeHandshake = [go = answer.get_future().share()](int) { go.wait_for(std::chrono::seconds(10)); };
    TlsServer server(options, [&, drained = drain.get_future().share()](SSL* ssl, int) {
        drained.wait_for(std::chrono::seconds(10));
        std::string all;
        char buffer[4096];
        for (int n; (n = SSL_read(ssl, buffer, sizeof buffer)) > 0;) all.append(buffer, static_cast<size_t>(n));
        received.set_value(all);
    });
    Socket socket = Dial(server.port());
    Session session = NewSession(kVerifying);
    const int sendBuffer = 4096;
    setsockopt(socket.fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    fcntl(socket.fd, F_SETFL, O_NONBLOCK);
    EXPECT_FALSE(Connect(session, socket.fd));
    EXPECT_EQ(State(session), 2);
    EXPECT_EQ(Error(session), "");
    answer.set_value();
    ASSERT_EQ(Retry(session, socket.fd, [&] { return Connect(session, socket.fd); }), 1) << Error(session);

    auto chunk = [](int i) { std::string n = std::to_string(i); return n + std::string(100 - n.size(), 'a' + i % 26); };
    std::string sent;
    double result = 0;
    int index = 0;
    for (; index < 100000 && (result = Write(session, chunk(index), 100)) == 100; ++index) sent += chunk(index);
    ASSERT_LT(result, 0) << "the socket never filled up";
    EXPECT_EQ(State(session), 3);
    EXPECT_EQ(Error(session), "");
    drain.set_value();
    EXPECT_EQ(Retry(session, socket.fd, [&] { return Write(session, chunk(index) + "++++", 104); }), 100)
        << "the retried write keeps the size OpenSSL asked for";
    EXPECT_EQ(State(session), 1);
    EXPECT_EQ(Write(session, "tail", 1000), 4) << "the length is clamped to the data";
    sent += chunk(index) + "tail";
    fcntl(socket.fd, F_SETFL, 0);
    Shutdown(session);
    EXPECT_EQ(State(session), -2);
    std::future<std::string> arrived = received.get_future();
    ASSERT_EQ(arrived.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(arrived.get(), sent);
}

}  // namespace
}  // namespace Testing
