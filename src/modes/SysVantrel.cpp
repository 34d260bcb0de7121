// Frames of the station link: code of a frame, acknowledgements, the N004
// sequence commands, and the reassembly of a message from its packets.
#include "modes/SysVantrel.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/SysGlobals.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "comp/SysPlugin.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "util/StrTools.h"
#include "util/SysChecksum.h"
#include "util/SysTcpBasi.h"

namespace comp::vantrel {

namespace {

LinkState g_stLink;
SystemClock g_stSystemClock;

template <typename T>
void Put(unsigned char* p, int off, T v) {
    std::memcpy(p + off, &v, sizeof v);
}

// The only class-3 code that keeps its identity.
constexpr char kBizKept[] = "0300520D";

}  // namespace

LinkState& Link() { return g_stLink; }
void ResetLink() { g_stLink = LinkState{}; }
int64_t LinkNowSec() {
    Clock* c = g_stLink.clock ? g_stLink.clock : &g_stSystemClock;
    return c->NowUsec() / kUsecPerSec;
}

void HexKey(const unsigned char* pucBytes, char (&out)[kKeyLen + 1]) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    for (int i = 0; i < kIdentityLen; ++i) {
        out[2 * i] = kHex[pucBytes[i] >> 4];
        out[2 * i + 1] = kHex[pucBytes[i] & 0x0F];
    }
    out[kKeyLen] = '\0';
}

uint32_t CodeValue(const char* pcCode) {
    uint32_t v = 0;
    for (int i = 0; i < 8 && pcCode[i] != '\0'; ++i) {
        char c = pcCode[i];
        int d = (c >= '0' && c <= '9') ? c - '0' : (c >= 'A' && c <= 'F') ? c - 'A' + 10 : 0;
        v = (v << 4) | static_cast<uint32_t>(d);
    }
    return v;
}

uint32_t BodyCrc(const unsigned char* pucFrame, int iLen) {
    const int n = iLen - kOverhead;
    return n > 0 ? SysGenCrc32Value(pucFrame + kBodyAt, n, 0) : 0;
}

uint32_t StoredCrc(const unsigned char* pucFrame, int iLen) {
    if (iLen < kTrailerLen) return 0;
    uint32_t v;
    std::memcpy(&v, pucFrame + iLen - kTrailerLen, sizeof v);
    return v;
}

void StampTime(unsigned char* pucFrame, int64_t lSec) {
    char caDigits[16] = {0};
    getPureTimeStr(static_cast<time_t>(lSec), caDigits);
    NumberStr2BCDStr(caDigits, 2 * kTimeLen, pucFrame + kTimeAt);
}

// ---- reassembly -------------------------------------------------------------

namespace {

// Reads one packet into pkt: the header, then the rest that its length field
// announces. The rest's length in *piRest, or -1 / -2.
int ReadPacket(ReadFn pfRead, void* pvCtx, int iFd, unsigned char* pkt, int iHeaderLen, const RouteRecord& stRoute,
               int* piRest) {
    int n = pfRead(pvCtx, pkt, iHeaderLen);
    if (n != iHeaderLen) {
        int err = errno;
        COMP_ERRLOG("[%s,%d]%s,fd=%d ,iRet=%d,errno=%d,[%s]", SRC_NAME, __LINE__, "RecvVantrelMsg", iFd, n, err,
                    std::strerror(err));
        return -2;
    }
    if (pkt[kBeginTagAt] != kBeginTag) {
        COMP_ERRLOG_DUMP(pkt, iHeaderLen, "[%s,%d]%s,fd=%d begin tag error", SRC_NAME, __LINE__, "RecvVantrelMsg",
                         iFd);
        return -1;
    }
    const int rest = SysGetLenFromHead(reinterpret_cast<const char*>(pkt), &stRoute, iHeaderLen);
    if (rest < 0) {
        COMP_ERRLOG_DUMP(pkt, iHeaderLen, "[%s,%d]SysGetLenFromHead error.", SRC_NAME, __LINE__);
        return -1;
    }
    // Every packet ends in its end tag, and one with a body also carries a
    // CRC: a rest of 0 or of 2 to 4 bytes cannot be a packet.
    if (rest == 0 || (rest > 1 && rest < kTrailerLen) || iHeaderLen + rest > kPacketBufLen) {
        COMP_ERRLOG_DUMP(pkt, iHeaderLen, "[%s,%d]%s,fd=%d length error,rest=%d", SRC_NAME, __LINE__,
                         "RecvVantrelMsg", iFd, rest);
        return -1;
    }
    n = pfRead(pvCtx, pkt + iHeaderLen, rest);
    if (n != rest) {
        int err = errno;
        COMP_ERRLOG("[%s,%d,%s],fd=%d,iRet=%d,errno=%d,[%s],%d", SRC_NAME, __LINE__, "RecvVantrelMsg", iFd, n, err,
                    std::strerror(err), rest);
        COMP_ERRLOG_DUMP(pkt, iHeaderLen, "出错包的header如下[%s,%d]", SRC_NAME, __LINE__);
        return -2;
    }
    if (pkt[iHeaderLen + rest - 1] != kEndTag) {
        COMP_ERRLOG("[%s,%d]%s,fd=%d end tag error", SRC_NAME, __LINE__, "RecvVantrelMsg", iFd);
        return -1;
    }
    *piRest = rest;
    return 0;
}

}  // namespace

