// Plain types and byte layouts shared by the communication process, the
// stand-in platform tools and the tests. Every layout that another process of
// the platform reads or writes is fixed here once, with its offsets checked at
// compile time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// ---------------------------------------------------------------------------
// Sizes and limits
// ---------------------------------------------------------------------------
namespace comp {
inline constexpr int kMsgBufLen = 2048;        // g_caMsg
inline constexpr int kQueueTextLen = 65536;    // text bytes of one queue message
inline constexpr int kMaxNetMsgLen = 65535;    // header + body of one network message
inline constexpr int kPlatHdrLen = 64;         // PlatMsg header
inline constexpr int kNoticeLen = 132;         // notification PlatMsg (header + body)
inline constexpr int kCommonpNoticeLen = 68;   // logon/logoff notice to Commonp
inline constexpr int kCtlTableSize = 32;       // g_stMsgQCntl / g_stSemCntl entries
inline constexpr int kRouteFields = 28;
inline constexpr int kRouteFieldLen = 32;

// Indices of the platform queues in [QRESOURCE].
inline constexpr int kQueueCommonp = 6;        // ComP -> Commonp (logon, logoff, accept)
inline constexpr int kQueueToTranp = 7;        // ComP -> TranP
inline constexpr int kQueueFromTranp = 8;      // TranP -> ComP
inline constexpr int kQueuePasRequest = 9;     // peer requests between PAS processes
inline constexpr int kQueuePasAnswer = 10;     // peer answers between PAS processes
inline constexpr int kQueueDrain = 12;         // drained with queue 8

// Commonp event codes (queue message type of the notice).
inline constexpr long kCommonpLogon = 2;
inline constexpr long kCommonpLogoff = 4;
inline constexpr long kCommonpAccepted = 9;

// FIFO kinds (the number in front of the name: "%s/fifo/%d_%s").
inline constexpr int kFifoPidNotify = 1;       // "1_<pid>": TranP rings a server-mode process
inline constexpr int kFifoRouteNotify = 2;     // "2_<route>_<instance>": TranP rings a route
inline constexpr int kFifoControl = 3;         // "3_<pid>_<instance>": control commands
inline constexpr int kFifoPeerRequest = 4;     // "4_<pid>": PAS peer requests
}  // namespace comp

// The end marker of the variable key/value lists of the table lookups.
#define PARA_END "{END}"

