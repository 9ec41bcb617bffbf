// The byte buffer behind every DATAREF the module returns, and helpers for
// reading any IDataRef in place or in bounded chunks.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "Ombrix/Interfaces.h"

namespace Ombrix {

// Aliasing: Assign and Read accept bytes inside this buffer (Assign copies
// before it lets go of the old bytes; Read moves with memmove). A pointer
// from GetData, View or PrepareForWriting is valid until the next Assign or
// PrepareForWriting of this buffer, so whoever holds one must not run
// anything that may change the buffer meanwhile (in a script host: anything
// that can run script code). A Data is reference counted and
// neither copied nor moved: it may hold its bytes inside itself, and a moved
// object would point into the one it came from. Clone makes a copy.
class Data final : public UseCounted<IDataRef> {
public:
    Data() = default;
    explicit Data(std::string bytes) noexcept : bytes_(std::move(bytes)) {}
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;

    static AutoRefPtr<Data> Make(std::string bytes = {}) { return AutoRefPtr<Data>(new Data(std::move(bytes))); }

    uint64_t GetSize() const override { return View().size(); }
    bool Assign(const char* bytes, uint64_t size) override {
        // The bytes may be this buffer's own: copy them before the old ones go.
        std::string copy = bytes ? std::string(bytes, size) : std::string();
        Forget();
        bytes_ = std::move(copy);
        return true;
    }
    uint64_t Read(char* destination, uint64_t size, uint64_t offset) const override {
        const std::string_view bytes = View();
        if (offset >= bytes.size()) return 0;
        const uint64_t count = std::min<uint64_t>(size, bytes.size() - offset);
        std::memmove(destination, bytes.data() + offset, count);  // the destination may be these bytes
        return count;
    }
    bool IsEqual(const IDataRef* other) const override;
    AutoRefPtr<IDataRef> Clone() const override { return AutoRefPtr<IDataRef>(new Data(std::string(View()))); }
    const char* GetData() const override { return View().data(); }

    // Takes the bytes without copying them.
    void Assign(std::string&& bytes) noexcept {
        Forget();
        bytes_ = std::move(bytes);
    }
    std::string_view View() const noexcept {
        return writtenBytes_ ? std::string_view(writtenBytes_, writtenSize_) : std::string_view(bytes_);
    }

    // Replaces the bytes with `size` bytes that the caller writes in place
    // through the returned pointer: a buffer for a result whose size is known
    // before it is computed (a cipher's output, a digest), so it is neither
    // zero-filled first nor copied afterwards; up to kInlineBytes (any digest)
    // are held in the object itself. Truncate then keeps the bytes written.
    char* PrepareForWriting(uint64_t size) {
        bytes_ = std::string();
        written_.reset();
        if (size <= kInlineBytes) {
            writtenBytes_ = inline_;
        } else {
            written_ = std::make_unique_for_overwrite<char[]>(size);
            writtenBytes_ = written_.get();
        }
        writtenSize_ = size;
        return writtenBytes_;
    }
    void Truncate(uint64_t size) noexcept {
        if (writtenBytes_)
            writtenSize_ = std::min(writtenSize_, size);
        else if (size < bytes_.size())
            bytes_.resize(size);
    }

    static constexpr uint64_t kInlineBytes = 64;

private:
    void Forget() noexcept {
        written_.reset();
        writtenBytes_ = nullptr;
    }

    std::string bytes_;
    // Set while the bytes are a buffer made by PrepareForWriting: inline_ or
    // written_.
    char* writtenBytes_ = nullptr;
    uint64_t writtenSize_ = 0;
    std::unique_ptr<char[]> written_;
    char inline_[kInlineBytes];
};

// Compares with any buffer: in place when it offers contiguous bytes, else in
// 8192-byte chunks read through its Read.
inline bool Data::IsEqual(const IDataRef* other) const {
    const std::string_view mine = View();
    if (!other || other->GetSize() != mine.size()) return false;
    if (mine.empty()) return true;
    if (const char* theirs = other->GetData()) return std::memcmp(theirs, mine.data(), mine.size()) == 0;
    char chunk[8192];
    for (uint64_t offset = 0; offset < mine.size();) {
        const uint64_t wanted = std::min<uint64_t>(sizeof chunk, mine.size() - offset);
        const uint64_t got = other->Read(chunk, wanted, offset);
        if (got != wanted || std::memcmp(chunk, mine.data() + offset, got) != 0) return false;
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
