// The forwarder link's extended header: its bytes, reading one unit of the
// link as each side does, and sending a unit to a peer that is behind.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "UnitFixture.h"
#include "modes/FwHeader.h"

namespace {

namespace fw = comp::fw;
using comptest::MakeRoute;

// A 4-byte header holding the body length in decimal digits.
RouteRecord DecimalRoute() {
    return MakeRoute({{RT_ROUTEID, "61"}, {RT_HEADERLEN, "4"}, {RT_MSGLENGETLEN, "4"}, {RT_MSGLENGETOFFSET, "0"},
                      {RT_MSGLENGETTYPE, "0"}, {RT_MSGLENINTEL, "0"}, {RT_MSGLENADJUST, "0"}});
}

std::string Header(char kind, const char* ip, int32_t port, const fw::FtpFields* ftp = nullptr) {
    char h[fw::kHeaderLen];
    EXPECT_EQ(fw::Build(kind, ip, port, ftp, h), fw::kHeaderLen);
    return std::string(h, sizeof h);
}

class LinkTest : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        fcntl(sv[0], F_SETFL, O_NONBLOCK);
        buf = std::make_unique<QueueMsg>();
    }
    void TearDown() override {
        for (int fd : sv)
            if (fd >= 0) close(fd);
        UnitTest::TearDown();
    }
    // Puts bytes on the link; with bClose the writer leaves after them.
    void Feed(const std::string& bytes, bool bClose = true) {
        ASSERT_EQ(write(sv[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        if (bClose) shutdown(sv[1], SHUT_WR);
    }
    fw::UnitStatus Read(fw::Reader who) { return fw::ReadUnit(sv[0], who, route, buf.get(), &unit); }

    int sv[2] = {-1, -1};
    RouteRecord route = DecimalRoute();
    std::unique_ptr<QueueMsg> buf;
    fw::Unit unit;
};

TEST(FwHeader, connect_header_carries_the_ftp_texts_cut_to_their_widths) {
    fw::FtpFields ftp{};
    fw::PutText(ftp.server, fw::kFtpServerLen, "ftp.example.internal");   // 20 characters
    fw::PutText(ftp.user, fw::kFtpUserLen, "transfer-user-1");            // 15
    fw::PutText(ftp.pwd, fw::kFtpPwdLen, "secret");
    const std::string h = Header(fw::kConnect, "10.1.2.3", 40001, &ftp);

    EXPECT_EQ(h[0], 'A');
    EXPECT_EQ(h.substr(1, 16), std::string("10.1.2.3") + std::string(8, '\0'));
    int32_t port = 0;
    std::memcpy(&port, h.data() + 17, 4);
    EXPECT_EQ(port, 40001);
    EXPECT_EQ(h.substr(21, 16), "ftp.example.inte");
    EXPECT_EQ(h.substr(37, 12), "transfer-use");
    EXPECT_EQ(h.substr(49, 15), std::string("secret") + std::string(9, '\0'));

    fw::ExHeader back;
    ASSERT_TRUE(fw::Parse(h.data(), &back));
    EXPECT_STREQ(back.ip, "10.1.2.3");
    EXPECT_EQ(back.port, 40001);
    EXPECT_EQ(std::string(back.ftp.user, 12), "transfer-use");
}

TEST(FwHeader, only_connect_headers_carry_ftp_texts_and_a_full_ip_field_has_no_nul) {
    fw::FtpFields ftp{};
    fw::PutText(ftp.server, fw::kFtpServerLen, "host");
    const std::string h = Header(fw::kData, "255.255.255.255x", 1, &ftp);   // 16 characters
    EXPECT_EQ(h.substr(21), std::string(43, '\0'));
    fw::ExHeader back;
    ASSERT_TRUE(fw::Parse(h.data(), &back));
    EXPECT_STREQ(back.ip, "255.255.255.255x");
}

TEST(FwHeader, kinds_and_what_follows_them) {
    for (char k : {'A', 'F', 'Z', 'B'}) EXPECT_TRUE(fw::KnownKind(k)) << k;
    for (char k : {'\0', 'a', 'Q', '\xff'}) EXPECT_FALSE(fw::KnownKind(k)) << int(k);
    fw::ExHeader h;
    EXPECT_FALSE(fw::Parse(Header('Q', "1.2.3.4", 5).data(), &h));
    EXPECT_EQ(h.kind, 'Q');

    EXPECT_TRUE(fw::CarriesMessage('F', fw::Reader::kServer));
    EXPECT_TRUE(fw::CarriesMessage('B', fw::Reader::kServer));
    EXPECT_FALSE(fw::CarriesMessage('A', fw::Reader::kServer));
    EXPECT_FALSE(fw::CarriesMessage('Z', fw::Reader::kServer));
    for (char k : {'A', 'Z', 'Q'}) EXPECT_TRUE(fw::CarriesMessage(k, fw::Reader::kForwarder)) << k;
}

TEST_F(LinkTest, units_of_a_forwarder_are_read_one_at_a_time) {
    Feed(Header('A', "10.0.0.1", 7) + Header('F', "10.0.0.1", 7) + "0003abc" + Header('Z', "10.0.0.1", 7));
    ASSERT_EQ(Read(fw::Reader::kServer), fw::UnitStatus::kOk);
    EXPECT_EQ(unit.hdr.kind, 'A');
    EXPECT_EQ(unit.msgLen, 0);
    ASSERT_EQ(Read(fw::Reader::kServer), fw::UnitStatus::kOk);
    EXPECT_EQ(unit.hdr.kind, 'F');
    EXPECT_EQ(std::string(buf->caText, unit.msgLen), "0003abc");
    ASSERT_EQ(Read(fw::Reader::kServer), fw::UnitStatus::kOk);
    EXPECT_EQ(unit.hdr.kind, 'Z');
    EXPECT_EQ(Read(fw::Reader::kServer), fw::UnitStatus::kHeaderShort);
    EXPECT_EQ(unit.headerGot, 0);
}

TEST_F(LinkTest, a_server_stops_at_an_unknown_kind_a_forwarder_skips_its_message) {
    const std::string units = Header('Q', "10.0.0.1", 7) + "0002xy" + Header('F', "10.0.0.1", 7) + "0001z";
    Feed(units);
    EXPECT_EQ(Read(fw::Reader::kServer), fw::UnitStatus::kUnknownKind);
    EXPECT_EQ(unit.msgLen, 0) << "nothing behind the header is read";

    int again[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, again), 0);
    ASSERT_EQ(write(again[1], units.data(), units.size()), static_cast<ssize_t>(units.size()));
    EXPECT_EQ(fw::ReadUnit(again[0], fw::Reader::kForwarder, route, buf.get(), &unit), fw::UnitStatus::kUnknownKind);
    EXPECT_EQ(unit.msgLen, 6);
    EXPECT_EQ(fw::ReadUnit(again[0], fw::Reader::kForwarder, route, buf.get(), &unit), fw::UnitStatus::kOk);
    EXPECT_EQ(std::string(buf->caText, unit.msgLen), "0001z");
    close(again[0]);
    close(again[1]);
}

TEST_F(LinkTest, truncated_header_and_a_length_past_the_message_fail_the_unit) {
    Feed(Header('F', "10.0.0.1", 7).substr(0, 40));
    EXPECT_EQ(Read(fw::Reader::kServer), fw::UnitStatus::kHeaderShort);
    EXPECT_EQ(unit.headerGot, 40);

    close(sv[0]);
    close(sv[1]);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    fcntl(sv[0], F_SETFL, O_NONBLOCK);
    Feed(Header('F', "10.0.0.1", 7) + "0100only-this", false);   // the writer stays, silent
    EXPECT_EQ(Read(fw::Reader::kServer), fw::UnitStatus::kMessageFailed);
    EXPECT_EQ(unit.err, EAGAIN);
}

TEST_F(LinkTest, send_waits_for_a_peer_that_is_behind_and_gives_up_when_it_stays_stuck) {
    const int small = 4096;
    setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    fcntl(sv[1], F_SETFL, O_NONBLOCK);
    const std::string hdr = Header('F', "10.0.0.1", 7);
    const std::string body(200000, 'b');   // far more than the socket pair holds

    // Nobody reads: the wait runs out.
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(fw::SendUnit(sv[1], hdr.data(), body.data(), static_cast<int>(body.size()), 100), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(100));

    // A reader that drains: the unit arrives whole behind what was stuck.
    close(sv[0]);
    close(sv[1]);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    fcntl(sv[1], F_SETFL, O_NONBLOCK);
    std::string got;
    std::thread reader([&] {
        char b[8192];
        ssize_t n;
        while ((n = read(sv[0], b, sizeof b)) > 0) got.append(b, static_cast<size_t>(n));
    });
    EXPECT_EQ(fw::SendUnit(sv[1], hdr.data(), body.data(), static_cast<int>(body.size())), 0);
    EXPECT_EQ(fw::SendUnit(sv[1], hdr.data(), nullptr, 0), 0);
    shutdown(sv[1], SHUT_WR);
    reader.join();
    EXPECT_EQ(got, hdr + body + hdr);
}

}  // namespace
