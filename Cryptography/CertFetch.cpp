// X509FetchFromServer: connects without blocking, runs the TLS handshake only
// until the server's certificate arrives, and returns it unverified. While the
// socket is not ready the calling script is suspended on a descriptor event;
// the handshake's SSL waits in the call's user data until the host runs the
// call again.
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>

#include "Routine.h"
#include "openssl/AtUnload.h"
#include "X509Cert.h"

namespace Cryptography {
namespace {

using Ombrix::AutoRefPtr;

constexpr const char* kHandshakeKey = "Cryptography.X509FetchFromServer.Handshake";
constexpr int32_t kWaitMilliseconds = 5000;
// A server silent for a whole wait is given up on; a server that keeps the
// socket ready without ever finishing is given up on after this many waits.
constexpr int kMaxTimedOutWaits = 1;
constexpr int kMaxWaits = 256;
// However the server paces its bytes, a fetch ends after this long in all.
constexpr std::chrono::milliseconds kFetchLimit{30000};

using Clock = std::chrono::steady_clock;

// The handshake in progress, kept across the suspensions of one call.
class Handshake final : public Ombrix::UseCounted<Ombrix::IObject> {
public:
    explicit Handshake(OpenSSL::SslPtr ssl) : ssl(std::move(ssl)) {}

    OpenSSL::SslPtr ssl;
    Clock::time_point started = Clock::now();
    AutoRefPtr<Ombrix::IFDEvent> event;  // the event of the last wait
    int waits = 0;
    int timedOutWaits = 0;
};

// "host:port", with IPv6 literals bracketed so the port stays separate.
std::string ConnectTarget(const std::string& host, int32_t port) {
    const bool bareIPv6 = !host.empty() && host.find(':') != std::string::npos && host.front() != '[';
    std::string target = bareIPv6 ? "[" + host + "]" : host;
    return target + ":" + (port == 0 ? std::string("443") : std::to_string(port));
}

// The client context every fetch makes its session from. A fetch changes
// nothing on it and a new one costs about 0.1 ms of CPU, so one is made on
// first use and shared (SSL_new from one context is safe on any thread). A
// plain pointer and a mutex with trivial destruction.
std::mutex contextGuard;
SSL_CTX* sharedContext = nullptr;

bool HoldsContext() { return sharedContext != nullptr; }
void FreeSharedContext() {
    SSL_CTX_free(sharedContext);
    sharedContext = nullptr;
}
const OpenSSL::AtUnload<HoldsContext, FreeSharedContext> contextReaper;

SSL_CTX* FetchContext() {
    const std::lock_guard<std::mutex> lock(contextGuard);
    if (!sharedContext) sharedContext = SSL_CTX_new(TLS_client_method());
    return sharedContext;
}

// A non-blocking client session to host:port that sends the host as server
// name and verifies nothing. Null when any step fails.
OpenSSL::SslPtr StartHandshake(const std::string& host, int32_t port) {
    const std::string target = ConnectTarget(host, port);
    OpenSSL::BioPtr bio(BIO_new_connect(target.c_str()));
    if (!bio || BIO_set_nbio(bio.get(), 1) != 1) return nullptr;
    SSL_CTX* context = FetchContext();
    if (!context) return nullptr;
    OpenSSL::SslPtr ssl(SSL_new(context));
    if (!ssl || !SSL_set_tlsext_host_name(ssl.get(), host.c_str())) return nullptr;
    SSL_set_bio(ssl.get(), bio.get(), bio.get());
    bio.release();  // the SSL owns it for both directions now
    return ssl;
}

// The peer's certificate as a new certificate value (empty without one). The
// per-call state goes, which frees the SSL and drops the connection.
AutoRefPtr<X509Cert> Finish(Ombrix::IContext* context, X509* peer) {
    OpenSSL::X509Ptr owned(peer);
    context->ClearUserData(kHandshakeKey);
    AutoRefPtr<X509Cert> certificate = X509Cert::New(context);
    if (certificate) certificate->Adopt(owned.get());
    return certificate;
}

AutoRefPtr<X509Cert> FetchFromServer(std::string host, int32_t port, Ombrix::IContext* context) {
    AutoRefPtr<Handshake> state;
    if (AutoRefPtr<Ombrix::IObject> held = context->GetUserData(kHandshakeKey)) {
        state = held.DynamicCast<Handshake>();
        if (!state) return Finish(context, nullptr);
        if (state->event && state->event->GetReadyFlags() == 0 && ++state->timedOutWaits >= kMaxTimedOutWaits)
            return Finish(context, nullptr);
        if (Clock::now() - state->started >= kFetchLimit) return Finish(context, nullptr);
    } else {
        OpenSSL::SslPtr ssl = StartHandshake(host, port);
        if (!ssl) return Finish(context, nullptr);
        state = Ombrix::MakeRef<Handshake>(std::move(ssl));
    }

    SSL* ssl = state->ssl.get();
    ERR_clear_error();
    const int result = SSL_connect(ssl);
    // A certificate that arrived before the handshake finished is enough.
    if (X509* peer = SSL_get1_peer_certificate(ssl); peer || result >= 1) return Finish(context, peer);

    uint32_t readiness;
    switch (SSL_get_error(ssl, result)) {
        case SSL_ERROR_WANT_READ: readiness = Ombrix::kEventReadable; break;
        case SSL_ERROR_WANT_WRITE:
        case SSL_ERROR_WANT_CONNECT: readiness = Ombrix::kEventWritable; break;
        default: return Finish(context, nullptr);
    }
    if (++state->waits > kMaxWaits) return Finish(context, nullptr);
    // No wait reaches past the end of the fetch's time.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(kFetchLimit - (Clock::now() - state->started));
    const int32_t wait = static_cast<int32_t>(std::clamp<long long>(left.count(), 1, kWaitMilliseconds));
    AutoRefPtr<Ombrix::IEventScheduler> scheduler = context->GetEventScheduler();
    AutoRefPtr<Ombrix::IFDEvent> event =
        scheduler ? scheduler->CreateFDEvent(nullptr, nullptr, SSL_get_fd(ssl), wait, readiness) : nullptr;
    if (!event) return Finish(context, nullptr);
    state->event = event;
    if (!context->SetUserData(kHandshakeKey, AutoRefPtr<Ombrix::IObject>(state)) ||
        !context->InterruptWithEvent(AutoRefPtr<Ombrix::IEvent>(event), nullptr))
        return Finish(context, nullptr);
    return nullptr;  // the host runs the call again once the socket is ready
}

}  // namespace
}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(RetrieveCertificateFromHost, &Cryptography::FetchFromServer)
