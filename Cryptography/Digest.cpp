// Message digests of a string, a byte buffer or a file: Cryptography.Hash and
// Cryptography.HashFile, all driven through OpenSSL::CHash.
#include "Digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Algorithms.h"
#include "Fetched.h"
#include "Ombrix/Data.h"
#include "Routine.h"

namespace OpenSSL {

CHash::CHash(const EVP_MD* md) : fCtx(EVP_MD_CTX_new()), fMd(md) {
    const int status = (fCtx && fMd) ? EVP_DigestInit_ex(fCtx.get(), Cryptography::FetchedDigest(fMd), nullptr) : 0;
    if (status != 1) {
        fCtx.reset();
        throw std::runtime_error("Error on 'EVP_DigestInit'. Status: " + std::to_string(status));
    }
    fInitialized = true;
}

CHash::~CHash() = default;

void CHash::Update(const void* data, size_t length) {
    const int status = EVP_DigestUpdate(fCtx.get(), data, length);
    if (status != 1) throw std::runtime_error("Error on 'EVP_DigestUpdate'. Status: " + std::to_string(status));
}

void CHash::Finalize(const unsigned char** digest, uint32_t* length) {
    if (fResultSize == 0) {
        if (!fMd) throw std::runtime_error("fMd is NULL!");
        const int size = EVP_MD_get_size(fMd);
        if (size <= 0 || size > EVP_MAX_MD_SIZE) throw std::length_error("digest size out of range");
        unsigned int written = 0;
        const int status = EVP_DigestFinal_ex(fCtx.get(), fResult, &written);
        if (status != 1)
            throw std::runtime_error("Error on 'EVP_DigestFinal_ex'. Status: " + std::to_string(status));
        fResultSize = static_cast<size_t>(size);
        fLength = written;
    }
    if (digest) *digest = fResult;
    if (length) *length = fLength;
}

}  // namespace OpenSSL

namespace Cryptography {

namespace {

using Ombrix::AutoRefPtr;
using Ombrix::Data;
using Ombrix::IContext;
using Ombrix::IDataRef;

// Non-contiguous buffers are read through a work area of this size.
constexpr uint64_t kDataChunk = 100000;
// Files are read in chunks of this size.
constexpr size_t kFileChunk = 8192;

void AssignDigest(OpenSSL::CHash& hash, Data& result) {
    const unsigned char* digest = nullptr;
    uint32_t length = 0;
    hash.Finalize(&digest, &length);
    std::memcpy(result.PrepareForWriting(length), digest, length);
}

// Runs body(md) and reports what it throws; the result stays empty on failure.
template <class Body>
AutoRefPtr<Data> Digest(const std::string& digestName, IContext* context, const char* fallback, Body&& body) {
    AutoRefPtr<Data> result = Data::Make();
    try {
        const EVP_MD* md = FindDigest(digestName, context, '!');
        if (!md) return result;
        body(md, *result);
    } catch (const std::exception& e) {
        result->Assign(nullptr, 0);
        Report(context, kFunctionError, *e.what() ? e.what() : fallback);
    } catch (...) {
        result->Assign(nullptr, 0);
        Report(context, kFunctionError, fallback);
    }
    return result;
}

constexpr char kHashFallback[] = "OpenSSL error in function Hash detected.";
constexpr char kHashFileFallback[] = "OpenSSL error in function HashFile detected.";

AutoRefPtr<Data> HashString(std::string digestName, std::string text, IContext* context) {
    return Digest(digestName, context, kHashFallback, [&](const EVP_MD* md, Data& result) {
        OpenSSL::CHash hash(md);
        hash.Update(text.data(), text.size());
        AssignDigest(hash, result);
    });
}

// Contiguous buffers are hashed in place; others are read in 100000-byte
// chunks, then the remainder in one last read.
AutoRefPtr<Data> HashData(std::string digestName, AutoRefPtr<IDataRef> data, IContext* context) {
    return Digest(digestName, context, kHashFallback, [&](const EVP_MD* md, Data& result) {
        OpenSSL::CHash hash(md);
        const uint64_t size = data ? data->GetSize() : 0;
        if (!data) {
            hash.Update(nullptr, 0);
        } else if (const char* direct = data->GetData()) {
            hash.Update(direct, size);
        } else {
            std::string area(std::min(size, kDataChunk), '\0');
            uint64_t remaining = size;
            uint64_t offset = 0;
            while (remaining > kDataChunk) {
                const uint64_t got = data->Read(area.data(), kDataChunk, offset);
                if (got == 0) break;  // the buffer ended early: nothing more to read
                hash.Update(area.data(), got);
                remaining -= got;
                offset += got;
            }
            if (remaining <= kDataChunk) hash.Update(area.data(), data->Read(area.data(), remaining, offset));
        }
        AssignDigest(hash, result);
    });
}

// A file opened for reading, read at explicit offsets. It repositions only
// when its recorded position differs from the offset asked for.
class InputFile {
public:
    explicit InputFile(std::string path) : path_(std::move(path)), file_(OpenReadable(path_)) {
        if (file_) position_ = ftello(file_);
    }
    ~InputFile() { Close(); }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    bool IsOpen() const noexcept { return file_ != nullptr; }
    void Close() noexcept {
        if (file_) std::fclose(file_);
        file_ = nullptr;
    }

