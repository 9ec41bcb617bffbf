// Helpers for the symmetric-encryption suites: Wycheproof files, an
// independent OpenSSL oracle, and byte buffers that count how they are read.
#pragma once

#include <openssl/evp.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "Harness.h"

namespace Testing {

inline nlohmann::json LoadWycheproof(const std::string& file) {
    return nlohmann::json::parse(ReadFile(DataPath("wycheproof/" + file)));
}

inline std::string Base64(std::string_view bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                        reinterpret_cast<const unsigned char*>(bytes.data()),
                                        static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(written));
    return text;
}

inline std::string Unbase64(std::string_view text) {
    std::string bytes(3 * (text.size() / 4), '\0');
    const int written = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                        reinterpret_cast<const unsigned char*>(text.data()),
                                        static_cast<int>(text.size()));
    if (written < 0) return {};
    size_t padding = 0;
    for (size_t i = text.size(); i > 0 && text[i - 1] == '='; --i) ++padding;
    bytes.resize(static_cast<size_t>(written) - padding);
    return bytes;
}

// Encrypts (or decrypts) with OpenSSL directly, with key and IV exactly as
// given; the reference the module's results are checked against.
inline std::string OracleCipher(const std::string& cipherName, std::string_view key, std::string_view iv,
                                std::string_view input, bool encrypt) {
    const EVP_CIPHER* cipher = EVP_get_cipherbyname(cipherName.c_str());
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    std::string out(input.size() + 32, '\0');
    int n = 0, f = 0;
    auto* o = reinterpret_cast<unsigned char*>(out.data());
    const auto* k = reinterpret_cast<const unsigned char*>(key.data());
    const auto* v = iv.empty() ? nullptr : reinterpret_cast<const unsigned char*>(iv.data());
    const bool ok = EVP_CipherInit_ex(ctx, cipher, nullptr, k, v, encrypt ? 1 : 0) == 1 &&
                    EVP_CipherUpdate(ctx, o, &n, reinterpret_cast<const unsigned char*>(input.data()),
                                     static_cast<int>(input.size())) == 1 &&
                    EVP_CipherFinal_ex(ctx, o + n, &f) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok) return "<oracle failed>";
    out.resize(static_cast<size_t>(n + f));
    return out;
}

// Contiguous bytes that record whether a consumer copied them through Read.
class CountingData final : public Ombrix::UseCounted<IDataRef> {
public:
    explicit CountingData(std::string bytes) : bytes_(std::move(bytes)) {}
    uint64_t GetSize() const override { return bytes_.size(); }
    bool Assign(const char*, uint64_t) override { return false; }
    uint64_t Read(char* destination, uint64_t size, uint64_t offset) const override {
        ++reads_;
        if (offset >= bytes_.size()) return 0;
        const uint64_t count = std::min<uint64_t>(size, bytes_.size() - offset);
        std::memcpy(destination, bytes_.data() + offset, count);
        return count;
    }
    bool IsEqual(const IDataRef*) const override { return false; }
    AutoRefPtr<IDataRef> Clone() const override { return AutoRefPtr<IDataRef>(new CountingData(bytes_)); }
    const char* GetData() const override {
        ++directs_;
        return bytes_.data();
    }
    uint64_t Reads() const { return reads_; }
    uint64_t Directs() const { return directs_; }

private:
    std::string bytes_;
    mutable std::atomic<uint64_t> reads_{0}, directs_{0};
};

// A file holding the given bytes, removed with the object.
class TempFile {
public:
    explicit TempFile(std::string_view bytes) {
        char name[] = "/tmp/ombrix-symmetric-XXXXXX";
        const int fd = ::mkstemp(name);
        if (fd >= 0) ::close(fd);
        path_ = name;
        std::ofstream(path_, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace Testing
