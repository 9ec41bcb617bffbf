// Cryptography::SSLWrapper, the class behind the script type Cryptography.SSL:
// one TLS client session over a socket the script connected itself. Failures
// never become script errors; they go to the session's state and last message.
#pragma once

#include <cstdint>
#include <string>

#include "Ombrix/CustomType.h"
#include "openssl/Handles.h"

namespace Cryptography {

// The system's description of an errno value.
std::string SystemErrorText(int code);
// The reason text of a queued OpenSSL error. System errors, which OpenSSL
// leaves without a reason text, get the system's description.
std::string ReasonText(unsigned long code);

// The client configuration read from the JSON object of CreateSSL.
struct TlsConfiguration {
    std::string caFile;
    std::string caPath;
    std::string cert;
    std::string key;
    std::string host;
    std::string cipherList;
    bool verify = true;
    bool loadDefaultCAPaths = false;

    // Strings and booleans are taken when present with the right JSON type.
    // Without "Verify", verification is on, and with no CA key at all the
    // default CA locations are trusted as well.
    static TlsConfiguration Read(const Ombrix::IJSON& json);
};

class SSLWrapper final : public Ombrix::CustomType<SSLWrapper> {
public:
    static constexpr const char* kTypeName = "Cryptography.SSL";

    // The session state a script reads with Cryptography.State.
    enum State : int8_t {
        kCreated = 0,
        kConnected = 1,
        kWantRead = 2,
        kWantWrite = 3,
        kClosed = -2,
        kFailed = -1,
    };

    SSLWrapper(uint32_t typeId, Ombrix::IContext* context) : CustomType(typeId, context) {}
    // A clone shares the SSL (one more OpenSSL reference) and starts with a
    // copy of the state, message and pending write; both drive one connection.
    SSLWrapper(const SSLWrapper& other);

    // Builds a fresh SSL from a configuration object (null: no valid object).
    // Any SSL held before is dropped. Returns false after recording a failure.
    bool Configure(const Ombrix::IJSON* configuration);

    // Replaces the message with text (plus ": " and the reason of the oldest
    // queued OpenSSL error, which is taken off the queue) and fails the session.
    void RecordFailure(const char* text);

    SSL* Get() const noexcept { return ssl_.get(); }
    State GetState() const noexcept { return state_; }
    void SetState(State state) noexcept { state_ = state; }
    const std::string& Message() const noexcept { return message_; }
    std::string& Message() noexcept { return message_; }
    // The message, leaving "" in its place.
    std::string TakeMessage() noexcept;
    uint64_t PendingWrite() const noexcept { return pendingWrite_; }
    void SetPendingWrite(uint64_t length) noexcept { pendingWrite_ = length; }
    bool Verifies() const noexcept { return verify_; }

private:
    bool ConfigureContext(SSL_CTX* context, const TlsConfiguration& configuration);

    OpenSSL::SslPtr ssl_;
    State state_ = kCreated;
    std::string message_;
    uint64_t pendingWrite_ = 0;
    bool verify_ = true;
};

}  // namespace Cryptography
