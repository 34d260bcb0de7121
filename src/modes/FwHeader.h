// The forwarder link between a forwarder (SysTCPFWB) and its upper server
// (SysTCPFWS): one TCP connection carries the traffic of many clients, each
// unit on it led by a 64-byte extended header that names the client.
//
//   offset  size  field
//   0       1     kind: 'A' client connected, 'F' data follows,
//                 'Z' client disconnected, 'B' beat follows
//   1       16    client IP, dotted text (for 'B': the forwarder's local address)
//   17      4     client port, 32-bit integer in host order (for 'B': the local port)
//   21      16    'A' only: FTPSERVER of the forwarder's app.cfg
//   37      12    'A' only: FTPUSER
//   49      15    'A' only: FTPPWD
//
// Bytes not written are zero; texts that fill their width have no NUL.
// Units a forwarder sends: 'A' and 'Z' alone, 'F' and 'B' followed by one
// message framed by the route's rules. Units a server sends: every header is
// followed by one framed message.
//
// Both modes, the fuzz targets and the tests build and read the header here.
#pragma once

#include <cstdint>

#include "base/ByteSource.h"
#include "base/SysTypes.h"

namespace comp::fw {

inline constexpr int kHeaderLen = 64;
inline constexpr int kKindOff = 0;
inline constexpr int kIpOff = 1;
inline constexpr int kIpLen = 16;
inline constexpr int kPortOff = 17;
inline constexpr int kFtpServerOff = 21;
inline constexpr int kFtpServerLen = 16;
inline constexpr int kFtpUserOff = 37;
inline constexpr int kFtpUserLen = 12;
inline constexpr int kFtpPwdOff = 49;
inline constexpr int kFtpPwdLen = 15;
static_assert(kIpOff == kKindOff + 1 && kPortOff == kIpOff + kIpLen);
static_assert(kFtpServerOff == kPortOff + 4 && kFtpUserOff == kFtpServerOff + kFtpServerLen);
static_assert(kFtpPwdOff == kFtpUserOff + kFtpUserLen && kFtpPwdOff + kFtpPwdLen == kHeaderLen);

inline constexpr char kConnect = 'A';
inline constexpr char kData = 'F';
inline constexpr char kDisconnect = 'Z';
inline constexpr char kBeat = 'B';

// The three FTP texts of an 'A' header at their fixed widths.
struct FtpFields {
    char server[kFtpServerLen];
    char user[kFtpUserLen];
    char pwd[kFtpPwdLen];
};

// One header, decoded.
struct ExHeader {
    char kind = 0;
    char ip[kIpLen + 1] = {0};   // NUL-terminated
    int32_t port = 0;
    FtpFields ftp{};
};

bool KnownKind(char cKind);

// Copies text into a field of iWidth bytes: cut when longer, zero-filled
// when shorter.
void PutText(char* pcField, int iWidth, const char* pcText);

// Writes a header into pcOut (64 bytes); pstFtp is used for 'A' only and may
// be null. Returns 64.
int Build(char cKind, const char* pcIp, int32_t iPort, const FtpFields* pstFtp, char* pcOut);
// Decodes a header; false when its kind is none of A, F, Z, B (the fields
// are filled all the same).
bool Parse(const char* pcIn, ExHeader* pstOut);

// Which end reads the link.
enum class Reader {
    kForwarder,   // reads what the server sends: a message behind every header
    kServer,      // reads what a forwarder sends: 'A' and 'Z' stand alone
};
// Whether a message follows a header of this kind for this reader.
bool CarriesMessage(char cKind, Reader eReader);

enum class UnitStatus {
    kOk,
    kHeaderShort,     // fewer than 64 header bytes came (peer closed, stalled or failed)
    kUnknownKind,     // a kind the reader does not know (a forwarder has read and dropped its message)
    kMessageFailed,   // the framed message behind the header could not be read
};
struct Unit {
    char raw[kHeaderLen] = {0};
    ExHeader hdr;
    int headerGot = 0;   // header bytes read
    int msgLen = 0;      // length of the framed message in buf->caText, 0 when none
    int err = 0;         // errno of a failed read
};
// Reads one unit from a link socket: the header, then the framed message the
// header announces, into pstBuf->caText.
UnitStatus ReadUnit(int iFd, Reader eReader, const RouteRecord& stRoute, QueueMsg* pstBuf, Unit* pstOut);
// The same from any byte source; iFd only names the link in the log lines.
UnitStatus ReadUnit(const ByteSource& src, int iFd, Reader eReader, const RouteRecord& stRoute, QueueMsg* pstBuf,
                    Unit* pstOut);

// Every unit goes out whole with one send, and several clients' units may be
// on the link at once: a unit must not wait for the peer's acknowledgement
// of the one before, so the link sends at once (TCP_NODELAY).
void NoDelay(int iFd);

// How long a send on the link may wait in all while the socket takes nothing
// more. The link carries every client, so a peer that is briefly behind is
// waited for; one that stays stuck costs the link.
inline constexpr int kLinkSendWaitMs = 1000;
// Sends a header and the iLen bytes of pcBody (may be 0) on the link with as
// few system calls as the socket allows. 0, or -1 with errno (EAGAIN when the
// wait ran out).
int SendUnit(int iFd, const char* pcHeader, const char* pcBody, int iLen, int iWaitMs = kLinkSendWaitMs);

}  // namespace comp::fw
