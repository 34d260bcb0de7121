// Writes of platform messages to the platform queues: blocking for data,
// non-blocking for notifications (a full queue drops them with a report).
#include <cerrno>
#include <cstring>

#include "comp/SysPlatMsg.h"
#include "ipc/SysIpc.h"
#include "log/ErrLog.h"

extern "C" {

int SysWriteQueue(void* pvBuf, int iLen, int iQid) {
    if (MsgWrite(iQid, pvBuf, iLen) != 0) {
        COMP_ERRLOG("[%s,%d]%s error,errno=%d,errmsg[%s]", SRC_NAME, __LINE__, "SysWriteQueue", errno,
                    std::strerror(errno));
        return -1;
    }
    return 0;
}

int SysWriteQueueNoWait(void* pvBuf, int iLen, int iQid) {
    if (MsgWriteNoWait(iQid, pvBuf, iLen) != 0) {
        COMP_ERRLOG("[%s,%d]%s error,errno=%d,errmsg[%s]", SRC_NAME, __LINE__, "SysWriteQueueNoWait", errno,
                    std::strerror(errno));
        return -1;
    }
    return 0;
}

}  // extern "C"
