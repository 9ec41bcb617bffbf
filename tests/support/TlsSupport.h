// Real TLS peers on 127.0.0.1 for the TLS client and certificate fetch tests:
// a libssl server thread, raw sockets, and the fixtures of tests/data/tls.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace Testing {

// A fixture file of tests/data/tls.
std::string TlsFile(const std::string& name);

// Owns a descriptor; closes it on destruction.
class Socket {
public:
    Socket() = default;
    explicit Socket(int fd) : fd_(fd) {}
    Socket(Socket&& other) noexcept : fd_(other.Release()) {}
    Socket& operator=(Socket&& other) noexcept;
    ~Socket() { Close(); }

    int fd() const { return fd_; }
    int Release() { const int fd = fd_; fd_ = -1; return fd; }
    void Close();

private:
    int fd_ = -1;
};

// A TCP connection to 127.0.0.1:port (blocking unless asked otherwise).
Socket ConnectTcp(int port, bool nonBlocking = false);
// A socket listening on 127.0.0.1 on a free port that never accepts.
Socket ListenTcp(int* port, int port0 = 0);
// A port on 127.0.0.1 with nothing listening.
int ClosedPort();
void SetNonBlocking(int fd, bool nonBlocking);
// Waits until fd is readable (events POLLIN) or writable (POLLOUT); false on timeout.
bool WaitFor(int fd, short events, int milliseconds = 5000);

struct ServerOptions {
    std::string cert = TlsFile("server.pem");
    std::string key = TlsFile("server.key");
    // Server name -> certificate base name ("alpha" serves alpha.pem/alpha.key).
    std::map<std::string, std::string> byServerName;
    // When set, a client certificate issued by this CA is required.
    std::string clientCA;
    // Receive buffer of accepted connections (0: the system's).
    int receiveBuffer = 0;
    // Listen on this port (0: any free one).
    int port = 0;
    // Runs on the server thread after accepting, before the handshake.
    std::function<void()> beforeHandshake;
};

// Serves TLS on 127.0.0.1, one connection at a time. Each accepted and
// handshaken connection is handed to the session function on the server
// thread; the connection is closed when it returns. Destruction stops the
// thread and closes every socket.
class TlsServer {
public:
    using Session = std::function<void(SSL* ssl, int fd)>;

    TlsServer(ServerOptions options, Session session);
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    // False when the listening socket could not be set up (for example a port in use).
    bool ok() const { return listener_.fd() >= 0; }
    int port() const { return port_; }
    // The server name the last client sent ("" when none).
    std::string LastServerName() const;
    int Handshakes() const { return handshakes_.load(); }

private:
    void Run();
    static int SelectByName(SSL* ssl, int* alert, void* self);

    ServerOptions options_;
    Session session_;
    SSL_CTX* context_ = nullptr;
    std::map<std::string, SSL_CTX*> named_;
    Socket listener_;
    Socket stopRead_;
    Socket stopWrite_;
    int port_ = 0;
    std::atomic<int> handshakes_{0};
    mutable std::mutex mutex_;
    std::string lastServerName_;
    std::thread thread_;
};

// Session helpers for the server side.
// Reads until the peer closes; returns everything read.
std::string ReadAll(SSL* ssl);

}  // namespace Testing
