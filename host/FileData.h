// A DATAREF backed by a file and read on demand: it keeps no contiguous bytes
// (GetData is null), so consumers must use their chunked reading paths. A
// file that reports a size of 0 (those of /proc) is read to its end when it
// is opened, and the buffer serves those bytes.
#pragma once

#include <string>

#include "Ombrix/Interfaces.h"

namespace Ombrix::Host {

class FileData final : public UseCounted<IDataRef> {
public:
    // Null when the file cannot be opened, is not a regular file, or
    // reporting a size of 0 cannot be read.
    static AutoRefPtr<FileData> Open(const std::string& path);
    ~FileData() override;

    uint64_t GetSize() const override { return size_; }
    // The file is read-only through this buffer.
    bool Assign(const char*, uint64_t) override { return false; }
    uint64_t Read(char* destination, uint64_t size, uint64_t offset) const override;
    bool IsEqual(const IDataRef* other) const override;
    AutoRefPtr<IDataRef> Clone() const override;
    const char* GetData() const override { return nullptr; }

    // How many Read calls were served (lets tests see chunking).
    uint64_t ReadCalls() const noexcept { return readCalls_; }

private:
    FileData(int descriptor, uint64_t size) : descriptor_(descriptor), size_(size) {}
    explicit FileData(std::string content) : descriptor_(-1), size_(content.size()), content_(std::move(content)) {}

    int descriptor_;  // -1 when content_ holds the bytes
    uint64_t size_;
    std::string content_;
    mutable uint64_t readCalls_ = 0;
};

}  // namespace Ombrix::Host
