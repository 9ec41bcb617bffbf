// The engine's event loop: parked calls are resumed by one poll over all of
// them, so slow and silent servers never hold up the others. The host's Net
// module: connect over IPv4 and IPv6, waits, blocking mode, close and errors.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <optional>
#include <thread>

#include "Harness.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

using Clock = std::chrono::steady_clock;
using Ombrix::Host::CallHandle;

// Counts the descriptor the listing itself holds too.
long OpenDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A server that sends the start of a TLS record one byte at a time before it
// answers, so a client's handshake goes on waiting without ever finishing.
ServerOptions Trickling(int intervalMs = 20, int bytes = 250) {
    return {.beforeHandshake = [intervalMs, bytes](int fd) {
        const char header[] = {0x16, 0x03, 0x03, 0x40, 0x00};  // handshake record, 16 KiB long
        for (int i = 0; i < bytes; ++i) {
            const char byte = i < 5 ? header[i] : 0;
            if (::send(fd, &byte, 1, MSG_NOSIGNAL) != 1) break;  // the client has gone
            std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
        }
    }};
}

class EventLoopTest : public ::testing::Test {
protected:
    void SetUp() override { descriptors_ = OpenDescriptors(); }
    // Every test leaves the descriptors as it found them, parked calls included.
    void TearDown() override {
        engine_.reset();
        EXPECT_EQ(OpenDescriptors(), descriptors_) << "a descriptor was left open";
    }
    void MakeEngine(int maxResumptions = 1000) {
        Engine::Options options;
        options.maxResumptions = maxResumptions;
        engine_.emplace(options);
        engine_->Load(CRYPTOGRAPHY_MODULE_PATH);
    }
    CallHandle StartFetch(int port, const char* host = "127.0.0.1") {
        return engine_->Start("Cryptography.X509FetchFromServer", {Str(host), Num(port)});
    }
    // The PEM text of a finished fetch ("" for an empty certificate).
    std::string FetchedPem(CallHandle call, int* resumptions = nullptr) {
        const CallOutcome outcome = engine_->TakeOutcome(call);
        EXPECT_TRUE(outcome.ok());
        if (resumptions) *resumptions = outcome.resumptions;
        std::string pem;
        if (AutoRefPtr<Ombrix::IJSON> saved = outcome.result->Serialize(nullptr)) saved->GetMemberString("value", pem);
        return pem;
    }

    std::optional<Engine> engine_;
    long descriptors_ = 0;
};

// Each fetch returns its own server's certificate, unverified (self-signed
// ones too), and sends the host as server name; a closed port gives an empty
// one; a silent server's fetch holds up none of them.
TEST_F(EventLoopTest, ParkedCallsKeepTheirOwnState) {
    MakeEngine();
    // Several servers per certificate; later servers answer sooner, so calls
    // finish in another order than they started, and the handshakes overlap.
    const std::string certs[] = {"server", "alpha", "self", "other-ca"};
    std::vector<std::unique_ptr<TlsServer>> servers;
    for (int i = 0; i < 12; ++i)
        servers.push_back(std::make_unique<TlsServer>(ServerOptions{.cert = certs[i % 4], .delayMs = 400 - 20 * i}));
    int closedPort = 0, silentPort = 0;
    ListenTcp(&closedPort);  // closed again at once
    const Socket silent = ListenTcp(&silentPort);  // accepts in the kernel, never answers
    const auto start = Clock::now();
    const CallHandle waiting = StartFetch(silentPort);
    std::vector<std::pair<CallHandle, std::string>> calls;
    for (int i = 0; i < 12; ++i)  // the second server is asked for by name
        calls.emplace_back(StartFetch(servers[i]->port(), i == 1 ? "localhost" : "127.0.0.1"), certs[i % 4] + ".pem");
    EXPECT_EQ(engine_->ParkedCalls(), 13u);
    calls.emplace_back(StartFetch(closedPort), "");
    // An IPv6 literal in brackets, and port 0 for 443 (where this process may listen).
    for (const auto& [host, port, asked] : {std::tuple{"::1", 0, "[::1]"}, {"127.0.0.1", 443, "127.0.0.1"}}) {
        const ServerOptions options{.host = host, .port = port, .cert = "self"};
        try { servers.push_back(std::make_unique<TlsServer>(options)); } catch (const std::runtime_error&) { continue; }
        calls.emplace_back(StartFetch(port ? 0 : servers.back()->port(), asked), "self.pem");
    }
    while (!std::all_of(calls.begin(), calls.end(), [&](const auto& call) { return engine_->Finished(call.first); }))
        engine_->RunOnce();
    EXPECT_LT(SecondsSince(start), 1.5) << "twelve handshakes of 0.18 to 0.4 s run at once";
    // The engine goes with the silent server's call parked: its connection must close too (TearDown).
    EXPECT_FALSE(engine_->Finished(waiting));
    for (const auto& [call, cert] : calls) {
        SCOPED_TRACE(cert);
        int resumptions = 0;
        EXPECT_EQ(FetchedPem(call, &resumptions), cert.empty() ? "" : ReadFile(TlsFile(cert)));
        EXPECT_TRUE(cert.empty() || resumptions > 0) << "the call suspends while it waits for the server";
    }
    EXPECT_EQ(servers[0]->LastServerName(), "127.0.0.1");
    EXPECT_EQ(servers[1]->LastServerName(), "localhost");
}

