// Whole-process tests of the station link mode: the test is the station peer
// (a listener comp connects to) and TranP (queue 7 and 8, FIFO "1_<pid>").
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <thread>

#include "StationTest.h"
#include "kit/KitUtil.h"
#include "kit/StationFrames.h"
#include "modes/SysVantrel.h"

namespace {

namespace st = kit::station;
namespace v = comp::vantrel;
using comptest::At;
using st::Bytes;

using Out = comptest::StationOut;
class VantrelTest : public comptest::StationTest {};

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
