// The test's end of a forwarder link: units built and read with the modes'
// own header code, the framed messages behind them cut exactly, so that
// nothing of the next unit is read with one.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <filesystem>
#include <string>

#include "TestEnv.h"
#include "kit/Framing.h"
#include "kit/KitUtil.h"
#include "modes/FwHeader.h"

namespace fwtest {

namespace fw = comp::fw;

// Exactly n bytes within ms; fewer when the peer closed or the time ran out.
inline std::string ReadExactly(int fd, size_t n, int ms) {
    std::string out;
    const int64_t deadline = kit::NowMs() + ms;
    while (out.size() < n) {
        const int64_t left = deadline - kit::NowMs();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) break;
        char buf[65536];
        ssize_t got = recv(fd, buf, std::min(sizeof buf, n - out.size()), 0);
        if (got <= 0) break;
        out.append(buf, static_cast<size_t>(got));
    }
    return out;
}

// One framed message (header and body) of framing f, or "".
inline std::string ReadMessage(int fd, int ms, const kit::Framing& f = {}) {
    std::string head = ReadExactly(fd, static_cast<size_t>(f.headerLen), ms);
    if (head.size() != static_cast<size_t>(f.headerLen)) return "";
    const long body = f.bodyLength(head.data());
    if (body < 0) return "";
    std::string rest = ReadExactly(fd, static_cast<size_t>(body), ms);
    return rest.size() == static_cast<size_t>(body) ? head + rest : "";
}

struct LinkUnit {
    fw::ExHeader hdr;
    std::string raw;   // the 64 header bytes
    std::string msg;   // the framed message behind them
    explicit operator bool() const { return raw.size() == fw::kHeaderLen; }
};

// One unit as `reader` reads it: the test reads as kServer what a forwarder
// sends, as kForwarder what a server sends.
inline LinkUnit ReadUnit(int fd, fw::Reader reader, int ms, const kit::Framing& f = {}) {
    LinkUnit u;
    std::string raw = ReadExactly(fd, fw::kHeaderLen, ms);
    if (raw.size() != fw::kHeaderLen) return u;
    fw::Parse(raw.data(), &u.hdr);
    if (fw::CarriesMessage(u.hdr.kind, reader)) {
        u.msg = ReadMessage(fd, ms, f);
        if (u.msg.empty()) return u;
    }
    u.raw = raw;
    return u;
}

// The bytes of one unit.
inline std::string UnitBytes(char kind, const std::string& ip, int port, const std::string& msg = "",
                             const fw::FtpFields* ftp = nullptr) {
    char h[fw::kHeaderLen];
    fw::Build(kind, ip.c_str(), port, ftp, h);
    return std::string(h, sizeof h) + msg;
}

// Everything in the connection logs under dir.
inline std::string ConnLogs(const std::string& dir) {
    std::string all;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) all += comptest::ReadFile(e.path().string());
    return all;
}

}  // namespace fwtest
