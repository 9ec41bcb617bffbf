#include "SSLWrapper.h"

#include <openssl/err.h>

#include <cstring>

#include "CaStore.h"
#include "Routine.h"
#include "openssl/NoPassphrase.h"

namespace Cryptography {

namespace {

void ReadString(const Ombrix::IJSON& json, const char* key, std::string& out) {
    std::string value;
    if (json.GetMemberString(key, value)) out = std::move(value);
}

void ReadBoolean(const Ombrix::IJSON& json, const char* key, bool& out) {
    bool value = false;
    if (json.GetMemberBoolean(key, value)) out = value;
}

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

// strerror_r comes in a GNU form (returns the text) and a POSIX form (fills the buffer).
[[maybe_unused]] const char* PickErrorText(const char* returned, const char*) { return returned; }
[[maybe_unused]] const char* PickErrorText(int, const char* buffer) { return buffer; }

}  // namespace

std::string SystemErrorText(int code) {
    char buffer[256] = {};
    const char* text = PickErrorText(strerror_r(code, buffer, sizeof buffer), buffer);
    return text ? text : "";
}

std::string ReasonText(unsigned long code) {
    if (ERR_SYSTEM_ERROR(code)) return SystemErrorText(static_cast<int>(ERR_GET_REASON(code)));
    const char* reason = ERR_reason_error_string(code);
    return reason ? reason : "";
}

TlsConfiguration TlsConfiguration::Read(const Ombrix::IJSON& json) {
    TlsConfiguration c;
    ReadString(json, "CAFile", c.caFile);
    ReadString(json, "CAPath", c.caPath);
    ReadString(json, "Cert", c.cert);
    ReadString(json, "Key", c.key);
    ReadString(json, "Host", c.host);
    ReadString(json, "CipherList", c.cipherList);
    ReadBoolean(json, "Verify", c.verify);
    ReadBoolean(json, "LoadDefaultCAPaths", c.loadDefaultCAPaths);
    if (!json.HasMember("Verify")) {
        c.verify = true;
        if (!json.HasMember("LoadDefaultCAPaths") && !json.HasMember("CAPath") && !json.HasMember("CAFile"))
            c.loadDefaultCAPaths = true;
    }
    return c;
}

SSLWrapper::SSLWrapper(const SSLWrapper& other)
    : CustomType(other),
      state_(other.state_),
      message_(other.message_),
      pendingWrite_(other.pendingWrite_),
      verify_(other.verify_) {
    if (other.ssl_ && SSL_up_ref(other.ssl_.get())) ssl_.reset(other.ssl_.get());
}

std::string SSLWrapper::TakeMessage() noexcept {
    std::string message = std::move(message_);
    message_.clear();
    return message;
}

void SSLWrapper::RecordFailure(const char* text) {
    message_ = text;
    if (const unsigned long code = ERR_get_error()) message_.append(": ").append(ReasonText(code));
    state_ = kFailed;
}

bool SSLWrapper::Configure(const Ombrix::IJSON* configuration) {
    ssl_.reset();
    ERR_clear_error();
    OpenSSL::SslContextPtr context(SSL_CTX_new(TLS_client_method()));
    if (!context) {
        RecordFailure("Failed to create SSL_CTX");
        return false;
    }
    if (!configuration) {
        RecordFailure("Invalid JSON Configuration");
        return false;
    }
    const TlsConfiguration settings = TlsConfiguration::Read(*configuration);
    verify_ = settings.verify;
    if (!ConfigureContext(context.get(), settings)) return false;

    ssl_.reset(SSL_new(context.get()));
    if (!ssl_) {
        RecordFailure("Failed to create SSL object");
        return false;
    }
    SSL_set_connect_state(ssl_.get());
    return true;
}

// The fixed order of configuration; the first failing step ends it.
bool SSLWrapper::ConfigureContext(SSL_CTX* context, const TlsConfiguration& c) {
    if (!SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION)) {
        RecordFailure("Failed to set minimum TLS version");
        return false;
    }
    // Key and certificate files never ask for a pass phrase on a terminal.
    SSL_CTX_set_default_passwd_cb(context, OpenSSL::NoPassphrase);
    SSL_CTX_set_verify(context, c.verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_AUTO_RETRY);

    if (c.verify) {
        if ((!c.caFile.empty() || !c.caPath.empty()) &&
            !SSL_CTX_load_verify_locations(context, OrNull(c.caFile), OrNull(c.caPath))) {
            RecordFailure("Failed to load CA file/directory");
            return false;
        }
        // With no CA file or directory of its own, the context takes the
        // shared store of the default locations.
        const bool defaultsOnly = c.caFile.empty() && c.caPath.empty();
        if (c.loadDefaultCAPaths &&
            !(defaultsOnly ? UseDefaultVerifyPaths(context) : SSL_CTX_set_default_verify_paths(context))) {
            RecordFailure("Failed to load default CA file/directory");
            return false;
        }
        // Checked against the certificate only; no server name is sent.
        if (!c.host.empty() && !X509_VERIFY_PARAM_set1_host(SSL_CTX_get0_param(context), c.host.c_str(), 0)) {
            RecordFailure("Failed to set verify host name");
            return false;
        }
    }
    if (!c.cert.empty() && !SSL_CTX_use_certificate_chain_file(context, c.cert.c_str())) {
        RecordFailure("Failed to load client certificate");
        return false;
    }
    if (!c.key.empty() && !SSL_CTX_use_PrivateKey_file(context, c.key.c_str(), SSL_FILETYPE_PEM)) {
        RecordFailure("Failed to load private key");
        return false;
    }
    if ((!c.cert.empty() || !c.key.empty()) && !SSL_CTX_check_private_key(context)) {
        RecordFailure("Certificate and private key do not match");
        return false;
    }
    if (!c.cipherList.empty() && !SSL_CTX_set_cipher_list(context, c.cipherList.c_str())) {
        RecordFailure("Failed to set cipher list");
        return false;
    }
    return true;
}

}  // namespace Cryptography

CRYPTOGRAPHY_TYPE_FACTORY(CreateCryptographySSL, Cryptography::SSLWrapper)
