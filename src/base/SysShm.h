// An attachment of a System V shared-memory segment, detached when its owner
// goes. The attach goes through the IPC fault seam like the wrappers' own.
#pragma once

namespace comp {

class ShmAttachment {
public:
    ShmAttachment() = default;
    ~ShmAttachment() { reset(); }
    ShmAttachment(const ShmAttachment&) = delete;
    ShmAttachment& operator=(const ShmAttachment&) = delete;

    // Attaches the segment (read-write), dropping any earlier attachment;
    // false with errno set when shmat fails.
    bool attach(int iShmId);
    void reset();
    void* get() const { return addr_; }
    explicit operator bool() const { return addr_ != nullptr; }

private:
    void* addr_ = nullptr;
};

}  // namespace comp
