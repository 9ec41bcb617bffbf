// The remote side of the TLS routines. The first input byte picks the mode
// (its value modulo 3) and options (0x10: the session verifies against the
// test CA; 0x20: the libssl server stops at TLS 1.2); the rest is what the
// peer sends.
//   raw:    a socket pair whose far end holds the input bytes (then end of
//           stream): CreateSSL + Connect parse a fuzzed server flight
//           (records, ServerHello, certificates, key exchange).
//   server: a real libssl server on the far end completes the handshake, then
//           sends input chunks as application data, raw bytes, key updates
//           or close_notify while the session Reads and Writes.
//   fetch:  X509FetchFromServer against a listener on 127.0.0.1 whose accepted
//           connection answers with the input bytes.
// Nothing leaves the machine: the only address is 127.0.0.1.
#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>

#include "FuzzSupport.h"

namespace {

using namespace Fuzz;

struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

void NonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

// Writes what the socket takes now; the rest is dropped.
void Send(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return;
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
}

AutoRefPtr<IVariant> Session(uint8_t flags) {
    static const std::string verified =
        "{\"CAFile\":\"" + DataPath("tls/ca.pem") + "\",\"Host\":\"localhost\"}";
    const std::string configuration = (flags & 0x10) ? verified : std::string("{\"Verify\":false}");
    const CallOutcome parsed = ModuleEngine().Call("JSON.FromString", {Str(configuration)});
    const CallOutcome created = Call("Cryptography.CreateSSL", {parsed.result});
    if (ResultNumber(Call("Cryptography.State", {created.result})) != 0) Fail("CreateSSL failed");
    return AutoRefPtr<IVariant>(created.result);
}

// Connect until it succeeds or fails; between attempts, pump() moves the peer.
bool Handshake(const AutoRefPtr<IVariant>& session, int fd, const std::function<void()>& pump) {
    for (int attempt = 0; attempt < 64; ++attempt) {
        if (ResultBoolean(Call("Cryptography.Connect", {session, Num(fd)}))) {
            if (std::getenv("FUZZ_TRACE")) std::fprintf(stderr, "handshake: connected\n");
            return true;
        }
        const double state = ResultNumber(Call("Cryptography.State", {session}));
        if (state != 2 && state != 3) break;
        pump();
    }
    if (std::getenv("FUZZ_TRACE"))  // FUZZ_TRACE=1: how far each input's handshake got
        std::fprintf(stderr, "handshake: state %g, %s\n", ResultNumber(Call("Cryptography.State", {session})),
                     ResultString(Call("Cryptography.Error", {session})).c_str());
    Call("Cryptography.Error", {session});
    return false;
}

void Converse(const AutoRefPtr<IVariant>& session, const std::function<void()>& pump) {
    const AutoRefPtr<IVariant> buffer = Dat("");
    for (int round = 0; round < 8; ++round) {
        Call("Cryptography.Write", {session, Str("ping"), Num(4)});
        pump();
        const double read = ResultNumber(Call("Cryptography.Read", {session, buffer, Num(4096)}));
        const double state = ResultNumber(Call("Cryptography.State", {session}));
        if (read > 0 && static_cast<double>(AutoRefPtr<IDataRef>(buffer->GetData())->GetSize()) != read)
            Fail("Read counted bytes the buffer does not hold");
        if (state == -1 || state == -2) break;
    }
    Call("Cryptography.Error", {session});
    Call("Cryptography.Shutdown", {session});
    Call("Cryptography.State", {session});
}

void RawPeer(uint8_t flags, std::string_view stream) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) Fail("socketpair failed");
    Fd near{pair[0]}, far{pair[1]};
    NonBlocking(near.fd);
    NonBlocking(far.fd);
    Send(far.fd, stream);
    shutdown(far.fd, SHUT_WR);
    const AutoRefPtr<IVariant> session = Session(flags);
    if (Handshake(session, near.fd, [] {})) Converse(session, [] {});
}

