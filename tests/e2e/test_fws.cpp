// Whole-process tests of the forwarding server mode (FWS): the test plays the
// forwarders that connect to it (accepted from the shared listener on
// command) and the router that answers on the platform queues.
#include <sys/wait.h>

#include <algorithm>
#include <memory>

#include "FwLinkPeer.h"
#include "ModeFixture.h"
#include "ipc/SysConnReg.h"
#include "kit/Router.h"

namespace {

using comptest::At;
using comptest::Frame;
using comptest::Send;
using fwtest::LinkUnit;
using fwtest::UnitBytes;
namespace fw = comp::fw;
namespace plat = comp::plat;

constexpr int kRoute = 61;

// One message FWS put on queue 7.
struct Queued {
    std::string header, body;
    int kind = -1, sock = 0, port = 0;
    std::string ip;
    std::string code() const { return body.substr(0, 4); }
    explicit operator bool() const { return header.size() == plat::kHeaderLen; }
};

class FwsTest : public comptest::ModeTest {
protected:
    void StartFws(comptest::RouteRow overrides = {}) {
        OpenSharedListener();
        StartMode("SysTCPFWS", comptest::MakeRouteRow(kRoute, "127.0.0.1:" + std::to_string(sharedPort), "0"),
                  overrides, "Begin Working");
    }
    // A forwarder connection, once FWS has accepted it on command.
    comp::UniqueFd NewLink() {
        comp::UniqueFd fd = comptest::Connect(sharedPort);
        Wake();
        EXPECT_TRUE(AwaitCount([&] { return fwtest::ConnLogs(run.file("runs/log")); }, "----BEGIN>>>", ++links_))
            << AllLogs();
        return fd;
    }
    // "A" for a client behind the link; the N001 it gives.
    Queued Announce(int link, const std::string& ip, int port) {
        fw::FtpFields ftp{};
        fw::PutText(ftp.server, fw::kFtpServerLen, "ftp.host");
        fw::PutText(ftp.user, fw::kFtpUserLen, "user");
        fw::PutText(ftp.pwd, fw::kFtpPwdLen, "pass");
        EXPECT_TRUE(Send(link, UnitBytes(fw::kConnect, ip, port, "", &ftp)));
        Queued n = Next();
        EXPECT_EQ(n.code(), "N001") << AllLogs();
        return n;
    }
    Queued Next(int ms = 5000) {
        Queued q;
        int len = ReadToTranp(buf.get(), pid, ms);
        if (len < plat::kHeaderLen) return q;
        const char* p = buf->caText;
        q.header.assign(p, plat::kHeaderLen);
        q.body.assign(p + plat::kHeaderLen, static_cast<size_t>(len - plat::kHeaderLen));
        q.kind = At<uint16_t>(p, plat::kKind);
        q.sock = At<int32_t>(p, plat::kSock);
        q.port = At<int32_t>(p, plat::kPort);
        q.ip.assign(p + plat::kIp, strnlen(p + plat::kIp, 16));
        return q;
    }
    // The router's answer to a message, in the form FWS reads.
    void Answer(const Queued& to, const std::string& body) {
        std::vector<char> text;
        ASSERT_TRUE(kit::BuildAnswer(kit::AnswerForm::kByPid, to.header.data(), body.data(), (int)body.size(), &text));
        DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), text);
    }
    static LinkUnit FromFws(int link, int ms = 3000) { return fwtest::ReadUnit(link, fw::Reader::kForwarder, ms); }
    // Virtual connections of this FWS behind one forwarder connection.
    int Virtual(int sock) {
        EXPECT_EQ(SysConnectMem(1, 2), 0);
        auto nodes = std::make_unique<ConnNode[]>(comp::kRegistryNodes);
        int n = GetVirtualNodeList(pid, sock, sock, nodes.get());
        SysConnRegDetach();
        return n;
    }
    // The count of Virtual(sock) once it reaches `want` or ms pass: the
    // entries go after the N003 that tells of them has been queued.
    int VirtualSettled(int sock, int want, int ms = 3000) {
        int n = Virtual(sock);
        for (const int64_t end = kit::NowMs() + ms; n != want && kit::NowMs() < end; n = Virtual(sock))
            kit::SleepMs(5);
        return n;
    }

private:
    int links_ = 0;
};

