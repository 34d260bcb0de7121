// compkit.cfg; the stand-in router: the queue type, header form and FIFO of
// every answer it gives, and the order in which relayed answers find their
// requests; the framing of compkit send and echo-server.
#include "Platform.h"
#include "UnitFixture.h"
#include "ipc/SysFIFO.h"
#include "kit/Framing.h"
#include "kit/KitConfig.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"
#include "kit/Router.h"
#include "kit/StationFrames.h"

namespace {

namespace p = comp::plat;
using comptest::At;

// A PlatMsg as a comp builds it (kind 0, or a notification).
std::vector<char> PlatMsg(int pid, int route, int sock, int port, const std::string& ip, const std::string& body,
                          uint16_t kind = 0) {
    const auto r = static_cast<uint16_t>(route);
    comptest::PlatHdr h{static_cast<uint16_t>(64 + body.size()), kind, pid, pid, r, r, sock, sock, port, {}, {}, 'M', {}};
    ip.copy(h.ip, 15);
    ip.copy(h.ip2, 15);
    const std::string m = h.bytes() + body;
    return std::vector<char>(m.begin(), m.end());
}

class RouterTest : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        ASSERT_GE(q7 = keys.newQueue(), 0);
        ASSERT_GE(q8 = keys.newQueue(), 0);
    }
    void TearDown() override {
        for (int fd : fifos) close(fd);
        UnitTest::TearDown();
    }

    void Configure(const std::string& text) {
        kit::KitConfig cfg;
        std::string why;
        ASSERT_TRUE(kit::ParseKitConfig(text, "compkit.cfg", &cfg, &why)) << why;
        router = std::make_unique<kit::Router>(run.path(), cfg, q7, q8);
    }
    // A comp's FIFO, held open as the comp would.
    int Fifo(const std::string& name, int kind) {
        int fd = iOpenFIFO(name.c_str(), kind);
        EXPECT_GE(fd, 0);
        fifos.push_back(fd);
        return fd;
    }
    // Doorbell bytes waiting on a FIFO.
    static int Rings(int fd) {
        int n = 0;
        for (char c; read(fd, &c, 1) == 1; ++n) EXPECT_EQ(c, '0');
        return n;
    }
    void Route(const std::vector<char>& m) { router->handle(m.data(), static_cast<int>(m.size()), &trace); }
    // The next message of `type` on queue 8 (0 bytes when there is none).
    int Answer(long type) { return kit::ReadQueue(q8, type, buf.get(), 100); }
    std::string Trace() const {
        std::string all;
        for (const auto& l : trace) all += l + "\n";
        return all;
    }

    int q7 = -1, q8 = -1;
    std::unique_ptr<kit::Router> router;
    std::vector<int> fifos;
    std::vector<std::string> trace;
    std::unique_ptr<QueueMsg> buf = std::make_unique<QueueMsg>();
};

