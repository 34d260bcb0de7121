// The station link protocol: frames with a begin tag, a 39-byte header, a
// body protected by CRC-32 and an end tag; acknowledgement frames; the
// message-type code of a frame; multi-packet reassembly; the sequence
// commands sent to TranP; and the receive and send sequence controllers that
// decide, per connection, which frames a sequence allows.
//
// Everything here works on frames in memory, so the tests and the fuzz
// targets drive it without sockets or queues: the reassembly reads through a
// byte source, and the sequence commands go through a sink the tests replace.
#pragma once

#include <cstdint>
#include <span>

#include "base/SysTypes.h"
#include "modes/EngineClock.h"

// ---------------------------------------------------------------------------
// Frame layout. Multi-byte integers are in host (little-endian) order;
// offsets are from the begin tag.
// ---------------------------------------------------------------------------
namespace comp::vantrel {

inline constexpr int kBeginTagAt = 0;    // 0xF0
inline constexpr int kLenAt = 1;         // u32: whole frame, both tags included
inline constexpr int kWord5At = 5;       // u32; 1 in acknowledgements
inline constexpr int kByte9At = 9;       // 1 in acknowledgements
inline constexpr int kByte10At = 10;     // 1 in acknowledgements
inline constexpr int kClassAt = 11;      // message class
inline constexpr int kByte12At = 12;     // 0xFF in acknowledgements
inline constexpr int kSubTypeAt = 13;    // sub-type; first byte of the identity
inline constexpr int kTimeAt = 14;       // 7 bytes: YYYYMMDDhhmmss as BCD
inline constexpr int kSerialAt = 21;     // u16: the sending connection's serial number
inline constexpr int kByte23At = 23;     // 0x5D in acknowledgements
inline constexpr int kStationAt = 24;    // 2 bytes: station id, 4 digits BCD
inline constexpr int kByte26At = 26;     // 1 in acknowledgements
inline constexpr int kGroup1At = 27;     // GROUPID1
inline constexpr int kGroup2At = 28;     // GROUPID2; last byte of the identity
inline constexpr int kWord29At = 29;     // u16; 5 in acknowledgements
inline constexpr int kPktCountAt = 31;   // packets of the message
inline constexpr int kPktNoAt = 32;      // this packet, from 1
inline constexpr int kWord33At = 33;     // u32; 0 in acknowledgements
inline constexpr int kSentAt = 37;       // set to 1 just before sending
inline constexpr int kHeaderEndAt = 38;  // 0xFF in acknowledgements
inline constexpr int kHeaderLen = 39;
inline constexpr int kBodyAt = 39;

inline constexpr int kTimeLen = 7;
inline constexpr int kCrcLen = 4;
inline constexpr int kTrailerLen = kCrcLen + 1;             // CRC and end tag
inline constexpr int kOverhead = kHeaderLen + kTrailerLen;  // 44: a frame with an empty body
inline constexpr int kMinFrame = kHeaderLen + 1;            // header and end tag only

// The identity of a frame: sub-type, time stamp, serial, station id and
// group ids. An acknowledgement carries it as its body; a sent frame waits
// for its acknowledgement in the pool under it, as 32 upper-case hex digits.
inline constexpr int kIdentityAt = kSubTypeAt;
inline constexpr int kIdentityLen = 16;
inline constexpr int kKeyLen = 2 * kIdentityLen;

// Inside the body.
inline constexpr int kCodeAt = kBodyAt;                        // u16 code of classes 0, 4, 5
inline constexpr int kFeedbackCodeAt = kBodyAt + kIdentityLen;  // u16 code behind an identity (55)
inline constexpr int kAcceptedAt = kFeedbackCodeAt + 2;         // connection feedback: non-zero accepted (57)
inline constexpr int kSelectAt = kBodyAt + 2;                   // "04005509": which operation step (41)
inline constexpr int kBizCodeAt = 92;                           // two bytes of a business code
inline constexpr int kValueAt = 40;                             // 14 bytes kept as the pool value
inline constexpr int kValueLen = 14;

// Acknowledgement frame: header, the answered identity as body, CRC, end tag.
inline constexpr int kAckLen = kHeaderLen + kIdentityLen + kTrailerLen;
inline constexpr int kAckCrcAt = kBodyAt + kIdentityLen;
inline constexpr int kAckEndAt = kAckCrcAt + kCrcLen;

static_assert(kTimeAt + kTimeLen == kSerialAt && kSerialAt + 2 == kByte23At && kStationAt + 2 == kByte26At);
static_assert(kIdentityAt + kIdentityLen == kGroup2At + 1);
static_assert(kWord29At + 2 == kPktCountAt && kWord33At + 4 == kSentAt && kHeaderEndAt + 1 == kHeaderLen);
static_assert(kFeedbackCodeAt == 55 && kAcceptedAt == 57 && kSelectAt == 41);
static_assert(kValueAt + kValueLen == kFeedbackCodeAt - 1);
static_assert(kAckLen == 60 && kAckCrcAt == 55 && kAckEndAt == 59);

inline constexpr unsigned char kBeginTag = 0xF0;
inline constexpr unsigned char kEndTag = 0xFF;

// Message classes (offset 11).
inline constexpr int kClassAnswer = 0;
inline constexpr int kClassReserved = 1;
inline constexpr int kClassTrade = 2;
inline constexpr int kClassBusiness = 3;
inline constexpr int kClassControl = 4;
inline constexpr int kClassSequence = 5;

// Sub-types (offset 13).
inline constexpr unsigned char kSubNack = 0x00;
inline constexpr unsigned char kSubAck = 0xFB;
inline constexpr unsigned char kSubKeepAlive = 0xFC;
inline constexpr unsigned char kSubFeedback = 0xFD;
inline constexpr unsigned char kSubRequest = 1;      // class 0: connection request
inline constexpr unsigned char kSubReqFeedback = 2;  // class 0: connection request feedback
inline constexpr unsigned char kSubBeat = 8;

// Sequence steps of a connection.
inline constexpr int kStepIdle = 0;
inline constexpr int kStepConnect = 1;
inline constexpr int kStepParams = 2;
inline constexpr int kStepClosing = 3;
inline constexpr int kStepOpStart = 4;
inline constexpr int kStepOpEnd = 5;
inline constexpr int kStepModeChange = 6;

// Expected and pending codes besides the codes themselves.
inline constexpr int32_t kNone = -1;
inline constexpr int32_t kDone = -2;   // pending: done; expected: waiting for the next upload

// Sequence commands to TranP (the body of an N004).
inline constexpr uint32_t kCmdSeqBegin = 0x05000000;
inline constexpr uint32_t kCmdSeqEnd = 0x0500FFFF;
inline constexpr uint32_t kCmdSeqAck = 0x05003101;
inline constexpr uint32_t kCmdBizOpen = 0x0300520D;
inline constexpr uint32_t kCmdOpControl = 0x04005509;
inline constexpr uint32_t kCmdOpEndAck = 0x040D5509;
inline constexpr uint32_t kCmdConnect = 0x00FF5109;

// The N004 notification: "N004" and the command, behind a PlatMsg header.
inline constexpr int kN004BodyLen = 8;
// The N005 notification: "N005" and the pool value of the acknowledged frame.
inline constexpr int kN005BodyLen = 4 + 2 * kValueLen;

// Packets are read into a buffer of this size each.
inline constexpr int kPacketBufLen = 8192;
// A message has at most this many packets (the count is one byte).
inline constexpr int kMaxPackets = 255;

// ---- frame access ---------------------------------------------------------

// A frame in memory. Bytes past its end read as 0.
struct FrameView {
    std::span<const unsigned char> bytes;
    FrameView(const void* p, int len)
        : bytes(static_cast<const unsigned char*>(p), len > 0 ? static_cast<size_t>(len) : 0) {}
    int size() const { return static_cast<int>(bytes.size()); }
    unsigned char At(int off) const { return off >= 0 && off < size() ? bytes[static_cast<size_t>(off)] : 0; }
    uint16_t U16(int off) const { return static_cast<uint16_t>(At(off) | (At(off + 1) << 8)); }
    int Class() const { return At(kClassAt); }
    unsigned char SubType() const { return At(kSubTypeAt); }
    // The 16 identity bytes (zero past the end).
    void Identity(unsigned char (&out)[kIdentityLen]) const {
        for (int i = 0; i < kIdentityLen; ++i) out[i] = At(kIdentityAt + i);
    }
};

// 32 upper-case hex digits of 16 bytes, NUL-terminated.
void HexKey(const unsigned char* pucBytes, char (&out)[kKeyLen + 1]);

// The code text of a frame as a 32-bit number ("0400520C" -> 0x0400520C).
uint32_t CodeValue(const char* pcCode);

// CRC-32 of a frame's body (offset 39 up to its CRC), as the peer computes
// it; 0 for a frame too short to have a body.
uint32_t BodyCrc(const unsigned char* pucFrame, int iLen);
// The 4 bytes before the end tag as a 32-bit value (0 when too short).
uint32_t StoredCrc(const unsigned char* pucFrame, int iLen);

// Writes the date and time t (local time) as 7 BCD bytes at offset 14.
void StampTime(unsigned char* pucFrame, int64_t lSec);

// The serial number after iSerial: 65535 is followed by 1, never 0.
inline uint16_t NextSerial(uint16_t usSerial) { return usSerial == 0xFFFF ? 1 : static_cast<uint16_t>(usSerial + 1); }

// The byte source of the reassembly: reads up to n bytes as iSockRecv does
// (all of them, fewer when the stream ends, -1 on an error).
using ReadFn = int (*)(void* pvCtx, void* pvBuf, int iLen);

// Reads one message from the source: its packets, reassembled into pcOut
// (iOutCap bytes) as one frame. The total length, -1 for a frame that
// violates the protocol, -2 for a short read. iFd only names the stream in
// the log lines.
int Reassemble(ReadFn pfRead, void* pvCtx, int iFd, char* pcOut, int iOutCap, int iHeaderLen,
               const RouteRecord& stRoute, int* piTotal);

// ---- the link -------------------------------------------------------------

// Where the sequence controllers send their commands (TranP, or a test).
using CommandSink = int (*)(uint32_t uiCmd);

// Process-wide state of the station link.
struct LinkState {
    unsigned char storedIdentity[kIdentityLen] = {};  // of the last "0400520C"
    int paramFlag = 0;            // the peer started the parameter sequence in step 0
    int64_t seqStart = 0;         // seconds; 0 when no connection sequence runs
    RouteRecord route{};          // addresses the N004 notifications
    char peerIp[17] = {0};
    int peerPort = 0;
    CommandSink sink = nullptr;   // null: SysTimeSeqCmd2TranP
    Clock* clock = nullptr;       // null: the system clock
};
LinkState& Link();
// Back to the state at start (tests).
void ResetLink();
int64_t LinkNowSec();

}  // namespace comp::vantrel