    // Reads up to size bytes at offset: the count read (short only at end of
    // file), or -1 when reading fails.
    int64_t ReadAt(void* destination, size_t size, uint64_t offset) {
        if (position_ != static_cast<off_t>(offset)) {
            if (fseeko(file_, static_cast<off_t>(offset), SEEK_SET) != 0) {
                position_ = -1;
                return -1;
            }
            position_ = static_cast<off_t>(offset);
        }
        size_t got;
        for (;;) {
            errno = 0;
            got = std::fread(destination, 1, size, file_);
            if (got == 0 && std::ferror(file_) && errno == EINTR) {
                std::clearerr(file_);
                continue;
            }
            break;
        }
        if (got < size && !std::feof(file_)) {
            position_ = -1;
            return -1;
        }
        position_ += static_cast<off_t>(got);
        return static_cast<int64_t>(got);
    }

    // The file's size from the file system, asked once; -1 when unknown.
    int64_t Size() {
        if (!sizeKnown_) {
            struct stat info {};
            size_ = ::stat(path_.c_str(), &info) == 0 ? static_cast<int64_t>(info.st_size) : -1;
            sizeKnown_ = true;
        }
        return size_;
    }

private:
    // Opens only regular files and character devices. The open itself never
    // waits (a FIFO without a writer would block it), and anything else (a
    // directory, a FIFO, a socket, a block device) counts as not openable.
    // Reading afterwards blocks as usual, so devices keep their own pace.
    static FILE* OpenReadable(const std::string& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) return nullptr;
        struct stat info {};
        const int flags = ::fcntl(fd, F_GETFL);
        if (::fstat(fd, &info) != 0 || !(S_ISREG(info.st_mode) || S_ISCHR(info.st_mode)) || flags < 0 ||
            ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
            ::close(fd);
            return nullptr;
        }
        FILE* file = ::fdopen(fd, "rb");
        if (!file) ::close(fd);
        return file;
    }

    std::string path_;
    FILE* file_;
    off_t position_ = -1;
    int64_t size_ = -1;
    bool sizeKnown_ = false;
};

AutoRefPtr<Data> HashFile(std::string digestName, std::string path, IContext* context) {
    return Digest(digestName, context, kHashFileFallback, [&](const EVP_MD* md, Data& result) {
        InputFile file(path);
        if (!file.IsOpen()) {
            Report(context, kFunctionError, "File \"" + path + "\" can't be opened!");
            return;
        }
        OpenSSL::CHash hash(md);
        char chunk[kFileChunk];
        uint64_t offset = 0;
        for (;;) {
            const int64_t got = file.ReadAt(chunk, sizeof chunk, offset);
            if (got < 0) throw std::runtime_error("File \"" + path + "\" can't be read!");
            hash.Update(chunk, static_cast<size_t>(got));
            offset += static_cast<uint64_t>(got);
            const int64_t size = file.Size();
            // The size decides, but an empty read (the file shrank) ends the
            // loop too; when the size is unknown, the first short read does.
            if (size >= 0 ? offset >= static_cast<uint64_t>(size) || got == 0 : static_cast<size_t>(got) < sizeof chunk)
                break;
        }
        file.Close();
        AssignDigest(hash, result);
    });
}

}  // namespace

}  // namespace Cryptography

CRYPTOGRAPHY_ROUTINE(Hash, &Cryptography::HashString)
CRYPTOGRAPHY_ROUTINE(HashData, &Cryptography::HashData)
CRYPTOGRAPHY_ROUTINE(HashFile, &Cryptography::HashFile)
