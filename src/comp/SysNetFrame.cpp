// Framing of a route's TCP byte stream: the length rule of the route row
// (read by position from the RouteRecord) cuts a message out of the stream,
// the type rule (read by column name from the route table on every call)
// names its type. Every width and offset comes from configuration and is
// checked against the bytes it would touch.
#include "comp/SysNetFrame.h"

#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/SysGlobals.h"
#include "config/TableLookup.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "util/StrTools.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kRouteTable = "PLAT_STATICROUTEINF";
constexpr int kLenWorkLen = 256;        // work buffer of the length field
constexpr int kHeaderLenChars = 4;      // only the first four characters of HEADERLEN count
constexpr int kTypeOutLen = 16;         // the caller's type buffer
constexpr int kMaxBinaryTypeLen = 4;    // a binary type is read into 32 bits
constexpr int kTableValueLen = 1025;    // a table value (1,024 bytes) and its NUL
static_assert(kHeaderLenChars <= comp::kRouteFieldLen);

// A decimal number as atoi reads it (leading blanks, a sign, digits up to
// the first other character), clamped to the int range.
int DecimalPrefix(const char* pcText) {
    int iPlain = 0;
    if (comp::PlainDecimal(pcText, &iPlain)) return iPlain;
    long long llValue = std::strtoll(pcText, nullptr, 10);
    if (llValue > INT_MAX) return INT_MAX;
    if (llValue < INT_MIN) return INT_MIN;
    return static_cast<int>(llValue);
}

// One RouteRecord field as NUL-terminated text, also when it fills its
// 32 bytes.
struct FieldText {
    char caText[comp::kRouteFieldLen + 1] = {};
    FieldText(const RouteRecord& stRoute, RouteColumn eCol, int iChars = comp::kRouteFieldLen) {
        std::memcpy(caText, stRoute.caField[eCol], static_cast<size_t>(iChars));
    }
};

int FieldInt(const RouteRecord& stRoute, RouteColumn eCol) { return DecimalPrefix(FieldText(stRoute, eCol).caText); }

int HeaderLenOf(const RouteRecord& stRoute) {
    return DecimalPrefix(FieldText(stRoute, RT_HEADERLEN, kHeaderLenChars).caText);
}

// Bytes [iOff, iOff + iWidth) lie within iLen bytes.
bool Within(int iOff, int iWidth, int iLen) { return iOff >= 0 && iWidth >= 0 && iOff <= iLen - iWidth; }

// Up to four bytes into a zeroed 32-bit number as they stand in memory.
uint32_t LoadBytes(const unsigned char* pucBytes, int iWidth) {
    uint32_t uiValue = 0;
    std::memcpy(&uiValue, pucBytes, static_cast<size_t>(iWidth));
    return uiValue;
}

// The five columns of a route's type rule. A value is at most 1,024 bytes.
struct TypeRule {
    enum Column { kLen, kOff, kKind, kCharLen, kSeq, kColumns };
    static constexpr std::string_view kNames[kColumns] = {"MSGTYPEGETLEN", "MSGTYPEGETOFFSET", "MSGTYPEGETTYPE",
                                                          "MSGTYPECHARLEN", "SEQINTEL"};
    char caValue[kColumns][kTableValueLen];
    bool bFound[kColumns];
};
static_assert(kTableValueLen == comp::table::kValueAreaLen + 1);

