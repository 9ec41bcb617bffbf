// Helpers shared by the key, key generation and signature routines.
#pragma once

#include <openssl/crypto.h>

#include <string>

namespace Cryptography {

// Overwrites a string that holds secret bytes (PEM text, a password, DER of a
// private key) when the scope ends, on every path out of it.
class CleanseOnExit {
public:
    explicit CleanseOnExit(std::string& secret) noexcept : secret_(secret) {}
    ~CleanseOnExit() {
        if (!secret_.empty()) OPENSSL_cleanse(secret_.data(), secret_.size());
    }
    CleanseOnExit(const CleanseOnExit&) = delete;
    CleanseOnExit& operator=(const CleanseOnExit&) = delete;

private:
    std::string& secret_;
};

}  // namespace Cryptography
