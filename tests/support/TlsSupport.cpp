#include "TlsSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>

#include <stdexcept>

namespace Testing {

std::string TlsFile(const std::string& name) { return std::string(TEST_DATA_DIR) + "/tls/" + name; }

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        Close();
        fd_ = other.Release();
    }
    return *this;
}

void Socket::Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int BoundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

SSL_CTX* ServerContext(const std::string& cert, const std::string& key) {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (!context || SSL_CTX_use_certificate_chain_file(context, cert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1) {
        SSL_CTX_free(context);
        throw std::runtime_error("test server cannot load " + cert);
    }
    return context;
}

}  // namespace

void SetNonBlocking(int fd, bool nonBlocking) {
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

Socket ConnectTcp(int port, bool nonBlocking) {
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = Loopback(port);
    if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot connect to the test server");
    if (nonBlocking) SetNonBlocking(socket.fd(), true);
    return socket;
}

Socket ListenTcp(int* port, int port0) {
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    const int on = 1;
    setsockopt(socket.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = Loopback(port0);
    if (::bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(socket.fd(), 8) != 0)
        return Socket();
    if (port) *port = BoundPort(socket.fd());
    return socket;
}

int ClosedPort() {
    int port = 0;
    ListenTcp(&port);  // closed again at once
    return port;
}

bool WaitFor(int fd, short events, int milliseconds) {
    pollfd entry{fd, events, 0};
    return ::poll(&entry, 1, milliseconds) > 0;
}

TlsServer::TlsServer(ServerOptions options, Session session)
    : options_(std::move(options)), session_(std::move(session)) {
    context_ = ServerContext(options_.cert, options_.key);
    for (const auto& [name, base] : options_.byServerName)
        named_[name] = ServerContext(TlsFile(base + ".pem"), TlsFile(base + ".key"));
    SSL_CTX_set_tlsext_servername_callback(context_, &TlsServer::SelectByName);
    SSL_CTX_set_tlsext_servername_arg(context_, this);
    if (!options_.clientCA.empty()) {
        SSL_CTX_load_verify_locations(context_, options_.clientCA.c_str(), nullptr);
        SSL_CTX_set_verify(context_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    listener_ = ListenTcp(&port_, options_.port);
    if (!ok()) return;
    if (options_.receiveBuffer > 0)
        setsockopt(listener_.fd(), SOL_SOCKET, SO_RCVBUF, &options_.receiveBuffer, sizeof options_.receiveBuffer);
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) throw std::runtime_error("pipe");
    stopRead_ = Socket(pipeEnds[0]);
    stopWrite_ = Socket(pipeEnds[1]);
    thread_ = std::thread([this] { Run(); });
}

TlsServer::~TlsServer() {
    if (thread_.joinable()) {
        const char stop = 1;
        [[maybe_unused]] const ssize_t written = ::write(stopWrite_.fd(), &stop, 1);
        thread_.join();
    }
    for (auto& [name, context] : named_) SSL_CTX_free(context);
    SSL_CTX_free(context_);
}

std::string TlsServer::LastServerName() const {
    std::lock_guard lock(mutex_);
    return lastServerName_;
}

int TlsServer::SelectByName(SSL* ssl, int*, void* self) {
    auto* server = static_cast<TlsServer*>(self);
    const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
    {
        std::lock_guard lock(server->mutex_);
        server->lastServerName_ = name ? name : "";
    }
    if (name) {
        auto it = server->named_.find(name);
        if (it != server->named_.end()) SSL_set_SSL_CTX(ssl, it->second);
    }
    return SSL_TLSEXT_ERR_OK;
}

void TlsServer::Run() {
    for (;;) {
        pollfd entries[2] = {{listener_.fd(), POLLIN, 0}, {stopRead_.fd(), POLLIN, 0}};
        if (::poll(entries, 2, -1) < 0) continue;
        if (entries[1].revents) return;
        Socket connection(::accept(listener_.fd(), nullptr, nullptr));
        if (connection.fd() < 0) continue;
        // No session may hang the test: every blocking call gives up after a while.
        const timeval limit{10, 0};
        setsockopt(connection.fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(connection.fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (options_.beforeHandshake) options_.beforeHandshake();
        SSL* ssl = SSL_new(context_);
        SSL_set_fd(ssl, connection.fd());
        if (SSL_accept(ssl) == 1) {
            ++handshakes_;
            session_(ssl, connection.fd());
        }
        SSL_free(ssl);
        ERR_clear_error();
    }
}

std::string ReadAll(SSL* ssl) {
    std::string received;
    char buffer[4096];
    for (int n; (n = SSL_read(ssl, buffer, sizeof buffer)) > 0;) received.append(buffer, static_cast<size_t>(n));
    return received;
}

}  // namespace Testing
