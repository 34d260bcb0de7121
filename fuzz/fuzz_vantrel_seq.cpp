// The two sequence controllers of one station link connection driven by an
// arbitrary series of frames in both directions.
//
// Input: a state byte (bits 0-2 the starting step, bit 3 the parameter
// flag, bits 4-7 select the expected and pending codes), then records of
//   [direction:1][length:1][frame bytes: length]
// Direction bit 0: 0 a frame from the peer (receive controller), 1 one from
// TranP (send controller); bit 1: the sequence command of this frame fails.
// A frame shorter than the header is padded with zeros, its length field
// set to its own length.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "modes/SysVantrel.h"

namespace {

namespace v = comp::vantrel;

constexpr int32_t kCodes[] = {v::kNone, v::kDone, 0x0400520C, 0x04005401, 0x05003101, 0x05003102, 0x0300520D,
                              0x00FF5109};
bool g_fail = false;
int Sink(uint32_t) { return g_fail ? -1 : 0; }

bool ResultAllowed(int rc, bool receive) {
    if (receive) return rc == -2 || rc == -1 || rc == 0 || rc == 2 || rc == 3 || rc == 5 || rc == 6 || rc == 99;
    return rc >= -2 && rc <= 6;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pucData, size_t iSize) {
    compfuzz::KeepLogsSmall();
    if (iSize < 1) return 0;
    v::ResetLink();
    v::Link().sink = Sink;
    v::Link().paramFlag = (pucData[0] >> 3) & 1;
    v::Link().seqStart = 1;
    VantrelSock conn{};
    VantrelSock::Free(conn);
    conn.step = pucData[0] & 7;
    conn.expected = kCodes[(pucData[0] >> 4) & 3];
    conn.pending = kCodes[4 + ((pucData[0] >> 6) & 3)];
    size_t pos = 1;
    while (pos + 2 <= iSize) {
        const uint8_t dir = pucData[pos];
        size_t len = pucData[pos + 1];
        pos += 2;
        if (len > iSize - pos) len = iSize - pos;
        // Room for the header and the codes the controllers read (up to 93).
        std::vector<char> frame(std::max<size_t>(len, 128), '\0');
        std::memcpy(frame.data(), pucData + pos, len);
        pos += len;
        const uint32_t flen = static_cast<uint32_t>(len);
        std::memcpy(frame.data() + v::kLenAt, &flen, 4);
        g_fail = (dir & 2) != 0;
        const bool receive = (dir & 1) == 0;
        const int before = conn.step;
        const int rc = receive ? SysSeqRcvCtl(&conn, frame.data(), frame.data())
                               : SysSeqSndCtl(&conn, frame.data(), static_cast<int>(len));
        if (!ResultAllowed(rc, receive)) std::abort();
        // A step changes only by a rule, to one of the seven steps.
        if (conn.step != before && (conn.step < 0 || conn.step > 6)) std::abort();
        if (rc == -2 && !g_fail) std::abort();
        if (receive && rc == -1) VantrelSock::Free(conn);   // the connection would be closed
    }
    return 0;
}
