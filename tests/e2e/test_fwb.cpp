// Whole-process tests of the forwarder mode (FWB): clients on loopback
// accepted from the shared listener on command, and the test as the upper
// server at the other end of the link.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <thread>

#include "FwLinkPeer.h"
#include "ModeFixture.h"
#include "ipc/SysConnReg.h"

namespace {

using comptest::Frame;
using comptest::Send;
using fwtest::LinkUnit;
using fwtest::UnitBytes;
namespace fw = comp::fw;

constexpr int kRoute = 60;

class FwbTest : public comptest::ModeTest {
protected:
    // Starts FWB with the test's upper server listening (or, without
    // `serverUp`, nobody there) and takes its link.
    void StartFwb(comptest::RouteRow overrides = {}, bool serverUp = true, int route = kRoute) {
        if (serverUp)
            upper = comptest::Listen(&upperPort);
        else
            upperPort = comptest::FreeLoopbackPort();
        OpenSharedListener();
        if (appVars.empty())
            appVars = {{"FTPSERVER", "ftp.example.internal"}, {"FTPUSER", "transfer-user-1"}, {"FTPPWD", "pw"}};
        comptest::RouteRow row = comptest::MakeRouteRow(route, "127.0.0.1:" + std::to_string(sharedPort), "0");
        row["IPPORTUPPER"] = "127.0.0.1:" + std::to_string(upperPort);
        StartMode("SysTCPFWB", row, overrides, "Begin Working");
        if (serverUp) TakeLink();
    }
    void TakeLink() {
        link = comptest::Accept(upper.get(), 5000);
        ASSERT_TRUE(link.valid()) << AllLogs();
    }

    struct Client {
        comp::UniqueFd fd;
        int port = 0;
    };
    // A client that FWB accepted on command, once its "A" is on the link.
    Client NewClient() {
        Client c;
        c.fd = comptest::Connect(sharedPort);
        c.port = comptest::LocalPort(c.fd.get());
        Wake();
        LinkUnit a = Next();
        EXPECT_EQ(a.hdr.kind, fw::kConnect) << AllLogs();
        EXPECT_EQ(a.hdr.port, c.port);
        EXPECT_STREQ(a.hdr.ip, "127.0.0.1");
        return c;
    }
    // The next unit FWB sends on the link.
    LinkUnit Next(int ms = 5000) { return fwtest::ReadUnit(link.get(), fw::Reader::kServer, ms); }
    // The server's answer for a client.
    void Answer(int port, const std::string& body, char kind = fw::kData) {
        ASSERT_TRUE(Send(link.get(), UnitBytes(kind, "127.0.0.1", port, Frame(body))));
    }
    static std::string Got(const Client& c, int ms = 3000) { return fwtest::ReadMessage(c.fd.get(), ms); }
    // Whether the connection logs (of the clients, com_*, and of the link,
    // comfw_*) hold the text within ms.
    bool ConnLogged(const std::string& text, int ms = 3000) const {
        return AwaitCount([&] { return fwtest::ConnLogs(run.file("runs/log")); }, text, 1, ms);
    }