// A libssl server on the far end of a socket pair, moved one step per pump.
void ServerPeer(uint8_t flags, std::string_view stream) {
    static SSL_CTX* context = [] {
        SSL_CTX* made = SSL_CTX_new(TLS_server_method());
        if (!made || SSL_CTX_use_certificate_chain_file(made, DataPath("tls/server.pem").c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(made, DataPath("tls/server.key").c_str(), SSL_FILETYPE_PEM) != 1)
            Fail("test server context");
        return made;
    }();
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) Fail("socketpair failed");
    Fd near{pair[0]}, far{pair[1]};
    NonBlocking(near.fd);
    NonBlocking(far.fd);
    std::unique_ptr<SSL, decltype(&SSL_free)> server(SSL_new(context), SSL_free);
    SSL_set_fd(server.get(), far.fd);
    SSL_set_accept_state(server.get());
    if (flags & 0x20) SSL_set_max_proto_version(server.get(), TLS1_2_VERSION);

    // After the handshake, each pump sends the next chunk of the input: a
    // length byte, an action byte, then the chunk.
    auto pump = [&] {
        if (!SSL_is_init_finished(server.get())) {
            SSL_do_handshake(server.get());
        } else if (stream.size() >= 2) {
            const size_t length = std::min<size_t>(static_cast<uint8_t>(stream[0]), stream.size() - 2);
            const uint8_t action = static_cast<uint8_t>(stream[1]);
            const std::string_view chunk = stream.substr(2, length);
            stream.remove_prefix(2 + length);
            switch (action % 5) {
                case 0: SSL_write(server.get(), chunk.data(), static_cast<int>(chunk.size())); break;
                case 1: Send(far.fd, chunk); break;  // raw bytes into the record stream
                case 2: SSL_key_update(server.get(), SSL_KEY_UPDATE_REQUESTED); SSL_write(server.get(), "", 0); break;
                case 3: SSL_shutdown(server.get()); break;
                default: shutdown(far.fd, SHUT_WR); break;
            }
            char sink[4096];
            SSL_read(server.get(), sink, sizeof sink);  // takes the session's writes
        }
        ERR_clear_error();
    };
    const AutoRefPtr<IVariant> session = Session(flags);
    if (Handshake(session, near.fd, pump)) Converse(session, pump);
    ERR_clear_error();
}

// A listener on 127.0.0.1 made once; each fetch gets one accepted connection.
int Listener(int* port) {
    static int listening = -1, bound = 0;
    if (listening < 0) {
        listening = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        if (bind(listening, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listening, 4) != 0)
            Fail("listener");
        getsockname(listening, reinterpret_cast<sockaddr*>(&address), &length);
        bound = ntohs(address.sin_port);
    }
    *port = bound;
    return listening;
}

void FetchPeer(std::string_view stream) {
    int port = 0;
    const int listening = Listener(&port);
    std::thread peer([&] {
        pollfd waiting{listening, POLLIN, 0};
        if (poll(&waiting, 1, 5000) != 1) return;
        Fd accepted{accept(listening, nullptr, nullptr)};
        if (accepted.fd < 0) return;
        char sink[4096];
        pollfd hello{accepted.fd, POLLIN, 0};
        if (poll(&hello, 1, 2000) == 1) recv(accepted.fd, sink, sizeof sink, MSG_DONTWAIT);
        NonBlocking(accepted.fd);
        Send(accepted.fd, stream);
        shutdown(accepted.fd, SHUT_WR);
        // Until the client closes its end.
        for (pollfd rest{accepted.fd, POLLIN, 0}; poll(&rest, 1, 2000) == 1;)
            if (recv(accepted.fd, sink, sizeof sink, 0) <= 0) break;
    });
    const CallOutcome fetched = Call("Cryptography.X509FetchFromServer", {Str("127.0.0.1"), Num(port)});
    peer.join();
    if (!HasObject(fetched.result)) Fail("X509FetchFromServer gave no certificate value");
    if (ResultBoolean(Call("Cryptography.IsValid", {AutoRefPtr<IVariant>(fetched.result)})))
        ExerciseCertificate(AutoRefPtr<IVariant>(fetched.result));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t flags = data[0];
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (flags % 3) {
        case 0: RawPeer(flags, stream); break;
        case 1: ServerPeer(flags, stream); break;
        default: FetchPeer(stream); break;
    }
    return 0;
}
