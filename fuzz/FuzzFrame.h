// Stream framing under arbitrary route rules and arbitrary bytes, for the
// two targets of the framing: fuzz_frame reads the stream from memory,
// fuzz_frame_socket from a socket pair, as comp reads a connection.
//
// Input: one line of eleven '|'-separated rule texts, then the stream bytes:
//   MSGLENGETLEN|MSGLENGETOFFSET|MSGLENGETTYPE|MSGLENINTEL|HEADERLEN|
//   MSGLENADJUST|MSGTYPEGETLEN|MSGTYPEGETOFFSET|MSGTYPEGETTYPE|
//   MSGTYPECHARLEN|SEQINTEL\n<bytes>
// The length rule goes into a RouteRecord, the type rule into route 301's
// row of a private table segment. The bytes are framed three ways: as a
// header of exactly their size (SysGetLenFromHead), as a message of exactly
// their size (SysGetMsgTypeFromMsg), and as a stream (SysTcpRecvMsg's
// reader, then the type of each message read).
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"
#include "TableImage.h"
#include "base/SysGlobals.h"
#include "comp/SysNetFrame.h"
#include "util/SysTcpBasi.h"

namespace compfuzz {

constexpr int kRuleCount = 11;
constexpr size_t kMaxRuleText = 31;     // a route field holds 31 characters and a NUL
// Messages framed per input. Every one costs two table lookups, each of which
// asks the kernel whether the segment is still the live one; eight keep a
// stream's framing state in play at a rate the fuzzer can work with.
constexpr int kMaxMessagesPerInput = 8;
constexpr size_t kMaxStream = 60000;    // fits a socket pair's buffer
constexpr int kTypeOutLen = 16;

enum Rule {
    kLenWidth, kLenOff, kLenType, kLenIntel, kHeaderLen, kLenAdjust,
    kTypeWidth, kTypeOff, kTypeKind, kTypeCharLen, kSeqIntel
};

// Private table segment and log directory, set up once per process.
struct Environment {
    void* pvTable = nullptr;
    size_t iTableSize = 0;
    std::string logDir;

    Environment() {
        char tmpl[] = "/tmp/fuzz_frame.XXXXXX";
        if (mkdtemp(tmpl) != nullptr) logDir = tmpl;
        auto& log = g_stProcState.stLog;
        std::snprintf(log.caErrLogName, sizeof log.caErrLogName, "%s/err", logDir.c_str());
        std::snprintf(log.caTraceBase, sizeof log.caTraceBase, "%s/trace", logDir.c_str());
        log.iTraceLevel = 5;    // no trace entries, error log only
        log.lErrLogSizeLimit = 1 << 20;

        iTableSize = 4 * sizeof(TableRecord);
        pvTable = compfuzz::LiveSegment(iTableSize, &g_iShmTblId);
    }
    ~Environment() {
        std::error_code ec;
        if (!logDir.empty()) std::filesystem::remove_all(logDir, ec);
    }
};

inline Environment& Env() {
    static Environment env;
    return env;
}

inline void PutField(RouteRecord& stRoute, RouteColumn eCol, std::string_view text) {
    if (!text.empty()) std::memcpy(stRoute.caField[eCol], text.data(), text.size());
}

inline void WriteTypeRule(const std::string_view (&rules)[kRuleCount]) {
    std::vector<std::string> row(28);
    row[RT_ROUTEID] = "301";
    row[RT_ROUTEMONID] = "1";
    row[RT_MSGTYPEGETLEN] = rules[kTypeWidth];
    row[RT_MSGTYPEGETOFFSET] = rules[kTypeOff];
    row[RT_MSGTYPEGETTYPE] = rules[kTypeKind];
    row[RT_MSGTYPECHARLEN] = rules[kTypeCharLen];
    row[RT_SEQINTEL] = rules[kSeqIntel];
    comptest::TableImage image;
    image.appendRoute(row);
    std::vector<TableRecord> all = image.image();
    std::memcpy(Env().pvTable, all.data(), image.imageBytes());
}

// The message type through a 16-byte output of its own, so that any write
// past it is caught.
inline void TypeOf(const char* pcMsg, int iLen) {
    auto out = std::make_unique<char[]>(kTypeOutLen);
    std::memset(out.get(), 0, kTypeOutLen);
    SysGetMsgTypeFromMsg(pcMsg, iLen, "301", out.get());
}

// Messages read from the source until one cannot be.
inline void FrameMessages(const comp::ByteSource& src, int iSock, const RouteRecord& stRoute) {
    static QueueMsg* buf = new QueueMsg;
    for (int i = 0; i < kMaxMessagesPerInput; ++i) {
        int iErr = 0;
        int iLen = comp::RecvFramedMsg(src, iSock, &stRoute, buf, &iErr);
        if (iLen <= 0) break;
        if (iLen > comp::kMaxNetMsgLen) std::abort();
        TypeOf(buf->caText, iLen);
        char caType[kTypeOutLen] = {};
        SysGetMsgTypeFromHead(buf->caText, "301", caType);
    }
}

// The stream through a socket pair whose writer has left.
inline void FrameSocketStream(const RouteRecord& stRoute, std::string_view bytes) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
    fcntl(sv[0], F_SETFL, O_NONBLOCK);
    if (!bytes.empty()) (void)!write(sv[1], bytes.data(), bytes.size());
    shutdown(sv[1], SHUT_WR);
    FrameMessages(comp::SocketSource(sv[0]), sv[0], stRoute);
    close(sv[0]);
    close(sv[1]);
}

