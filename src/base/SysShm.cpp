#include "base/SysShm.h"

#include <sys/shm.h>

#include "base/SysIpcSeam.h"

namespace comp {

bool ShmIsLive(int iShmId, std::size_t* piSize) {
    shmid_ds stInfo{};
    if (iShmId < 0 || shmctl(iShmId, IPC_STAT, &stInfo) != 0) return false;
    if ((stInfo.shm_perm.mode & SHM_DEST) != 0) return false;
    if (piSize != nullptr) *piSize = stInfo.shm_segsz;
    return true;
}

bool ShmAttachment::attach(int iShmId) {
    reset();
    if (seam::IpcCallFails(seam::kShmAt)) return false;
    void* pvAddr = shmat(iShmId, nullptr, 0);
    if (pvAddr == reinterpret_cast<void*>(-1)) return false;
    addr_ = pvAddr;
    return true;
}

void ShmAttachment::reset() {
    if (addr_ != nullptr) shmdt(addr_);
    addr_ = nullptr;
}

}  // namespace comp
