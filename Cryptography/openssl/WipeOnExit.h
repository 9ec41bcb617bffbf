// Overwrites a string that holds secret bytes (a key, a password, PEM or DER
// of a private key) with OPENSSL_cleanse when the scope ends, on every path.
#pragma once

#include <openssl/crypto.h>

#include <string>

namespace OpenSSL {

class WipeOnExit {
public:
    explicit WipeOnExit(std::string& secret) noexcept : secret_(secret) {}
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;
    ~WipeOnExit() { OPENSSL_cleanse(secret_.data(), secret_.size()); }

private:
    std::string& secret_;
};

}  // namespace OpenSSL