extern "C" {

// ---------------------------------------------------------------------------
// Route row: PLAT_STATICROUTEINF as 28 text columns of 32 bytes.
// ---------------------------------------------------------------------------
enum RouteColumn {
    RT_ROUTEID = 0,
    RT_ROUTEMONID = 1,
    RT_ROUTENAME = 2,
    RT_MSGTYPEGETLEN = 3,
    RT_MSGTYPEGETOFFSET = 4,
    RT_ROUTEMSGFLAG = 5,
    RT_MSGTYPEGETTYPE = 6,
    RT_MSGTYPECHARLEN = 7,
    RT_IDLETIMEOUT = 8,
    RT_MSGSNDTYPE = 9,
    RT_BEATINTERVAL = 10,
    RT_RECONNINTERVAL = 11,
    RT_SEQINTEL = 12,
    RT_RESERVED13 = 13,
    RT_RESERVED14 = 14,
    RT_RESERVED15 = 15,
    RT_MSGLENGETLEN = 16,
    RT_MSGLENGETOFFSET = 17,
    RT_MSGLENGETTYPE = 18,
    RT_MSGLENINTEL = 19,
    RT_HEADERLEN = 20,
    RT_MSGLENADJUST = 21,
    RT_IPPORT = 22,
    RT_IPPORTUPPER = 23,
    RT_BEATSWITCH = 24,
    RT_RCVMETHOD = 25,
    RT_INPREHDL = 26,
    RT_OUTPREHDL = 27,
};

struct RouteRecord {
    char caField[28][32];
};
static_assert(sizeof(RouteRecord) == 896);

// Column names of PLAT_STATICROUTEINF in row order (index = RouteColumn).
extern const char* const g_pcaRouteColumns[28];

// ---------------------------------------------------------------------------
// System V queue message: the C long type word, then the text.
// ---------------------------------------------------------------------------
struct QueueMsg {
    long lMsgType;
    char caText[65536];
};
static_assert(offsetof(QueueMsg, caText) == sizeof(long));

// ---------------------------------------------------------------------------
// sys.cfg
// ---------------------------------------------------------------------------
struct CommCfg {
    int32_t iLogonTimeLimit;     // LOGONTIMELIMIT
    int32_t iComLogonTimeLimit;  // COMLOGONTIMELIMIT
    int32_t iInqueryTime;        // INQUERYTIME
    int32_t iInqueryCount;       // INQUERYCOUNT
    int32_t iShutdownTime;       // SHUTDOWNTIME
    int32_t iMsgQueueCount;      // MSGQUEUECOUNT
    int32_t iSemphoreCount;      // SEMPHORECOUNT
    int32_t iShareMemCount;      // SHAREMEMCOUNT
    int32_t iProcNameCount;      // PROCNAMECOUNT
};
static_assert(sizeof(CommCfg) == 36);

struct QueueCfgEntry {
    char caName[20];
    int32_t iIndex;
    int32_t iKey;
};
static_assert(sizeof(QueueCfgEntry) == 28);

struct SemCfgEntry {
    char caName[20];
    int32_t iIndex;
    int32_t iKey;
    int32_t iNum;
};
static_assert(sizeof(SemCfgEntry) == 32);

struct ShmCfgEntry {
    char caName[20];
    int32_t iIndex;
    int32_t iKey;
    int32_t iSize;
};
static_assert(sizeof(ShmCfgEntry) == 32);

struct ProcCfgEntry {
    char caName[64];
    char caCode[4];
    int32_t iNumber;
    char caCode2[3];
    char caText[33];
};
static_assert(sizeof(ProcCfgEntry) == 108);
static_assert(offsetof(ProcCfgEntry, iNumber) == 68);
static_assert(offsetof(ProcCfgEntry, caText) == 75);

// Control tables filled at start from [QRESOURCE] and [SEMRESOURCE].
struct MsgQCntl {
    int32_t iIndex;
    int32_t iKey;
    int32_t iId;
};
struct SemCntl {
    int32_t iIndex;
    int32_t iKey;
    int32_t iNum;
    int32_t iId;
};

// ---------------------------------------------------------------------------
// Table segment: a run of 6,188-byte records ended by one with an empty name.
// ---------------------------------------------------------------------------
struct TableRecord {
    int32_t iUnused;
    int32_t iFieldCount;          // at most 128
    char caTableName[32];
    int32_t iRowLen;              // bytes of the row image in caValues
    char caValues[1024];          // row image: each field NUL-terminated at its offset
    char caFieldNames[128][32];
    int32_t iaFieldLen[128];
    int32_t iaFieldOffset[128];
};
static_assert(sizeof(TableRecord) == 6188);
static_assert(offsetof(TableRecord, iFieldCount) == 4);
static_assert(offsetof(TableRecord, caTableName) == 8);
static_assert(offsetof(TableRecord, iRowLen) == 40);
static_assert(offsetof(TableRecord, caValues) == 44);
static_assert(offsetof(TableRecord, caFieldNames) == 1068);
static_assert(offsetof(TableRecord, iaFieldLen) == 5164);
static_assert(offsetof(TableRecord, iaFieldOffset) == 5676);

// ---------------------------------------------------------------------------
// Connection registry segment.
// ---------------------------------------------------------------------------
struct ConnListHeader {
    int32_t iLockSet;     // id of the ten-semaphore set guarding the registry
    int32_t iLockNum;     // semaphore number in that set
    int32_t iFreeBlocks;
    int32_t iBusyBlocks;
    int32_t iTotalBlocks;
    int32_t iFree;        // free-list head, -1 when empty
    int32_t iBusy;        // busy-list head, -1 when empty
};
static_assert(sizeof(ConnListHeader) == 28);

struct ConnNode {
    int32_t iIndex;
    int32_t iState;       // 1 busy, 0 free
    int32_t iTimeSec;
    int32_t iTimeUsec;
    char caType[64];      // "COM" for this component's entries
    int32_t iPid;
    char caKey[64];
    char caRouteId[8];
    int32_t iVirtualFd;
    int32_t iSockFd;
    char caIp[16];
    char caValue[16];
    int32_t iPort;
    int32_t iValueLen;
    int32_t iNext;
    int32_t iPrev;
};
static_assert(sizeof(ConnNode) == 212);
static_assert(offsetof(ConnNode, caType) == 16);
static_assert(offsetof(ConnNode, iPid) == 80);
static_assert(offsetof(ConnNode, caKey) == 84);
static_assert(offsetof(ConnNode, caRouteId) == 148);
static_assert(offsetof(ConnNode, iVirtualFd) == 156);
static_assert(offsetof(ConnNode, iSockFd) == 160);
static_assert(offsetof(ConnNode, caIp) == 164);
static_assert(offsetof(ConnNode, caValue) == 180);
static_assert(offsetof(ConnNode, iPort) == 196);
static_assert(offsetof(ConnNode, iValueLen) == 200);
static_assert(offsetof(ConnNode, iNext) == 204);
static_assert(offsetof(ConnNode, iPrev) == 208);

}  // extern "C"

