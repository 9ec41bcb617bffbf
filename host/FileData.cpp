#include "FileData.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Ombrix/Data.h"

namespace Ombrix::Host {

AutoRefPtr<FileData> FileData::Open(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return nullptr;
    struct stat info {};
    if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(descriptor);
        return nullptr;
    }
    if (info.st_size > 0) return AutoRefPtr<FileData>(new FileData(descriptor, static_cast<uint64_t>(info.st_size)));
    // Files made when read (/proc) report no size: their bytes are what one
    // read to the end gives.
    std::string content;
    char chunk[8192];
    ssize_t got = 0;
    while ((got = ::read(descriptor, chunk, sizeof chunk)) != 0) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) break;
        content.append(chunk, static_cast<size_t>(got));
    }
    ::close(descriptor);
    if (got < 0) return nullptr;
    return AutoRefPtr<FileData>(new FileData(std::move(content)));
}

FileData::~FileData() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

uint64_t FileData::Read(char* destination, uint64_t size, uint64_t offset) const {
    ++readCalls_;
    if (offset >= size_) return 0;
    size = std::min(size, size_ - offset);
    if (descriptor_ < 0) {
        std::memcpy(destination, content_.data() + offset, size);
        return size;
    }
    uint64_t done = 0;
    while (done < size) {
        const ssize_t got = ::pread(descriptor_, destination + done, size - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<uint64_t>(got);
    }
    return done;
}

bool FileData::IsEqual(const IDataRef* other) const {
    if (!other || other->GetSize() != size_) return false;
    char mine[8192], theirs[8192];
    for (uint64_t offset = 0; offset < size_;) {
        const uint64_t wanted = std::min<uint64_t>(sizeof mine, size_ - offset);
        if (Read(mine, wanted, offset) != wanted || other->Read(theirs, wanted, offset) != wanted ||
            std::memcmp(mine, theirs, wanted) != 0)
            return false;
        offset += wanted;
    }
    return true;
}

AutoRefPtr<IDataRef> FileData::Clone() const {
    std::string bytes(size_, '\0');
    bytes.resize(Read(bytes.data(), size_, 0));
    return AutoRefPtr<IDataRef>(new Data(std::move(bytes)));
}

}  // namespace Ombrix::Host