// Reads the type rule from the route's row of the route table, as five
// lookups by ROUTEID would, but finds the row once and takes the five
// columns in one walk over its fields. A column is taken from the first
// field of its name whose value lies within the row. False when the row
// cannot be read at all (every column is then missing).
bool ReadTypeRule(const char* pcRouteId, TypeRule* pstRule) {
    using namespace comp::table;
    for (int c = 0; c < TypeRule::kColumns; ++c) {
        pstRule->caValue[c][0] = '\0';
        pstRule->bFound[c] = false;
    }
    const char* const words[] = {"ROUTEID", pcRouteId, PARA_END};
    KeyList stKeys;
    std::span<const TableRecord> seg;
    if (CollectKeyList(SRC_NAME, kRouteTable, words, true, &stKeys) != 0 || !AttachedTable(SRC_NAME, &seg))
        return false;
    const TableRecord* pstRow = FindRow(seg, kRouteTable, stKeys);
    if (pstRow == nullptr) return false;
    int iMissing = TypeRule::kColumns;
    for (int i = 0; i < pstRow->iFieldCount && iMissing > 0; ++i) {
        std::string_view name, value;
        if (!FieldName(*pstRow, i, &name)) continue;
        for (int c = 0; c < TypeRule::kColumns; ++c) {
            if (pstRule->bFound[c] || name != TypeRule::kNames[c] || !FieldValue(*pstRow, i, &value)) continue;
            std::memcpy(pstRule->caValue[c], value.data(), value.size());
            pstRule->caValue[c][value.size()] = '\0';
            pstRule->bFound[c] = true;
            --iMissing;
        }
    }
    return true;
}

// The type text of a binary type field: a number of 1, 2 or 4 bytes,
// network order when SEQINTEL is "0", host (little-endian) order when "1".
int BinaryType(const unsigned char* pucField, int iWidth, bool bNetOrder, int iCharLen, char* pcType) {
    if (iWidth == 1) {
        std::snprintf(pcType, kTypeOutLen, "%02X", pucField[0]);
        return 0;
    }
    uint32_t uiValue = LoadBytes(pucField, iWidth);
    if (iWidth == 2) {
        uint16_t usValue = static_cast<uint16_t>(uiValue);
        uiValue = bNetOrder ? ntohs(usValue) : usValue;
    } else {
        if (iWidth != 4)
            COMP_ERRLOG("[%s,%d]check %s MSGTYPEGETLEN error ", SRC_NAME, __LINE__, kRouteTable);
        if (bNetOrder) uiValue = ntohl(uiValue);
    }
    // "%02X" is a minimum width: a wider value prints all its digits.
    if (iCharLen == 2)
        std::snprintf(pcType, kTypeOutLen, "%02X", uiValue);
    else if (iCharLen == 4)
        std::snprintf(pcType, kTypeOutLen, "%04X", uiValue);
    return 0;
}

}  // namespace