TEST_F(EventLoopTest, ResumptionBoundEndsWithAnEmptyCertificate) {
    for (const int bound : {0, 3, 6}) {
        SCOPED_TRACE(bound);
        const TlsServer server(Trickling());
        MakeEngine(bound);
        int resumptions = -1;
        const CallHandle call = StartFetch(server.port());
        engine_->RunUntilIdle();
        EXPECT_EQ(FetchedPem(call, &resumptions), "");
        EXPECT_EQ(resumptions, bound);
    }
}

// A server that keeps each wait short of its 5 s timeout would hold a fetch
// for 256 waits; the fetch gives up after 30 s in all, while a silent
// server's fetch beside it gives up after one wait. (The slow test.)
TEST_F(EventLoopTest, TricklingServerIsGivenUpOnAfterThirtySeconds) {
    MakeEngine();
    const TlsServer server(Trickling(600, 100));  // a byte every 0.6 s for a minute
    int silentPort = 0;
    const Socket silent = ListenTcp(&silentPort);  // accepts in the kernel, never answers
    const auto start = Clock::now();
    const CallHandle call = StartFetch(server.port()), quiet = StartFetch(silentPort);
    engine_->RunUntilFinished(quiet);
    EXPECT_LT(SecondsSince(start), 8.0) << "one 5 s wait for the silent server's handshake, no more";
    EXPECT_EQ(FetchedPem(quiet), "");
    engine_->RunUntilIdle();
    const double seconds = SecondsSince(start);
    int resumptions = 0;
    EXPECT_EQ(FetchedPem(call, &resumptions), "");
    EXPECT_GT(seconds, 29.5);
    EXPECT_LT(seconds, 32.0);
    EXPECT_GT(resumptions, 40) << "the server kept the handshake going all the while";
}

