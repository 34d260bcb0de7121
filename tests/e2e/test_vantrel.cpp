// Whole-process tests of the station link mode: the test is the station peer
// (a listener comp connects to) and TranP (queue 7 and 8, FIFO "1_<pid>").
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <thread>

#include "ModeFixture.h"
#include "kit/KitUtil.h"
#include "kit/StationFrames.h"
#include "modes/SysVantrel.h"

namespace {

namespace st = kit::station;
namespace v = comp::vantrel;
using comptest::At;
using st::Bytes;

constexpr int kRoute = 70;

// What comp wrote to queue 7.
struct Out {
    int kind = -1;
    std::string header, body;
    explicit operator bool() const { return kind >= 0; }
    bool Is(const char* code) const { return body.compare(0, 4, code) == 0; }
    uint32_t Command() const { return body.size() == 8 && Is("N004") ? At<uint32_t>(body.data(), 4) : 0; }
    Bytes Frame() const { return Bytes(body.begin(), body.end()); }
};

class VantrelTest : public comptest::ModeTest {
protected:
    // comp on a station route whose peer is this test's listener; the
    // connection it makes is taken.
    void StartStation(comptest::RouteRow overrides = {}) {
        listener = comptest::Listen(&port);
        ASSERT_TRUE(listener.valid());
        comptest::RouteRow row = comptest::MakeRouteRow(kRoute, "127.0.0.1:" + std::to_string(port), "1");
        for (const auto& [k, val] : std::initializer_list<std::pair<const char*, const char*>>{
                 {"HEADERLEN", "39"}, {"MSGLENGETLEN", "4"}, {"MSGLENGETOFFSET", "1"}, {"MSGLENGETTYPE", "1"},
                 {"MSGLENINTEL", "1"}, {"MSGLENADJUST", "-39"}, {"BEATSWITCH", "0"}, {"RECONNINTERVAL", "1"}})
            row[k] = val;
        appVars.emplace("0002", "0012");
        appVars.emplace("GROUPID1", "7");
        appVars.emplace("GROUPID2", "9");
        StartMode("SysTCPVANTREL", row, overrides, "Begin Working");
        TakeConnection();
    }
    // Accepts comp's (next) connection and checks its N001 and N004.
    void TakeConnection() {
        peer = comptest::Accept(listener.get(), 5000);
        ASSERT_TRUE(peer.valid()) << AllLogs();
        // Frames written one after the other must not wait for TCP's acknowledgements.
        int one = 1;
        setsockopt(peer.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        reader = st::Reader();
        Out n1 = Next();
        ASSERT_TRUE(n1.Is("N001")) << n1.body << AllLogs();
        Out n4 = Next();
        ASSERT_EQ(n4.Command(), v::kCmdConnect) << AllLogs();
        EXPECT_EQ(At<uint16_t>(n4.header.data(), comp::plat::kTotalLen), 72);
        EXPECT_EQ(At<int32_t>(n4.header.data(), comp::plat::kPort), port);
        EXPECT_STREQ(n4.header.data() + comp::plat::kIp, "127.0.0.1");
    }

    // ---- TranP's side ----
    Out Next(int ms = 3000) {
        int len = ReadToTranp(buf.get(), pid, ms);
        if (len < comp::kPlatHdrLen) return {};
        return Out{At<uint16_t>(buf->caText, comp::plat::kKind), std::string(buf->caText, comp::kPlatHdrLen),
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
        ASSERT_EQ(a.size(), size_t(v::kAckLen)) << AllLogs();
        EXPECT_EQ(st::SubOf(a), nack ? 0x00 : 0xFB);
        EXPECT_EQ(st::AckedIdentity(a), st::IdentityOf(f));
        EXPECT_TRUE(st::CrcOk(a));
    }
    uint16_t serial = 1;
    uint16_t Serial() { return serial++; }

    // The whole connection sequence, from the connection request on.
    void LinkUp() {
        FromTranp(st::ConnectRequest());
        Bytes req = Read();
        ASSERT_EQ(st::CodeOf(req), "00FF5109") << AllLogs();
        Send(st::Ack(st::IdentityOf(req).data(), false, Serial()));
        Bytes fb = st::ConnectFeedback(st::IdentityOf(req).data(), true, Serial());
        Send(fb);
        ExpectAckOf(fb);
        Bytes start = st::Control(0x520C, Serial());
        Send(start);
        ExpectAckOf(start);
        Out fwd = Next();
        ASSERT_EQ(st::CodeOf(fwd.Frame()), "0400520C") << AllLogs();
        FromTranp(st::ParamAnswer());
        Bytes answer = Read();
        ASSERT_EQ(st::CodeOf(answer), "04005401");
        EXPECT_EQ(st::AckedIdentity(answer), st::IdentityOf(start)) << "the answer carries the 0400520C's identity";
        Send(st::Ack(st::IdentityOf(answer).data(), false, Serial()));
        Bytes endParams = st::Control(0x550E, Serial());
        Send(endParams);
        ExpectAckOf(endParams);
        ASSERT_EQ(Next().Command(), v::kCmdSeqAck) << AllLogs();
        FromTranp(st::SeqAck());
        Bytes seqAck = Read();
        ASSERT_EQ(st::CodeOf(seqAck), "05003101");
        Send(st::Ack(st::IdentityOf(seqAck).data(), false, Serial()));
        Bytes endSeq = st::Control(0x550E, Serial());
        Send(endSeq);
        ExpectAckOf(endSeq);
        ASSERT_EQ(Next().Command(), v::kCmdSeqAck);
        ASSERT_EQ(Next().Command(), v::kCmdSeqEnd);
        ASSERT_TRUE(Logged({"连接时序结束"}));
    }
    // TranP sends a transaction frame; the peer reads it as comp sent it.
    Bytes SendTrade(const std::string& text) {
        FromTranp(st::Trade(text));
        return Read();
    }
    // The peer's transaction frame reaches TranP (acknowledged first).
    void TradeToTranp(const std::string& text) {
        Bytes f = st::Trade(text, Serial());
        Send(f);
        ExpectAckOf(f);
        Out o = Next();
        ASSERT_TRUE(o) << AllLogs();
        EXPECT_EQ(o.Frame(), f);
    }

    int port = 0;
    comp::UniqueFd listener, peer;
    st::Reader reader;
};

TEST_F(VantrelTest, connection_sequence_then_data_both_ways_with_acknowledgements_and_n005) {
    StartStation();
    LinkUp();

    // The peer's frame: acknowledged with the station id and group ids, then
    // handed to TranP as it came, from this connection and peer.
    Bytes in = st::Trade("from the station", Serial());
    Send(in);
    Bytes ack = Read();
    ASSERT_EQ(ack.size(), 60u);
    EXPECT_EQ(st::LengthOf(ack), 60u);
    EXPECT_EQ(ack[v::kStationAt], 0x00);
    EXPECT_EQ(ack[v::kStationAt + 1], 0x12);
    EXPECT_EQ(ack[v::kGroup1At], 7);
    EXPECT_EQ(ack[v::kGroup2At], 9);
    EXPECT_EQ(ack[v::kByte23At], 0x5D);
    EXPECT_EQ(At<uint16_t>(reinterpret_cast<char*>(ack.data()), v::kWord29At), 5);
    Out o = Next();
    EXPECT_EQ(o.kind, 0);
    EXPECT_EQ(o.Frame(), in);
    EXPECT_EQ(At<int32_t>(o.header.data(), comp::plat::kPort), port);

    // TranP's frame: stamped by comp (length, serial, group ids, CRC, sent
    // flag), kept until the peer's ACK, which comes back as an N005 holding
    // bytes 40..53 in hex.
    Bytes out = SendTrade("to the station");
    ASSERT_EQ(out.size(), size_t(v::kOverhead + 14));
    EXPECT_EQ(st::LengthOf(out), out.size());
    EXPECT_TRUE(st::CrcOk(out));
    EXPECT_EQ(out[v::kGroup1At], 7);
    EXPECT_EQ(out[v::kSentAt], 1);
    EXPECT_GT(st::SerialOf(out), st::SerialOf(ack));
    Send(st::Ack(st::IdentityOf(out).data(), false, Serial()));
    Out n5 = Next();
    ASSERT_TRUE(n5.Is("N005")) << n5.body << AllLogs();
    Bytes value(out.begin() + v::kValueAt, out.begin() + v::kValueAt + v::kValueLen);
    EXPECT_EQ(n5.body.substr(4), st::HexOf(value));
    EXPECT_TRUE(Logged({"Send N005 to TranP"}));
}

TEST_F(VantrelTest, one_frame_waits_at_a_time_and_a_nack_lets_the_next_go_keeping_the_first) {
    StartStation();
    LinkUp();
    Bytes first = SendTrade("one");
    FromTranp(st::Trade("two"));
    FromTranp(st::Trade("three"));
    EXPECT_TRUE(Read(300).empty()) << "a second frame went out before the first was answered";

    // A NACK is an answer too: the next frame goes; the first stays kept.
    Send(st::Ack(st::IdentityOf(first).data(), true, Serial()));
    Bytes second = Read();
    ASSERT_FALSE(second.empty()) << AllLogs();
    EXPECT_NE(std::string(second.begin() + 39, second.end() - 5).find("two"), std::string::npos);
    EXPECT_TRUE(Quiet(200)) << "a NACK gave an N005";

    // ACKs of both, the first one late: an N005 each, and the third goes.
    Send(st::Ack(st::IdentityOf(second).data(), false, Serial()));
    EXPECT_TRUE(Next().Is("N005"));
    Bytes third = Read();
    ASSERT_FALSE(third.empty());
    Send(st::Ack(st::IdentityOf(first).data(), false, Serial()));
    EXPECT_TRUE(Next().Is("N005"));
    // A duplicate ACK finds nothing kept any more.
    Send(st::Ack(st::IdentityOf(first).data(), false, Serial()));
    EXPECT_TRUE(Quiet(200));
}

TEST_F(VantrelTest, crc_error_makes_this_and_every_later_acknowledgement_a_nack) {
    StartStation();
    LinkUp();
    Bytes bad = st::Encode(st::Frame{.cls = 2, .sub = 1, .serial = Serial(), .body = {'x', 'y'}, .badCrc = true});
    Send(bad);
    ExpectAckOf(bad, true);
    EXPECT_EQ(Next().Frame(), bad) << "a frame failing its CRC is still handed on";
    EXPECT_TRUE(Logged({"CRC校验失败"}));
    Bytes good = st::Trade("fine", Serial());
    Send(good);
    ExpectAckOf(good, true);
    EXPECT_EQ(Next().Frame(), good);
}

TEST_F(VantrelTest, frames_joined_in_one_write_or_sent_in_packets_are_read_whole) {
    StartStation();
    LinkUp();
    // Three frames in one write.
    std::string joined;
    std::vector<Bytes> three;
    for (const char* t : {"a", "bb", "ccc"}) {
        three.push_back(st::Trade(t, Serial()));
        joined.append(three.back().begin(), three.back().end());
    }
    ASSERT_TRUE(comptest::Send(peer.get(), joined));
    for (const Bytes& f : three) {
        ExpectAckOf(f);
        EXPECT_EQ(Next().Frame(), f);
    }
    // A message in three packets: one frame with the first header, the
    // bodies joined, the last CRC and a packet count of 1.
    std::string packets;
    const char* parts[] = {"first,", "second,", "third"};
    for (int i = 0; i < 3; ++i) {
        Bytes p = st::Encode(st::Frame{.cls = 2, .sub = 1, .serial = serial, .pktCount = 3, .pktNo = i + 1,
                                       .body = Bytes(parts[i], parts[i] + std::strlen(parts[i]))});
        packets.append(p.begin(), p.end());
    }
    ASSERT_TRUE(comptest::Send(peer.get(), packets));
    Bytes ack = Read();
    EXPECT_EQ(st::SubOf(ack), 0x00) << "the last packet's CRC covers only its own body: NACK";
    Bytes whole = Next().Frame();
    ASSERT_EQ(whole.size(), size_t(v::kOverhead + 18));
    EXPECT_EQ(st::LengthOf(whole), whole.size());
    EXPECT_EQ(whole[v::kPktCountAt], 1);
    EXPECT_EQ(std::string(whole.begin() + 39, whole.end() - 5), "first,second,third");
}

TEST_F(VantrelTest, bad_begin_tag_length_or_end_tag_and_a_stalled_frame_cost_the_connection_then_it_reconnects) {
    StartStation();
    Bytes f = st::Trade("x", Serial());
    Bytes noBegin = f;
    noBegin[0] = 0x00;
    Bytes shortLen = f;
    shortLen[1] = 39;   // no room for the end tag
    Bytes noEnd = f;
    noEnd.back() = 0x00;
    const char* expect[] = {"begin tag error", "length error", "end tag error", ",iRet=-1,"};
    std::vector<Bytes> bad = {noBegin, shortLen, noEnd, Bytes(f.begin(), f.begin() + 20)};
    for (size_t i = 0; i < bad.size(); ++i) {
        Send(bad[i]);
        // The stalled one is given up once the read runs dry.
        EXPECT_TRUE(Next(3000).Is("N003")) << i << AllLogs();
        EXPECT_TRUE(Logged({expect[i]})) << expect[i];
        TakeConnection();
    }
    LinkUp();
    TradeToTranp("still serving");
}

TEST_F(VantrelTest, frames_out_of_sequence_close_the_connection_and_a_refused_request_too) {
    StartStation();
    // Step 1: a parameter message before the connection feedback.
    Send(st::Control(0x520C, Serial()));
    Read();   // its acknowledgement
    EXPECT_TRUE(Next().Is("N003"));
    EXPECT_TRUE(Logged({"收到非时序消息[0400520C]"}));
    EXPECT_TRUE(comptest::ModeTest::Closes(peer.get(), 2000));

    // The connection request refused.
    TakeConnection();
    FromTranp(st::ConnectRequest());
    Bytes req = Read();
    Send(st::ConnectFeedback(st::IdentityOf(req).data(), false, Serial()));
    Read();
    EXPECT_TRUE(Next().Is("N003"));
    EXPECT_TRUE(Logged({"连接请求不通过"}));

    // Transaction data in step 1 is dropped, not queued.
    TakeConnection();
    FromTranp(st::Trade("too early"));
    EXPECT_TRUE(Logged({"收到交易或业务数据,忽略[02000FFF]"}));
    EXPECT_TRUE(Logged({"丢弃非时序消息Waring"}));
    LinkUp();
    // Out of order after the sequence: a repeated end of sequence in step 0
    // is plain data, handed on.
    Bytes again = st::Control(0x550E, Serial());
    Send(again);
    ExpectAckOf(again);
    EXPECT_EQ(Next().Frame(), again);
    // An ACK of a frame never sent: logged, nothing else.
    unsigned char stranger[16] = {0x01, 0x20, 0x11};
    Send(st::Ack(stranger, false, Serial()));
    EXPECT_TRUE(Quiet(200));
    TradeToTranp("still serving");
}

TEST_F(VantrelTest, peer_reset_with_frames_unacknowledged_reconnects_and_a_late_ack_still_gives_n005) {
    StartStation();
    LinkUp();
    Bytes waiting = SendTrade("unacknowledged");
    FromTranp(st::Trade("queued 1"));
    FromTranp(st::Trade("queued 2"));
    linger lg{1, 0};
    setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    peer.reset();   // RST
    EXPECT_TRUE(Next().Is("N003")) << AllLogs();
    TakeConnection();
    // The queued frames go on the new connection's first idle pass and meet step 1.
    EXPECT_TRUE(AwaitCount([&] { return AllLogs(); }, "收到交易或业务数据,忽略[02000FFF]", 2));
    LinkUp();
    // The frame sent before the reset is still kept.
    Send(st::Ack(st::IdentityOf(waiting).data(), false, Serial()));
    EXPECT_TRUE(Next().Is("N005"));
}

TEST_F(VantrelTest, full_pool_reports_not_enough_space_and_serves_on) {
    appVars.emplace("LOG_LEVEL", "2");   // no dumps of the 64 KiB messages
    StartStation();
    LinkUp();
    Bytes waiting = SendTrade("keeps the rest in the pool");
    const Bytes big = st::Trade(std::string(65000, 'p'));
    kit::Delivery d{pid, Text(big), comp::kFifoPidNotify, std::to_string(pid)};
    std::string why;
    const int64_t end = kit::NowMs() + 30000;
    int sent = 0;
    while (!Logged({"not enough space for saving"}, 0) && kit::NowMs() < end) {
        if (kit::Deliver(QueueId(comp::kQueueFromTranp), d, &why))
            ++sent;
        else
            kit::SleepMs(1);   // queue 8 is full until comp has read
    }
    ASSERT_TRUE(Logged({"not enough space for saving"})) << sent;
    EXPECT_TRUE(Logged({"not enough space "}));
    EXPECT_GT(sent, 900);
    // The answer lets the oldest kept message go.
    Send(st::Ack(st::IdentityOf(waiting).data(), false, Serial()));
    EXPECT_TRUE(Next().Is("N005"));
    Bytes next = Read(5000);
    EXPECT_EQ(next.size(), big.size());
    EXPECT_TRUE(st::CrcOk(next));
}

TEST_F(VantrelTest, message_with_no_connection_reconnects_on_request) {
    StartStation({{"RECONNINTERVAL", "1000"}});
    peer.reset();
    EXPECT_TRUE(Next().Is("N003"));
    // Within two minutes of the last frame, a message connects.
    FromTranp(st::Trade("wake up"));
    TakeConnection();
    EXPECT_TRUE(Logged({"is going to reconnect by request msg"}));
}

// ---- rules measured in minutes, on comp's clock sped up ---------------------

class VantrelClockTest : public VantrelTest {
protected:
    bool Fast(int speed) {
        compEnv = FastClock(speed);
        return !compEnv.empty();
    }
};

TEST_F(VantrelClockTest, silent_peer_loses_unsent_messages_after_240_s_and_kept_frames_after_1800_s) {
    if (!Fast(2000)) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    StartStation({{"IDLETIMEOUT", "100000"}, {"RECONNINTERVAL", "100000"}});
    LinkUp();
    Bytes waiting = SendTrade("never acknowledged");
    FromTranp(st::Trade("dropped after 240 s"));
    EXPECT_TRUE(Logged({"1 messages from TranP dropped"}, 5000)) << AllLogs();
    EXPECT_TRUE(Logged({"SysCleanNode freed 1 blocks"}, 10000)) << AllLogs();
    // The late ACK finds nothing kept, but answers: the next frame goes.
    Send(st::Ack(st::IdentityOf(waiting).data(), false, Serial()));
    Bytes next = SendTrade("after the silence");
    EXPECT_EQ(st::CodeOf(next), "02000FFF");
    EXPECT_NE(std::string(next.begin() + 39, next.end() - 5), "dropped after 240 s");
    Out o = Next(300);
    EXPECT_FALSE(o && o.Is("N005")) << "the cleaned frame gave an N005";
}

TEST_F(VantrelClockTest, with_no_connection_and_two_silent_minutes_a_message_is_discarded) {
    if (!Fast(1000)) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    StartStation({{"IDLETIMEOUT", "100000"}, {"RECONNINTERVAL", "100000"}});
    listener.reset();
    peer.reset();
    EXPECT_TRUE(Next().Is("N003"));
    kit::SleepMs(300);   // 300 s of comp's clock
    FromTranp(st::Trade("too late"));
    EXPECT_TRUE(Logged({"discard msg!"})) << AllLogs();
}

TEST_F(VantrelClockTest, beats_go_out_each_interval_and_a_sequence_ends_after_20_of_them) {
    if (!Fast(10)) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    StartStation({{"BEATSWITCH", "1"}, {"BEATINTERVAL", "1"}, {"IDLETIMEOUT", "1000"}, {"RECONNINTERVAL", "1000"}});
    // Still in step 1: beats, then the close after 20 intervals.
    Bytes beat = Read(2000);
    ASSERT_EQ(beat.size(), size_t(v::kMinFrame)) << AllLogs();
    EXPECT_EQ(beat[v::kSubTypeAt], v::kSubBeat);
    EXPECT_EQ(beat[v::kGroup2At], 9);
    int beats = 1;
    const int64_t start = kit::NowMs();
    while (!Read(3000).empty()) ++beats;
    const int64_t took = kit::NowMs() - start;
    EXPECT_GE(beats, 15);
    EXPECT_LE(beats, 21);
    EXPECT_GE(took, 1500) << "closed before 20 beat intervals";
    EXPECT_TRUE(Logged({"I have waited long enough,I'm tired"}));
    EXPECT_TRUE(Next().Is("N003"));
}

TEST_F(VantrelClockTest, idle_connection_is_closed_after_the_idle_time_out) {
    if (!Fast(10)) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    StartStation({{"IDLETIMEOUT", "10"}, {"RECONNINTERVAL", "1000"}});
    const int64_t start = kit::NowMs();
    EXPECT_TRUE(Next(5000).Is("N003"));
    EXPECT_GE(kit::NowMs() - start, 700);
    EXPECT_TRUE(Logged({"time out and close"}));
}

TEST_F(VantrelTest, quit_command_ends_with_logoff) {
    StartStation();
    Control('x');
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogoff, 3000), 0);
    EXPECT_TRUE(Logged({"recv quit cmd"}));
}

}  // namespace
