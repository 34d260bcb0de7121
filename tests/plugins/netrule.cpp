// Test receiver plug-in: reads one message framed by the route's length
// rule, using the host's socket and framing routines.
#include "comp/SysNetFrame.h"
#include "comp/SysPlugin.h"
#include "util/SysTcpBasi.h"

extern "C" int SysRcvMulPkg(int /*iRouteId*/, int iSock, char* pcBuf, int iHeaderLen, const RouteRecord* pstRoute,
                            int* piTotal) {
    *piTotal = 0;
    if (iHeaderLen < 0 || iHeaderLen > 65535 || iSockRecv(iSock, pcBuf, iHeaderLen) != iHeaderLen) return -1;
    int iBody = SysGetLenFromHead(pcBuf, pstRoute, iHeaderLen);
    if (iBody < 0) return -1;
    if (iBody > 0 && iSockRecv(iSock, pcBuf + iHeaderLen, iBody) != iBody) return -1;
    *piTotal = iHeaderLen + iBody;
    return *piTotal;
}

// Checked at compile time against the hook's declared type.
[[maybe_unused]] static constexpr SysRcvMulPkgFunc kCheckType = &SysRcvMulPkg;
