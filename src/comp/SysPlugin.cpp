// Hooks around the route plug-in $HOME/runs/bin/libBeatMsg.so: pre-handling
// of data, heartbeat messages (with built-in frames when the plug-in is
// absent), calls of the process's own functions by name, file loading and
// the MD5 check of received data. The plug-in is opened for each call and
// closed after it, so a replaced library takes effect at the next message.
#include "comp/SysPlugin.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/SysGlobals.h"
#include "config/FileOpApp.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "util/StrTools.h"
#include "util/SysChecksum.h"

namespace {

constexpr int kPathLen = 512;
constexpr int kAppValueLen = 256;   // app.cfg values are at most 127 characters
constexpr int kMd5Len = 16;

// Built-in heartbeat of beat types 11 and 12: 62 bytes, the length of the
// rest (58) in host order at 0 and the code 0x06 0x02 at 34.
namespace beat12 {
inline constexpr int kLen = 62;
inline constexpr int kRestLen = 0;       // u32, host order
inline constexpr int kCode = 34;         // 0x06, 0x02
static_assert(kCode + 2 <= kLen);
}  // namespace beat12

// Built-in heartbeat of beat type 13: a station-link frame of 40 bytes, the
// 39-byte header followed directly by the end tag (no body, no CRC). The
// station-link mode fills the time stamp, the serial number and the group
// ids before it sends the frame.
namespace beat13 {
inline constexpr int kLen = 40;
inline constexpr int kBeginTag = 0;      // 0xF0
inline constexpr int kTotalLen = 1;      // u32 40, host order
inline constexpr int kWord1 = 5;         // u32 1, host order
inline constexpr int kOne9 = 9;          // 1
inline constexpr int kOne10 = 10;        // 1
inline constexpr int kClass = 11;        // 0: connection control
inline constexpr int kMark12 = 12;       // 0xFF
inline constexpr int kSubType = 13;      // 8: heartbeat
inline constexpr int kTime = 14;         // 7 bytes BCD, filled by the sender
inline constexpr int kSerial = 21;       // u16, filled by the sender
inline constexpr int kMark23 = 23;       // 0x5D
inline constexpr int kStation = 24;      // 2 bytes BCD of app.cfg "0002"
inline constexpr int kOne26 = 26;        // 1
inline constexpr int kGroups = 27;       // 2 bytes, filled by the sender
inline constexpr int kPktCount = 31;     // 1
inline constexpr int kPktNo = 32;        // 1
inline constexpr int kOne37 = 37;        // 1
inline constexpr int kHeaderEnd = 38;    // 0xFF
inline constexpr int kEndTag = 39;       // 0xFF
inline constexpr int kStationDigits = 4;
static_assert(kEndTag + 1 == kLen);
static_assert(kTime + 7 == kSerial && kStation + kStationDigits / 2 == kOne26 && kGroups == kOne26 + 1);
}  // namespace beat13

// A dlopen handle, closed when the owner goes.
class DlLibrary {
public:
    DlLibrary(const char* pcPath, int iFlags) : pvHandle_(dlopen(pcPath, iFlags)) {}
    ~DlLibrary() {
        if (pvHandle_ != nullptr) dlclose(pvHandle_);
    }
    DlLibrary(const DlLibrary&) = delete;
    DlLibrary& operator=(const DlLibrary&) = delete;