extern "C" {

int SysGetLenFromHead(const char* pcHeader, const RouteRecord* pstRoute, int iHeaderLen) {
    if (pcHeader == nullptr || pstRoute == nullptr || iHeaderLen < 0 || iHeaderLen > comp::kMaxNetMsgLen) {
        COMP_ERRLOG("[%s,%d]%s config error,HEADERLEN[%d] out of range", SRC_NAME, __LINE__, kRouteTable, iHeaderLen);
        return -1;
    }
    const RouteRecord& stRoute = *pstRoute;
    const int iWidth = FieldInt(stRoute, RT_MSGLENGETLEN);
    const int iOff = FieldInt(stRoute, RT_MSGLENGETOFFSET);
    if (iWidth > kLenWorkLen || !Within(iOff, iWidth, iHeaderLen)) {
        COMP_ERRLOG("[%s,%d]%s config error,MSGLENGETOFFSET[%d] MSGLENGETLEN[%d] outside header of %d bytes",
                    SRC_NAME, __LINE__, kRouteTable, iOff, iWidth, iHeaderLen);
        return -1;
    }
    char caWork[kLenWorkLen + 1] = {};
    std::memcpy(caWork, pcHeader + iOff, static_cast<size_t>(iWidth));
    const auto* pucWork = reinterpret_cast<const unsigned char*>(caWork);

    const FieldText lenType(stRoute, RT_MSGLENGETTYPE);
    const bool bNetOrder = FieldInt(stRoute, RT_MSGLENINTEL) == 0;
    long long llLen;
    switch (lenType.caText[0]) {
    case '0':
        llLen = DecimalPrefix(caWork);
        break;
    case '1':
    case '3': {
        // Binary encodings use the first bytes of the field whatever its width.
        uint32_t uiValue = LoadBytes(pucWork, 4);
        llLen = bNetOrder ? ntohl(uiValue) : uiValue;
        break;
    }
    case '2': {
        uint16_t usValue = static_cast<uint16_t>(LoadBytes(pucWork, 2));
        llLen = bNetOrder ? ntohs(usValue) : usValue;
        break;
    }
    default:
        COMP_ERRLOG("[%s,%d]PLAT_STATICROUTEINFO Config error,check MSGLENGETTYPE", SRC_NAME, __LINE__);
        return -1;
    }
    llLen += FieldInt(stRoute, RT_MSGLENADJUST);
    if (iHeaderLen + llLen > comp::kMaxNetMsgLen) {
        COMP_ERRLOG("[%s,%d]The message is too large.length=%lld,LENTYPE[%s]", SRC_NAME, __LINE__, llLen,
                    lenType.caText);
        return -1;
    }
    // A negative result is the caller's to refuse.
    return llLen < INT_MIN ? INT_MIN : static_cast<int>(llLen);
}

int SysTcpRecvMsg(int iSock, const RouteRecord* pstRoute, QueueMsg* pstBuf, int* piErrno) {
    return comp::RecvFramedMsg(comp::SocketSource(iSock), iSock, pstRoute, pstBuf, piErrno);
}

int SysGetMsgTypeFromMsg(const char* pcMsg, int iMsgLen, const char* pcRouteId, char* pcType) {
    if (pcMsg == nullptr || pcRouteId == nullptr || pcType == nullptr || iMsgLen < 0) {
        COMP_ERRLOG("[%s,%d]SysGetMsgTypeFromHead parameter error", SRC_NAME, __LINE__);
        return -1;
    }
    // Platform notifications are their own type.
    if (iMsgLen >= 4) {
        for (std::string_view code : {"N005", "N001", "N002", "N004", "N003"}) {
            if (std::memcmp(pcMsg, code.data(), 4) == 0) {
                std::memcpy(pcType, code.data(), 4);
                return 0;
            }
        }
    }

    // The rule is read from the shared table on every message, so a reloaded
    // table takes effect at once.
    TypeRule stRule;
    ReadTypeRule(pcRouteId, &stRule);
    const bool* pbFound = stRule.bFound;
    if (!pbFound[TypeRule::kLen] || !pbFound[TypeRule::kOff] || !pbFound[TypeRule::kKind]) {
        COMP_ERRLOG("[%s,%d,%s].SysGetValueByTableKey() error", SRC_NAME, __LINE__, __func__);
        return -1;
    }
    if (!pbFound[TypeRule::kCharLen]) {
        COMP_ERRLOG("[%s,%d,%s].SysGetValueByTableKey() caMsgTypeCharLen error", SRC_NAME, __LINE__, __func__);
        return -1;
    }
    const char* caLen = stRule.caValue[TypeRule::kLen];
    const char* caOff = stRule.caValue[TypeRule::kOff];
    const char* caType = stRule.caValue[TypeRule::kKind];
    const char* caCharLen = stRule.caValue[TypeRule::kCharLen];
    const char* caSeq = stRule.caValue[TypeRule::kSeq];
    if (!pbFound[TypeRule::kSeq] || (caSeq[0] != '0' && caSeq[0] != '1')) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d,%s].SysGetValueByTableKey() SeqIntel error", SRC_NAME, __LINE__,
                 __func__);
        return -1;
    }
    const int iWidth = DecimalPrefix(caLen);
    const int iOff = DecimalPrefix(caOff);
    const int iTypeKind = DecimalPrefix(caType);

    if (iTypeKind == 0) {
        if (iWidth < 0 || iWidth > kMaxBinaryTypeLen) {
            COMP_ERRLOG("[%s,%d]check %s MSGTYPEGETLEN error ", SRC_NAME, __LINE__, kRouteTable);
            return -1;
        }
        if (!Within(iOff, iWidth, iMsgLen)) {
            COMP_ERRLOG("[%s,%d]%s MSGTYPEGETOFFSET[%d] MSGTYPEGETLEN[%d] outside message of %d bytes", SRC_NAME,
                        __LINE__, kRouteTable, iOff, iWidth, iMsgLen);
            return -1;
        }
        return BinaryType(reinterpret_cast<const unsigned char*>(pcMsg + iOff), iWidth, caSeq[0] == '0',
                          DecimalPrefix(caCharLen), pcType);
    }
    if (iTypeKind != 1) COMP_ERRLOG("[%s,%d]check %s MSGTYPEGETTYPE error ", SRC_NAME, __LINE__, kRouteTable);
    if (iWidth > kTypeOutLen || !Within(iOff, iWidth, iMsgLen)) {
        COMP_ERRLOG("[%s,%d]%s MSGTYPEGETOFFSET[%d] MSGTYPEGETLEN[%d] outside message of %d bytes", SRC_NAME,
                    __LINE__, kRouteTable, iOff, iWidth, iMsgLen);
        return -1;
    }
    std::memcpy(pcType, pcMsg + iOff, static_cast<size_t>(iWidth));
    return 0;
}

