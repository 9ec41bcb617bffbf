#include "Cipher.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <stdexcept>

#include "Fetched.h"

namespace OpenSSL {

using InitFunction = int (*)(EVP_CIPHER_CTX*, const EVP_CIPHER*, ENGINE*, const unsigned char*, const unsigned char*);

// The part shared by both factories: key adjustment on a private copy that is
// wiped on every path, allocation, and the init call.
struct CipherFactory {
template <class T, class Make>
static Ombrix::AutoRefPtr<T> Initialise(const EVP_CIPHER* cipher, std::string_view key, const InitVector* iv,
                                 bool throwOnFailure, InitFunction init, const char* failureText, Make&& make) {
    const size_t keyLength = cipher ? static_cast<size_t>(std::max(EVP_CIPHER_get_key_length(cipher), 0)) : 0;
    std::string adjusted(keyLength, '\0');
    WipeOnExit wipe(adjusted);
    std::memcpy(adjusted.data(), key.data(), std::min(keyLength, key.size()));

    Ombrix::AutoRefPtr<T> created(make());
    const auto* keyBytes = adjusted.empty() ? nullptr : reinterpret_cast<const unsigned char*>(adjusted.data());
    const unsigned char* ivBytes = iv ? iv->data() : nullptr;
    const int status = init(created->context_.get(), Cryptography::FetchedCipher(cipher), nullptr, keyBytes, ivBytes);
    if (status != 1) {
        if (throwOnFailure) throw std::runtime_error(failureText + std::to_string(status));
        return nullptr;
    }
    return created;
}
};

MinimumLengthKey::MinimumLengthKey(std::string_view key, size_t minimum)
    : data_(reinterpret_cast<const unsigned char*>(key.data())) {
    if (key.size() >= minimum) return;
    padded_.assign(minimum, '\0');
    std::memcpy(padded_.data(), key.data(), key.size());
    data_ = reinterpret_cast<const unsigned char*>(padded_.data());
}

InitVector::InitVector(const Ombrix::IDataRef* iv, const EVP_CIPHER* cipher) : cipher_(cipher) {
    if (iv) {
        if (const uint64_t size = iv->GetSize()) {
            bytes_.resize(size);
            iv->Read(reinterpret_cast<char*>(bytes_.data()), size, 0);
        }
    }
    if (cipher_) {
        const int wanted = EVP_CIPHER_get_iv_length(cipher_);
        if (wanted > 0 && static_cast<size_t>(wanted) > bytes_.size()) bytes_.resize(static_cast<size_t>(wanted), 0);
    }
}

InitVector::InitVector(const EVP_CIPHER* cipher)
    : cipher_(cipher), bytes_(cipher ? static_cast<size_t>(std::max(EVP_CIPHER_get_iv_length(cipher), 0)) : 0, 0) {}

ACryptoBase::ACryptoBase(const EVP_CIPHER* cipher, unsigned char* output, uint64_t capacity)
    : context_(EVP_CIPHER_CTX_new()),
      output_(output),
      capacity_(capacity),
      blockSize_(static_cast<uint64_t>(static_cast<int64_t>(cipher ? EVP_CIPHER_get_block_size(cipher) : 0))) {}

void ACryptoBase::CheckRoom() {
    if (written_ + blockSize_ > capacity_)
        ReportError("Maybe corrupt input data. There is not enough space in the output buffer. Needed: " +
                    std::to_string(written_ + blockSize_) + ", but there is only: " + std::to_string(capacity_));
}

void ACryptoBase::CheckIntSize(uint64_t length) {
    if (length > static_cast<uint64_t>(INT_MAX))
        ReportError("There is not enough space in an 'int' to hold the value of '" + std::to_string(length) + "'");
}

void ACryptoBase::Update(const unsigned char* input, uint64_t length) {
    if (!input || length == 0) return;
    CheckRoom();
    CheckIntSize(length);
    int produced = 0;
    const int status = CipherUpdate(context_.get(), output_ + written_, &produced, input, static_cast<int>(length));
    if (status != 1) ReportError("Error on update. Status: " + std::to_string(status));
    written_ += static_cast<uint64_t>(produced);
}

// One piece of an UpdateInPieces. The whole already passed the checks; the
// room check here only guards the buffer and cannot fire for the ciphers
// that stream in pieces.
void ACryptoBase::UpdatePiece(const unsigned char* piece, uint64_t length) {
    if (written_ + length + blockSize_ > capacity_ + kOutputSlack)
        ReportError("Maybe corrupt input data. There is not enough space in the output buffer. Needed: " +
                    std::to_string(written_ + length + blockSize_) + ", but there is only: " + std::to_string(capacity_));
    int produced = 0;
    const int status = CipherUpdate(context_.get(), output_ + written_, &produced, piece, static_cast<int>(length));
    if (status != 1) ReportError("Error on update. Status: " + std::to_string(status));
    written_ += static_cast<uint64_t>(produced);
}

bool StreamsInPieces(const EVP_CIPHER* cipher, uint64_t pieceSize) {
    if (!cipher) return false;
    const int block = EVP_CIPHER_get_block_size(cipher);
    if (block <= 0 || pieceSize % static_cast<uint64_t>(block) != 0) return false;
    constexpr unsigned long kUnitFlags =
        EVP_CIPH_FLAG_AEAD_CIPHER | EVP_CIPH_FLAG_CUSTOM_CIPHER | EVP_CIPH_FLAG_PIPELINE | EVP_CIPH_FLAG_LENGTH_BITS;
    if ((EVP_CIPHER_get_flags(cipher) & kUnitFlags) != 0) return false;
    switch (EVP_CIPHER_get_mode(cipher)) {
        case EVP_CIPH_STREAM_CIPHER:
        case EVP_CIPH_ECB_MODE:
        case EVP_CIPH_CBC_MODE:
        case EVP_CIPH_CFB_MODE:
        case EVP_CIPH_OFB_MODE:
        case EVP_CIPH_CTR_MODE:
            return true;
        default:
            return false;
    }
}

uint64_t ACryptoBase::Final() {
    CheckRoom();
    int produced = 0;
    const int status = CipherFinal(context_.get(), output_ + written_, &produced);
    if (status != 1) ReportError("Maybe wrong password. Error on finalizing. Status: " + std::to_string(status));
    written_ += static_cast<uint64_t>(produced);
    return written_;
}

Ombrix::AutoRefPtr<CEncrypter> CEncrypter::Create(const EVP_CIPHER* cipher, std::string_view key, const InitVector* iv,
                                                  unsigned char* output, uint64_t capacity, bool throwOnFailure) {
    return CipherFactory::Initialise<CEncrypter>(cipher, key, iv, throwOnFailure, &EVP_EncryptInit_ex,
                                  "Error on 'EVP_EncryptInit'. Status: ",
                                  [&] { return new CEncrypter(cipher, output, capacity); });
}

int CEncrypter::CipherUpdate(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced,
                             const unsigned char* input, int length) {
    return EVP_EncryptUpdate(ctx, destination, produced, input, length);
}

int CEncrypter::CipherFinal(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced) {
    return EVP_EncryptFinal_ex(ctx, destination, produced);
}

void CEncrypter::ReportError(const std::string& message) { throw std::runtime_error(message); }

Ombrix::AutoRefPtr<CDecrypter> CDecrypter::Create(const EVP_CIPHER* cipher, std::string_view key, const InitVector* iv,
                                                  unsigned char* output, uint64_t capacity, bool throwOnFailure) {
    if (!cipher) throw std::runtime_error("Error on 'EVP_DecryptInit'. Cipher is NULL");
    return CipherFactory::Initialise<CDecrypter>(cipher, key, iv, throwOnFailure, &EVP_DecryptInit_ex,
                                  "Error on 'EVP_DecryptInit_ex'. Status: ",
                                  [&] { return new CDecrypter(cipher, output, capacity); });
}

int CDecrypter::CipherUpdate(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced,
                             const unsigned char* input, int length) {
    return EVP_DecryptUpdate(ctx, destination, produced, input, length);
}

int CDecrypter::CipherFinal(EVP_CIPHER_CTX* ctx, unsigned char* destination, int* produced) {
    return EVP_DecryptFinal_ex(ctx, destination, produced);
}

void CDecrypter::ReportError(const std::string& message) { throw std::runtime_error(message); }

uint64_t EncryptedSize(const EVP_CIPHER* cipher, uint64_t length) {
    const int blockSize = cipher ? EVP_CIPHER_get_block_size(cipher) : 0;
    if (blockSize <= 0)
        throw std::runtime_error("cipher->block_size is '" + std::to_string(blockSize) + "' (which is <= 0)");
    const auto block = static_cast<uint64_t>(blockSize);
    return length + (block - length % block);
}

}  // namespace OpenSSL