int Reassemble(ReadFn pfRead, void* pvCtx, int iFd, char* pcOut, int iOutCap, int iHeaderLen,
               const RouteRecord& stRoute, int* piTotal) {
    if (iHeaderLen != kHeaderLen || iOutCap < kMinFrame) {
        COMP_ERRLOG("[%s,%d]%s,fd=%d header length %d is not %d", SRC_NAME, __LINE__, "RecvVantrelMsg", iFd,
                    iHeaderLen, kHeaderLen);
        return -1;
    }
    unsigned char pkt[kPacketBufLen];
    auto* out = reinterpret_cast<unsigned char*>(pcOut);
    int total = 0;
    for (int packets = 1;; ++packets) {
        int rest = 0;
        int rc = ReadPacket(pfRead, pvCtx, iFd, pkt, iHeaderLen, stRoute, &rest);
        if (rc != 0) return rc;
        const int no = pkt[kPktNoAt], count = pkt[kPktCountAt];
        if (packets == 1) {
            std::memcpy(out, pkt, static_cast<size_t>(iHeaderLen));
            total = iHeaderLen;
        }
        const int body = rest == 1 ? 0 : rest - kTrailerLen;
        const bool last = no == count;
        const int trailer = last ? (rest == 1 ? 1 : kTrailerLen) : 0;
        if (total + body + trailer > iOutCap || (!last && packets >= kMaxPackets)) {
            COMP_ERRLOG_DUMP(pkt, iHeaderLen, "[%s,%d]%s,fd=%d message too large,packet %d of %d", SRC_NAME,
                             __LINE__, "RecvVantrelMsg", iFd, no, count);
            return -1;
        }
        std::memcpy(out + total, pkt + iHeaderLen, static_cast<size_t>(body));
        total += body;
        if (!last) continue;
        std::memcpy(out + total, pkt + iHeaderLen + rest - trailer, static_cast<size_t>(trailer));
        total += trailer;
        Put(out, kLenAt, static_cast<uint32_t>(total));
        out[kPktCountAt] = 1;
        *piTotal = total;
        return total;
    }
}

}  // namespace comp::vantrel

namespace {

using namespace comp::vantrel;

int SockRead(void* pvCtx, void* pvBuf, int iLen) { return iSockRecv(*static_cast<int*>(pvCtx), pvBuf, iLen); }

}  // namespace