namespace comp {
inline constexpr int kRegistryReserved = 8640;   // bytes before the list header
inline constexpr int kRegistryHeaderOff = 8640;
inline constexpr int kRegistryNodesOff = 8668;
inline constexpr int kRegistryNodes = 16384;
inline constexpr int kRegistrySegmentMin = kRegistryNodesOff + kRegistryNodes * 212;
static_assert(kRegistryHeaderOff + static_cast<int>(sizeof(ConnListHeader)) == kRegistryNodesOff);
static_assert(kRegistrySegmentMin == 3482076);
}  // namespace comp

extern "C" {

// ---------------------------------------------------------------------------
// Message pool (process-private). The list links are 32-bit block numbers
// (-1 for none), so the block keeps its platform size on 64-bit hosts.
// ---------------------------------------------------------------------------
struct PoolHeader {
    int32_t iFreeBlocks;
    int32_t iBusyBlocks;
    int32_t iTotalBlocks;
    int32_t iFreeHead;    // block number, -1 when none
    int32_t iBusyHead;    // block number, -1 when none
};
static_assert(sizeof(PoolHeader) == 20);

struct PoolBlock {
    int32_t iBlockNo;
    int32_t iPieceNo;
    int32_t iPieceCount;
    int32_t iNextPiece;   // block number of the next piece, -1 for the last
    int32_t iState;       // 1 busy, 0 free
    int32_t iTime;        // seconds since the epoch
    char caKey[64];
    char caData[1024];
    int32_t iDataLen;
    int32_t iNext;        // next block on its list
    int32_t iPrev;        // previous block on its list
};
static_assert(sizeof(PoolBlock) == 1124);
static_assert(offsetof(PoolBlock, caKey) == 24);
static_assert(offsetof(PoolBlock, caData) == 88);
static_assert(offsetof(PoolBlock, iDataLen) == 1112);
static_assert(offsetof(PoolBlock, iNext) == 1116);
static_assert(offsetof(PoolBlock, iPrev) == 1120);

// ---------------------------------------------------------------------------
// Application configuration records.
// ---------------------------------------------------------------------------
struct AppCfgEntry {
    char caName[64];
    char caValue[80];
};
static_assert(sizeof(AppCfgEntry) == 144);

struct AppCfgLine {
    char caLine[80];
};

}  // extern "C"

// ---------------------------------------------------------------------------
// PlatMsg header (64 bytes, host byte order) and notification body.
// ---------------------------------------------------------------------------
namespace comp::plat {
inline constexpr int kTotalLen = 0;    // u16: header + body
inline constexpr int kKind = 2;        // u16: 0 network, 1 notification, 64 Commonp notice
inline constexpr int kPid = 4;         // i32
inline constexpr int kPid2 = 8;        // i32
inline constexpr int kRoute = 12;      // u16
inline constexpr int kRoute2 = 14;     // u16
inline constexpr int kSock = 16;       // i32
inline constexpr int kSock2 = 20;      // i32
inline constexpr int kPort = 24;       // i32
inline constexpr int kIp = 28;         // 16 bytes text
inline constexpr int kIp2 = 44;        // 16 bytes text
inline constexpr int kFlag = 60;       // 1 byte
inline constexpr int kHeaderLen = 64;
static_assert(kFlag + 4 == kHeaderLen);

inline constexpr int kKindNet = 0;
inline constexpr int kKindNotice = 1;
inline constexpr int kKindCommonp = 64;

// Notification body, after the header.
inline constexpr int kNoteCode = 0;    // 4 characters "N00x"
inline constexpr int kNoteIp = 4;      // 16 bytes
inline constexpr int kNoteText1 = 20;  // 16 bytes, N001 only
inline constexpr int kNoteText2 = 36;  // 12 bytes, N001 only
inline constexpr int kNoteText3 = 48;  // 15 bytes, N001 only
inline constexpr int kNoteBodyLen = 68;
static_assert(kHeaderLen + kNoteBodyLen == kNoticeLen);
static_assert(kNoteText3 + 15 <= kNoteBodyLen);
}  // namespace comp::plat
