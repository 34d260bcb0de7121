// compkit.cfg, the framing of compkit send and echo-server, and the two
// tools talking to each other.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Platform.h"
#include "kit/Framing.h"
#include "kit/KitConfig.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace {

TEST(KitConfig, routes_instances_and_relays_are_read) {
    kit::KitConfig cfg;
    std::string why;
    ASSERT_TRUE(kit::ParseKitConfig("# front\nroute 10 SysTCPTS relay 20   # to the server\nroute 20 SysTCPTC\n"
                                    "route 30 SysTCPPAS echo listen 127.0.0.1:7030\ninstance 10 1\ninstance 20 2\n"
                                    "relay-timeout 5\n",
                                    "compkit.cfg", &cfg, &why))
        << why;
    ASSERT_EQ(cfg.routes.size(), 3u);
    EXPECT_EQ(cfg.relayTimeoutSec, 5);
    EXPECT_EQ(cfg.relaySourceOf(20), cfg.findRoute(10));
    EXPECT_EQ(cfg.findRoute(30)->listenPort, 7030);
    EXPECT_EQ(cfg.findRoute(30)->mode->form, kit::AnswerForm::kByPid);
    EXPECT_EQ(cfg.instances.size(), 2u);
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
    };
    for (const Case& c : cases) {
        kit::KitConfig cfg;
        std::string why;
        EXPECT_FALSE(kit::ParseKitConfig(c.text, "compkit.cfg", &cfg, &why)) << c.text;
        EXPECT_NE(why.find(c.what), std::string::npos) << why;
    }
}

TEST(Framing, every_length_encoding_survives_a_stream_cut_into_single_bytes) {
    const char* rules[] = {"4,0,4,0", "8,2,4,1", "6,4,2,2,1", "10,0,4,3,0,-10", "5,1,3,0,0,2"};
    for (const char* rule : rules) {
        std::string why;
        auto f = kit::Framing::Parse(rule, &why);
        ASSERT_TRUE(f) << rule << ": " << why;
        const std::vector<std::string> sent{"hello", "", std::string(300, 'x')};
        std::vector<char> stream;
        for (const std::string& body : sent) {
            std::vector<char> m = f->encode(body);
            stream.insert(stream.end(), m.begin(), m.end());
        }
        kit::FrameReader reader(*f);
        std::vector<std::string> bodies;
        for (char c : stream) {
            reader.feed(&c, 1);
            bool bad = false;
            if (auto m = reader.next(&bad)) bodies.emplace_back(m->begin() + f->headerLen, m->end());
            ASSERT_FALSE(bad) << rule;
        }
        EXPECT_EQ(bodies, sent) << rule;
    }
}

TEST(Framing, the_length_field_is_written_as_the_route_reads_it) {
    std::string why;
    auto text = kit::Framing::Parse("4,0,4,0", &why);
    std::vector<char> m = text->encode("hello");
    EXPECT_EQ(std::string(m.begin(), m.end()), "0005hello");
    auto net16 = kit::Framing::Parse("4,2,2,2", &why);
    m = net16->encode(std::string(0x0102, 'a'), "AB");
    EXPECT_EQ(std::string(m.begin(), m.begin() + 4), std::string("AB\x01\x02", 4));
    EXPECT_FALSE(kit::Framing::Parse("4,2,4,1", &why)) << "a 32-bit field past the header";
    EXPECT_FALSE(kit::Framing::Parse("4,0,4,7", &why));
    auto bin16 = kit::Framing::Parse("2,0,2,2", &why);
    EXPECT_EQ(bin16->bodyLength("\xFF\xFF"), -1) << "a message past 65,535 bytes is unusable";
    auto adjusted = kit::Framing::Parse("4,0,4,0,0,-10", &why);
    EXPECT_EQ(adjusted->bodyLength("0005"), -1) << "a negative body length is unusable";
}

class NetTools : public ::testing::Test {
protected:
    comptest::TempRunDir run;
};

TEST_F(NetTools, send_gets_the_echo_server_answer_with_the_route_framing_of_tables_cfg) {
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

}  // namespace