extern "C" {

int SysGetVantrelMsgType(const char* pcFrame, char* pcCode) {
    uint32_t len = 0;
    std::memcpy(&len, pcFrame + kLenAt, sizeof len);
    const FrameView f(pcFrame, static_cast<int>(len > static_cast<uint32_t>(comp::kQueueTextLen)
                                                    ? comp::kQueueTextLen
                                                    : len));
    const int cls = f.Class();
    const unsigned char sub = f.SubType();
    pcCode[0] = '\0';
    switch (cls) {
    case kClassReserved: {
        unsigned char id[kIdentityLen];
        char key[kKeyLen + 1];
        f.Identity(id);
        HexKey(id, key);
        writelog(LOG_INFO, nullptr, 0, "[%s,%d,%s]收到预留数据[%s]", SRC_NAME, __LINE__, __func__, key);
        return -1;
    }
    case kClassTrade:
        std::snprintf(pcCode, 9, "02000FFF");
        writelog(LOG_DEBUG, nullptr, 0, "[%s,%d,%s]收到交易数据[%d]", SRC_NAME, __LINE__, __func__, f.size());
        return 0;
    case kClassBusiness:
        std::snprintf(pcCode, 9, "0300%02X%02X", f.At(kBizCodeAt), f.At(kBizCodeAt + 1));
        if (std::strcmp(pcCode, kBizKept) != 0) {
            std::snprintf(pcCode, 9, "03000FFF");
            writelog(LOG_DEBUG, nullptr, 0, "[%s,%d,%s]收到业务数据[%d]", SRC_NAME, __LINE__, __func__, f.size());
        }
        return 0;
    case kClassAnswer:
        if (sub == kSubReqFeedback) {
            std::snprintf(pcCode, 9, "00FF%04X", f.U16(kFeedbackCodeAt));
            writelog(LOG_INFO, nullptr, 0, "[%s,%d,%s]收到连接确认反馈[%c]", SRC_NAME, __LINE__, __func__,
                     f.At(kAcceptedAt) != 0 ? '1' : '0');
            return 0;
        }
        if (sub == kSubRequest) {
            std::snprintf(pcCode, 9, "00FF%04X", f.U16(kCodeAt));
            return 0;
        }
        break;
    case kClassControl:
        if (sub == kSubFeedback) {
            std::snprintf(pcCode, 9, "0400%04X", f.U16(kFeedbackCodeAt));
            writelog(LOG_DEBUG, nullptr, 0, "反馈控制数据");
            return 0;
        }
        break;
    case kClassSequence:
        break;
    default: {
        char cls2[8];
        std::snprintf(cls2, sizeof cls2, "%02X", cls);
        COMP_ERRLOG("[%s,%d,%s]收到非法消息[%s]", SRC_NAME, __LINE__, __func__, cls2);
        return -1;
    }
    }
    std::snprintf(pcCode, 9, "%02X00%04X", cls, f.U16(kCodeAt));
    return 0;
}

int SysBuildAck(int /*iClass*/, int iAckCode, const unsigned char* pucIdentity, int* piLen, char* pcFrame) {
    auto* f = reinterpret_cast<unsigned char*>(pcFrame);
    std::memset(f, 0, kAckLen);
    f[kBeginTagAt] = kBeginTag;
    Put(f, kLenAt, static_cast<uint32_t>(kAckLen));
    Put(f, kWord5At, static_cast<uint32_t>(1));
    f[kByte9At] = 1;
    f[kByte10At] = 1;
    f[kClassAt] = kClassAnswer;
    f[kByte12At] = 0xFF;
    f[kSubTypeAt] = static_cast<unsigned char>(iAckCode);
    StampTime(f, LinkNowSec());
    f[kByte23At] = 0x5D;
    f[kByte26At] = 1;
    Put(f, kWord29At, static_cast<uint16_t>(5));
    f[kPktCountAt] = 1;
    f[kPktNoAt] = 1;
    f[kSentAt] = 1;
    f[kHeaderEndAt] = 0xFF;
    std::memcpy(f + kBodyAt, pucIdentity, kIdentityLen);
    f[kAckEndAt] = kEndTag;
    *piLen = kAckLen;
    if (!comp::StationIdBcd(f + kStationAt)) {
        WriteWarnning("app.cfg中缺少配置STATION_ID");
        return -1;
    }
    return 0;
}

int SysTimeSeqCmd2TranP(uint32_t uiCmd) {
    static QueueMsg stBuf;
    LinkState& link = Link();
    std::memcpy(stBuf.caText, "N004", 4);
    std::memcpy(stBuf.caText + 4, &uiCmd, sizeof uiCmd);
    int len = SysBuildPlatMsg(&stBuf, kN004BodyLen, 0, &link.route, link.peerIp, link.peerPort);
    stBuf.lMsgType = getpid();
    if (len < 0 || SysWriteQueueNoWait(&stBuf, len, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        int err = errno;
        COMP_ERRLOG("[%s,%d]SysWriteMQ error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return -1;
    }
    writelog(LOG_INFO, stBuf.caText, len, "[%s,%d]Send N004 to TranP", SRC_NAME, __LINE__);
    return 0;
}

int RecvVantrelMsg(int iSock, char* pcOut, int iHeaderLen, RouteRecord stRoute, int* piTotal) {
    return Reassemble(SockRead, &iSock, iSock, pcOut, comp::kQueueTextLen - comp::kPlatHdrLen, iHeaderLen, stRoute,
                      piTotal);
}

}  // extern "C"
