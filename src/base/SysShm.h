// Shared-memory segments kept attached across calls: an attachment detached
// when its owner goes (the attach goes through the IPC fault seam like the
// wrappers' own), and the check that an attached segment is still live.
#pragma once

#include <cstddef>

namespace comp {

// Whether the segment iShmId is still live, with one shmctl(IPC_STAT): false
// when it is gone (EIDRM, EINVAL) or was removed while still attached (it then
// lingers with SHM_DEST set and its key reads IPC_PRIVATE, so that a new
// segment can take the key). *piSize receives the size of a live segment.
bool ShmIsLive(int iShmId, std::size_t* piSize = nullptr);

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
