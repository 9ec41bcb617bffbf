// The host's Net module: connect over IPv4 and IPv6, waits, blocking mode, close and errors.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include <chrono>

#include "Harness.h"

namespace Testing {
namespace {

// A loopback listener on a kernel-chosen port; port 0 when it cannot listen.
struct Listener {
    int fd = -1, port = 0;
    explicit Listener(const char* host) {
        addrinfo* found = nullptr;
        if (::getaddrinfo(host, "0", nullptr, &found) != 0) return;
        socklen_t length = found->ai_addrlen;
        fd = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && !::bind(fd, found->ai_addr, length) && !::listen(fd, 4) && !::getsockname(fd, found->ai_addr, &length))
            port = ntohs(reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_port);  // same place in sockaddr_in6
        ::freeaddrinfo(found);
    }
    ~Listener() { ::close(fd); }
};

TEST(Net, ConnectsWaitsSwitchesModeAndCloses) {
    for (const char* host : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(host);
        Listener server(host);
        if (!server.port && host[0] == ':') continue;  // no IPv6 loopback here
        ASSERT_NE(server.port, 0);
        Engine engine;
        const CallOutcome connect = engine.Call("Net.Connect", {Str(host), Num(server.port)});
        ASSERT_TRUE(connect.ok());
        const int socket = static_cast<int>(connect.result->GetNumber());
        const int peer = ::accept4(server.fd, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(peer, 0);
        // "rw" is ready when either is: here writable, with nothing to read.
        const CallOutcome both = engine.Call("Net.Wait", {Num(socket), Str("rw"), Num(0)});
        EXPECT_TRUE(both.ok() && both.result->GetBoolean());
        for (bool blocking : {false, true}) {
            EXPECT_TRUE(engine.Call("Net.SetBlocking", {Num(socket), Bool(blocking)}).ok());
            EXPECT_EQ((::fcntl(socket, F_GETFL) & O_NONBLOCK) != 0, !blocking);
        }
        EXPECT_TRUE(engine.Call("Net.Close", {Num(socket)}).ok());
        EXPECT_EQ(::fcntl(socket, F_GETFD), -1);
        ::close(peer);
    }
}

TEST(Net, Failures) {
    const int closedPort = Listener("127.0.0.1").port;
    const int closedSocket = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(closedSocket);
    const std::string closed = std::to_string(closedSocket), invalid = "Error.Ombrix.InvalidArgument",
                      failed = "Error.Ombrix.FunctionError";
    struct { const char* routine; Args args; std::string id, message; } cases[] = {  // message: a prefix
        {"Net.Connect", {Str("127.0.0.1"), Num(closedPort)}, failed,
         "Cannot connect to 127.0.0.1 port " + std::to_string(closedPort) + ": Connection refused"},
        {"Net.Connect", {Str("127.0.0.1"), Num(0)}, invalid, "Invalid port 0"},
        {"Net.Connect", {Str("127.0.0.1"), Num(65536)}, invalid, "Invalid port 65536"},
        {"Net.Connect", {Str("not an address!"), Num(80)}, failed, "Cannot resolve \"not an address!\": "},
        {"Net.Wait", {Num(0), Str("x"), Num(0)}, invalid, "Invalid wait mode \"x\""},
        {"Net.Wait", {Num(closedSocket), Str("r"), Num(0)}, failed, "Cannot wait on socket " + closed + ": "},
        {"Net.SetBlocking", {Num(closedSocket), Bool(false)}, failed, "Cannot change the blocking mode of socket " + closed},
        {"Net.Close", {Num(closedSocket)}, failed, "Cannot close socket " + closed + ": Bad file descriptor"},
        {"Net.Close", {Num(-5)}, invalid, "Invalid socket -5"},
    };
    Engine engine;
    for (const auto& c : cases) {
        const CallOutcome outcome = engine.Call(c.routine, c.args);
        ASSERT_TRUE(outcome.status == 0 && outcome.errors.size() == 1) << c.message;
        const auto& e = outcome.errors[0];
        EXPECT_EQ(e.moduleNamespace + " " + e.id + " " + e.message.substr(0, c.message.size()), "Net " + c.id + " " + c.message);
    }
}

}  // namespace
}  // namespace Testing
