// The host's Net module: connect over IPv4 and IPv6, waits, blocking mode, close and errors.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>

#include "Harness.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

TEST(Net, ConnectsWaitsSwitchesModeAndCloses) {
    for (const char* host : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(host);
        int port = 0;
        const Socket server = ListenTcp(&port, host);
        if (!port && host[0] == ':') continue;  // no IPv6 loopback here
        ASSERT_NE(port, 0);
        Engine engine;
        const CallOutcome connect = engine.Call("Net.Connect", {Str(host), Num(port)});
        ASSERT_TRUE(connect.ok());
        const int socket = static_cast<int>(connect.result->GetNumber());
        const int peer = ::accept4(server.fd, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(peer, 0);
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
    int closedPort = 0;
    ListenTcp(&closedPort);  // closed again at once
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