TEST_F(RouterTest, echo_answers_in_the_form_of_the_asking_mode_and_rings_its_fifo) {
    Configure("route 10 SysTCPTS echo\nroute 30 SysTCPPAS echo listen 127.0.0.1:1\nroute 20 SysTCPPC echo\n");
    const int rings[] = {Fifo("4242", comp::kFifoPidNotify), Fifo("4243", comp::kFifoPidNotify),
                         Fifo("20_1", comp::kFifoRouteNotify), Fifo("20_2", comp::kFifoRouteNotify)};
    const char* t = buf->caText;

    // TS: typed with the pid, the peer IP text at offset 24.
    Route(PlatMsg(4242, 10, 7, 5555, "10.1.2.3", "0005hello"));
    ASSERT_EQ(Answer(4242), 64 + 9) << Trace();
    EXPECT_EQ(At<uint16_t>(t, p::kTotalLen), 73);
    EXPECT_EQ(At<int32_t>(t, p::kSock), 7);
    EXPECT_STREQ(t + p::kPort, "10.1.2.3");
    EXPECT_EQ(std::string(t + 64, 9), "0005hello");

    // By pid: descriptor, port and IP stay in place.
    Route(PlatMsg(4243, 30, 9, 6000, "10.9.8.7", "0002hi"));
    ASSERT_EQ(Answer(4243), 64 + 6) << Trace();
    EXPECT_EQ(At<int32_t>(t, p::kSock), 9);
    EXPECT_EQ(At<int32_t>(t, p::kPort), 6000);
    EXPECT_STREQ(t + p::kIp, "10.9.8.7");

    // By route: typed with the route number, its instances rung in turn.
    Route(PlatMsg(5000, 20, 3, 7020, "127.0.0.1", "0001a"));
    Route(PlatMsg(5000, 20, 3, 7020, "127.0.0.1", "0001b"));
    EXPECT_EQ(Answer(5000), 0) << "route-addressed modes read by route, not by pid";
    ASSERT_EQ(Answer(20), 69) << Trace();
    EXPECT_EQ(t[64 + 4], 'a');
    ASSERT_EQ(Answer(20), 69);
    for (int fd : rings) EXPECT_EQ(Rings(fd), 1);
}

TEST_F(RouterTest, a_client_route_has_one_relayed_request_in_flight_so_each_answer_finds_its_request) {
    Configure("route 10 SysTCPTS relay 20\nroute 20 SysTCPTC\ninstance 20 1\ninstance 20 2\n");
    int tsRing = Fifo("4242", comp::kFifoPidNotify);
    const int tcRings[] = {Fifo("20_1", comp::kFifoRouteNotify), Fifo("20_2", comp::kFifoRouteNotify)};
    const char* t = buf->caText;
    Route(PlatMsg(4242, 10, 7, 5001, "10.0.0.1", "0001A"));
    Route(PlatMsg(4242, 10, 8, 5002, "10.0.0.2", "0001B"));
    ASSERT_EQ(Answer(20), 69) << Trace();
    EXPECT_EQ(At<int32_t>(t, p::kSock), 7) << "the request goes to the client route as it came";
    EXPECT_EQ(Answer(20), 0) << "B waits until A is answered";
    EXPECT_EQ(router->book().waiting(20), 1u);

    // A TC answer carries the TC's pid, route 20 and its own socket only:
    // it can only be A's.
    Route(PlatMsg(6000, 20, 4, 7020, "127.0.0.1", "0002ra"));
    ASSERT_EQ(Answer(4242), 70) << Trace();
    EXPECT_EQ(At<int32_t>(t, p::kSock), 7);
    EXPECT_STREQ(t + p::kPort, "10.0.0.1");
    EXPECT_EQ(std::string(t + 64, 6), "0002ra");
    ASSERT_EQ(Answer(20), 69) << "then B is sent" << Trace();
    EXPECT_EQ(At<int32_t>(t, p::kSock), 8);

    Route(PlatMsg(6001, 20, 5, 7020, "127.0.0.1", "0002rb"));
    ASSERT_EQ(Answer(4242), 70);
    EXPECT_EQ(At<int32_t>(t, p::kSock), 8);
    EXPECT_STREQ(t + p::kPort, "10.0.0.2");
    EXPECT_EQ(Rings(tsRing), 2);
    EXPECT_EQ(Rings(tcRings[0]) + Rings(tcRings[1]), 2);

    Route(PlatMsg(6000, 20, 4, 7020, "127.0.0.1", "0005late!"));
    EXPECT_EQ(Answer(0), 0);
    EXPECT_NE(Trace().find("matches no request in flight; dropped"), std::string::npos) << Trace();
}

