// The byte buffer behind every DATAREF the module returns, and helpers for
// reading any IDataRef in place or in bounded chunks.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "Ombrix/Interfaces.h"

namespace Ombrix {

class Data final : public UseCounted<IDataRef> {
public:
    Data() = default;
    explicit Data(std::string bytes) noexcept : bytes_(std::move(bytes)) {}

    static AutoRefPtr<Data> Make(std::string bytes = {}) { return AutoRefPtr<Data>(new Data(std::move(bytes))); }

    uint64_t GetSize() const override { return bytes_.size(); }
    bool Assign(const char* bytes, uint64_t size) override {
        if (bytes)
            bytes_.assign(bytes, size);
        else
            bytes_.clear();
        return true;
    }
    uint64_t Read(char* destination, uint64_t size, uint64_t offset) const override {
        if (offset >= bytes_.size()) return 0;
        const uint64_t count = std::min<uint64_t>(size, bytes_.size() - offset);
        std::memcpy(destination, bytes_.data() + offset, count);
        return count;
    }
    bool IsEqual(const IDataRef* other) const override;
    AutoRefPtr<IDataRef> Clone() const override { return AutoRefPtr<IDataRef>(new Data(bytes_)); }
    const char* GetData() const override { return bytes_.data(); }

    // Takes the bytes without copying them.
    void Assign(std::string&& bytes) noexcept { bytes_ = std::move(bytes); }
    const std::string& Bytes() const noexcept { return bytes_; }

private:
    std::string bytes_;
};

// Compares with any buffer: in place when it offers contiguous bytes, else in
// 8192-byte chunks read through its Read.
inline bool Data::IsEqual(const IDataRef* other) const {
    if (!other || other->GetSize() != bytes_.size()) return false;
    if (bytes_.empty()) return true;
    if (const char* theirs = other->GetData()) return std::memcmp(theirs, bytes_.data(), bytes_.size()) == 0;
    char chunk[8192];
    for (uint64_t offset = 0; offset < bytes_.size();) {
        const uint64_t wanted = std::min<uint64_t>(sizeof chunk, bytes_.size() - offset);
        const uint64_t got = other->Read(chunk, wanted, offset);
        if (got != wanted || std::memcmp(chunk, bytes_.data() + offset, got) != 0) return false;
        offset += got;
    }
    return true;
}

// The bytes of a buffer as one contiguous view: the buffer's own bytes when it
// offers them, else a copy read through Read. An absent buffer is empty.
class DataBytes {
public:
    explicit DataBytes(const IDataRef* data) {
        if (!data) return;
        const uint64_t size = data->GetSize();
        if (const char* direct = data->GetData()) {
            view_ = std::string_view(direct, size);
            return;
        }
        copy_.resize(size);
        copy_.resize(size ? data->Read(copy_.data(), size, 0) : 0);
        view_ = copy_;
    }
    explicit DataBytes(const AutoRefPtr<IDataRef>& data) : DataBytes(data.get()) {}
    DataBytes(const DataBytes&) = delete;
    DataBytes& operator=(const DataBytes&) = delete;

    const char* data() const noexcept { return view_.data(); }
    size_t size() const noexcept { return view_.size(); }
    bool empty() const noexcept { return view_.empty(); }
    std::string_view view() const noexcept { return view_; }
    // Wipes a copy that held secret bytes.
    std::string& copy() noexcept { return copy_; }

private:
    std::string copy_;
    std::string_view view_;
};

// Feeds a buffer to sink(pointer, length) in one piece when it is contiguous,
// else in chunks of at most chunkSize bytes through a bounded work area.
// Stops early when sink returns false or a read comes back empty; returns
// whether every byte was fed.
template <class Sink>
bool ForEachChunk(const IDataRef* data, uint64_t chunkSize, Sink&& sink) {
    if (!data) return sink(static_cast<const char*>(nullptr), uint64_t{0});
    uint64_t remaining = data->GetSize();
    if (const char* direct = data->GetData()) return sink(direct, remaining);
    std::string area(std::min(remaining, chunkSize), '\0');
    uint64_t offset = 0;
    while (remaining > 0) {
        const uint64_t got = data->Read(area.data(), std::min(remaining, chunkSize), offset);
        if (got == 0 || !sink(static_cast<const char*>(area.data()), got)) return false;
        remaining -= got;
        offset += got;
    }
    return true;
}

}  // namespace Ombrix