    comp::UniqueFd upper, link;
    int upperPort = 0;
};

TEST_F(FwbTest, clients_are_announced_with_the_ftp_fields_and_answers_reach_them_by_address_and_port) {
    StartFwb();
    Client one;
    one.fd = comptest::Connect(sharedPort);
    one.port = comptest::LocalPort(one.fd.get());
    Wake();
    LinkUnit a = Next();
    ASSERT_TRUE(a) << AllLogs();
    EXPECT_EQ(a.raw, UnitBytes('A', "127.0.0.1", one.port).substr(0, 21) + "ftp.example.inte" + "transfer-use" +
                         std::string("pw") + std::string(13, '\0'))
        << "FTP values cut to 16, 12 and 15 bytes";
    Client two = NewClient();

    ASSERT_TRUE(Send(one.fd.get(), Frame("from one")));
    ASSERT_TRUE(Send(two.fd.get(), Frame("from two")));
    for (const Client* c : {&one, &two}) {
        LinkUnit f = Next();
        EXPECT_EQ(f.hdr.kind, fw::kData);
        EXPECT_EQ(f.msg, Frame(c == &one ? "from one" : "from two"));
        EXPECT_EQ(f.hdr.port, c->port);
    }
    Answer(two.port, "to two");
    Answer(one.port, "to one");
    EXPECT_EQ(Got(one), Frame("to one"));
    EXPECT_EQ(Got(two), Frame("to two"));

    // While connected the client is in the registry; its leaving is told.
    ASSERT_EQ(SysConnectMem(1, 2), 0);
    ConnNode node{};
    EXPECT_EQ(SysGetPidByRouteidIp("60", "127.0.0.1", &node), pid);
    one.fd.reset();
    LinkUnit z = Next();
    EXPECT_EQ(z.hdr.kind, fw::kDisconnect);
    EXPECT_EQ(z.hdr.port, one.port);
    two.fd.reset();
    EXPECT_EQ(Next().hdr.kind, fw::kDisconnect);
    EXPECT_EQ(SysGetPidByRouteidIp("60", "127.0.0.1", &node), -2) << "both entries removed";
    SysConnRegDetach();
    EXPECT_TRUE(ConnLogged("-----BEGIN<<<"));
    EXPECT_TRUE(ConnLogged("-----END<<<"));
}

TEST_F(FwbTest, client_beat_is_echoed_and_goes_no_further) {
    StartFwb();
    Client c = NewClient();
    ASSERT_TRUE(Send(c.fd.get(), Frame("0602 alive")));
    EXPECT_EQ(Got(c), Frame("0602 alive"));
    ASSERT_TRUE(Send(c.fd.get(), Frame("0100 data")));
    EXPECT_EQ(Next().msg, Frame("0100 data")) << "the beat did not reach the server, the data did";
}

// Units from the server that name no client, or are of no known kind, cost
// only themselves.
TEST_F(FwbTest, answers_for_gone_clients_and_unknown_kinds_are_dropped) {
    StartFwb();
    Client gone = NewClient();
    Client stays = NewClient();
    gone.fd.reset();
    ASSERT_EQ(Next().hdr.kind, fw::kDisconnect);

    Answer(gone.port, "too late");
    Answer(stays.port, "what is this", 'Q');
    ASSERT_TRUE(Logged({"has closed"})) << AllLogs();
    ASSERT_TRUE(Logged({"unknown kind[0x51]"})) << AllLogs();
    Answer(stays.port, "still here");
    EXPECT_EQ(Got(stays), Frame("still here"));
}

// A client whose socket takes nothing more is closed at once; the others are
// served on.
TEST_F(FwbTest, client_that_does_not_read_is_dropped_and_the_others_are_served) {
    StartFwb();
    // A client with a small receive buffer that never reads.
    Client slow;
    slow.fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int small = 4096;
    setsockopt(slow.fd.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(sharedPort));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(slow.fd.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    slow.port = comptest::LocalPort(slow.fd.get());
    Wake();
    ASSERT_EQ(Next().hdr.kind, fw::kConnect);
    Client fast = NewClient();

    // The server floods the slow client, then answers the fast one.
    std::thread flood([&] {
        const std::string big = UnitBytes('F', "127.0.0.1", slow.port, Frame(std::string(9000, 's')));
        for (int i = 0; i < 400; ++i)
            if (!Send(link.get(), big)) break;
        Send(link.get(), UnitBytes('F', "127.0.0.1", fast.port, Frame("for fast")));
    });
    LinkUnit z;
    for (int i = 0; i < 10 && !(z = Next()); ++i) {
    }
    flood.join();
    EXPECT_EQ(z.hdr.kind, fw::kDisconnect) << AllLogs();
    EXPECT_EQ(z.hdr.port, slow.port);
    EXPECT_EQ(Got(fast, 5000), Frame("for fast"));
    EXPECT_TRUE(ConnLogged("iSockSend error"));
}

TEST_F(FwbTest, client_stalling_mid_message_is_dropped_and_the_others_are_served) {
    StartFwb();
    Client stall = NewClient();
    Client fine = NewClient();
    ASSERT_TRUE(Send(stall.fd.get(), "0020half"));
    ASSERT_TRUE(Send(fine.fd.get(), Frame("whole")));
    bool sawZ = false, sawF = false;
    for (int i = 0; i < 2; ++i) {
        LinkUnit u = Next();
        if (u.hdr.kind == fw::kDisconnect && u.hdr.port == stall.port) sawZ = true;
        if (u.hdr.kind == fw::kData && u.hdr.port == fine.port && u.msg == Frame("whole")) sawF = true;
    }
    EXPECT_TRUE(sawZ && sawF) << AllLogs();
    EXPECT_TRUE(Closes(stall.fd.get(), 2000));
}

// Losing the server drops every client with it; the link comes back by timer.
TEST_F(FwbTest, server_lost_mid_message_closes_every_client_and_the_link_comes_back) {
    StartFwb({{"RECONNINTERVAL", "1"}});
    Client one = NewClient();
    Client two = NewClient();
    const std::string unit = UnitBytes('F', "127.0.0.1", one.port, Frame("cut short"));
    ASSERT_TRUE(Send(link.get(), unit.substr(0, 70)));
    link.reset();
    EXPECT_TRUE(Closes(one.fd.get(), 3000));
    EXPECT_TRUE(Closes(two.fd.get(), 3000));
    TakeLink();
    EXPECT_TRUE(Logged({"by timer"}));
    Client three = NewClient();
    ASSERT_TRUE(Send(three.fd.get(), Frame("again")));
    EXPECT_EQ(Next().msg, Frame("again"));
}

TEST_F(FwbTest, silent_server_is_dropped_after_the_idle_timeout) {
    StartFwb({{"IDLETIMEOUT", "1"}, {"RECONNINTERVAL", "30"}});
    Client c = NewClient();
    EXPECT_TRUE(Closes(c.fd.get(), 4000));
    EXPECT_TRUE(Closes(link.get(), 1000)) << "the link was closed too";
    EXPECT_TRUE(Logged({"time out and close"}));
}

// Without a server, a client cannot be announced and is closed at once; once
// the server is reachable again the link comes back by timer.
TEST_F(FwbTest, clients_wait_for_no_server_and_are_served_once_it_is_back) {
    StartFwb({{"RECONNINTERVAL", "1"}}, false);
    EXPECT_TRUE(Logged({"SysConnectRemoteIni error"}));
    comp::UniqueFd early = comptest::Connect(sharedPort);
    Wake();
    EXPECT_TRUE(Closes(early.get(), 3000));
    EXPECT_TRUE(ConnLogged("not announced to the upper server"));

    upper = comptest::Listen(&upperPort);
    ASSERT_TRUE(upper.valid()) << "the port was taken meanwhile";
    TakeLink();
    Client c = NewClient();
    ASSERT_TRUE(Send(c.fd.get(), Frame("served")));
    EXPECT_EQ(Next().msg, Frame("served"));
}

// The built-in beat of type 11 frames as a route with a 4-byte host-order
// length of the rest: the route id names the beat type.
TEST_F(FwbTest, quiet_link_gets_a_beat_with_the_local_address) {
    StartFwb({{"BEATINTERVAL", "1"}, {"MSGLENGETTYPE", "1"}, {"MSGLENINTEL", "1"}}, true, 11);
    const kit::Framing hostOrder{4, 0, 4, '1', 1, 0};
    LinkUnit b = fwtest::ReadUnit(link.get(), fw::Reader::kServer, 4000, hostOrder);
    ASSERT_TRUE(b) << AllLogs();
    EXPECT_EQ(b.hdr.kind, fw::kBeat);
    EXPECT_STREQ(b.hdr.ip, "127.0.0.1");
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    getpeername(link.get(), reinterpret_cast<sockaddr*>(&peer), &len);
    EXPECT_EQ(b.hdr.port, ntohs(peer.sin_port)) << "FWB's own end of the link";
    EXPECT_EQ(b.msg.size(), 62u);
    // The answer to a beat goes nowhere.
    ASSERT_TRUE(Send(link.get(), b.raw + b.msg));
    EXPECT_TRUE(ConnLogged("rcv beat msg from server"));
}

TEST_F(FwbTest, clients_at_or_above_the_table_size_are_refused) {
    vars["MAX_COM_NUM"] = "16";
    StartFwb();
    std::vector<Client> kept;
    bool refused = false;
    for (int i = 0; i < 16 && !refused; ++i) {
        Client c;
        c.fd = comptest::Connect(sharedPort);
        c.port = comptest::LocalPort(c.fd.get());
        Wake();
        LinkUnit a = Next(1000);
        if (a) {
            kept.push_back(std::move(c));
            continue;
        }
        refused = Logged({"Too many communication node"}, 1000);
        EXPECT_TRUE(Closes(c.fd.get(), 2000));
    }
    ASSERT_TRUE(refused) << AllLogs();
    ASSERT_FALSE(kept.empty());
    ASSERT_TRUE(Send(kept.front().fd.get(), Frame("first")));
    EXPECT_EQ(Next().msg, Frame("first"));
}

TEST_F(FwbTest, missing_ftp_setting_ends_the_start) {
    appVars = {{"FTPSERVER", "host"}, {"FTPUSER", "user"}};
    upper = comptest::Listen(&upperPort);
    OpenSharedListener();
    comptest::RouteRow row = comptest::MakeRouteRow(kRoute, "127.0.0.1:1", "0");
    row["IPPORTUPPER"] = "127.0.0.1:" + std::to_string(upperPort);
    StartMode("SysTCPFWB", row, {}, "com error");
    EXPECT_EQ(WaitComp(c, 10000), 0);
    EXPECT_TRUE(Logged({"lost FTPPWD in app.cfg"}));
}

TEST_F(FwbTest, quit_command_ends_with_status_0) {
    StartFwb();
    Client c = NewClient();
    Control('x');
    EXPECT_EQ(WaitComp(this->c, 5000), 0);
    EXPECT_TRUE(Logged({"recv quit cmd"}));
    EXPECT_TRUE(Closes(c.fd.get(), 1000));
}

}  // namespace
