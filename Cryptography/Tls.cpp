// The TLS client routines: CreateSSL, Connect, Read, Write, Shutdown, Error
// and State. Outcomes go to the session (state and last message), never to the
// script's error handling.
#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "Routine.h"
#include "SSLWrapper.h"

namespace Cryptography {
namespace {

using Ombrix::AutoRefPtr;

// SSL_read hands back at most one record's plaintext (16 KiB) per call, so a
// larger scratch area would never be filled.
constexpr size_t kReadCapacity = 64 * 1024;

// OpenSSL 3 reports a peer that dropped the connection without close_notify
// as a protocol error with this reason instead of a bare system-call error.
bool IsUnexpectedEof(int code) {
    return code == SSL_ERROR_SSL && ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
}

// Turns the result of a failed OpenSSL I/O call into the session's state and
// message. systemError is errno as it stood right after the call. A prefix,
// when given, replaces the message before the details are appended.
void Classify(SSLWrapper& session, int result, int systemError, const char* prefix) {
    if (result > 0) return;
    const int code = SSL_get_error(session.Get(), result);
    if (code == SSL_ERROR_WANT_WRITE) {
        session.SetState(SSLWrapper::kWantWrite);
        return;
    }
    if (code == SSL_ERROR_WANT_READ) {
        session.SetState(SSLWrapper::kWantRead);
        return;
    }
    session.SetState(SSLWrapper::kFailed);
    std::string& message = session.Message();
    if (prefix) message = prefix;
    if (code == SSL_ERROR_SYSCALL && systemError != 0) {
        message.append(SystemErrorText(systemError)).append(" (").append(std::to_string(systemError)).append(") ");
    } else if (code == SSL_ERROR_SYSCALL || IsUnexpectedEof(code)) {
        message.append("SSL_R_UNEXPECTED_EOF_WHILE_READING");
    } else if (code == SSL_ERROR_ZERO_RETURN) {
        session.SetState(SSLWrapper::kClosed);
    }
    for (int i = 0; i < 2; ++i) {
        const unsigned long queued = ERR_get_error();
        if (!queued) break;
        message.append(ReasonText(queued)).append(". ");
    }
}

AutoRefPtr<SSLWrapper> CreateSSL(AutoRefPtr<Ombrix::IJSON> configuration, Ombrix::IContext* context) {
    AutoRefPtr<SSLWrapper> session = SSLWrapper::New(context);
    if (!session) throw std::bad_alloc();
    session->Configure(configuration && configuration->IsObject() ? configuration.get() : nullptr);
    return session;
}

bool Connect(AutoRefPtr<SSLWrapper> session, int32_t socket) {
    SSL* ssl = session->Get();
    if (!ssl) {
        session->SetState(SSLWrapper::kFailed);
        return false;
    }
    // A retried handshake comes back with the same socket; its BIO is kept.
    if (socket < 0 || (SSL_get_fd(ssl) != socket && !SSL_set_fd(ssl, socket))) {
        session->RecordFailure("Failed to set SSL FD");
        return false;
    }
    ERR_clear_error();
    errno = 0;
    const int result = SSL_connect(ssl);
    const int systemError = errno;
    if (result != 1) {
        Classify(*session, result, systemError, "SSL_connect failed: ");
        return false;
    }
    if (session->Verifies()) {
        OpenSSL::X509Ptr peer(SSL_get1_peer_certificate(ssl));
        if (!peer) {
            session->Message() = "SSL verify failed: No certificate presented.";
            session->SetState(SSLWrapper::kFailed);
            return false;
        }
        const long verdict = SSL_get_verify_result(ssl);
        if (verdict != X509_V_OK) {
            session->Message() = std::string("SSL verify failed: ") + X509_verify_cert_error_string(verdict);
            session->SetState(SSLWrapper::kFailed);
            return false;
        }
    }
    session->SetState(SSLWrapper::kConnected);
    return true;
}

double Read(AutoRefPtr<SSLWrapper> session, AutoRefPtr<Ombrix::IDataRef> buffer, int32_t size) {
    if (!buffer || !session->Get()) return -1;
    if (size == 0) return 0;
    if (size < 0) return -1;
    const size_t capacity = std::min(static_cast<size_t>(size), kReadCapacity);
    std::unique_ptr<char[]> area(new (std::nothrow) char[capacity]);
    if (!area) {
        session->RecordFailure("SSLRead: error allocating memory for the input buffer.");
        return -1;
    }
    session->Message().clear();
    ERR_clear_error();
    int result;
    int systemError;
    do {
        errno = 0;
        result = SSL_read(session->Get(), area.get(), static_cast<int>(capacity));
        systemError = errno;
    } while (result <= 0 && systemError == EINTR);
    if (result > 0) {
        session->SetState(SSLWrapper::kConnected);
        buffer->Assign(area.get(), static_cast<uint64_t>(result));
        return result;
    }
    Classify(*session, result, systemError, "SSL_read error: ");
    return session->GetState() == SSLWrapper::kClosed ? 0 : result;
}

double Write(AutoRefPtr<SSLWrapper> session, std::string data, int32_t length) {
    if (!session->Get()) return -1;
    session->Message().clear();
    if (length < 0) return -1;
    uint64_t count = std::min<uint64_t>(static_cast<uint64_t>(length), data.size());
    // A write OpenSSL asked to retry must be retried with the same length.
    if (session->PendingWrite() != 0 && session->PendingWrite() < count) count = session->PendingWrite();
    if (count == 0) return 0;
    ERR_clear_error();
    int result;
    int systemError;
    do {
        errno = 0;
        result = SSL_write(session->Get(), data.data(), static_cast<int>(count));
        systemError = errno;
    } while (result <= 0 && systemError == EINTR);
    if (result > 0) {
        session->SetState(SSLWrapper::kConnected);
        session->SetPendingWrite(0);
        return result;
    }
    Classify(*session, result, systemError, "SSL_write error: ");
    switch (session->GetState()) {
        case SSLWrapper::kWantRead:
        case SSLWrapper::kWantWrite: session->SetPendingWrite(count); return result;
        case SSLWrapper::kClosed: return 0;
        default: session->SetPendingWrite(0); return result;
    }
}

void Shutdown(AutoRefPtr<SSLWrapper> session) {
    if (!session->Get() || session->GetState() == SSLWrapper::kFailed) return;
    ERR_clear_error();
    errno = 0;
    const int result = SSL_shutdown(session->Get());
    const int systemError = errno;
    // 0: our close_notify went out; 1: both sides closed. Neither waits for the peer.
    if (result < 0)
        Classify(*session, result, systemError, nullptr);
    else
        session->SetState(SSLWrapper::kClosed);
}

std::string Error(AutoRefPtr<SSLWrapper> session) { return session->TakeMessage(); }

double GetState(AutoRefPtr<SSLWrapper> session) { return session->GetState(); }

}  // namespace
}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(CreateSSL, &Cryptography::CreateSSL)
CRYPTOGRAPHY_ROUTINE(SSLConnect, &Cryptography::Connect)
CRYPTOGRAPHY_ROUTINE(SSLRead, &Cryptography::Read)
CRYPTOGRAPHY_ROUTINE(SSLWrite, &Cryptography::Write)
CRYPTOGRAPHY_ROUTINE(SSLShutdown, &Cryptography::Shutdown)
CRYPTOGRAPHY_ROUTINE(SSLGetError, &Cryptography::Error)
CRYPTOGRAPHY_ROUTINE(SSLGetState, &Cryptography::GetState)