int SysGetMsgTypeFromHead(const char* pcMsg, const char* pcRouteId, char* pcType) {
    return SysGetMsgTypeFromMsg(pcMsg, comp::kQueueTextLen, pcRouteId, pcType);
}

}  // extern "C"

namespace comp {

int RecvFramedMsg(const ByteSource& src, int iSock, const RouteRecord* pstRoute, QueueMsg* pstBuf, int* piErrno) {
    int iIgnored = 0;
    int& iErrOut = piErrno != nullptr ? *piErrno : iIgnored;
    if (pstRoute == nullptr || pstBuf == nullptr) {
        iErrOut = EINVAL;
        COMP_ERRLOG("[%s,%d]SysTcpRecvMsg parameter error", SRC_NAME, __LINE__);
        return -1;
    }
    const int iHeaderLen = HeaderLenOf(*pstRoute);
    if (iHeaderLen < 0 || iHeaderLen > comp::kMaxNetMsgLen) {
        iErrOut = EINVAL;
        COMP_ERRLOG("[%s,%d]%s config error,HEADERLEN[%d] out of range", SRC_NAME, __LINE__, kRouteTable,
                    iHeaderLen);
        return -1;
    }
    char* pcText = pstBuf->caText;

    // A peer that closes leaves errno as it was; start from 0 so that the
    // caller can tell a close from a failure.
    errno = 0;
    int iRet = src.Read(pcText, iHeaderLen);
    if (iRet != iHeaderLen) {
        iErrOut = errno;
        COMP_ERRLOG("[%s,%d]%s,fd=%d ,iRet=%d,errno=%d,[%s] ", SRC_NAME, __LINE__, "SysTcpRecvMsg", iSock, iRet,
                    iErrOut, std::strerror(iErrOut));
        return -1;
    }
    const int iBodyLen = SysGetLenFromHead(pcText, pstRoute, iHeaderLen);
    if (iBodyLen < 0) {
        iErrOut = errno;
        COMP_ERRLOG_DUMP(pcText, iHeaderLen, "[%s,%d]SysGetLenFromHead error.iHeaderLen=[%d]", SRC_NAME, __LINE__,
                         iHeaderLen);
        return -1;
    }
    if (iBodyLen > 0) {
        errno = 0;
        iRet = src.Read(pcText + iHeaderLen, iBodyLen);
        if (iRet != iBodyLen) {
            iErrOut = errno;
            COMP_ERRLOG("[%s,%d]%s,fd=%d,iRet=%d,errno=%d,[%s]", SRC_NAME, __LINE__, "SysTcpRecvMsg", iSock, iRet,
                        iErrOut, std::strerror(iErrOut));
            return -1;
        }
    }
    return iHeaderLen + iBodyLen;
}

}  // namespace comp