TEST_F(RouterTest, a_request_without_answer_is_given_up_after_the_relay_timeout_and_the_route_serves_again) {
    Configure("route 10 SysTCPTS relay 20\nroute 20 SysTCPTC\nrelay-timeout 5\n");
    Fifo("4242", comp::kFifoPidNotify);
    Fifo("20_1", comp::kFifoRouteNotify);
    Route(PlatMsg(4242, 10, 7, 5001, "10.0.0.1", "0001A"));
    ASSERT_EQ(Answer(20), 69) << Trace();
    router->expire(kit::NowMs() + 4000, &trace);
    EXPECT_TRUE(router->book().inFlight(20)) << "not yet";
    router->expire(kit::NowMs() + 6000, &trace);
    EXPECT_FALSE(router->book().inFlight(20));
    EXPECT_NE(Trace().find("route 20 did not answer within 5 s; gave up the request of route 10 fd 7"),
              std::string::npos) << Trace();

    Route(PlatMsg(4242, 10, 9, 5003, "10.0.0.3", "0001C"));
    EXPECT_EQ(Answer(20), 69) << "the next request goes out at once";
}

TEST_F(RouterTest, nothing_is_queued_for_a_reader_whose_fifo_is_gone) {
    Configure("route 10 SysTCPTS echo\nroute 11 SysTCPTS relay 20\nroute 20 SysTCPTC\n");
    Route(PlatMsg(4242, 10, 7, 5001, "10.0.0.1", "0001A"));
    Route(PlatMsg(4242, 11, 7, 5001, "10.0.0.1", "0001A"));
    EXPECT_EQ(Answer(0), 0);
    EXPECT_FALSE(router->book().inFlight(20)) << "an undelivered request waits for no answer";
    EXPECT_EQ(router->book().waiting(20), 0u);
    EXPECT_NE(Trace().find("FIFO 1_4242 is missing"), std::string::npos) << Trace();
    EXPECT_NE(Trace().find("no FIFO 2_20_*"), std::string::npos) << Trace();
}

TEST_F(RouterTest, notifications_are_traced_and_not_answered) {
    Configure("route 10 SysTCPPAS echo listen 127.0.0.1:1\n");
    Fifo("4242", comp::kFifoPidNotify);
    std::string body(68, '\0');
    body.replace(0, 12, "N00110.0.0.9");
    body.replace(20, 7, "0.0.0.0");
    Route(PlatMsg(4242, 10, 7, 5009, "10.0.0.9", body, 1));
    EXPECT_EQ(Answer(0), 0);
    ASSERT_FALSE(trace.empty());
    EXPECT_EQ(trace[0], "<- N001 pid 4242 route 10 fd 7 ip 10.0.0.9 port 5009 [0.0.0.0] [] []");
}

TEST_F(RouterTest, station_route_gets_tranps_part_of_the_sequences_and_echoes_transactions) {
    Configure("route 70 SysTCPVANTREL station\n");
    const int ring = Fifo("4242", comp::kFifoPidNotify);
    namespace st = kit::station;
    auto n004 = [](uint32_t cmd) { return std::string("N004") + std::string(reinterpret_cast<char*>(&cmd), 4); };
    auto frameOf = [](const st::Bytes& f) { return std::string(f.begin(), f.end()); };
    auto answered = [&]() {
        int n = Answer(4242);
        return n > 64 ? st::Bytes(buf->caText + 64, buf->caText + n) : st::Bytes();
    };

    Route(PlatMsg(4242, 70, 0, 47070, "127.0.0.1", n004(0x00FF5109)));
    EXPECT_EQ(trace[0], "<- N004 pid 4242 route 70 peer 127.0.0.1:47070 command 0x00FF5109");
    EXPECT_EQ(st::CodeOf(answered()), "00FF5109") << Trace();
    Route(PlatMsg(4242, 70, 5, 47070, "127.0.0.1", frameOf(st::Control(0x520C, 3))));
    EXPECT_EQ(st::CodeOf(answered()), "04005401");
    Route(PlatMsg(4242, 70, 0, 47070, "127.0.0.1", n004(0x05003101)));
    EXPECT_EQ(st::CodeOf(answered()), "05003101");
    Route(PlatMsg(4242, 70, 5, 47070, "127.0.0.1", frameOf(st::Trade("hi", 4))));
    st::Bytes echo = answered();
    EXPECT_EQ(std::string(echo.begin() + 39, echo.end() - 5), "echo: hi");
    // Commands with no part for TranP, and acknowledgements, are only traced.
    trace.clear();
    Route(PlatMsg(4242, 70, 0, 47070, "127.0.0.1", n004(0x0500FFFF)));
    Route(PlatMsg(4242, 70, 5, 47070, "127.0.0.1", "N005" + std::string(28, 'A')));
    EXPECT_EQ(Answer(0), 0);
    ASSERT_EQ(trace.size(), 2u);
    EXPECT_EQ(trace[1], "<- N005 pid 4242 route 70 fd 5 peer 127.0.0.1:47070 value " + std::string(28, 'A'));
    EXPECT_EQ(Rings(ring), 4);
}

