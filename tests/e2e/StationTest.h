// The test's end of a station link: comp connects to the test's listener,
// and the test plays the station peer and TranP (queue 7 and 8, FIFO
// "1_<pid>").
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>

#include "ModeFixture.h"
#include "kit/KitUtil.h"
#include "kit/StationFrames.h"
#include "modes/SysVantrel.h"

namespace comptest {

// What comp wrote to queue 7.
struct StationOut {
    int kind = -1;
    std::string header, body;
    explicit operator bool() const { return kind >= 0; }
    bool Is(const char* code) const { return body.compare(0, 4, code) == 0; }
    uint32_t Command() const { return body.size() == 8 && Is("N004") ? At<uint32_t>(body.data(), 4) : 0; }
    kit::station::Bytes Frame() const { return kit::station::Bytes(body.begin(), body.end()); }
};

class StationTest : public ModeTest {
protected:
    using Bytes = kit::station::Bytes;
    static constexpr int kRoute = 70;

    // comp on a station route whose peer is this test's listener; the
    // connection it makes is taken (when its start is awaited).
    void StartStation(RouteRow overrides = {}) {
        listener = Listen(&port);
        ASSERT_TRUE(listener.valid());
        RouteRow row = MakeRouteRow(kRoute, "127.0.0.1:" + std::to_string(port), "1");
        for (const auto& [k, val] : std::initializer_list<std::pair<const char*, const char*>>{
                 {"HEADERLEN", "39"}, {"MSGLENGETLEN", "4"}, {"MSGLENGETOFFSET", "1"}, {"MSGLENGETTYPE", "1"},
                 {"MSGLENINTEL", "1"}, {"MSGLENADJUST", "-39"}, {"BEATSWITCH", "0"}, {"RECONNINTERVAL", "1"}})
            row[k] = val;
        appVars.emplace("0002", "0012");
        appVars.emplace("GROUPID1", "7");
        appVars.emplace("GROUPID2", "9");
        StartMode("SysTCPVANTREL", row, overrides, "Begin Working");
        if (awaitReady) TakeConnection();
    }
    // Accepts comp's (next) connection and checks its N001 and N004.
    void TakeConnection() {
        peer = Accept(listener.get(), 5000);
        ASSERT_TRUE(peer.valid()) << AllLogs();
        // Frames written one after the other must not wait for TCP's acknowledgements.
        int one = 1;
        setsockopt(peer.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        reader = kit::station::Reader();
        StationOut n1 = Next();
        ASSERT_TRUE(n1.Is("N001")) << n1.body << AllLogs();
        StationOut n4 = Next();
        ASSERT_EQ(n4.Command(), comp::vantrel::kCmdConnect) << AllLogs();
        EXPECT_EQ(At<uint16_t>(n4.header.data(), comp::plat::kTotalLen), 72);
        EXPECT_EQ(At<int32_t>(n4.header.data(), comp::plat::kPort), port);
        EXPECT_STREQ(n4.header.data() + comp::plat::kIp, "127.0.0.1");
    }

    // ---- TranP's side ----
    StationOut Next(int ms = 3000) {
        int len = ReadToTranp(buf.get(), pid, ms);
        if (len < comp::kPlatHdrLen) return {};
        return StationOut{At<uint16_t>(buf->caText, comp::plat::kKind), std::string(buf->caText, comp::kPlatHdrLen),
                   std::string(buf->caText + comp::kPlatHdrLen, static_cast<size_t>(len - comp::kPlatHdrLen))};
    }
    // Nothing more reaches TranP within ms.
    bool Quiet(int ms) { return !Next(ms); }
    void FromTranp(const Bytes& frame) { DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), Text(frame)); }
    // A frame behind a 64-byte PlatMsg header, as TranP queues it.
    static std::vector<char> Text(const Bytes& frame) {
        std::vector<char> text(comp::kPlatHdrLen + frame.size(), 0);
        std::memcpy(text.data() + comp::kPlatHdrLen, frame.data(), frame.size());
        return text;
    }