    bool ok() const { return pvHandle_ != nullptr; }
    void* symbol(const char* pcName) const { return dlsym(pvHandle_, pcName); }

private:
    void* pvHandle_;
};

const char* DlError() {
    const char* pcErr = dlerror();
    return pcErr != nullptr ? pcErr : "";
}

// "$HOME/runs/bin/<pcLib>"; false when it does not fit.
bool PluginPath(char (&caPath)[kPathLen], const char* pcLib = "libBeatMsg.so") {
    const char* pcHome = std::getenv("HOME");
    int n = std::snprintf(caPath, sizeof caPath, "%s/runs/bin/%s", pcHome != nullptr ? pcHome : "", pcLib);
    return n > 0 && n < kPathLen;
}

bool FileExists(const char* pcPath) {
    struct stat stInfo {};
    return stat(pcPath, &stInfo) == 0;
}

template <typename T>
void Put(char* pcOut, int iOff, T value) {
    std::memcpy(pcOut + iOff, &value, sizeof value);
}

int BuildBeat12(char* pcOut, int* piOutLen) {
    std::memset(pcOut, 0, beat12::kLen);
    Put(pcOut, beat12::kRestLen, static_cast<uint32_t>(beat12::kLen - 4));
    pcOut[beat12::kCode] = 0x06;
    pcOut[beat12::kCode + 1] = 0x02;
    *piOutLen = beat12::kLen;
    return 0;
}

// A missing station id still gives a complete frame (station 0000), but
// the result is -1 so that a caller that checks it knows.
int BuildBeat13(char* pcOut, int* piOutLen) {
    using namespace beat13;
    std::memset(pcOut, 0, kLen);
    pcOut[kBeginTag] = static_cast<char>(0xF0);
    Put(pcOut, kTotalLen, static_cast<uint32_t>(kLen));
    Put(pcOut, kWord1, static_cast<uint32_t>(1));
    pcOut[kOne9] = 1;
    pcOut[kOne10] = 1;
    pcOut[kClass] = 0;
    pcOut[kMark12] = static_cast<char>(0xFF);
    pcOut[kSubType] = 8;
    pcOut[kMark23] = 0x5D;
    pcOut[kOne26] = 1;
    pcOut[kPktCount] = 1;
    pcOut[kPktNo] = 1;
    pcOut[kOne37] = 1;
    pcOut[kHeaderEnd] = static_cast<char>(0xFF);
    pcOut[kEndTag] = static_cast<char>(0xFF);
    bool bFound = comp::StationIdBcd(reinterpret_cast<unsigned char*>(pcOut + kStation));
    if (!bFound) writelog(LOG_ERROR, nullptr, 0, "app.cfg中缺少配置STATION_ID");
    *piOutLen = kLen;
    return bFound ? 0 : -1;
}

}  // namespace

namespace comp {

bool StationIdBcd(unsigned char* pucOut) {
    constexpr int kDigits = beat13::kStationDigits;
    char caDigits[kDigits + 1];
    std::memset(caDigits, '0', kDigits);
    caDigits[kDigits] = '\0';
    char caValue[kAppValueLen] = {};
    const bool bFound = SysGetAppVar("0002", caValue) == 0;
    if (bFound) {
        size_t iLen = strnlen(caValue, sizeof caValue - 1);
        size_t iTake = iLen < kDigits ? iLen : kDigits;
        std::memcpy(caDigits + kDigits - iTake, caValue + iLen - iTake, iTake);
    }
    NumberStr2BCDStr(caDigits, kDigits, pucOut);
    return bFound;
}

}  // namespace comp

extern "C" {

int SysPreHdl(const char* pcRouteId, const char* pcFunc, const char* pcData, int iLen, char* pcOut,
              int* piOutLen, unsigned short usValue) {
    char caPath[kPathLen];
    if (!PluginPath(caPath) || !FileExists(caPath)) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]lost %s", SRC_NAME, __LINE__, caPath);
        return -1;
    }
    DlLibrary lib(caPath, RTLD_LAZY | RTLD_GLOBAL);
    if (!lib.ok()) {
        writelog(LOG_ERROR, nullptr, 0, "%s,%d,dlopen [%s] error=[%s]", SRC_NAME, __LINE__, caPath, DlError());
        return -1;
    }
    // A function that is not there is no failure to the callers: the
    // message goes on unchanged.
    void* pvSym = (pcFunc != nullptr && *pcFunc != '\0') ? lib.symbol(pcFunc) : nullptr;
    if (pvSym == nullptr) {
        writelog(LOG_ERROR, nullptr, 0, "%s,%d,dlsym[%s]fun[%s] error=[%s]", SRC_NAME, __LINE__, caPath,
                 pcFunc != nullptr ? pcFunc : "", DlError());
        return 1;
    }
    auto pfFunc = reinterpret_cast<SysPreHdlFunc>(pvSym);
    return pfFunc(pcRouteId != nullptr ? std::atoi(pcRouteId) : 0, pcData, iLen, pcOut, piOutLen, usValue);
}