extern "C" {

// One connection record of the station link, indexed by descriptor.
struct VantrelSock {
    int32_t fd;            // -1: closed
    int64_t lastSend;      // seconds: last frame or beat sent, or the close
    int64_t lastRecv;      // seconds: last frame received; the idle time-out measures from it
    int32_t port;          // peer port; -1 until connected
    int32_t routeId;
    uint16_t serial;       // written into sent frames; 1 after 65535, never 0
    char peerIp[16];
    int32_t step;          // sequence step
    int32_t expected;      // expected code, kNone or kDone
    int32_t pending;       // pending code, kNone or kDone
    // A closed record keeps its peer and times for the reconnect.
    static void Free(VantrelSock& r) {
        r.fd = -1;
        r.serial = 1;
        r.step = comp::vantrel::kStepIdle;
        r.expected = r.pending = comp::vantrel::kNone;
    }
};

// The 8-character code of a frame into pcCode (at least 9 bytes); 0, or -1
// for reserved data and illegal classes. The frame's length field bounds
// the bytes read.
int SysGetVantrelMsgType(const char* pcFrame, char* pcCode);
// An acknowledgement (0xFB) or NACK (0x00) of the frame whose identity is
// given; 60 bytes into pcFrame. -1 when app.cfg lacks the station id.
int SysBuildAck(int iClass, int iAckCode, const unsigned char* pucIdentity, int* piLen, char* pcFrame);
// Sends the 32-bit sequence command to TranP as an N004; 0 or -1.
int SysTimeSeqCmd2TranP(uint32_t uiCmd);
// The receive controller: -2 a command failed (quit), -1 a sequence
// violation (close), 99 consumed, any other value forward to TranP.
int SysSeqRcvCtl(VantrelSock* pstConn, const char* pcHeader, const char* pcFrame);
// The send controller: -2 a command failed, -1 drop the frame, else send it.
int SysSeqSndCtl(VantrelSock* pstConn, char* pcFrame, int iLen);
// Reads one message from the socket into pcOut (the queue text buffer of
// 65,536 bytes): its total length, or -1 / -2.
int RecvVantrelMsg(int iSock, char* pcOut, int iHeaderLen, RouteRecord stRoute, int* piTotal);

}  // extern "C"