    // ---- the peer's side ----
    Bytes Read(int ms = 3000) {
        for (const int64_t end = kit::NowMs() + ms;;) {
            bool bad = false;
            if (auto f = reader.next(&bad)) return *f;
            if (bad) return {};
            const int64_t left = end - kit::NowMs();
            if (left <= 0) return {};
            pollfd p{peer.get(), POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
            unsigned char b[70000];
            ssize_t n = recv(peer.get(), b, sizeof b, 0);
            if (n <= 0) return {};
            reader.feed(b, static_cast<size_t>(n));
        }
    }
    void Send(const Bytes& f) { ASSERT_TRUE(comptest::Send(peer.get(), std::string(f.begin(), f.end()))); }
    // Reads comp's acknowledgement of `f`: an ACK, or a NACK when `nack`.
    void ExpectAckOf(const Bytes& f, bool nack = false) {
        Bytes a = Read();
        ASSERT_EQ(a.size(), size_t(comp::vantrel::kAckLen)) << AllLogs();
        EXPECT_EQ(kit::station::SubOf(a), nack ? 0x00 : 0xFB);
        EXPECT_EQ(kit::station::AckedIdentity(a), kit::station::IdentityOf(f));
        EXPECT_TRUE(kit::station::CrcOk(a));
    }
    uint16_t serial = 1;
    uint16_t Serial() { return serial++; }

    // The whole connection sequence, from the connection request on.
    void LinkUp() {
        FromTranp(kit::station::ConnectRequest());
        Bytes req = Read();
        ASSERT_EQ(kit::station::CodeOf(req), "00FF5109") << AllLogs();
        Send(kit::station::Ack(kit::station::IdentityOf(req).data(), false, Serial()));
        Bytes fb = kit::station::ConnectFeedback(kit::station::IdentityOf(req).data(), true, Serial());
        Send(fb);
        ExpectAckOf(fb);
        Bytes start = kit::station::Control(0x520C, Serial());
        Send(start);
        ExpectAckOf(start);
        StationOut fwd = Next();
        ASSERT_EQ(kit::station::CodeOf(fwd.Frame()), "0400520C") << AllLogs();
        FromTranp(kit::station::ParamAnswer());
        Bytes answer = Read();
        ASSERT_EQ(kit::station::CodeOf(answer), "04005401");
        EXPECT_EQ(kit::station::AckedIdentity(answer), kit::station::IdentityOf(start))
            << "the answer carries the 0400520C's identity";
        Send(kit::station::Ack(kit::station::IdentityOf(answer).data(), false, Serial()));
        Bytes endParams = kit::station::Control(0x550E, Serial());
        Send(endParams);
        ExpectAckOf(endParams);
        ASSERT_EQ(Next().Command(), comp::vantrel::kCmdSeqAck) << AllLogs();
        FromTranp(kit::station::SeqAck());
        Bytes seqAck = Read();
        ASSERT_EQ(kit::station::CodeOf(seqAck), "05003101");
        Send(kit::station::Ack(kit::station::IdentityOf(seqAck).data(), false, Serial()));
        Bytes endSeq = kit::station::Control(0x550E, Serial());
        Send(endSeq);
        ExpectAckOf(endSeq);
        ASSERT_EQ(Next().Command(), comp::vantrel::kCmdSeqAck);
        ASSERT_EQ(Next().Command(), comp::vantrel::kCmdSeqEnd);
        ASSERT_TRUE(Logged({"连接时序结束"}));
    }
    // TranP sends a transaction frame; the peer reads it as comp sent it.
    Bytes SendTrade(const std::string& text) {
        FromTranp(kit::station::Trade(text));
        return Read();
    }
    // The peer's transaction frame reaches TranP (acknowledged first).
    void TradeToTranp(const std::string& text) {
        Bytes f = kit::station::Trade(text, Serial());
        Send(f);
        ExpectAckOf(f);
        StationOut o = Next();
        ASSERT_TRUE(o) << AllLogs();
        EXPECT_EQ(o.Frame(), f);
    }

    int port = 0;
    comp::UniqueFd listener, peer;
    kit::station::Reader reader;
};

}  // namespace comptest