TEST(RelayBook, gives_up_the_request_in_flight_and_forgets_the_waiting_ones_past_their_age) {
    kit::RelayBook book;
    for (int64_t since : {1000, 2000, 5000})
        book.queue(20, {std::vector<char>(64, char(since / 1000)), kit::AnswerForm::kTsPeerIpAt24, since});
    ASSERT_NE(book.startNext(20, 1000), nullptr);
    EXPECT_EQ(book.startNext(20, 1000), nullptr) << "one in flight at a time";

    std::vector<std::pair<int, kit::RelayBook::Entry>> givenUp;
    EXPECT_EQ(book.expire(12001, 10000, &givenUp), 1) << "the one that came at 2000 waited too long";
    ASSERT_EQ(givenUp.size(), 1u);
    EXPECT_EQ(givenUp[0].first, 20);
    EXPECT_EQ(givenUp[0].second.text[0], 1);
    const kit::RelayBook::Entry* next = book.startNext(20, 12001);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->text[0], 5);
    EXPECT_EQ(book.waiting(20), 0u);
}

TEST(KitConfig, mistakes_are_reported_with_their_line) {
    struct Case {
        const char* text;
        const char* what;
    } cases[] = {
        {"route 10 SysTCPXX\n", "compkit.cfg:1: unknown mode 'SysTCPXX'"},
        {"\nroute 100 SysTCPTS\n", "compkit.cfg:2: route id '100' is not 1..99"},
        {"route 30 SysTCPPS echo\n", "compkit.cfg:1: SysTCPPS shares a listener"},
        {"route 10 SysTCPTS listen 1.2.3.4:5\n", "does not take a listener"},
        {"route 10 SysTCPTS relay 20\n", "compkit.cfg:1: relay target route 20 is not configured"},
        {"route 10 SysTCPTS relay 20\nroute 20 SysTCPTS\n", "must be a client route"},
        {"route 10 SysTCPTS relay 20\nroute 11 SysTCPTS relay 20\nroute 20 SysTCPTC\n", "already serves another relay"},
        {"route 10 SysTCPTS relay 20\nroute 20 SysTCPTC echo\n", "compkit.cfg:2: route 20 serves a relay"},
        {"instance 10 1\n", "compkit.cfg:1: route 10 has no route line"},
        {"route 10 SysTCPTS\ninstance 10 1\ninstance 10 1\n", "compkit.cfg:3: instance 1 of route 10 is listed twice"},
        {"start everything\n", "compkit.cfg:1: unknown line 'start'"},
        {"route 10 SysTCPTS station\n", "compkit.cfg:1: only a SysTCPVANTREL route plays the station sequences"},
    };
    for (const Case& c : cases) {
        kit::KitConfig cfg;
        std::string why;
        EXPECT_FALSE(kit::ParseKitConfig(c.text, "compkit.cfg", &cfg, &why)) << c.text;
        EXPECT_NE(why.find(c.what), std::string::npos) << why;
    }
}

