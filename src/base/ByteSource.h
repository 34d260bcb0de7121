// Where a stream reader takes its bytes: a connection, a file, or memory.
// The readers of the peers' frames and of the configuration files read
// through a ByteSource, so that the same code runs on a descriptor in the
// process and on a buffer in the unit tests and the fuzz targets.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace comp {

// Reads up to iLen bytes into pvBuf: all of them, fewer only when the stream
// ends (or stalls, for a connection), -1 on an error with errno set.
struct ByteSource {
    using ReadFn = int (*)(void* pvCtx, void* pvBuf, int iLen);
    ReadFn pfRead;
    void* pvCtx;

    int Read(void* pvBuf, int iLen) const { return pfRead(pvCtx, pvBuf, iLen); }
};

// The bytes of a buffer, read from the front; never fails. The buffer must
// outlive the source.
class MemorySource {
public:
    explicit MemorySource(std::string_view bytes) : bytes_(bytes) {}
    MemorySource(const void* pvData, std::size_t iLen)
        : bytes_(static_cast<const char*>(pvData), iLen) {}

    ByteSource source() { return {&MemorySource::ReadFrom, this}; }
    std::size_t left() const { return bytes_.size() - pos_; }

    static int ReadFrom(void* pvCtx, void* pvBuf, int iLen) {
        auto* self = static_cast<MemorySource*>(pvCtx);
        if (iLen <= 0) return 0;
        std::size_t n = self->left();
        if (n > static_cast<std::size_t>(iLen)) n = static_cast<std::size_t>(iLen);
        if (n > 0) std::memcpy(pvBuf, self->bytes_.data() + self->pos_, n);
        self->pos_ += n;
        return static_cast<int>(n);
    }

private:
    std::string_view bytes_;
    std::size_t pos_ = 0;
};

}  // namespace comp
