// Station link frames from an arbitrary byte stream: messages are
// reassembled from their packets as comp reads them from a connection, and
// each one is given its code, checked against its CRC and run through the
// receive sequence controller of one connection.
//
// Input: the stream bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "FuzzSupport.h"
#include "base/ByteSource.h"
#include "base/SysGlobals.h"
#include "modes/SysVantrel.h"

namespace {

namespace v = comp::vantrel;

constexpr int kMaxMessagesPerInput = 64;
constexpr int kOutCap = comp::kQueueTextLen - comp::kPlatHdrLen;

RouteRecord StationRoute() {
    RouteRecord r{};
    auto put = [&](RouteColumn c, const char* t) { std::strcpy(r.caField[c], t); };
    put(RT_MSGLENGETLEN, "4");
    put(RT_MSGLENGETOFFSET, "1");
    put(RT_MSGLENGETTYPE, "1");
    put(RT_MSGLENINTEL, "1");
    put(RT_HEADERLEN, "39");
    put(RT_MSGLENADJUST, "-39");
    return r;
}

int NoCommand(uint32_t) { return 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pucData, size_t iSize) {
    compfuzz::KeepLogsSmall();
    static const RouteRecord route = StationRoute();
    v::ResetLink();
    v::Link().sink = NoCommand;
    // The output is exactly as large as comp's, so a write past it is caught.
    auto out = std::make_unique<char[]>(kOutCap);
    comp::MemorySource mem(pucData, iSize);
    VantrelSock conn{};
    VantrelSock::Free(conn);
    for (int i = 0; i < kMaxMessagesPerInput; ++i) {
        int total = 0;
        const int rc = v::Reassemble(comp::MemorySource::ReadFrom, &mem, 9, out.get(), kOutCap, 39, route, &total);
        if (rc < 0) break;
        uint32_t len = 0;
        std::memcpy(&len, out.get() + v::kLenAt, 4);
        const auto* f = reinterpret_cast<const unsigned char*>(out.get());
        if (rc != total || len != static_cast<uint32_t>(rc) || rc < v::kMinFrame || rc > kOutCap ||
            f[0] != v::kBeginTag || f[rc - 1] != v::kEndTag || f[v::kPktCountAt] != 1)
            std::abort();
        char code[16] = {0};
        SysGetVantrelMsgType(out.get(), code);
        (void)(v::BodyCrc(f, rc) == v::StoredCrc(f, rc));
        const int seq = SysSeqRcvCtl(&conn, out.get(), out.get());
        if (seq == -1) VantrelSock::Free(conn);   // the connection would be closed
        if (conn.step < 0 || conn.step > 6) std::abort();
    }
    return 0;
}