int SysDealBeatHeart(const char* pcType, char* pcOut, int* piOutLen) {
    if (pcType == nullptr || pcOut == nullptr || piOutLen == nullptr) {
        COMP_ERRLOG("[%s,%d]SysDealBeatHeart parameter error", SRC_NAME, __LINE__);
        return -1;
    }
    char caPath[kPathLen];
    if (!PluginPath(caPath) || !FileExists(caPath)) {
        switch (std::atoi(pcType)) {
        case 11:
        case 12:
            return BuildBeat12(pcOut, piOutLen);
        case 13:
            return BuildBeat13(pcOut, piOutLen);
        default:
            // No frame is known for this type: nothing to send.
            *piOutLen = 0;
            writelog(LOG_WARN, nullptr, 0, "[%s,%d]no built-in heartbeat for type [%s]", SRC_NAME, __LINE__, pcType);
            return -1;
        }
    }
    DlLibrary lib(caPath, RTLD_LAZY | RTLD_GLOBAL);
    if (!lib.ok()) {
        COMP_ERRLOG("%s,%d,dlopen [%s] error=[%s]", SRC_NAME, __LINE__, caPath, DlError());
        return -1;
    }
    void* pvSym = lib.symbol("SysBuildBeatHeart");
    if (pvSym == nullptr) {
        writelog(LOG_ERROR, nullptr, 0, "%s,%d,dlsym[%s]fun[SysBuildBeatHeart] error=[%s]", SRC_NAME, __LINE__,
                 caPath, DlError());
        return -1;
    }
    return reinterpret_cast<SysBuildBeatHeartFunc>(pvSym)(pcType, pcOut, piOutLen);
}

int PubDlExeFuncWithPara(const char* pcName, void* pvArg) {
    if (pcName == nullptr) {
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] input parameter error!", SRC_NAME, __LINE__);
        return -1;
    }
    DlLibrary self(nullptr, RTLD_LAZY);
    if (!self.ok()) {
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] %s", SRC_NAME, __LINE__, DlError());
        return -1;
    }
    void* pvSym = self.symbol(pcName);
    if (pvSym == nullptr) {
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] %s", SRC_NAME, __LINE__, DlError());
        return -1;
    }
    if (pvArg == nullptr) return reinterpret_cast<int (*)()>(pvSym)();
    return reinterpret_cast<int (*)(void*)>(pvSym)(pvArg);
}

int SysRDFile2Buf(const char* pcFile, char* pcBuf) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(
        (pcFile != nullptr && pcBuf != nullptr) ? std::fopen(pcFile, "rb") : nullptr, &std::fclose);
    if (file == nullptr) {
        COMP_ERRLOG("[%s:%d] fopen [%s] error !", SRC_NAME, __LINE__, pcFile != nullptr ? pcFile : "");
        return -1;
    }
    long lSize = GetFileSize(pcFile);
    size_t iRead = lSize > 0 ? std::fread(pcBuf, 1, static_cast<size_t>(lSize), file.get()) : 0;
    return static_cast<int>(iRead);
}

int SysCheckMd5(const char* pcBuf, int iLen) {
    if (pcBuf == nullptr || iLen < kMd5Len) {
        COMP_ERRLOG("[%s]pid[%d]SysCheckMd5 Error", SRC_NAME, getpid());
        return -1;
    }
    MD5_CTX stCtx;
    MD5Init(&stCtx);
    MD5Update(&stCtx, reinterpret_cast<const unsigned char*>(pcBuf), static_cast<unsigned int>(iLen - kMd5Len));
    unsigned char ucaDigest[kMd5Len];
    MD5Final(ucaDigest, &stCtx);
    if (std::memcmp(ucaDigest, pcBuf + iLen - kMd5Len, kMd5Len) != 0) {
        COMP_ERRLOG_DUMP(ucaDigest, kMd5Len, "[%s,%d]SysCheckMd5 Error ", SRC_NAME, __LINE__);
        return -1;
    }
    return 0;
}

}  // extern "C"

namespace comp {

int RecvByNetRule(const char* pcSrc, const NetRuleCall& stCall, bool* pbNoReceiver) {
    *pbNoReceiver = false;
    char caPath[kPathLen];
    if (!PluginPath(caPath, "libnetrule.so") || !FileExists(caPath)) {
        COMP_ERRLOG("[%s,%d]lost %s", pcSrc, __LINE__, caPath);
        return -1;
    }
    DlLibrary lib(caPath, RTLD_NOW | RTLD_GLOBAL);
    if (!lib.ok()) {
        COMP_ERRLOG("%s,%d,dlopen [%s] error=[%s]", pcSrc, __LINE__, caPath, DlError());
        return -1;
    }
    void* pvSym = lib.symbol("SysRcvMulPkg");
    if (pvSym == nullptr) {
        COMP_ERRLOG("%s,%d,dlsym[%s]error=[%s]", pcSrc, __LINE__, caPath, DlError());
        *pbNoReceiver = true;
        return 1;
    }
    return reinterpret_cast<SysRcvMulPkgFunc>(pvSym)(stCall.iRouteNo, stCall.iSock, stCall.pcBuf, stCall.iHeaderLen,
                                                     stCall.pstRoute, stCall.piTotal);
}

}  // namespace comp
