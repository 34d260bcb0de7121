// The forwarder link read the way one of its ends reads it, for the two fuzz
// targets of the link (fuzz_fwlink_server: what FWS reads from a forwarder;
// fuzz_fwlink_forwarder: what FWB reads from its upper server).
//
// Input: one byte choosing the route's framing, then the bytes of the link:
//   0  a 4-byte header of decimal digits giving the body length
//   1  a 2-byte header, 16-bit length in network order
//   2  a 4-byte header, 32-bit length in host order counting the header too
// Units are read from the bytes in memory until one cannot be, as the mode
// reads them from its connection.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "FuzzSupport.h"
#include "base/ByteSource.h"
#include "base/SysTypes.h"
#include "modes/FwHeader.h"

namespace compfuzz {

inline RouteRecord FwFraming(uint8_t choice) {
    struct Rule {
        const char *headerLen, *width, *type, *intel, *adjust;
    };
    static constexpr Rule rules[] = {{"4", "4", "0", "0", "0"}, {"2", "2", "2", "0", "0"}, {"4", "4", "1", "1", "-4"}};
    const Rule& r = rules[choice % 3];
    RouteRecord stRoute{};
    auto put = [&](RouteColumn col, const char* text) { std::strcpy(stRoute.caField[col], text); };
    put(RT_ROUTEID, "61");
    put(RT_HEADERLEN, r.headerLen);
    put(RT_MSGLENGETLEN, r.width);
    put(RT_MSGLENGETOFFSET, "0");
    put(RT_MSGLENGETTYPE, r.type);
    put(RT_MSGLENINTEL, r.intel);
    put(RT_MSGLENADJUST, r.adjust);
    return stRoute;
}

inline void FuzzLink(const uint8_t* data, size_t size, comp::fw::Reader reader) {
    namespace fw = comp::fw;
    constexpr size_t kMaxStream = 60000;   // fits a socket pair's buffer
    KeepLogsSmall();
    if (size == 0) return;
    const RouteRecord stRoute = FwFraming(data[0]);
    const size_t len = size - 1 > kMaxStream ? kMaxStream : size - 1;
    comp::MemorySource mem(data + 1, len);
    const comp::ByteSource src = mem.source();

    static QueueMsg* buf = new QueueMsg;
    for (int units = 0; units < 256; ++units) {
        fw::Unit u;
        fw::UnitStatus st = fw::ReadUnit(src, -1, reader, stRoute, buf, &u);
        if (st == fw::UnitStatus::kHeaderShort || st == fw::UnitStatus::kMessageFailed) break;
        // What the modes rely on: a bounded message, a NUL-terminated address,
        // nothing read behind a lone A or Z, and a header that builds back.
        if (u.msgLen < 0 || u.msgLen > comp::kMaxNetMsgLen) std::abort();
        if (std::strlen(u.hdr.ip) > fw::kIpLen) std::abort();
        if (reader == fw::Reader::kServer && !fw::CarriesMessage(u.hdr.kind, reader) && u.msgLen != 0) std::abort();
        char again[fw::kHeaderLen];
        fw::Build(u.hdr.kind, u.hdr.ip, u.hdr.port, &u.hdr.ftp, again);
        if (again[0] != u.raw[0] || std::memcmp(again + fw::kPortOff, u.raw + fw::kPortOff, 4) != 0) std::abort();
        if (u.hdr.kind == fw::kConnect &&
            std::memcmp(again + fw::kFtpServerOff, u.raw + fw::kFtpServerOff, fw::kHeaderLen - fw::kFtpServerOff) != 0)
            std::abort();
        // A server cannot go past a unit of unknown kind; a forwarder drops it and reads on.
        if (st == fw::UnitStatus::kUnknownKind && reader == fw::Reader::kServer) break;
    }
}

}  // namespace compfuzz
