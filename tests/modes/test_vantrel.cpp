// The station link protocol in memory: message-type codes, acknowledgement
// frames, the N004 command, reassembly of packets (from memory and from a
// socket whose frame arrives in two segments), and every rule of the two
// sequence controllers.
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "UnitFixture.h"
#include "base/FdUtil.h"
#include "base/SysGlobals.h"
#include "modes/SysVantrel.h"
#include "util/SysChecksum.h"

namespace {

namespace v = comp::vantrel;

// ---- frames -----------------------------------------------------------------

// A frame of class cls and sub-type sub, body of bodyLen bytes (zero), a
// 16-bit code at 39, its CRC and tags; bytes at other offsets set by Set().
struct TestFrame {
    std::string bytes;
    TestFrame(int cls, int sub, uint16_t code = 0, int bodyLen = 60) : bytes(size_t(v::kOverhead + bodyLen), '\0') {
        bytes[0] = '\xF0';
        Put32(v::kLenAt, static_cast<uint32_t>(bytes.size()));
        bytes[v::kClassAt] = static_cast<char>(cls);
        bytes[v::kSubTypeAt] = static_cast<char>(sub);
        bytes[v::kSerialAt] = 7;
        bytes[v::kPktCountAt] = 1;
        bytes[v::kPktNoAt] = 1;
        if (bodyLen >= 2) Put16(v::kCodeAt, code);
        bytes.back() = '\xFF';
        Seal();
    }
    TestFrame& Set(int off, int value) {
        bytes[size_t(off)] = static_cast<char>(value);
        Seal();
        return *this;
    }
    TestFrame& Put16(int off, uint16_t value) {
        std::memcpy(&bytes[size_t(off)], &value, 2);
        Seal();
        return *this;
    }
    void Put32(int off, uint32_t value) { std::memcpy(&bytes[size_t(off)], &value, 4); }
    void Seal() {
        const int len = static_cast<int>(bytes.size());
        uint32_t crc = len > v::kOverhead ? SysGenCrc32Value(reinterpret_cast<const unsigned char*>(bytes.data()) + 39,
                                                             len - v::kOverhead, 0)
                                          : 0;
        if (len >= v::kOverhead) Put32(len - 5, crc);
    }
    char* data() { return bytes.data(); }
    std::string Identity() const { return bytes.substr(v::kIdentityAt, v::kIdentityLen); }
};

// The frame whose code is `code`, as the peer or TranP would write it.
TestFrame For(const std::string& code) {
    if (code == "00FF5109") return TestFrame(0, 2).Put16(v::kFeedbackCodeAt, 0x5109);
    if (code == "02000FFF") return TestFrame(2, 1);
    if (code.compare(0, 4, "0300") == 0) {
        TestFrame f(3, 1);
        f.Set(v::kBizCodeAt, std::stoi(code.substr(4, 2), nullptr, 16));
        return f.Set(v::kBizCodeAt + 1, std::stoi(code.substr(6, 2), nullptr, 16));
    }
    const int cls = std::stoi(code.substr(0, 2), nullptr, 16);
    return TestFrame(cls, 1, static_cast<uint16_t>(std::stoi(code.substr(4, 4), nullptr, 16)));
}

std::string CodeOf(TestFrame f) {
    char code[16] = {0};
    return SysGetVantrelMsgType(f.data(), code) == 0 ? code : "fails";
}

class VantrelProtocolTest : public comptest::UnitTest {};

TEST_F(VantrelProtocolTest, message_type_codes_by_class_and_sub_type) {
    EXPECT_EQ(CodeOf(TestFrame(2, 1)), "02000FFF");
    EXPECT_EQ(CodeOf(For("0300520D")), "0300520D") << "the one business code that keeps its identity";
    EXPECT_EQ(CodeOf(For("03005203")), "03000FFF");
    EXPECT_EQ(CodeOf(TestFrame(0, 2).Put16(v::kFeedbackCodeAt, 0x5109)), "00FF5109");
    EXPECT_EQ(CodeOf(TestFrame(0, 1, 0x5109)), "00FF5109");
    EXPECT_EQ(CodeOf(TestFrame(4, 0xFD, 0x1111).Put16(v::kFeedbackCodeAt, 0x5401)), "04005401");
    EXPECT_EQ(CodeOf(TestFrame(4, 1, 0x520C)), "0400520C");
    EXPECT_EQ(CodeOf(TestFrame(5, 1, 0x3101)), "05003101");
    EXPECT_EQ(CodeOf(TestFrame(0, 8, 0xABCD)), "0000ABCD") << "other class-0 sub-types take the code at 39";
    EXPECT_EQ(CodeOf(TestFrame(1, 1)), "fails") << "reserved data";
    EXPECT_EQ(CodeOf(TestFrame(6, 1)), "fails") << "an illegal class";
    EXPECT_TRUE(Logged("收到预留数据"));
    EXPECT_TRUE(Logged("收到非法消息[06]"));
    // A frame too short for its code reads zeros, never past its length.
    EXPECT_EQ(CodeOf(TestFrame(3, 1, 0, 0)), "03000FFF");
    EXPECT_EQ(CodeOf(TestFrame(4, 0xFD, 0, 2)), "04000000");
}

TEST_F(VantrelProtocolTest, acknowledgement_frame_byte_by_byte) {
    run.write("etc/app.cfg", "[APPVARS]\n0002 0123\n[]\n");
    const unsigned char id[16] = {0x02, 0x20, 0x26, 0x11, 0x22, 0x21, 0x10, 0x45, 0x09, 0x00,
                                  0x5D, 0x00, 0x01, 0x01, 0x07, 0x09};
    char ack[64];
    std::memset(ack, 0x55, sizeof ack);
    int len = 0;
    ASSERT_EQ(SysBuildAck(2, 0xFB, id, &len, ack), 0);
    ASSERT_EQ(len, 60);
    EXPECT_EQ(std::string(ack, 14), std::string("\xF0\x3C\0\0\0\1\0\0\0\1\1\0\xFF\xFB", 14));
    EXPECT_EQ(ack[14] >> 4, 2) << "BCD year begins with 2";
    EXPECT_EQ(std::string(ack + 21, 18), std::string("\0\0\x5D\x01\x23\1\0\0\5\0\1\1\0\0\0\0\1\xFF", 18))
        << "serial and group ids zero, the station id 0123 in BCD, 5, one packet, byte 37 and the header end";
    EXPECT_EQ(std::string(ack + 39, 16), std::string(reinterpret_cast<const char*>(id), 16));
    EXPECT_EQ(std::string(ack + 55, 5), std::string("\0\0\0\0\xFF", 5)) << "CRC left to the sender";
    EXPECT_EQ(ack[60], 0x55) << "nothing written past the frame";

    ASSERT_EQ(SysBuildAck(2, 0x00, id, &len, ack), 0);
    EXPECT_EQ(ack[13], 0x00) << "NACK";

    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 1\n[]\n");
    EXPECT_EQ(SysBuildAck(2, 0xFB, id, &len, ack), -1);
    EXPECT_NE(run.read("log/warnning.log").find("app.cfg中缺少配置STATION_ID"), std::string::npos);
}

TEST_F(VantrelProtocolTest, crc_of_a_body_and_the_key_of_an_identity) {
    TestFrame f(2, 1, 0, 9);
    std::memcpy(f.data() + 39, "123456789", 9);
    f.Seal();
    const auto* p = reinterpret_cast<const unsigned char*>(f.data());
    EXPECT_EQ(v::BodyCrc(p, 53), 0x2DFD2D88u) << "CRC-32 from 0, no final inversion";
    EXPECT_EQ(v::StoredCrc(p, 53), 0x2DFD2D88u);
    EXPECT_EQ(v::BodyCrc(p, 40), 0u) << "a frame without a body";
    char key[33];
    v::HexKey(p + 13, key);
    EXPECT_EQ(std::string(key).substr(0, 2), "01");
    EXPECT_EQ(std::strlen(key), 32u);
    EXPECT_EQ(v::NextSerial(65535), 1);
    EXPECT_EQ(v::NextSerial(1), 2);
}

// The worked example of the operator documentation.
TEST_F(VantrelProtocolTest, documented_data_frame_and_its_acknowledgement) {
    const unsigned char data[] = {0xF0, 0x31, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x01, 0x02, 0xFF,
                                  0x01, 0x20, 0x24, 0x05, 0x17, 0x09, 0x30, 0x15, 0x07, 0x00, 0x5D, 0x00, 0x12,
                                  0x01, 0x07, 0x09, 0x05, 0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0xFF,
                                  0x48, 0x45, 0x4C, 0x4C, 0x4F, 0x2B, 0x93, 0x66, 0x07, 0xFF};
    static_assert(sizeof data == 49);
    EXPECT_EQ(v::BodyCrc(data, 49), v::StoredCrc(data, 49));
    char code[16] = {0};
    ASSERT_EQ(SysGetVantrelMsgType(reinterpret_cast<const char*>(data), code), 0);
    EXPECT_STREQ(code, "02000FFF");
    char key[33];
    v::HexKey(data + 13, key);
    EXPECT_STREQ(key, "012024051709301507005D0012010709");
    run.write("etc/app.cfg", "[APPVARS]\n0002 0012\n[]\n");
    unsigned char ack[60];
    int len = 0;
    ASSERT_EQ(SysBuildAck(2, 0xFB, data + 13, &len, reinterpret_cast<char*>(ack)), 0);
    EXPECT_EQ(v::BodyCrc(ack, 60), 0x15B99D5Fu);
    EXPECT_EQ(ack[24], 0x00);
    EXPECT_EQ(ack[25], 0x12);
}

TEST_F(VantrelProtocolTest, sequence_command_is_an_n004_of_72_bytes_to_tranp) {
    g_stMsgQCntl[comp::kQueueToTranp].iId = keys.newQueue();
    v::ResetLink();
    v::Link().route = comptest::MakeRoute({{RT_ROUTEID, "70"}, {RT_ROUTEMSGFLAG, "M"}});
    std::strcpy(v::Link().peerIp, "10.1.2.3");
    v::Link().peerPort = 4700;
    ASSERT_EQ(SysTimeSeqCmd2TranP(0x040D5509), 0);
    QueueMsg m{};
    ssize_t n = msgrcv(g_stMsgQCntl[comp::kQueueToTranp].iId, &m, sizeof m.caText, getpid(), IPC_NOWAIT);
    ASSERT_EQ(n, 72);
    uint32_t cmd = 0;
    std::memcpy(&cmd, m.caText + 68, 4);
    EXPECT_EQ(std::string(m.caText + 64, 4), "N004");
    EXPECT_EQ(cmd, 0x040D5509u);
    EXPECT_EQ(std::string(m.caText + comp::plat::kIp), "10.1.2.3");
    int32_t port = 0;
    std::memcpy(&port, m.caText + comp::plat::kPort, 4);
    EXPECT_EQ(port, 4700);
    EXPECT_TRUE(Logged("Send N004 to TranP"));
    v::ResetLink();
}

// ---- reassembly ---------------------------------------------------------------

RouteRecord StationRoute() {
    return comptest::MakeRoute({{RT_MSGLENGETLEN, "4"}, {RT_MSGLENGETOFFSET, "1"}, {RT_MSGLENGETTYPE, "1"},
                                {RT_MSGLENINTEL, "1"}, {RT_HEADERLEN, "39"}, {RT_MSGLENADJUST, "-39"}});
}

struct Memory {
    std::string bytes;
    size_t pos = 0;
    static int Read(void* ctx, void* buf, int len) {
        auto* m = static_cast<Memory*>(ctx);
        const size_t n = std::min(static_cast<size_t>(len), m->bytes.size() - m->pos);
        std::memcpy(buf, m->bytes.data() + m->pos, n);
        m->pos += n;
        return static_cast<int>(n);
    }
};

class ReassemblyTest : public comptest::UnitTest {
protected:
    // The result of reassembling the next message of mem into out.
    int Next(Memory& mem) {
        int total = 0;
        int rc = v::Reassemble(Memory::Read, &mem, 9, out, sizeof out, 39, route, &total);
        if (rc > 0) {
            EXPECT_EQ(total, rc);
        }
        return rc;
    }
    RouteRecord route = StationRoute();
    char out[65472];
};

TEST_F(ReassemblyTest, packets_become_one_frame_with_the_first_header_and_the_last_trailer) {
    std::string stream;
    std::vector<TestFrame> parts;
    const char* bodies[] = {"first,", "", "third"};
    for (int i = 0; i < 3; ++i) {
        TestFrame p(2, 1, 0, static_cast<int>(std::strlen(bodies[i])));
        std::memcpy(p.data() + 39, bodies[i], std::strlen(bodies[i]));
        p.Set(v::kPktCountAt, 3).Set(v::kPktNoAt, i + 1).Set(v::kSerialAt, 10 + i);
        parts.push_back(p);
        stream += p.bytes;
    }
    // A packet of the header and its end tag only (rest 1) adds nothing.
    TestFrame endOnly(2, 1, 0, 0);
    endOnly.bytes.resize(40);
    endOnly.Put32(v::kLenAt, 40);
    endOnly.bytes[39] = '\xFF';
    endOnly.Set(v::kPktCountAt, 2).Set(v::kPktNoAt, 1);
    TestFrame last(2, 1, 0, 2);
    std::memcpy(last.data() + 39, "ok", 2);
    last.Set(v::kPktCountAt, 2).Set(v::kPktNoAt, 2);
    stream += endOnly.bytes + last.bytes;
    // And a message that is one bodiless packet.
    TestFrame lone = endOnly;
    lone.Set(v::kPktCountAt, 1).Set(v::kPktNoAt, 1);
    stream += lone.bytes;

    Memory mem{stream};
    ASSERT_EQ(Next(mem), 44 + 11);
    std::string got(out, 55);
    EXPECT_EQ(got.substr(0, 39).substr(21, 2), parts[0].bytes.substr(21, 2)) << "packet 1's header";
    EXPECT_EQ(got[31], 1) << "packet count 1";
    EXPECT_EQ(got.substr(39, 11), "first,third");
    EXPECT_EQ(got.substr(50), parts[2].bytes.substr(parts[2].bytes.size() - 5)) << "the last CRC and end tag";
    uint32_t len = 0;
    std::memcpy(&len, out + 1, 4);
    EXPECT_EQ(len, 55u);

    ASSERT_EQ(Next(mem), 44 + 2);
    EXPECT_EQ(std::string(out + 39, 2), "ok");
    ASSERT_EQ(Next(mem), 40) << "a bodiless message ends in a lone end tag";
    EXPECT_EQ(out[39], '\xFF');
    EXPECT_EQ(Next(mem), -2) << "the stream has ended";
}

TEST_F(ReassemblyTest, bad_tags_lengths_and_short_reads) {
    TestFrame good(2, 1, 0, 8);
    auto with = [&](int off, char c) {
        std::string b = good.bytes;
        b[size_t(off)] = c;
        return b;
    };
    struct Case {
        std::string bytes;
        int rc;
        const char* log;
    };
    std::string rest3 = good.bytes;
    uint32_t l42 = 42;
    std::memcpy(&rest3[1], &l42, 4);
    std::string huge = good.bytes;
    uint32_t lBig = 9000;
    std::memcpy(&huge[1], &lBig, 4);
    const Case cases[] = {
        {with(0, 0x00), -1, "begin tag error"},
        {with(int(good.bytes.size()) - 1, 0x00), -1, "end tag error"},
        {with(1, 39), -1, "length error,rest=0"},
        {rest3, -1, "length error,rest=3"},
        {huge, -1, "length error,rest=8961"},
        {good.bytes.substr(0, 20), -2, "iRet=20"},
        {good.bytes.substr(0, 45), -2, "出错包的header如下"},
    };
    for (const Case& c : cases) {
        Memory mem{c.bytes};
        EXPECT_EQ(Next(mem), c.rc) << c.log;
        EXPECT_TRUE(Logged(c.log)) << c.log;
    }
    // Packets that never reach their count end after 255 of them.
    TestFrame p(2, 1, 0, 0);
    p.Set(v::kPktCountAt, 0).Set(v::kPktNoAt, 1);
    std::string endless;
    for (int i = 0; i < 300; ++i) endless += p.bytes;
    Memory mem{endless};
    EXPECT_EQ(Next(mem), -1);
    EXPECT_TRUE(Logged("message too large"));
    EXPECT_EQ(mem.pos, 255 * p.bytes.size());
}

TEST_F(ReassemblyTest, frame_cut_at_every_byte_boundary_of_a_socket_is_read_whole) {
    TestFrame f(2, 1, 0, 12);
    std::memcpy(f.data() + 39, "cut anywhere", 12);
    f.Seal();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    comp::UniqueFd reader(sv[0]), writer(sv[1]);
    ASSERT_EQ(fcntl(reader.get(), F_SETFL, O_NONBLOCK), 0);
    // Two writes are two segments of the stream: the reads of the header and
    // of the rest cross the cut wherever it lies.
    for (size_t cut = 1; cut < f.bytes.size(); ++cut) {
        ASSERT_EQ(write(writer.get(), f.data(), cut), ssize_t(cut));
        ASSERT_EQ(write(writer.get(), f.data() + cut, f.bytes.size() - cut), ssize_t(f.bytes.size() - cut));
        int total = 0;
        const int rc = RecvVantrelMsg(reader.get(), out, 39, route, &total);
        ASSERT_EQ(rc, int(f.bytes.size())) << "cut at " << cut << Logs();
        EXPECT_EQ(std::string(out, size_t(rc)), f.bytes);
    }
    // Several frames in one write come out one by one.
    std::string three = f.bytes + f.bytes + f.bytes;
    ASSERT_EQ(write(writer.get(), three.data(), three.size()), ssize_t(three.size()));
    int total = 0;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(RecvVantrelMsg(reader.get(), out, 39, route, &total), int(f.bytes.size()));
    // A frame whose rest never comes: a short read once the stream ends.
    ASSERT_EQ(write(writer.get(), f.data(), 45), 45);
    writer.reset();
    EXPECT_EQ(RecvVantrelMsg(reader.get(), out, 39, route, &total), -2);
}

// ---- sequence controllers ---------------------------------------------------

std::vector<uint32_t> g_cmds;
bool g_cmdFails = false;
int RecordCmd(uint32_t cmd) {
    g_cmds.push_back(cmd);
    return g_cmdFails ? -1 : 0;
}

constexpr int32_t kKeep = -99;   // in a case: the field is expected unchanged

struct SeqCase {
    const char* row;        // the rule, as the table states it
    int step;
    int32_t expected, pending;
    int flag;
    std::string code;
    int select;             // byte 41 (16-bit value at 41 for the receive side); -1: leave
    int byte57;             // connection feedback; -1: leave
    int result;
    int32_t toStep = kKeep, toExpected = kKeep, toPending = kKeep;
    std::vector<uint32_t> cmds = {};
    int flagAfter = -1;
    const char* log = nullptr;
};

class SeqTest : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        v::ResetLink();
        v::Link().sink = RecordCmd;
        g_cmds.clear();
        g_cmdFails = false;
    }
    void TearDown() override {
        v::ResetLink();
        UnitTest::TearDown();
    }
    // Runs one case through a controller; the frame it ran on.
    TestFrame Run(const SeqCase& c, bool receive) {
        g_cmds.clear();
        v::Link().paramFlag = c.flag;
        v::Link().seqStart = 1000;
        VantrelSock conn{};
        VantrelSock::Free(conn);
        conn.step = c.step;
        conn.expected = c.expected;
        conn.pending = c.pending;
        TestFrame f = For(c.code);
        if (c.select >= 0) f.Put16(v::kSelectAt, static_cast<uint16_t>(c.select));
        if (c.byte57 >= 0) f.Set(v::kAcceptedAt, c.byte57);
        const int rc = receive ? SysSeqRcvCtl(&conn, f.data(), f.data())
                               : SysSeqSndCtl(&conn, f.data(), static_cast<int>(f.bytes.size()));
        EXPECT_EQ(rc, c.result) << c.row;
        EXPECT_EQ(conn.step, c.toStep == kKeep ? c.step : c.toStep) << c.row;
        EXPECT_EQ(conn.expected, c.toExpected == kKeep ? c.expected : c.toExpected) << c.row;
        EXPECT_EQ(conn.pending, c.toPending == kKeep ? c.pending : c.toPending) << c.row;
        EXPECT_EQ(g_cmds, c.cmds) << c.row;
        if (c.flagAfter >= 0) {
            EXPECT_EQ(v::Link().paramFlag, c.flagAfter) << c.row;
        }
        if (c.log != nullptr) {
            EXPECT_TRUE(Logged(c.log)) << c.row << ": " << c.log;
        }
        return f;
    }
};

