// The numeric framing fields of the route row, and the "IP:PORT" field.

#include <cstdlib>
#include <cstring>

#include "base/SysGlobals.h"
#include "comp/SysComPub.h"
#include "log/ErrLog.h"

namespace {

constexpr const char* kRouteTable = "PLAT_STATICROUTEINF";
constexpr int kFieldBufLen = 128;
constexpr int kHeaderLenDigits = 4;   // only the first four characters of HEADERLEN count
constexpr int kIpTextMax = 63;        // the modes hand in 64-byte IP buffers
constexpr int kPortTextMax = 15;      // characters of the port text looked at

// atoi of the first iMax bytes of a route field (a field may fill its 32 bytes).
int FieldToInt(const RouteRecord& stRoute, RouteColumn eCol, std::size_t iMax) {
    char caBuf[kFieldBufLen] = {};
    std::size_t n = iMax < sizeof stRoute.caField[eCol] ? iMax : sizeof stRoute.caField[eCol];
    std::memcpy(caBuf, stRoute.caField[eCol], n);
    return std::atoi(caBuf);
}

}  // namespace

extern "C" {

// The guards test whether an output was supplied, not its value: a zero or
// non-numeric MSGLENGETLEN or HEADERLEN passes.
int iGetStaticTblValues(RouteRecord stRoute, int* piLenFieldLen, int* piLenFieldOff, int* piIdleTimeout,
                        int* piHeaderLen) {
    constexpr std::size_t kWhole = sizeof stRoute.caField[0];
    if (piLenFieldLen == nullptr) {
        COMP_ERRLOG("[%s,%d]%s config error,MSGLENGETLEN must greater then zero", SRC_NAME, __LINE__, kRouteTable);
        return -1;
    }
    *piLenFieldLen = FieldToInt(stRoute, RT_MSGLENGETLEN, kWhole);
    if (piLenFieldOff == nullptr || piIdleTimeout == nullptr) {
        COMP_ERRLOG("[%s,%d]parameter error.", SRC_NAME, __LINE__);
        return -1;
    }
    *piLenFieldOff = FieldToInt(stRoute, RT_MSGLENGETOFFSET, kWhole);
    *piIdleTimeout = FieldToInt(stRoute, RT_IDLETIMEOUT, kWhole);
    if (piHeaderLen == nullptr) {
        COMP_ERRLOG("[%s,%d]%s config error,HEADERLEN", SRC_NAME, __LINE__, kRouteTable);
        return -1;
    }
    *piHeaderLen = FieldToInt(stRoute, RT_HEADERLEN, kHeaderLenDigits);
    return 0;
}

// "-1..." marks a route without a server (-2). Every character before the
// colon goes into the caller's IP buffer, which must hold kIpTextMax + 1
// bytes; a longer address is refused, so that neither an unterminated field
// nor an absurd value is followed past that.
int SysGetIpAndPort(const char* pcText, char* pcIp, int* piPort) {
    if (pcText == nullptr || pcIp == nullptr || piPort == nullptr) {
        COMP_ERRLOG("[%s,%d]parameter error.", SRC_NAME, __LINE__);
        return -1;
    }
    if (pcText[0] == '-' && pcText[1] == '1') {
        COMP_ERRLOG("[%s,%d]not server config.IP:PORT [%.*s].", SRC_NAME, __LINE__, kIpTextMax, pcText);
        return -2;
    }
    const char* p = pcText;
    while (*p != '\0' && *p != ':' && p - pcText < kIpTextMax) *pcIp++ = *p++;
    *pcIp = '\0';
    if (*p != ':') {
        COMP_ERRLOG("[%s,%d]IPPORT has wrong value.[%.*s]", SRC_NAME, __LINE__, kIpTextMax, p);
        return -1;
    }
    char caPort[kPortTextMax + 1] = {};
    for (int i = 0; i < kPortTextMax && p[1 + i] != '\0'; ++i) caPort[i] = p[1 + i];
    *piPort = std::atoi(caPort);
    return 0;
}

}  // extern "C"
