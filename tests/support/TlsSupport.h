// TLS peers on loopback addresses (a libssl server thread, raw sockets) and tests/data/tls.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace Testing {

inline std::string TlsFile(const std::string& name) { return std::string(TEST_DATA_DIR) + "/tls/" + name; }

// Owns a descriptor; closes it on destruction.
struct Socket {
    int fd = -1;
    explicit Socket(int f = -1) : fd(f) {}
    Socket(Socket&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    ~Socket() { if (fd >= 0) ::close(fd); }
};

// Listens on a loopback address, on a free port or the one wanted (stored in
// *port; reused however recently closed), and never accepts; fd -1 on failure.
inline Socket ListenTcp(int* port, const char* host = "127.0.0.1", int wanted = 0) {
    addrinfo* found = nullptr;
    if (::getaddrinfo(host, std::to_string(wanted).c_str(), nullptr, &found) != 0) return Socket();
    Socket socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    socklen_t length = found->ai_addrlen;
    const int reuse = 1;
    const bool listening = socket.fd >= 0 && !::setsockopt(socket.fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) &&
                           !::bind(socket.fd, found->ai_addr, length) && !::listen(socket.fd, 8) &&
                           !::getsockname(socket.fd, found->ai_addr, &length);
    if (listening) *port = ntohs(reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_port);  // same place in sockaddr_in6
    ::freeaddrinfo(found);
    return listening ? std::move(socket) : Socket();
}

struct ServerOptions {
    std::string host = "127.0.0.1";                 // the loopback address listened on
    int port = 0;                                   // 0: a free one
    std::string cert = "server";                    // base name: server.pem and server.key
    int delayMs = 0;                                // waits this long before it answers each handshake
    std::string clientCA = "";                      // when set, a client certificate is required
    int receiveBuffer = 0;                          // of accepted connections (0: the system's)
    std::function<void(int fd)> beforeHandshake{};  // runs on the server thread after accept
};

// Serves TLS one connection at a time, handing each handshaken connection to
// the session function, if any, on the server thread; destruction stops it.
class TlsServer {
public:
    explicit TlsServer(ServerOptions options, std::function<void(SSL* ssl, int fd)> session = {})
        : options_(std::move(options)), session_(std::move(session)) {
        if (SSL_CTX_use_certificate_chain_file(context_.get(), TlsFile(options_.cert + ".pem").c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(context_.get(), TlsFile(options_.cert + ".key").c_str(), SSL_FILETYPE_PEM) != 1)
            throw std::runtime_error("test server cannot load " + options_.cert);
        SSL_CTX_set_tlsext_servername_callback(context_.get(), &TlsServer::RecordName);
        SSL_CTX_set_tlsext_servername_arg(context_.get(), this);
        if (!options_.clientCA.empty()) {
            SSL_CTX_load_verify_locations(context_.get(), options_.clientCA.c_str(), nullptr);
            SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        }
        if (listener_.fd < 0) throw std::runtime_error("test server cannot listen");
        if (options_.receiveBuffer > 0)
            setsockopt(listener_.fd, SOL_SOCKET, SO_RCVBUF, &options_.receiveBuffer, sizeof options_.receiveBuffer);
        thread_ = std::thread([this] {
            for (int fd; (fd = ::accept(listener_.fd, nullptr, nullptr)) >= 0;) {
                Socket connection(fd);
                // No session may hang the test: a read gives up after a while (writes are small).
                const timeval limit{10, 0};
                setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
                std::this_thread::sleep_for(std::chrono::milliseconds(options_.delayMs));
                if (options_.beforeHandshake) options_.beforeHandshake(fd);
                std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context_.get()), &SSL_free);
                SSL_set_fd(ssl.get(), fd);
                if (SSL_accept(ssl.get()) == 1 && session_) session_(ssl.get(), fd);
                ERR_clear_error();
            }
        });
    }
    ~TlsServer() {
        ::shutdown(listener_.fd, SHUT_RDWR);  // makes the pending accept fail
        if (thread_.joinable()) thread_.join();
    }

    int port() const { return port_; }
    std::string LastServerName() const { std::lock_guard lock(mutex_); return lastServerName_; }

private:
    static int RecordName(SSL* ssl, int*, void* self) {
        auto* server = static_cast<TlsServer*>(self);
        const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
        std::lock_guard lock(server->mutex_);
        server->lastServerName_ = name ? name : "";
        return SSL_TLSEXT_ERR_OK;
    }

    ServerOptions options_;
    std::function<void(SSL* ssl, int fd)> session_;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_{SSL_CTX_new(TLS_server_method()), &SSL_CTX_free};
    int port_ = 0;
    Socket listener_ = ListenTcp(&port_, options_.host.c_str(), options_.port);
    mutable std::mutex mutex_;
    std::string lastServerName_;
    std::thread thread_;
};

}  // namespace Testing