constexpr int32_t kNo = v::kNone, kDone = v::kDone;

TEST_F(SeqTest, receive_controller_applies_each_rule) {
    const SeqCase cases[] = {
        {"0: 04005204 -> step 6", 0, kNo, kNo, 0, "04005204", -1, -1, 6, 6},
        {"0: 0400520C starts the parameter sequence", 0, kNo, kNo, 0, "0400520C", -1, -1, 2, 2, kDone, 0x04005401,
         {0x05000000}, 1},
        {"0: other is forwarded", 0, kNo, kNo, 0, "02000FFF", -1, -1, 0},
        {"1: 00FF5109 refused", 1, kNo, 0x00FF5109, 0, "00FF5109", -1, 0, -1, kKeep, kKeep, kKeep, {}, -1,
         "连接请求不通过"},
        {"1: 00FF5109 accepted", 1, kNo, 0x00FF5109, 0, "00FF5109", -1, 1, 99, 2, 0x0400520C, kNo, {}, -1,
         "连接请求时序完成,进行参数时序"},
        {"1: other", 1, kNo, kNo, 0, "0400550C", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1, "收到非时序消息[0400550C]"},
        {"2: class not 4", 2, kDone, kNo, 0, "02000FFF", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1,
         "收到非时序消息[02000FFF]"},
        {"2 expecting 0400520C: it", 2, 0x0400520C, kNo, 0, "0400520C", -1, -1, 2, kKeep, kDone, 0x04005401, {}, 0},
        {"2 expecting 0400520C: other", 2, 0x0400520C, kNo, 0, "0400550E", -1, -1, -1},
        {"2: 0400550E with the flag", 2, kDone, kDone, 1, "0400550E", -1, -1, 99, 0, kNo, kNo, {0x0500FFFF}, 0},
        {"2: 0400550E without it", 2, kDone, kDone, 0, "0400550E", -1, -1, 99, 3, kNo, 0x05003101, {0x05003101}, 0,
         "收到时序消息[0400550E],参数同步结束"},
        {"2: 0400550C to TranP", 2, kDone, kDone, 0, "0400550C", -1, -1, 2, kKeep, kKeep, kKeep, {}, -1,
         "收到时序消息,交给Tranp[0400550C]"},
        {"2: 0400520D to TranP", 2, kDone, kDone, 0, "0400520D", -1, -1, 2},
        {"2: 04005107 to TranP", 2, kDone, kDone, 0, "04005107", -1, -1, 2},
        {"2: other", 2, kDone, kDone, 0, "04005204", -1, -1, -1},
        {"3: 0400550E ends the connection sequence", 3, kNo, 0x05003101, 0, "0400550E", -1, -1, 99, 0, kNo, kNo,
         {0x05003101, 0x0500FFFF}, -1, "收到时序消息.连接时序结束[0400550E]"},
        {"3: 04005204", 3, kDone, kNo, 0, "04005204", -1, -1, 3, kKeep, kNo, 0x05003102},
        {"3: 04005206", 3, kDone, kNo, 0, "04005206", -1, -1, 3, kKeep, kNo, 0x05003102},
        {"3: 04005207", 3, kDone, kNo, 0, "04005207", -1, -1, 3, kKeep, kNo, 0x05003102, {}, -1,
         "收到时序消息[04005207]"},
        {"3: other", 3, kNo, kNo, 0, "0400550C", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1, "收到非时序消息.[0400550C]"},
        {"4: any", 4, kNo, 0x05003101, 0, "0400550E", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1,
         "运营开始时序未完成.[0400550E]"},
        {"5: 0400550E with 3 at 41", 5, kNo, kNo, 0, "0400550E", 3, -1, 99, kKeep, kDone, 0x05003101, {0x05003101}},
        {"5: 0400550E otherwise", 5, kNo, kNo, 0, "0400550E", 1, -1, -1, kKeep, kKeep, kKeep, {}, -1,
         "运营结束时序未完成.[0400550E]"},
        {"5: 04005201", 5, kNo, kNo, 0, "04005201", -1, -1, 5, kKeep, kKeep, kKeep, {}, -1, "上传指定包编号数据[04005201]"},
        {"5: other", 5, kNo, kNo, 0, "02000FFF", -1, -1, -1},
        {"6: any", 6, kNo, kNo, 0, "04005504", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1, "运营模式改变时序未完成"},
        {"other steps", 9, kNo, kNo, 0, "04005204", -1, -1, 0},
        {"reserved data", 0, kNo, kNo, 0, "01000000", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1, "收到非法消息"},
    };
    for (const SeqCase& c : cases) {
        TestFrame f = Run(c, true);
        if (c.result == 2 && c.code == "0400520C") {
            EXPECT_EQ(std::string(reinterpret_cast<char*>(v::Link().storedIdentity), 16), f.Identity()) << c.row;
        }
        // Only the end of the connection sequence clears its start time.
        EXPECT_EQ(v::Link().seqStart, c.step == 3 && c.result == 99 ? 0 : 1000) << c.row;
    }
}

