// The host's Net module: TCP connect over IPv4 and IPv6, blocking mode,
// readiness waits and close, and the errors it reports.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "Harness.h"
#include "Ombrix/Routine.h"

namespace Testing {
namespace {

// A listening socket on a loopback address with a kernel-chosen port.
class Listener {
public:
    explicit Listener(int family) {
        descriptor_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_storage address{};
        socklen_t length = 0;
        if (family == AF_INET) {
            auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
            v4->sin_family = AF_INET;
            v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            length = sizeof *v4;
        } else {
            auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
            v6->sin6_family = AF_INET6;
            v6->sin6_addr = in6addr_loopback;
            length = sizeof *v6;
        }
        if (descriptor_ < 0 || ::bind(descriptor_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(descriptor_, 4) != 0 ||
            ::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            Close();
            return;
        }
        port_ = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&address)->sin_port
                                        : reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    }
    ~Listener() { Close(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    bool ok() const { return descriptor_ >= 0; }
    int port() const { return port_; }
    int Accept() const { return ::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC); }
    void Close() {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = -1;
    }

private:
    int descriptor_ = -1;
    int port_ = 0;
};

bool IsOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; }

struct Loopback {
    int family;
    const char* host;
};

void PrintTo(const Loopback& loopback, std::ostream* out) { *out << loopback.host; }

class NetConnect : public ::testing::TestWithParam<Loopback> {};

TEST_P(NetConnect, ConnectsWaitsSwitchesModeAndCloses) {
    Listener server(GetParam().family);
    if (!server.ok()) GTEST_SKIP() << "no loopback for this address family";
    Engine engine;
    CallOutcome connect = engine.Call("Net.Connect", {Str(GetParam().host), Num(server.port())});
    ASSERT_TRUE(connect.ok()) << (connect.error() ? connect.error()->message : "status");
    const int socket = static_cast<int>(connect.result->GetNumber());
    ASSERT_GE(socket, 0);
    const int peer = server.Accept();
    ASSERT_GE(peer, 0);

    auto wait = [&](const char* mode, double ms) {
        CallOutcome outcome = engine.Call("Net.Wait", {Num(socket), Str(mode), Num(ms)});
        EXPECT_TRUE(outcome.ok());
        return outcome.result->GetBoolean();
    };
    EXPECT_TRUE(wait("w", 1000));
    EXPECT_FALSE(wait("r", 0)) << "nothing was sent yet";
    ASSERT_EQ(::write(peer, "x", 1), 1);
    EXPECT_TRUE(wait("r", 1000));
    EXPECT_TRUE(wait("rw", 0));

    for (bool blocking : {false, true}) {
        EXPECT_TRUE(engine.Call("Net.SetBlocking", {Num(socket), Bool(blocking)}).ok());
        EXPECT_EQ((::fcntl(socket, F_GETFL) & O_NONBLOCK) != 0, !blocking);
    }
    EXPECT_TRUE(engine.Call("Net.Close", {Num(socket)}).ok());
    EXPECT_FALSE(IsOpen(socket));
    ::close(peer);
}

INSTANTIATE_TEST_SUITE_P(Loopbacks, NetConnect,
                         ::testing::Values(Loopback{AF_INET, "127.0.0.1"}, Loopback{AF_INET6, "::1"}),
                         [](const auto& info) { return info.param.family == AF_INET ? "IPv4" : "IPv6"; });

TEST(Net, WaitGivesUpAfterItsTimeout) {
    Listener server(AF_INET);
    ASSERT_TRUE(server.ok());
    Engine engine;
    CallOutcome connect = engine.Call("Net.Connect", {Str("127.0.0.1"), Num(server.port())});
    ASSERT_TRUE(connect.ok());
    const double socket = connect.result->GetNumber();
    const auto start = std::chrono::steady_clock::now();
    CallOutcome outcome = engine.Call("Net.Wait", {Num(socket), Str("r"), Num(80)});
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(outcome.ok());
    EXPECT_FALSE(outcome.result->GetBoolean());
    EXPECT_GE(elapsed, std::chrono::milliseconds(70));
    ::close(static_cast<int>(socket));
}

TEST(Net, ReportsFailuresUnderItsOwnNamespace) {
    int closedPort = 0;
    {
        Listener gone(AF_INET);
        ASSERT_TRUE(gone.ok());
        closedPort = gone.port();
    }
    const int closedSocket = ::dup(0);
    ::close(closedSocket);
    const std::string refused = "Cannot connect to 127.0.0.1 port " + std::to_string(closedPort) + ": Connection refused";
    const std::string badDescriptor = "Bad file descriptor";
    struct Case {
        const char* routine;
        Args args;
        const char* id;
        std::string message;  // a prefix of the reported message
    } cases[] = {
        {"Net.Connect", {Str("127.0.0.1"), Num(closedPort)}, "Error.Ombrix.FunctionError", refused},
        {"Net.Connect", {Str("127.0.0.1"), Num(0)}, "Error.Ombrix.InvalidArgument", "Invalid port 0"},
        {"Net.Connect", {Str("127.0.0.1"), Num(65536)}, "Error.Ombrix.InvalidArgument", "Invalid port 65536"},
        {"Net.Connect", {Str("not an address!"), Num(80)}, "Error.Ombrix.FunctionError", "Cannot resolve \"not an address!\": "},
        {"Net.Wait", {Num(0), Str("x"), Num(0)}, "Error.Ombrix.InvalidArgument", "Invalid wait mode \"x\""},
        {"Net.Wait", {Num(-1), Str("r"), Num(0)}, "Error.Ombrix.InvalidArgument", "Invalid socket -1"},
        {"Net.Wait", {Num(closedSocket), Str("r"), Num(0)}, "Error.Ombrix.FunctionError", "Cannot wait on socket"},
        {"Net.SetBlocking", {Num(closedSocket), Bool(false)}, "Error.Ombrix.FunctionError", "Cannot change the blocking mode"},
        {"Net.Close", {Num(closedSocket)}, "Error.Ombrix.FunctionError", "Cannot close socket " + std::to_string(closedSocket) + ": " + badDescriptor},
        {"Net.Close", {Num(-5)}, "Error.Ombrix.InvalidArgument", "Invalid socket -5"},
    };
    Engine engine;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.routine) + " -> " + c.message);
        CallOutcome outcome = engine.Call(c.routine, c.args);
        EXPECT_EQ(outcome.status, 0u);
        ASSERT_EQ(outcome.errors.size(), 1u);
        EXPECT_EQ(outcome.errors[0].moduleNamespace, "Net");
        EXPECT_EQ(outcome.errors[0].id, c.id);
        EXPECT_EQ(outcome.errors[0].message.rfind(c.message, 0), 0u) << outcome.errors[0].message;
    }
}

TEST(Net, BooleanParameterTakesOnlyABoolean) {
    Engine engine;
    EXPECT_EQ(engine.Call("Net.SetBlocking", {Num(0), Num(1)}).status, Ombrix::MakeStatus(2, Ombrix::kStatusWrongType));
    EXPECT_EQ(engine.Call("Net.SetBlocking", {Num(0)}).status, Ombrix::MakeStatus(2, Ombrix::kStatusMissing));
}

}  // namespace
}  // namespace Testing
