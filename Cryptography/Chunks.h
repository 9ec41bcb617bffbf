// Message bytes handed to an incremental OpenSSL computation: a buffer with
// contiguous bytes goes in one piece, any other buffer in chunks read through
// a bounded work area, so a large file-backed buffer is never copied whole.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Ombrix/Interfaces.h"

namespace Cryptography {

// The work-area size for buffers without contiguous bytes.
constexpr uint64_t kChunkBytes = 100000;

// Bytes to feed: a view, or a buffer read on demand. An absent buffer is empty.
class MessageBytes {
public:
    MessageBytes(std::string_view bytes) noexcept : view_(bytes) {}  // NOLINT: a view converts implicitly
    explicit MessageBytes(const Ombrix::IDataRef* buffer) noexcept {
        if (!buffer) return;
        if (const char* direct = buffer->GetData())
            view_ = std::string_view(direct, buffer->GetSize());
        else
            buffer_ = buffer;
    }

    // Calls sink(pointer, length) for each piece until it returns false;
    // returns false then. A read that comes back short of the size ends the
    // bytes where it stops, as one read of the whole buffer would. A view or
    // an empty buffer is one call, possibly of zero bytes.
    template <class Sink>
    bool Feed(Sink&& sink) const {
        if (!buffer_) return sink(view_.data(), view_.size());
        uint64_t remaining = buffer_->GetSize();
        if (remaining == 0) return sink("", 0);
        const auto area = std::make_unique_for_overwrite<char[]>(std::min(remaining, kChunkBytes));
        uint64_t offset = 0;
        while (remaining > 0) {
            const uint64_t got = buffer_->Read(area.get(), std::min(remaining, kChunkBytes), offset);
            if (got == 0) break;
            if (!sink(static_cast<const char*>(area.get()), static_cast<size_t>(got))) return false;
            remaining -= std::min(got, remaining);
            offset += got;
        }
        return true;
    }

    // The byte count: the view's, or the buffer's size.
    uint64_t Size() const { return buffer_ ? buffer_->GetSize() : view_.size(); }
    // The buffer when its bytes are read in chunks, else null.
    const Ombrix::IDataRef* Chunked() const noexcept { return buffer_; }
    std::string_view View() const noexcept { return view_; }

private:
    std::string_view view_;
    const Ombrix::IDataRef* buffer_ = nullptr;
};

}  // namespace Cryptography