enum class Via { kMemory, kSocket };

// From memory the error-log records are dropped once formatted; through the
// socket they go to the file, as in the process.
inline void FuzzFrame(const uint8_t* pucData, size_t iSize, Via eVia) {
    Env();
    static const bool bDropped = eVia == Via::kMemory && (DropErrLogRecords(), true);
    (void)bDropped;
    std::string_view input(reinterpret_cast<const char*>(pucData), iSize);
    size_t iEol = input.find('\n');
    std::string_view ruleLine = iEol == std::string_view::npos ? input : input.substr(0, iEol);
    std::string_view bytes = iEol == std::string_view::npos ? std::string_view() : input.substr(iEol + 1);
    if (bytes.size() > kMaxStream) bytes = bytes.substr(0, kMaxStream);

    std::string_view rules[kRuleCount];
    for (int i = 0; i < kRuleCount && !ruleLine.empty(); ++i) {
        size_t iBar = ruleLine.find('|');
        std::string_view text = ruleLine.substr(0, iBar);
        // A rule text ends at a NUL, as table values do.
        text = text.substr(0, std::min(text.find('\0'), kMaxRuleText));
        rules[i] = text;
        ruleLine = iBar == std::string_view::npos ? std::string_view() : ruleLine.substr(iBar + 1);
    }

    RouteRecord stRoute{};
    PutField(stRoute, RT_ROUTEID, "301");
    PutField(stRoute, RT_MSGLENGETLEN, rules[kLenWidth]);
    PutField(stRoute, RT_MSGLENGETOFFSET, rules[kLenOff]);
    PutField(stRoute, RT_MSGLENGETTYPE, rules[kLenType]);
    PutField(stRoute, RT_MSGLENINTEL, rules[kLenIntel]);
    PutField(stRoute, RT_HEADERLEN, rules[kHeaderLen]);
    PutField(stRoute, RT_MSGLENADJUST, rules[kLenAdjust]);
    WriteTypeRule(rules);

    // The bytes as a header and as a message of exactly their size.
    auto exact = std::make_unique<char[]>(bytes.size());
    if (!bytes.empty()) std::memcpy(exact.get(), bytes.data(), bytes.size());
    const int iLen = static_cast<int>(bytes.size());
    int iBody = SysGetLenFromHead(exact.get(), &stRoute, iLen);
    if (iBody >= 0 && iLen + static_cast<long>(iBody) > comp::kMaxNetMsgLen) std::abort();
    TypeOf(exact.get(), iLen);

    if (eVia == Via::kSocket) {
        FrameSocketStream(stRoute, bytes);
        return;
    }
    comp::MemorySource mem(bytes);
    FrameMessages(mem.source(), -1, stRoute);
}

}  // namespace compfuzz
