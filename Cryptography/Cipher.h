// Reference-counted symmetric cipher helpers: an encrypter and a decrypter that
// write into a buffer the caller sized beforehand, the initialisation-vector
// holder, and small helpers for secret key copies.
#pragma once

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Ombrix/Interfaces.h"
#include "openssl/Handles.h"
#include "openssl/WipeOnExit.h"

namespace OpenSSL {

// Key bytes handed to a cipher that reads a fixed number of them. The
// caller's bytes are used in place when there are enough; a shorter key is
// copied into a zero-filled private buffer (wiped on release), so OpenSSL never
// reads past the caller's bytes.
class MinimumLengthKey {
public:
    MinimumLengthKey(std::string_view key, size_t minimum);
    MinimumLengthKey(const MinimumLengthKey&) = delete;
    MinimumLengthKey& operator=(const MinimumLengthKey&) = delete;
    ~MinimumLengthKey() { OPENSSL_cleanse(padded_.data(), padded_.size()); }

    const unsigned char* data() const noexcept { return data_; }

private:
    std::string padded_;
    const unsigned char* data_;
};

// The IV bytes for a cipher.
class InitVector {
public:
    // The buffer's bytes, zero-extended to the cipher's IV length; a longer IV
    // is kept whole.
    InitVector(const Ombrix::IDataRef* iv, const EVP_CIPHER* cipher);
    // The cipher's IV length in zero bytes.
    explicit InitVector(const EVP_CIPHER* cipher);

    const unsigned char* data() const noexcept { return bytes_.empty() ? nullptr : bytes_.data(); }
    unsigned char* data() noexcept { return bytes_.empty() ? nullptr : bytes_.data(); }
    size_t size() const noexcept { return bytes_.size(); }

private:
    const EVP_CIPHER* cipher_;
    std::vector<unsigned char> bytes_;
};

class AUpdatable : public Ombrix::UseCounted<> {
public:
    virtual void Update(const unsigned char* input, uint64_t length) = 0;
};

// Drives one EVP_CIPHER_CTX into a borrowed output buffer. Before each
// OpenSSL call one whole cipher block of room must be left in that buffer.
class ACryptoBase : public AUpdatable {
public:
    void Update(const unsigned char* input, uint64_t length) override;
    // The same as one Update over total bytes that arrive in pieces:
    // feed(sink) calls sink(pointer, length) for each piece in order. The room
    // and size checks are made for the whole, as Update makes them. Only for
    // ciphers where StreamsInPieces holds.
    template <class Feed>
    void UpdateInPieces(uint64_t total, Feed&& feed) {
        if (total == 0) return;
        CheckRoom();
        CheckIntSize(total);
        feed([this](const char* piece, size_t length) {
            UpdatePiece(reinterpret_cast<const unsigned char*>(piece), length);
            return true;
        });
    }
    // Flushes the last block; returns the total number of bytes written.
    uint64_t Final();

protected:
    ACryptoBase(const EVP_CIPHER* cipher, unsigned char* output, uint64_t capacity);

    virtual int CipherUpdate(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced,
                             const unsigned char* input, int length) = 0;
    virtual int CipherFinal(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced) = 0;
    [[noreturn]] virtual void ReportError(const std::string& message) = 0;

private:
    friend struct CipherFactory;

    void CheckRoom();
    void CheckIntSize(uint64_t length);
    void UpdatePiece(const unsigned char* piece, uint64_t length);

    CipherContextPtr context_;
    uint64_t written_ = 0;
    unsigned char* output_;
    uint64_t capacity_;
    uint64_t blockSize_;
};

class CEncrypter final : public ACryptoBase {
public:
    // The key is cut or zero-extended to the cipher's key length on a private
    // copy. Throws std::runtime_error on failure when throwOnFailure is set,
    // else returns null.
    static Ombrix::AutoRefPtr<CEncrypter> Create(const EVP_CIPHER* cipher, std::string_view key,
                                                 const InitVector* iv, unsigned char* output, uint64_t capacity,
                                                 bool throwOnFailure);

private:
    using ACryptoBase::ACryptoBase;
    int CipherUpdate(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced, const unsigned char* input,
                     int length) override;
    int CipherFinal(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced) override;
    [[noreturn]] void ReportError(const std::string& message) override;
};

class CDecrypter final : public ACryptoBase {
public:
    static Ombrix::AutoRefPtr<CDecrypter> Create(const EVP_CIPHER* cipher, std::string_view key,
                                                 const InitVector* iv, unsigned char* output, uint64_t capacity,
                                                 bool throwOnFailure);

private:
    using ACryptoBase::ACryptoBase;
    int CipherUpdate(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced, const unsigned char* input,
                     int length) override;
    int CipherFinal(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced) override;
    [[noreturn]] void ReportError(const std::string& message) override;
};

// Output room for encrypting length bytes: rounded up to the next whole block,
// a full extra block when already whole. Throws for a block size <= 0.
uint64_t EncryptedSize(const EVP_CIPHER* cipher, uint64_t length);

// Whether updating the cipher piece by piece (pieces a multiple of its block)
// gives the same output as one update over the whole: the plain block and
// stream modes. Wrap, XTS, CCM, SIV, OCB and the other AEAD and stitched
// ciphers treat each update as a unit of their own.
bool StreamsInPieces(const EVP_CIPHER* cipher, uint64_t pieceSize);

// Bytes an output buffer keeps beyond the room it declares. Key-wrap ciphers
// write up to two blocks more than EncryptedSize in one update (the integrity
// block and the padding); the room check only finds that afterwards, so the
// write must still land inside the buffer.
constexpr uint64_t kOutputSlack = EVP_MAX_BLOCK_LENGTH;

}  // namespace OpenSSL
