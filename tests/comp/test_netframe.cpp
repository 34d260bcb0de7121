// Framing: the route row's framing fields and its "IP:PORT", the length rule
// in its encodings and limits, whole messages over a socket pair (also from
// peers that stop early or stall), and the type rule read from a route table
// segment.
#include <fcntl.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

#include "TableImage.h"
#include "UnitFixture.h"
#include "comp/SysComPub.h"
#include "comp/SysNetFrame.h"

namespace {

using comptest::MakeRoute;
using FrameTest = comptest::UnitTest;

// g_caMsg from its first "]" on.
std::string RouteMsg() { return std::strchr(g_caMsg, ']'); }

TEST_F(FrameTest, FramingFieldsAreReadByPositionAndGuardedByTheirOutputs) {
    RouteRecord st = MakeRoute(
        {{RT_MSGLENGETLEN, "0"}, {RT_MSGLENGETOFFSET, "2"}, {RT_IDLETIMEOUT, "60"}, {RT_HEADERLEN, "00012"}});
    int iLen = -1, iOff = -1, iIdle = -1, iHdr = -1;
    ASSERT_EQ(iGetStaticTblValues(st, &iLen, &iOff, &iIdle, &iHdr), 0);
    EXPECT_EQ(iLen, 0);
    EXPECT_EQ(iOff, 2);
    EXPECT_EQ(iIdle, 60);
    EXPECT_EQ(iHdr, 1);  // only four characters count

    // A field that fills its 32 bytes ends there.
    std::snprintf(st.caField[RT_HEADERLEN], 32, "%s", "12");
    std::memset(st.caField[RT_MSGLENGETLEN], '0', 31);
    st.caField[RT_MSGLENGETLEN][31] = '4';
    ASSERT_EQ(iGetStaticTblValues(st, &iLen, &iOff, &iIdle, &iHdr), 0);
    EXPECT_EQ(iLen, 4);
    EXPECT_EQ(iHdr, 12);

    EXPECT_EQ(iGetStaticTblValues(st, nullptr, &iOff, &iIdle, &iHdr), -1);
    EXPECT_EQ(RouteMsg(), "]PLAT_STATICROUTEINF config error,MSGLENGETLEN must greater then zero");
    EXPECT_EQ(iGetStaticTblValues(st, &iLen, &iOff, &iIdle, nullptr), -1);
    EXPECT_EQ(RouteMsg(), "]PLAT_STATICROUTEINF config error,HEADERLEN");
    EXPECT_EQ(iGetStaticTblValues(st, &iLen, nullptr, &iIdle, &iHdr), -1);
    EXPECT_EQ(RouteMsg(), "]parameter error.");
}

TEST_F(FrameTest, IpAndPortForms) {
    char caIp[32];
    int iPort = -5;
    ASSERT_EQ(SysGetIpAndPort("10.1.2.3:7001", caIp, &iPort), 0);
    EXPECT_STREQ(caIp, "10.1.2.3");
    EXPECT_EQ(iPort, 7001);
    ASSERT_EQ(SysGetIpAndPort("10.1.2.3:", caIp, &iPort), 0);
    EXPECT_EQ(iPort, 0);

    EXPECT_EQ(SysGetIpAndPort("-1", caIp, &iPort), -2);
    EXPECT_EQ(RouteMsg(), "]not server config.IP:PORT [-1].");
    EXPECT_EQ(SysGetIpAndPort("-1:0", caIp, &iPort), -2);

    std::memset(caIp, 'z', sizeof caIp);
    EXPECT_EQ(SysGetIpAndPort("10.1.2.3", caIp, &iPort), -1);
    EXPECT_EQ(RouteMsg(), "]IPPORT has wrong value.[]");
    EXPECT_STREQ(caIp, "10.1.2.3");  // terminated all the same
    char caWide[64];
    EXPECT_EQ(SysGetIpAndPort((std::string(70, '1') + ":80").c_str(), caWide, &iPort), -1);
    EXPECT_EQ(std::strlen(caWide), 63u);
    EXPECT_EQ(SysGetIpAndPort(nullptr, caIp, &iPort), -1);
    EXPECT_EQ(RouteMsg(), "]parameter error.");
}

// width, offset, encoding, byte order, HEADERLEN, adjustment
RouteRecord LenRule(const char* w, const char* off, const char* type, const char* intel, const char* hdr,
                    const char* adj = "0") {
    return MakeRoute({{RT_MSGLENGETLEN, w}, {RT_MSGLENGETOFFSET, off}, {RT_MSGLENGETTYPE, type},
                      {RT_MSGLENINTEL, intel}, {RT_HEADERLEN, hdr}, {RT_MSGLENADJUST, adj}});
}

TEST_F(FrameTest, LengthRuleEncodingsAndLimits) {
    struct Case {
        std::string header;
        RouteRecord rule;
        int want;
    } cases[] = {
        {std::string("\x80\x00", 2), LenRule("2", "0", "2", "0", ""), 32768},   // unsigned 16 bits
        {std::string("\x80\x00", 2), LenRule("2", "0", "2", "1", ""), 0x80},    // host order
        {std::string("ab\0\0\1\2", 6), LenRule("4", "2", "1", "0", ""), 258},
        {std::string("ab\0\0\1\2", 6), LenRule("4", "2", "3", "0", ""), 258},
        {std::string("\x10\0\0\0", 4), LenRule("4", "0", "1", "7", ""), 16},
        {"0012", LenRule("4", "0", "0", "0", ""), 12},
        {"  12", LenRule("4", "0", "0", "0", ""), 12},
        {"HD12x9", LenRule("4", "2", "0", "0", ""), 12},
        {"ab12", LenRule("4", "0", "0", "0", ""), 0},
        {"0020", LenRule("4", "0", "0", "0", "", "-4"), 16},
        {"0002", LenRule("4", "0", "0", "0", "", "-4"), -2},          // negative, the caller refuses it
        {"65527   ", LenRule("5", "0", "0", "0", ""), 65527},         // 8 + 65,527 = 65,535
        {"65528   ", LenRule("5", "0", "0", "0", ""), -1},            // 8 + 65,528 = 65,536
        {std::string("\xFF\xFF\xFF\xFF", 4), LenRule("4", "0", "1", "0", ""), -1},
        {"0012", LenRule("4", "0", "4", "0", ""), -1},                // unknown encoding
        {"00120000", LenRule("4", "6", "0", "0", ""), -1},            // field beyond the header
        {"00120000", LenRule("4", "-1", "0", "0", ""), -1},
        {"00120000", LenRule("-4", "0", "0", "0", ""), -1},
        {std::string(300, '0'), LenRule("257", "0", "0", "0", ""), -1},   // wider than the work buffer
        {std::string(300, '0'), LenRule("256", "0", "0", "0", ""), 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(SysGetLenFromHead(c.header.data(), &c.rule, static_cast<int>(c.header.size())), c.want)
            << "header [" << c.header << "] width " << c.rule.caField[RT_MSGLENGETLEN];
    RouteRecord stRule = LenRule("4", "0", "0", "0", "");
    EXPECT_EQ(SysGetLenFromHead("0012", &stRule, 65536), -1);
    std::string logs = Logs();
    EXPECT_NE(logs.find("The message is too large.length=65528,LENTYPE[0]"), std::string::npos);
    EXPECT_NE(logs.find("PLAT_STATICROUTEINFO Config error,check MSGLENGETTYPE"), std::string::npos);
}

// Messages from a socket pair whose reading end is non-blocking, as the
// modes make their sockets.
class RecvMsgTest : public FrameTest {
protected:
    void SetUp() override {
        FrameTest::SetUp();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv_), 0);
        ASSERT_EQ(fcntl(sv_[0], F_SETFL, O_NONBLOCK), 0);
    }
    void TearDown() override {
        close(sv_[0]);
        close(sv_[1]);
        FrameTest::TearDown();
    }
    void Send(const std::string& s) { ASSERT_EQ(write(sv_[1], s.data(), s.size()), static_cast<ssize_t>(s.size())); }
    int Recv(const RouteRecord& stRoute = LenRule("4", "0", "0", "0", "4")) {
        return SysTcpRecvMsg(sv_[0], &stRoute, buf_.get(), &err_);
    }
    std::string Text(int n) const { return std::string(buf_->caText, static_cast<size_t>(n)); }

    int sv_[2] = {-1, -1};
    int err_ = -1;
    std::unique_ptr<QueueMsg> buf_ = std::make_unique<QueueMsg>();
};

TEST_F(RecvMsgTest, ReadsOneMessageAtATime) {
    Send("0005hello000003..xyz");
    ASSERT_EQ(Recv(), 9);
    EXPECT_EQ(Text(9), "0005hello");
    ASSERT_EQ(Recv(), 4) << "a body of 0 bytes";
    ASSERT_EQ(Recv(LenRule("2", "0", "0", "0", "00046")), 7) << "only \"0004\" of HEADERLEN counts";
    EXPECT_EQ(Text(7), "03..xyz");
    EXPECT_EQ(Recv(LenRule("4", "0", "0", "0", "-5")), -1);
    EXPECT_EQ(err_, EINVAL);
}

TEST_F(RecvMsgTest, PeerThatClosesEarlyFailsTheMessage) {
    Send("0003");
    EXPECT_EQ(Recv(LenRule("4", "0", "0", "0", "4", "-8")), -1);
    EXPECT_NE(Logs().find("SysGetLenFromHead error.iHeaderLen=[4]"), std::string::npos);
    Send("0009ab");
    shutdown(sv_[1], SHUT_WR);
    EXPECT_EQ(Recv(), -1);
    EXPECT_EQ(err_, 0) << "a close is no system error";
    EXPECT_NE(Logs().find("SysTcpRecvMsg,fd=" + std::to_string(sv_[0]) + ",iRet=2,errno=0"), std::string::npos);
    EXPECT_EQ(Recv(), -1);
    EXPECT_NE(Logs().find("SysTcpRecvMsg,fd=" + std::to_string(sv_[0]) + " ,iRet=0,errno=0"), std::string::npos);
}

TEST_F(FrameTest, FramedMessagesFromMemoryEndAtTheLastWholeOne) {
    const RouteRecord stRoute = LenRule("4", "0", "0", "0", "4");
    auto buf = std::make_unique<QueueMsg>();
    comp::MemorySource mem(std::string_view("0002ab0000" "0009abc"));
    int iErr = -1;
    EXPECT_EQ(comp::RecvFramedMsg(mem.source(), 7, &stRoute, buf.get(), &iErr), 6);
    EXPECT_EQ(std::string(buf->caText, 6), "0002ab");
    EXPECT_EQ(comp::RecvFramedMsg(mem.source(), 7, &stRoute, buf.get(), &iErr), 4);
    EXPECT_EQ(comp::RecvFramedMsg(mem.source(), 7, &stRoute, buf.get(), &iErr), -1);
    EXPECT_EQ(iErr, 0) << "the end of the bytes reads as the peer's close";
    EXPECT_NE(Logs().find("SysTcpRecvMsg,fd=7,iRet=3,errno=0"), std::string::npos) << Logs();
    EXPECT_EQ(mem.left(), 0u);
}

TEST_F(RecvMsgTest, PeerThatStallsMidMessageLosesItAndTheStreamGoesOutOfStep) {
    // The body read gives up at the third would-block (about 2 ms).
    Send("0009abc");
    EXPECT_EQ(Recv(), -1);
    EXPECT_EQ(err_, EAGAIN);
    Send("defghi0001z");
    ASSERT_EQ(Recv(), 4);
    EXPECT_EQ(Text(4), "defg");
}

// Route 301's type rule in a table segment, rewritten before each case.
class MsgTypeTest : public FrameTest {
protected:
    void SetRule(const char* w, const char* off, const char* kind, const char* charLen, const char* seq) {
        std::vector<std::string> row(28);
        row[RT_ROUTEID] = "301";
        row[RT_MSGTYPEGETLEN] = w;
        row[RT_MSGTYPEGETOFFSET] = off;
        row[RT_MSGTYPEGETTYPE] = kind;
        row[RT_MSGTYPECHARLEN] = charLen;
        row[RT_SEQINTEL] = seq;
        comptest::TableImage image;
        image.appendRoute(row);
        if (g_iShmTblId < 0)
            ASSERT_GE(g_iShmTblId = image.createShm(keys), 0);
        else
            ASSERT_TRUE(image.writeTo(g_iShmTblId));
    }
};

TEST_F(MsgTypeTest, TypeRuleIsReadForEveryMessage) {
    struct Case {
        const char *w, *off, *kind, *charLen, *seq;
        std::string msg;
        int ret;
        std::string type;
    } cases[] = {
        {"2", "4", "0", "4", "0", std::string("head\1\2", 6), 0, "0102"},
        {"2", "4", "0", "4", "1", std::string("head\1\2", 6), 0, "0201"},
        {"2", "4", "0", "2", "0", std::string("head\1\2", 6), 0, "102"},   // "%02X" is a minimum width
        {"1", "5", "0", "4", "0", std::string("head\1\2", 6), 0, "02"},
        {"4", "0", "0", "4", "0", std::string("\1\2\3\4", 4), 0, "1020304"},
        {"3", "0", "0", "4", "1", std::string("\1\2\3", 3), 0, "30201"},   // odd width: reported, read
        {"2", "4", "0", "3", "0", std::string("head\1\2", 6), 0, ""},      // unknown print width
        {"4", "2", "1", "0", "0", "xxT100yyyy", 0, "T100"},
        {"4", "2", "7", "0", "0", "xxT200yyyy", 0, "T200"},               // unknown kind: text
        {"16", "0", "1", "0", "0", std::string(40, 'a'), 0, std::string(16, 'a')},
        {"9", "0", "0", "4", "0", "N003 and more", 0, "N003"},             // whatever the rule
        {"2", "4", "0", "4", "2", std::string("head\1\2", 6), -1, ""},     // bad SEQINTEL
        {"2", "5", "0", "4", "0", std::string("head\1", 5), -1, ""},       // outside the message
        {"2", "-1", "0", "4", "0", std::string("head\1", 5), -1, ""},
        {"5", "0", "0", "4", "0", std::string("head\1\2", 6), -1, ""},     // more than 32 bits
        {"17", "0", "1", "0", "0", std::string(40, 'a'), -1, ""},          // more than the 16-byte type
    };
    for (const Case& c : cases) {
        SetRule(c.w, c.off, c.kind, c.charLen, c.seq);
        char caType[32] = {};
        EXPECT_EQ(SysGetMsgTypeFromMsg(c.msg.data(), static_cast<int>(c.msg.size()), "301", caType), c.ret)
            << c.w << "/" << c.off << "/" << c.kind << "/" << c.charLen << "/" << c.seq;
        EXPECT_EQ(std::string(caType), c.type) << c.w << "/" << c.off << "/" << c.kind << "/" << c.seq;
    }
    char caType[16] = {};
    EXPECT_EQ(SysGetMsgTypeFromHead("head", "999", caType), -1) << "no such route";
    std::string logs = Logs();
    EXPECT_NE(logs.find("check PLAT_STATICROUTEINF MSGTYPEGETLEN error "), std::string::npos);
    EXPECT_NE(logs.find(".SysGetValueByTableKey() SeqIntel error"), std::string::npos);
    EXPECT_NE(logs.find(".SysGetValueByTableKey() error"), std::string::npos);
}

}  // namespace