TEST_F(SeqTest, send_controller_applies_each_rule) {
    const SeqCase cases[] = {
        {"04005509 0 in step 0", 0, kNo, kNo, 0, "04005509", 0, -1, 4, 4, kKeep, 0x05003101, {0x05000000, 0x05003101}},
        {"04005509 1 in step 4", 4, kDone, 0x05003101, 0, "04005509", 1, -1, 4, 0, kNo, kNo, {0x0500FFFF}, -1,
         "运营开始时序结束"},
        {"04005509 2 in step 0", 0, kNo, kNo, 0, "04005509", 2, -1, 5, 5, kKeep, 0x0300520D, {0x05000000, 0x0300520D}},
        {"04005509 3 in step 5", 5, kNo, kNo, 0, "04005509", 3, -1, 4, 0, kNo, kNo, {0x0500FFFF}, -1, "运营结束时序结束"},
        {"04005509 1 in step 0 is no sequence message", 0, kNo, kNo, 0, "04005509", 1, -1, -1, kKeep, kKeep, kKeep,
         {}, -1, "收到非时序消息[04005509]"},
        {"04005509 7", 2, kNo, kNo, 0, "04005509", 7, -1, -1},
        {"0: other is sent", 0, kNo, kNo, 0, "02000FFF", -1, -1, 0},
        {"1: transaction data", 1, kNo, 0x00FF5109, 0, "02000FFF", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1,
         "收到交易或业务数据,忽略[02000FFF]"},
        {"1: business data", 1, kNo, 0x00FF5109, 0, "03005203", -1, -1, -1},
        {"1: 00FF5109", 1, kNo, 0x00FF5109, 0, "00FF5109", -1, -1, 1, kKeep, 0x00FF5109},
        {"1: other", 1, kNo, 0x00FF5109, 0, "0400550C", -1, -1, -1},
        {"2, nothing pending: data", 2, 0x0400520C, kNo, 0, "02000FFF", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1,
         "收到交易或业务数据,忽略[02000FFF]"},
        {"2, 04005401 pending: it", 2, kDone, 0x04005401, 0, "04005401", -1, -1, 2, kKeep, kKeep, kDone},
        {"2, 04005401 pending: data", 2, kDone, 0x04005401, 0, "03000FFF", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1,
         "收到交易或业务数据,[03000FFF]忽略"},
        {"2, done: 04005401", 2, kDone, kDone, 0, "04005401", -1, -1, 2, kKeep, kKeep, kKeep, {}, -1,
         "上传参数时序消息[04005401]"},
        {"2, done: 04005107", 2, kDone, kDone, 0, "04005107", -1, -1, 2},
        {"2: other", 2, kDone, kDone, 0, "0400550C", -1, -1, -1},
        {"3: the pending 05003101", 3, kNo, 0x05003101, 0, "05003101", -1, -1, 3, kKeep, kKeep, kDone},
        {"3: another pending code", 3, kNo, 0x05003102, 0, "05003102", -1, -1, 3, kKeep, kKeep, kKeep, {}, -1,
         "上传运营控制时序消息[05003102]"},
        {"3: other", 3, kNo, kDone, 0, "05003101", -1, -1, -1},
        {"4: 05003101", 4, kNo, 0x05003101, 0, "05003101", -1, -1, 4, kKeep, kKeep, kKeep, {0x04005509}},
        {"4: other", 4, kNo, 0x05003101, 0, "02000FFF", -1, -1, -1},
        {"5, 0300520D pending: it", 5, kNo, 0x0300520D, 0, "0300520D", -1, -1, 5, kKeep, kKeep, kNo},
        {"5, 0300520D pending: other", 5, kNo, 0x0300520D, 0, "02000FFF", -1, -1, -1},
        {"5, other pending: 0300520D", 5, kNo, kNo, 0, "0300520D", -1, -1, 5, kKeep, kKeep, kKeep, {}, -1,
         "收到时序消息[0300520D]"},
        {"5, other pending: class 02", 5, kNo, 0x05003101, 0, "02000FFF", -1, -1, 5},
        {"5, 05003101 pending: it", 5, kNo, 0x05003101, 0, "05003101", -1, -1, 5, kKeep, kKeep, kNo, {0x040D5509}},
        {"5, 05003101 pending: other", 5, kNo, 0x05003101, 0, "0400550C", -1, -1, -1},
        {"5, any other pending: other", 5, kNo, kNo, 0, "0400550C", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1,
         "运营结束未完成[0400550C]"},
        {"6: 04005504", 6, kNo, kNo, 0, "04005504", -1, -1, 6, 0, kNo, kNo},
        {"6: other", 6, kNo, kNo, 0, "0400550C", -1, -1, -1},
        {"other steps", 9, kNo, kNo, 0, "02000FFF", -1, -1, -1, kKeep, kKeep, kKeep, {}, -1, "分支错误 step=9"},
    };
    for (const SeqCase& c : cases) Run(c, false);
}