TEST_F(EventLoopTest, NetWaitParksUntilTheSocketIsReadyOrTheTimeIsUp) {
    MakeEngine();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    Socket near(pair[0]), far(pair[1]);
    const struct { const char* mode; int milliseconds; bool writeFirst, writeWhileParked, ready; double minSeconds; } cases[] = {
        {"r", 5000, false, true, true, 0.0},   // data arrives while the call is parked
        {"r", 150, false, false, false, 0.14},  // nothing arrives: false once the time is up
        {"w", 5000, false, false, true, 0.0},   // writable at once
        {"r", 0, true, false, true, 0.0},       // a zero wait looks without parking
        {"rw", 0, false, false, true, 0.0},     // one side ready is enough
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.mode) + " " + std::to_string(c.milliseconds));
        for (char drain[16]; ::recv(near.fd, drain, sizeof drain, MSG_DONTWAIT) > 0;) {}
        if (c.writeFirst) {
            ASSERT_EQ(::send(far.fd, "x", 1, 0), 1);
        }
        const auto start = Clock::now();
        const CallHandle call = engine_->Start("Net.Wait", {Num(near.fd), Str(c.mode), Num(c.milliseconds)});
        EXPECT_EQ(engine_->Finished(call), c.milliseconds == 0);
        if (c.writeWhileParked) {
            engine_->RunOnce(0);
            EXPECT_FALSE(engine_->Finished(call));
            ASSERT_EQ(::send(far.fd, "x", 1, 0), 1);
        }
        engine_->RunUntilFinished(call);
        const CallOutcome outcome = engine_->TakeOutcome(call);
        EXPECT_TRUE(outcome.ok());
        EXPECT_EQ(outcome.result->GetBoolean(), c.ready);
        EXPECT_GE(SecondsSince(start), c.minSeconds);
        EXPECT_LT(SecondsSince(start), 2.0);
    }
    // A turn waits only until the nearest deadline; an unconnected socket's hang-up counts as readable.
    for (char drain[16]; ::recv(near.fd, drain, sizeof drain, MSG_DONTWAIT) > 0;) {}
    const Socket fresh(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto start = Clock::now();
    const CallHandle later = engine_->Start("Net.Wait", {Num(near.fd), Str("r"), Num(1500)}),
                     sooner = engine_->Start("Net.Wait", {Num(near.fd), Str("r"), Num(100)}),
                     hungUp = engine_->Start("Net.Wait", {Num(fresh.fd), Str("r"), Num(5000)});
    while (!engine_->Finished(sooner) || !engine_->Finished(hungUp)) engine_->RunOnce(-1);
    EXPECT_FALSE(engine_->Finished(later));
    EXPECT_LT(SecondsSince(start), 1.0);
    EXPECT_TRUE(engine_->TakeOutcome(hungUp).result->GetBoolean());
    engine_->RunUntilIdle();
}

TEST_F(EventLoopTest, NetConnectsWaitsSwitchesModeAndCloses) {
    for (const char* host : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(host);
        int port = 0;
        const Socket server = ListenTcp(&port, host);
        if (!port && host[0] == ':') continue;  // no IPv6 loopback here
        ASSERT_NE(port, 0);
        MakeEngine();
        const CallOutcome connect = engine_->Call("Net.Connect", {Str(host), Num(port)});
        ASSERT_TRUE(connect.ok());
        const int socket = static_cast<int>(connect.result->GetNumber());
        const Socket peer(::accept4(server.fd, nullptr, nullptr, SOCK_CLOEXEC));
        ASSERT_GE(peer.fd, 0);
        for (bool blocking : {false, true}) {
            EXPECT_TRUE(engine_->Call("Net.SetBlocking", {Num(socket), Bool(blocking)}).ok());
            EXPECT_EQ((::fcntl(socket, F_GETFL) & O_NONBLOCK) != 0, !blocking);
        }
        EXPECT_TRUE(engine_->Call("Net.Close", {Num(socket)}).ok());
        EXPECT_EQ(::fcntl(socket, F_GETFD), -1);
    }
}

TEST_F(EventLoopTest, NetFailures) {
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
    MakeEngine();
    for (const auto& c : cases) {
        const CallOutcome outcome = engine_->Call(c.routine, c.args);
        ASSERT_TRUE(outcome.status == 0 && outcome.errors.size() == 1) << c.message;
        const auto& e = outcome.errors[0];
        EXPECT_EQ(e.moduleNamespace + " " + e.id + " " + e.message.substr(0, c.message.size()), "Net " + c.id + " " + c.message);
    }
}

}  // namespace
}  // namespace Testing
