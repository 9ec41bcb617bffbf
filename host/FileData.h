// A DATAREF backed by a file and read on demand: it keeps no contiguous bytes
// (GetData is null), so consumers must use their chunked reading paths.
#pragma once

#include <string>

#include "Ombrix/Interfaces.h"

namespace Ombrix::Host {

class FileData final : public UseCounted<IDataRef> {
public:
    // Null when the file cannot be opened or is not a regular file.
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

    int descriptor_;
    uint64_t size_;
    mutable uint64_t readCalls_ = 0;
};

}  // namespace Ombrix::Host