TEST(Framing, every_length_encoding_is_written_as_routes_read_it_and_survives_single_byte_reads) {
    const std::pair<const char*, std::string> cases[] = {
        // rule, the header of a 5-byte body (padded with '0')
        {"4,0,4,0", "0005"},
        {"8,2,4,1", std::string("00\0\0\0\x05" "00", 8)},
        {"6,4,2,2,1", std::string("0000\x05\0", 6)},  // host byte order
        {"10,0,4,3,0,-10", std::string("\0\0\0\x0f" "000000", 10)},
        {"5,1,3,0,0,2", "00030"},
    };
    for (const auto& [rule, header] : cases) {
        std::string why;
        auto f = kit::Framing::Parse(rule, &why);
        ASSERT_TRUE(f) << rule << ": " << why;
        std::vector<char> m = f->encode("hello");
        EXPECT_EQ(std::string(m.begin(), m.end()), header + "hello") << rule;
        const std::vector<std::string> sent{"hello", "", std::string(300, 'x')};
        std::vector<char> stream;
        for (const std::string& body : sent) {
            m = f->encode(body);
            stream.insert(stream.end(), m.begin(), m.end());
        }
        kit::FrameReader reader(*f);
        std::vector<std::string> bodies;
        for (char c : stream) {
            reader.feed(&c, 1);
            bool bad = false;
            if (auto got = reader.next(&bad)) bodies.emplace_back(got->begin() + f->headerLen, got->end());
            ASSERT_FALSE(bad) << rule;
        }
        EXPECT_EQ(bodies, sent) << rule;
    }
    std::string why;
    EXPECT_FALSE(kit::Framing::Parse("4,2,4,1", &why)) << "a 32-bit field past the header";
    EXPECT_FALSE(kit::Framing::Parse("4,0,4,7", &why));
    EXPECT_EQ(kit::Framing::Parse("2,0,2,2", &why)->bodyLength("\xFF\xFF"), -1) << "past 65,535 bytes";
    EXPECT_EQ(kit::Framing::Parse("4,0,4,0,0,-10", &why)->bodyLength("0005"), -1) << "a negative body length";

    // What the length field can hold, and comp's message limit.
    const auto digits = kit::Framing::Parse("4,0,4,0", &why);
    EXPECT_TRUE(digits->fits(9999, &why));
    EXPECT_FALSE(digits->fits(10000, &why));
    EXPECT_NE(why.find("(0 to 9999)"), std::string::npos) << why;
    EXPECT_FALSE(kit::Framing::Parse("2,0,2,2", &why)->fits(65534, &why)) << "65,536 bytes in all";
    EXPECT_TRUE(kit::Framing::Parse("4,0,4,0,0,-4", &why)->fits(4, &why)) << "the field counts the header too";
}

TEST(NetTools, send_gets_the_echo_server_answer_with_the_route_framing_of_tables_cfg) {
    comptest::TempRunDir run;
    run.write("etc/tables.cfg",
              "[PLAT_STATICROUTEINF]\nROUTEID HEADERLEN MSGLENGETLEN MSGLENGETOFFSET MSGLENGETTYPE MSGLENINTEL\n"
              "10 6 2 4 2 0\n");
    const int port = comptest::FreeLoopbackPort();
    const std::string addr = "127.0.0.1:" + std::to_string(port);
    kit::SpawnOptions server;
    server.path = comptest::CompkitBinary();
    server.argv = {server.path, "echo-server", addr, "--rundir", run.path(), "--route", "10", "--prefix", "re:"};
    server.outputPath = run.file("log/echo.out");
    std::string why;
    const pid_t srv = kit::Spawn(server, &why);
    ASSERT_GT(srv, 0) << why;
    for (int i = 0; i < 100 && comptest::ReadFile(server.outputPath).find("listening") == std::string::npos; ++i)
        kit::SleepMs(20);

    kit::SpawnOptions send;
    send.path = server.path;
    send.argv = {send.path, "send", addr, "--rundir", run.path(), "--route", "10", "--header", "HDR", "hi", "there"};
    send.outputPath = run.file("log/send.out");
    const pid_t cli = kit::Spawn(send, &why);
    int status = -1;
    EXPECT_TRUE(kit::WaitChild(cli, 10000, &status));
    kit::StopChild(srv, 3000);
    const std::string out = comptest::ReadFile(send.outputPath);
    EXPECT_EQ(status, 0) << out << comptest::ReadFile(server.outputPath);
    EXPECT_NE(out.find("answer header \"HDR0\\x00\\x0B\" body \"re:hi there\""), std::string::npos) << out;
}

