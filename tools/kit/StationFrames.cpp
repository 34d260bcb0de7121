#include "kit/StationFrames.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "modes/SysVantrel.h"
#include "util/SysChecksum.h"

namespace kit::station {

namespace v = comp::vantrel;

namespace {

template <typename T>
void Put(Bytes& b, int off, T value) {
    std::memcpy(b.data() + off, &value, sizeof value);
}
template <typename T>
T Get(const Bytes& b, int off) {
    T value{};
    if (off >= 0 && static_cast<size_t>(off) + sizeof value <= b.size()) std::memcpy(&value, b.data() + off, sizeof value);
    return value;
}
unsigned char ByteAt(const Bytes& b, int off) { return off >= 0 && static_cast<size_t>(off) < b.size() ? b[off] : 0; }

unsigned char Bcd(int n) { return static_cast<unsigned char>(((n / 10) << 4) | (n % 10)); }

void StampNow(Bytes& f) {
    time_t t = time(nullptr);
    tm local{};
    localtime_r(&t, &local);
    const int year = local.tm_year + 1900;
    const unsigned char stamp[v::kTimeLen] = {Bcd(year / 100), Bcd(year % 100), Bcd(local.tm_mon + 1), Bcd(local.tm_mday),
                                              Bcd(local.tm_hour),  Bcd(local.tm_min),  Bcd(local.tm_sec)};
    std::memcpy(f.data() + v::kTimeAt, stamp, sizeof stamp);
}

}  // namespace

Bytes Encode(const Frame& fr) {
    const size_t len = v::kOverhead + fr.body.size();
    Bytes f(len, 0);
    f[v::kBeginTagAt] = v::kBeginTag;
    Put(f, v::kLenAt, static_cast<uint32_t>(len));
    Put(f, v::kWord5At, static_cast<uint32_t>(1));
    f[v::kByte9At] = 1;
    f[v::kByte10At] = 1;
    f[v::kClassAt] = static_cast<unsigned char>(fr.cls);
    f[v::kByte12At] = 0xFF;
    f[v::kSubTypeAt] = fr.sub;
    StampNow(f);
    Put(f, v::kSerialAt, fr.serial);
    f[v::kByte23At] = 0x5D;
    f[v::kStationAt] = static_cast<unsigned char>(fr.station >> 8);
    f[v::kStationAt + 1] = static_cast<unsigned char>(fr.station & 0xFF);
    f[v::kByte26At] = 1;
    f[v::kGroup1At] = fr.group1;
    f[v::kGroup2At] = fr.group2;
    Put(f, v::kWord29At, static_cast<uint16_t>(5));
    f[v::kPktCountAt] = static_cast<unsigned char>(fr.pktCount);
    f[v::kPktNoAt] = static_cast<unsigned char>(fr.pktNo);
    f[v::kSentAt] = 1;
    f[v::kHeaderEndAt] = 0xFF;
    std::memcpy(f.data() + v::kBodyAt, fr.body.data(), fr.body.size());
    uint32_t crc = fr.body.empty() ? 0 : SysGenCrc32Value(fr.body.data(), static_cast<int>(fr.body.size()), 0);
    if (fr.badCrc) crc ^= 0x5A5A5A5Au;
    Put(f, static_cast<int>(len) - v::kTrailerLen, crc);
    f[len - 1] = v::kEndTag;
    return f;
}

Bytes CodeBody(uint16_t code, size_t extra) {
    Bytes b(2 + extra, 0);
    Put(b, 0, code);
    return b;
}

Bytes ConnectRequest(uint16_t serial) {
    return Encode(Frame{.cls = v::kClassAnswer, .sub = v::kSubRequest, .serial = serial, .body = CodeBody(0x5109, 2)});
}

Bytes ConnectFeedback(const unsigned char* identity, bool accepted, uint16_t serial) {
    Bytes body(kIdentityLen + 4, 0);
    std::memcpy(body.data(), identity, kIdentityLen);
    Put(body, kIdentityLen, static_cast<uint16_t>(0x5109));
    body[kIdentityLen + 2] = accepted ? 1 : 0;
    return Encode(Frame{.cls = v::kClassAnswer, .sub = v::kSubReqFeedback, .serial = serial, .body = body});
}

Bytes Control(uint16_t code, uint16_t serial, uint16_t value41) {
    Bytes body = CodeBody(code, 4);
    Put(body, 2, value41);
    return Encode(Frame{.cls = v::kClassControl, .sub = 0x01, .serial = serial, .body = body});
}

Bytes ParamAnswer() {
    Bytes body(kIdentityLen + 4, 0);
    Put(body, kIdentityLen, static_cast<uint16_t>(0x5401));
    return Encode(Frame{.cls = v::kClassControl, .sub = v::kSubFeedback, .body = body});
}

Bytes SeqAck(uint16_t serial) {
    return Encode(Frame{.cls = v::kClassSequence, .sub = 0x01, .serial = serial, .body = CodeBody(0x3101, 2)});
}

Bytes Trade(std::string_view text, uint16_t serial) {
    return Encode(Frame{.cls = v::kClassTrade, .sub = 0x01, .serial = serial, .body = Bytes(text.begin(), text.end())});
}

Bytes Business(unsigned char b92, unsigned char b93, std::string_view text, uint16_t serial) {
    // The text around the two code bytes at frame offsets 92 and 93.
    constexpr size_t kAt = v::kBizCodeAt - v::kBodyAt;
    std::string body(text.substr(0, kAt));
    body.resize(kAt, ' ');
    body.push_back(static_cast<char>(b92));
    body.push_back(static_cast<char>(b93));
    if (text.size() > kAt) body.append(text.substr(kAt));
    return Encode(Frame{.cls = v::kClassBusiness, .sub = 0x01, .serial = serial, .body = Bytes(body.begin(), body.end())});
}

Bytes KeepAlive(uint16_t serial) {
    return Encode(Frame{.cls = v::kClassAnswer, .sub = v::kSubKeepAlive, .serial = serial, .body = {}});
}

Bytes Ack(const unsigned char* identity, bool nack, uint16_t serial) {
    return Encode(Frame{.cls = v::kClassAnswer,
                        .sub = nack ? v::kSubNack : v::kSubAck,
                        .serial = serial,
                        .body = Bytes(identity, identity + kIdentityLen)});
}

uint32_t LengthOf(const Bytes& f) { return Get<uint32_t>(f, v::kLenAt); }
int ClassOf(const Bytes& f) { return ByteAt(f, v::kClassAt); }
int SubOf(const Bytes& f) { return ByteAt(f, v::kSubTypeAt); }
uint16_t SerialOf(const Bytes& f) { return Get<uint16_t>(f, v::kSerialAt); }

Bytes IdentityOf(const Bytes& f) {
    Bytes id(kIdentityLen, 0);
    for (int i = 0; i < kIdentityLen; ++i) id[i] = ByteAt(f, kIdentityAt + i);
    return id;
}

Bytes AckedIdentity(const Bytes& f) {
    Bytes id(kIdentityLen, 0);
    for (int i = 0; i < kIdentityLen; ++i) id[i] = ByteAt(f, v::kBodyAt + i);
    return id;
}

bool CrcOk(const Bytes& f) {
    const int len = static_cast<int>(f.size());
    if (len < v::kOverhead) return false;
    const uint32_t crc = len > v::kOverhead ? SysGenCrc32Value(f.data() + v::kBodyAt, len - v::kOverhead, 0) : 0;
    return crc == Get<uint32_t>(f, len - v::kTrailerLen);
}

std::string CodeOf(const Bytes& f) {
    char code[16] = {0};
    const int cls = ClassOf(f), sub = SubOf(f);
    if (cls == v::kClassTrade) return "02000FFF";
    if (cls == v::kClassBusiness) {
        std::snprintf(code, sizeof code, "0300%02X%02X", ByteAt(f, v::kBizCodeAt), ByteAt(f, v::kBizCodeAt + 1));
        return std::string(code) == "0300520D" ? code : "03000FFF";
    }
    if (cls == v::kClassAnswer && sub == v::kSubReqFeedback)
        std::snprintf(code, sizeof code, "00FF%04X", Get<uint16_t>(f, v::kFeedbackCodeAt));
    else if (cls == v::kClassAnswer && sub == v::kSubRequest)
        std::snprintf(code, sizeof code, "00FF%04X", Get<uint16_t>(f, v::kCodeAt));
    else if (cls == v::kClassControl && sub == v::kSubFeedback)
        std::snprintf(code, sizeof code, "0400%04X", Get<uint16_t>(f, v::kFeedbackCodeAt));
    else if (cls == v::kClassAnswer || cls == v::kClassControl || cls == v::kClassSequence)
        std::snprintf(code, sizeof code, "%02X00%04X", cls, Get<uint16_t>(f, v::kCodeAt));
    return code;
}

std::string HexOf(const Bytes& b) {
    std::string out;
    char two[3];
    for (unsigned char c : b) {
        std::snprintf(two, sizeof two, "%02X", c);
        out += two;
    }
    return out;
}

std::string Describe(const Bytes& f) {
    const int sub = SubOf(f);
    char line[256];
    const char* kind = sub == v::kSubAck && ClassOf(f) == 0     ? "ACK"
                       : sub == v::kSubNack && ClassOf(f) == 0  ? "NACK"
                       : sub == v::kSubKeepAlive               ? "keep-alive"
                       : sub == v::kSubBeat && ClassOf(f) == 0  ? "beat"
                                                                : nullptr;
    if (kind != nullptr && (sub == v::kSubAck || sub == v::kSubNack))
        std::snprintf(line, sizeof line, "%s of %s serial %u len %zu%s", kind, HexOf(AckedIdentity(f)).c_str(),
                      SerialOf(f), f.size(), CrcOk(f) ? "" : " BAD CRC");
    else if (kind != nullptr)
        std::snprintf(line, sizeof line, "%s serial %u len %zu", kind, SerialOf(f), f.size());
    else
        std::snprintf(line, sizeof line, "%s class %d sub %02X serial %u len %zu id %s%s", CodeOf(f).c_str(),
                      ClassOf(f), sub, SerialOf(f), f.size(), HexOf(IdentityOf(f)).c_str(),
                      CrcOk(f) ? "" : " BAD CRC");
    return line;
}

void Reader::feed(const void* data, size_t len) {
    const auto* p = static_cast<const unsigned char*>(data);
    buf_.insert(buf_.end(), p, p + len);
}

std::optional<Bytes> Reader::next(bool* bad) {
    *bad = false;
    if (buf_.empty()) return std::nullopt;
    if (buf_[0] != v::kBeginTag) {
        *bad = true;
        return std::nullopt;
    }
    if (buf_.size() < static_cast<size_t>(v::kLenAt + 4)) return std::nullopt;
    const uint32_t len = Get<uint32_t>(buf_, v::kLenAt);
    if (len < static_cast<uint32_t>(v::kMinFrame) || len > 65535) {
        *bad = true;
        return std::nullopt;
    }
    if (buf_.size() < len) return std::nullopt;
    Bytes f(buf_.begin(), buf_.begin() + len);
    buf_.erase(buf_.begin(), buf_.begin() + len);
    return f;
}

std::optional<Bytes> TranpReply(const unsigned char* body, int len, std::string* what) {
    if (len == v::kN004BodyLen && std::memcmp(body, "N004", 4) == 0) {
        uint32_t cmd = 0;
        std::memcpy(&cmd, body + 4, sizeof cmd);
        if (cmd == v::kCmdConnect) {
            *what = "connection request";
            return ConnectRequest();
        }
        if (cmd == v::kCmdSeqAck) {
            *what = "sequence acknowledgement 05003101";
            return SeqAck();
        }
        return std::nullopt;
    }
    if (len < v::kOverhead || body[0] != v::kBeginTag) return std::nullopt;
    const Bytes f(body, body + len);
    const std::string code = CodeOf(f);
    if (code == "0400520C") {
        *what = "parameter answer 04005401";
        return ParamAnswer();
    }
    if (code == "02000FFF") {
        *what = "transaction echo";
        std::string text = "echo: ";
        text.append(reinterpret_cast<const char*>(body + v::kBodyAt), static_cast<size_t>(len - v::kOverhead));
        return Trade(text);
    }
    return std::nullopt;
}

}  // namespace kit::station