TEST_F(FwsTest, clients_behind_a_link_are_announced_and_their_messages_go_both_ways) {
    StartFws();
    comp::UniqueFd link = NewLink();
    Queued n1 = Announce(link.get(), "10.9.8.7", 4321);
    EXPECT_EQ(n1.kind, plat::kKindNotice);
    EXPECT_EQ(n1.port, 4321);
    EXPECT_EQ(n1.ip, "10.9.8.7");
    EXPECT_GT(n1.sock, 2) << "the forwarder connection's descriptor";
    EXPECT_EQ(n1.body.substr(4, 16), std::string("10.9.8.7") + std::string(8, '\0'));
    EXPECT_EQ(n1.body.substr(20, 16), std::string("ftp.host") + std::string(8, '\0')) << "FTP texts of the A";
    EXPECT_EQ(n1.body.substr(36, 12), std::string("user") + std::string(8, '\0'));
    EXPECT_EQ(n1.body.substr(48, 15), std::string("pass") + std::string(11, '\0'));
    EXPECT_EQ(Virtual(n1.sock), 1);

    ASSERT_TRUE(Send(link.get(), UnitBytes(fw::kData, "10.9.8.7", 4321, Frame("hello"))));
    Queued m = Next();
    ASSERT_TRUE(m) << AllLogs();
    comptest::PlatHdr want{64 + 9, 0,    pid,        pid,        kRoute, kRoute, n1.sock,
                           n1.sock, 4321, "10.9.8.7", "10.9.8.7", 'M',    {}};
    EXPECT_EQ(m.header, want.bytes());
    EXPECT_EQ(m.body, Frame("hello"));

    Answer(m, Frame("world"));
    LinkUnit f = FromFws(link.get());
    EXPECT_EQ(f.raw, UnitBytes(fw::kData, "10.9.8.7", 4321));
    EXPECT_EQ(f.msg, Frame("world"));

    ASSERT_TRUE(Send(link.get(), UnitBytes(fw::kDisconnect, "10.9.8.7", 4321)));
    Queued n3 = Next();
    EXPECT_EQ(n3.code(), "N003");
    EXPECT_EQ(n3.port, 4321);
    EXPECT_EQ(n3.sock, n1.sock);
    EXPECT_EQ(Virtual(n1.sock), 1) << "the entry stays until its forwarder connection goes";
    link.reset();
    EXPECT_EQ(Next().code(), "N003") << "the connection's end tells TranP of every entry behind it";
    EXPECT_EQ(VirtualSettled(n1.sock, 0), 0);
}

TEST_F(FwsTest, beat_is_answered_on_the_same_connection_and_goes_no_further) {
    StartFws();
    comp::UniqueFd link = NewLink();
    const std::string beat = UnitBytes(fw::kBeat, "127.0.0.1", 50000, Frame("beat"));
    ASSERT_TRUE(Send(link.get(), beat));
    LinkUnit b = FromFws(link.get());
    EXPECT_EQ(b.raw + b.msg, beat);
    EXPECT_FALSE(Next(300)) << "nothing reaches TranP";
}

TEST_F(FwsTest, lost_link_sends_one_n003_per_client_and_clears_the_registry) {
    StartFws();
    comp::UniqueFd link = NewLink();
    int sock = 0;
    for (int port : {1001, 1002, 1003}) sock = Announce(link.get(), "10.0.0.5", port).sock;
    ASSERT_TRUE(Send(link.get(), UnitBytes(fw::kData, "10.0.0.5", 1002, Frame("late"))));
    Queued asked = Next();
    ASSERT_EQ(Virtual(sock), 3);
    link.reset();

    std::vector<int> ports;
    for (int i = 0; i < 3; ++i) {
        Queued n = Next();
        EXPECT_EQ(n.code(), "N003");
        EXPECT_EQ(n.sock, sock);
        ports.push_back(n.port);
    }
    std::sort(ports.begin(), ports.end());
    EXPECT_EQ(ports, (std::vector<int>{1001, 1002, 1003}));
    EXPECT_FALSE(Next(300)) << "one N003 each, no more";
    EXPECT_EQ(Virtual(sock), 0);
    ASSERT_EQ(SysConnectMem(1, 2), 0);
    ConnNode node{};
    EXPECT_EQ(SysGetPidByRouteidIp("61", "127.0.0.1", &node), -2) << "the connection's own entry went too";
    SysConnRegDetach();

    Answer(asked, Frame("nobody"));
    EXPECT_TRUE(Logged({"had closed,msg discard"})) << AllLogs();
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "FWS still runs";
}

