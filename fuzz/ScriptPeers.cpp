#include "ScriptPeers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <list>
#include <thread>
#include <vector>

#include "FuzzSupport.h"

namespace Fuzz {
namespace {

using Clock = std::chrono::steady_clock;

// A silent peer holds its connection this long; a TLS peer keeps it this
// long after its records.
constexpr auto kHold = std::chrono::milliseconds(40);
constexpr int kRecords = 64;

struct Connection {
    int fd;
    PeerKind kind;
    Clock::time_point until;
    SSL* ssl = nullptr;  // the TLS peer's session, until its records are sent
};

class Peers {
public:
    Peers() {
        context_ = SSL_CTX_new(TLS_server_method());
        if (!context_ || SSL_CTX_use_certificate_chain_file(context_, DataPath("tls/server.pem").c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(context_, DataPath("tls/server.key").c_str(), SSL_FILETYPE_PEM) != 1)
            Fail("the TLS peer cannot load its certificate");
        for (size_t k = 0; k < listeners_.size(); ++k) listeners_[k] = Listen(ports_[k]);
        thread_ = std::thread([this] { Serve(); });
    }
    // Ends the thread; runs at exit before OpenSSL's own cleanup, which was
    // registered earlier (when the module or this context started OpenSSL).
    void Stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    int Port(PeerKind kind) const { return ports_[static_cast<size_t>(kind)]; }

private:
    static int Listen(int& port) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 512) != 0)
            Fail("a peer cannot listen on 127.0.0.1");
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        return fd;
    }

    void Accept(int listener, PeerKind kind) {
        for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;) {
            switch (kind) {
                case PeerKind::Reset: {
                    const linger abort{1, 0};
                    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
                    close(fd);
                    break;
                }
                case PeerKind::Garbage: {
                    char bytes[97];
                    for (char& b : bytes) b = static_cast<char>(std::rand());
                    (void)!send(fd, bytes, sizeof bytes, MSG_NOSIGNAL);
                    close(fd);
                    break;
                }
                case PeerKind::Tls: {
                    SSL* ssl = SSL_new(context_);
                    SSL_set_fd(ssl, fd);
                    SSL_set_accept_state(ssl);
                    open_.push_back({fd, kind, Clock::now() + 50 * kHold, ssl});
                    break;
                }
                default: open_.push_back({fd, kind, Clock::now() + kHold}); break;
            }
        }
    }

    // Drives a TLS peer's handshake; once it is done, sends the records.
    static void Drive(Connection& c) {
        if (!c.ssl) return;
        ERR_clear_error();
        if (SSL_do_handshake(c.ssl) == 1) {
            for (int i = 0; i < kRecords; ++i) SSL_write(c.ssl, "x", 1);
            SSL_free(c.ssl);
            c.ssl = nullptr;
            c.until = Clock::now() + kHold;
        } else if (const int error = SSL_get_error(c.ssl, 0);
                   error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
            c.until = Clock::now();
        }
        ERR_clear_error();
    }

    void Serve() {
        while (!stop_) {
            std::vector<pollfd> entries;
            for (int fd : listeners_) entries.push_back({fd, POLLIN, 0});
            for (const Connection& c : open_) entries.push_back({c.fd, static_cast<short>(c.ssl ? POLLIN : 0), 0});
            poll(entries.data(), entries.size(), 10);
            for (size_t k = 0; k < listeners_.size(); ++k) Accept(listeners_[k], static_cast<PeerKind>(k));
            const Clock::time_point now = Clock::now();
            for (auto it = open_.begin(); it != open_.end();) {
                Drive(*it);
                if (it->until > now) {
                    ++it;
                    continue;
                }
                SSL_free(it->ssl);
                close(it->fd);
                it = open_.erase(it);
            }
        }
    }

    SSL_CTX* context_ = nullptr;
    std::array<int, static_cast<size_t>(PeerKind::Count)> listeners_{};
    std::array<int, static_cast<size_t>(PeerKind::Count)> ports_{};
    std::list<Connection> open_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace

int PeerPort(PeerKind kind) {
    static Peers* peers = [] {
        static Peers* made = new Peers();  // serves until the process ends
        std::atexit([] { made->Stop(); });
        return made;
    }();
    return peers->Port(kind);
}

}  // namespace Fuzz
