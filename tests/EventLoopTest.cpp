// The engine's event loop: parked calls are resumed by one poll over all of
// them, so slow and silent servers never hold up the others.
#include <dirent.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "Harness.h"
#include "TlsSupport.h"

namespace Testing {
namespace {

using Clock = std::chrono::steady_clock;
using Ombrix::Host::CallHandle;

int OpenDescriptors() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir)) ++count;
        closedir(dir);
    }
    return count;
}

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Accepts one connection and sends the start of a TLS record one byte at a
// time, so a client's handshake goes on waiting without ever finishing.
struct TrickleServer {
    explicit TrickleServer(int intervalMs = 20, int bytes = 250) {
        thread = std::thread([this, intervalMs, bytes] {
            const Socket connection(::accept(listener.fd, nullptr, nullptr));
            const char header[] = {0x16, 0x03, 0x03, 0x40, 0x00};  // handshake record, 16 KiB long
            for (int i = 0; connection.fd >= 0 && !stop && i < bytes; ++i) {
                const char byte = i < 5 ? header[i] : 0;
                if (::send(connection.fd, &byte, 1, MSG_NOSIGNAL) != 1) break;
                for (int slept = 0; !stop && slept < intervalMs; slept += 10)
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
    }
    ~TrickleServer() {
        stop = true;
        ::shutdown(listener.fd, SHUT_RDWR);
        thread.join();
    }

    int port = 0;
    Socket listener = ListenTcp(&port);
    std::atomic<bool> stop{false};
    std::thread thread;
};

class EventLoopTest : public ::testing::Test {
protected:
    void SetUp() override { descriptors_ = OpenDescriptors(); }
    // Every test leaves the descriptors as it found them, parked calls included.
    void TearDown() override {
        engine_.reset();
        EXPECT_EQ(OpenDescriptors(), descriptors_) << "a descriptor was left open";
    }
    Engine& MakeEngine(int maxResumptions = 1000) {
        Engine::Options options;
        options.maxResumptions = maxResumptions;
        engine_.emplace(options);
        engine_->Load(CRYPTOGRAPHY_MODULE_PATH);
        return *engine_;
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
    int descriptors_ = 0;
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
        try {
            servers.push_back(std::make_unique<TlsServer>(ServerOptions{.host = host, .port = port, .cert = "self"}));
        } catch (const std::runtime_error&) {
            continue;
        }
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

TEST_F(EventLoopTest, SilentServerIsGivenUpOnAfterOneWait) {
    MakeEngine();
    int silentPort = 0;
    Socket silent = ListenTcp(&silentPort);  // accepts in the kernel, never answers
    const auto start = Clock::now();
    const CallHandle call = StartFetch(silentPort);
    engine_->RunUntilIdle();
    EXPECT_EQ(FetchedPem(call), "");
    EXPECT_LT(SecondsSince(start), 8.0) << "one 5 s wait for the handshake, no more";
}

TEST_F(EventLoopTest, ResumptionBoundEndsWithAnEmptyCertificate) {
    for (const int bound : {0, 3, 6}) {
        SCOPED_TRACE(bound);
        TrickleServer server;  // keeps the handshake going one byte at a time
        MakeEngine(bound);
        int resumptions = -1;
        const CallHandle call = StartFetch(server.port);
        engine_->RunUntilIdle();
        EXPECT_EQ(FetchedPem(call, &resumptions), "");
        EXPECT_EQ(resumptions, bound);
    }
}

// A server that keeps each wait short of its 5 s timeout would hold a fetch
// for 256 waits; the fetch gives up after 30 s in all. (The one slow test.)
TEST_F(EventLoopTest, TricklingServerIsGivenUpOnAfterThirtySeconds) {
    MakeEngine();
    TrickleServer server(600, 100);  // a byte every 0.6 s for a minute
    const auto start = Clock::now();
    const CallHandle call = StartFetch(server.port);
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.mode) + " " + std::to_string(c.milliseconds));
        char drain[16];
        while (::recv(near.fd, drain, sizeof drain, MSG_DONTWAIT) > 0) {}
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

}  // namespace
}  // namespace Testing