// A unit that cannot be read costs its forwarder connection and nothing else.
TEST_F(FwsTest, malformed_units_close_only_their_connection) {
    StartFws();
    comp::UniqueFd good = NewLink();
    Announce(good.get(), "10.0.0.9", 900);
    const std::string f = UnitBytes(fw::kData, "10.0.0.1", 7);
    struct Case {
        const char* what;
        std::string bytes;
        bool leave;   // the forwarder leaves after the bytes
    } cases[] = {
        {"unknown kind", UnitBytes('Q', "10.0.0.1", 7, Frame("x")), false},
        {"truncated header", f.substr(0, 30), true},
        {"length past the message", f + "0100only this much", false},
        {"truncated header, then silence", f.substr(0, 30), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        comp::UniqueFd bad = NewLink();
        Queued n1 = Announce(bad.get(), "10.0.0.1", 7);
        ASSERT_TRUE(Send(bad.get(), c.bytes));
        if (c.leave) shutdown(bad.get(), SHUT_WR);
        EXPECT_TRUE(Closes(bad.get(), 3000)) << AllLogs();
        Queued n3 = Next();
        EXPECT_EQ(n3.code(), "N003");
        EXPECT_EQ(n3.sock, n1.sock);
    }
    ASSERT_TRUE(Send(good.get(), UnitBytes(fw::kData, "10.0.0.9", 900, Frame("still"))));
    EXPECT_EQ(Next().body, Frame("still"));
}

// A forwarder that reconnects while its old connection still stands here:
// the old connection's clients and the new one's are kept apart by the
// descriptor, also for the same client address and port.
TEST_F(FwsTest, forwarder_reconnecting_while_the_old_link_stands_keeps_the_two_apart) {
    StartFws();
    comp::UniqueFd old = NewLink();
    const int oldSock = Announce(old.get(), "10.1.1.1", 5555).sock;
    comp::UniqueFd fresh = NewLink();
    const int newSock = Announce(fresh.get(), "10.1.1.1", 5555).sock;
    ASSERT_NE(oldSock, newSock);

    old.reset();
    Queued n3 = Next();
    EXPECT_EQ(n3.code(), "N003");
    EXPECT_EQ(n3.sock, oldSock);
    EXPECT_FALSE(Next(300));
    EXPECT_EQ(Virtual(newSock), 1) << "the new connection's client stays";

    ASSERT_TRUE(Send(fresh.get(), UnitBytes(fw::kData, "10.1.1.1", 5555, Frame("via new"))));
    Queued m = Next();
    EXPECT_EQ(m.sock, newSock);
    Answer(m, Frame("back"));
    EXPECT_EQ(FromFws(fresh.get()).msg, Frame("back"));
}

TEST_F(FwsTest, silent_link_is_closed_after_the_idle_timeout) {
    StartFws({{"IDLETIMEOUT", "1"}});
    comp::UniqueFd link = NewLink();
    Announce(link.get(), "10.2.2.2", 22);
    EXPECT_TRUE(Closes(link.get(), 4000));
    EXPECT_EQ(Next().code(), "N003");
    EXPECT_TRUE(AwaitCount([&] { return fwtest::ConnLogs(run.file("runs/log")); }, "time out and close", 1));
}

TEST_F(FwsTest, links_at_or_above_the_table_size_are_refused) {
    vars["MAX_COM_NUM"] = "12";
    StartFws();
    std::vector<comp::UniqueFd> links;
    bool refused = false;
    for (int i = 0; i < 12 && !refused; ++i) {
        comp::UniqueFd l = comptest::Connect(sharedPort);
        Wake();
        refused = Logged({"Too many communication node"}, 300);
        if (refused) {
            EXPECT_TRUE(Closes(l.get(), 2000));
        }
        links.push_back(std::move(l));
    }
    ASSERT_TRUE(refused) << AllLogs();
    Announce(links.front().get(), "10.3.3.3", 33);
}

TEST_F(FwsTest, quit_command_ends_with_status_0) {
    StartFws();
    Control('x');
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"recv quit cmd"}));
}

}  // namespace