TEST(NetTools, echo_server_refuses_an_answer_its_length_field_cannot_hold) {
    comptest::TempRunDir run;
    const int port = comptest::FreeLoopbackPort();
    kit::SpawnOptions server;
    server.path = comptest::CompkitBinary();
    server.argv = {server.path, "echo-server", "127.0.0.1:" + std::to_string(port), "--frame", "4,0,4,0",
                   "--prefix", "echo: "};
    server.outputPath = run.file("log/echo.out");
    std::string why;
    const pid_t srv = kit::Spawn(server, &why);
    ASSERT_GT(srv, 0) << why;

    // 9,993 bytes and the prefix make 9,999: the largest the four digits hold.
    const std::string fits(9993, 'f');
    comp::UniqueFd a = comptest::Connect(port);
    ASSERT_TRUE(comptest::Send(a.get(), comptest::Frame(fits)));
    EXPECT_EQ(comptest::ReadFrame(a.get(), 5000), "9999echo: " + fits);

    comp::UniqueFd b = comptest::Connect(port);
    ASSERT_TRUE(comptest::Send(b.get(), comptest::Frame(fits + "xy")));
    bool closed = false;
    EXPECT_EQ(comptest::ReadUntilClose(b.get(), 5000, &closed), "") << "no answer with a wrong length";
    EXPECT_TRUE(closed);
    kit::StopChild(srv, 3000);
    EXPECT_NE(comptest::ReadFile(server.outputPath).find("not answered: a body of 10001 bytes"), std::string::npos)
        << comptest::ReadFile(server.outputPath);
}

TEST(NetTools, echo_server_keeps_the_connection_and_sends_and_answers_heartbeats) {
    comptest::TempRunDir run;
    const int port = comptest::FreeLoopbackPort();
    kit::SpawnOptions server;
    server.path = comptest::CompkitBinary();
    server.argv = {server.path, "echo-server", "127.0.0.1:" + std::to_string(port), "--frame", "4,0,4,0",
                   "--prefix", "re:", "--heartbeat", "0602", "--beat-every", "1"};
    server.outputPath = run.file("log/echo.out");
    std::string why;
    const pid_t srv = kit::Spawn(server, &why);
    ASSERT_GT(srv, 0) << why;
    comp::UniqueFd c = comptest::Connect(port);
    const int64_t start = kit::NowMs();
    EXPECT_EQ(comptest::ReadFrame(c.get(), 3000), "00040602") << "a heartbeat after a second of silence";
    EXPECT_GE(kit::NowMs() - start, 900);
    ASSERT_TRUE(comptest::Send(c.get(), comptest::Frame("0602") + comptest::Frame("x")));
    EXPECT_EQ(comptest::ReadFrame(c.get(), 3000), "00040602") << "a heartbeat is answered with one";
    EXPECT_EQ(comptest::ReadFrame(c.get(), 3000), "0004re:x");
    EXPECT_EQ(comptest::ReadFrame(c.get(), 3000), "00040602") << "the connection stays, and so do the beats";
    kit::StopChild(srv, 3000);
}

}  // namespace