TEST_F(SeqTest, parameter_answer_carries_the_identity_of_the_peers_0400520C) {
    VantrelSock conn{};
    VantrelSock::Free(conn);
    TestFrame start = For("0400520C");
    start.Set(v::kSerialAt, 0x42);
    ASSERT_EQ(SysSeqRcvCtl(&conn, start.data(), start.data()), 2);
    TestFrame answer = TestFrame(4, 0xFD).Put16(v::kFeedbackCodeAt, 0x5401);
    ASSERT_EQ(SysSeqSndCtl(&conn, answer.data(), static_cast<int>(answer.bytes.size())), 2);
    EXPECT_EQ(answer.bytes.substr(39, 16), start.Identity());
    EXPECT_EQ(conn.pending, kDone);
}

TEST_F(SeqTest, a_command_that_cannot_be_sent_is_fatal) {
    g_cmdFails = true;
    for (bool receive : {true, false}) {
        SeqCase c = receive ? SeqCase{"rcv", 3, kNo, kNo, 0, "0400550E", -1, -1, -2, 0, kNo, kNo, {0x05003101}}
                            : SeqCase{"snd", 4, kNo, kNo, 0, "05003101", -1, -1, -2, kKeep, kKeep, kKeep, {0x04005509}};
        Run(c, receive);
    }
    EXPECT_TRUE(Logged("SysTimeSeqCmd2TranP err"));
}

}  // namespace
