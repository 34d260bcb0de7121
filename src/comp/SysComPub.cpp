// Joining the platform at start, the logon/logoff notice to Commonp, and the
// one way out of a running process.
#include "comp/SysComPub.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/SysGlobals.h"
#include "comp/SysPlatMsg.h"
#include "config/SysRscApp.h"
#include "ipc/SysConnReg.h"
#include "ipc/SysIpc.h"
#include "log/ErrLog.h"

namespace {

// The notice is a PlatMsg header whose second word is 64, followed by the
// event code: 68 text bytes behind the type word.
struct CommonpNotice {
    long lMsgType;
    unsigned char ucText[comp::kCommonpNoticeLen];
};
static_assert(offsetof(CommonpNotice, ucText) == sizeof(long));

constexpr int kEventCodeOff = comp::plat::kHeaderLen;  // the code again, behind the header

void Put16(unsigned char* p, uint16_t v) { std::memcpy(p, &v, sizeof v); }
void Put32(unsigned char* p, int32_t v) { std::memcpy(p, &v, sizeof v); }

}  // namespace

extern "C" {

int SysComInit(void) {
    char path[256];
    if (!SysCfgPath(path, sizeof path) || GetCommConfigValue(path, &g_stCommCfgValue) != 0) {
        std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]Get CommonCfgValue Error and quit", SRC_NAME, __LINE__);
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        return -1;
    }
    if (SysGetShmIdByIndex(2, g_stCommCfgValue.iShareMemCount) < 0) {
        COMP_ERRLOG("[%s,%d]SysGetShmIdByIndex error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        return -1;
    }
    if (SysMsgQueueOpen(g_stCommCfgValue.iMsgQueueCount, g_stMsgQCntl) == -1) {
        COMP_ERRLOG("[%s,%d]SysMsgQueueOpen error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        return -1;
    }
    if (SysSemAttach(g_stCommCfgValue.iSemphoreCount, g_stSemCntl) == -1) {
        COMP_ERRLOG("[%s,%d]SysSemAttach error.", SRC_NAME, __LINE__);
        return -1;
    }
    if (SysConnectMem(1, g_stCommCfgValue.iShareMemCount) < 0) {
        COMP_ERRLOG("[%s,%d]SysConnectMem error.", SRC_NAME, __LINE__);
        return -1;
    }
    return 0;
}

int SysTellCommonp(int iQid, int iCode) {
    CommonpNotice stNotice;
    std::memset(&stNotice, 0, sizeof stNotice);
    stNotice.lMsgType = iCode;
    unsigned char* text = stNotice.ucText;
    Put16(text + comp::plat::kTotalLen, comp::kCommonpNoticeLen);
    Put16(text + comp::plat::kKind, comp::plat::kKindCommonp);
    Put32(text + comp::plat::kPid, getpid());
    Put32(text + comp::plat::kPid2, 0);
    Put16(text + comp::plat::kRoute, 1);
    Put16(text + kEventCodeOff, static_cast<uint16_t>(iCode));
    if (SysWriteQueue(&stNotice, comp::kCommonpNoticeLen, iQid) != 0) {
        COMP_ERRLOG("[%s][%d]pid[%d]SysWriteQueue (logon) error ", SRC_NAME, __LINE__, getpid());
        return -1;
    }
    return 0;
}

void SysComQuit(void) {
    if (SysTellCommonp(g_stMsgQCntl[comp::kQueueCommonp].iId, comp::kCommonpLogoff) != 0)
        COMP_ERRLOG("[%s,%d]SysTellCommonp() error.", SRC_NAME, __LINE__);
    COMP_ERRLOG("[%s,%d]ComP quit.", SRC_NAME, __LINE__);
    exit(0);
}

}  // extern "C"
