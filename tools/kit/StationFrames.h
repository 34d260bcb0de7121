// Frames of the station link as the other ends build and read them: the
// station peer (compkit station), the stand-in router's part in the
// sequences, and the whole-process tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kit::station {

using Bytes = std::vector<unsigned char>;

// One frame before encoding. The time stamp is now; length and CRC follow
// from the body.
struct Frame {
    int cls = 2;
    unsigned char sub = 0;
    uint16_t serial = 1;
    uint16_t station = 0x0001;   // two BCD bytes: 0x0001 is station 0001
    unsigned char group1 = 0, group2 = 0;
    int pktCount = 1, pktNo = 1;
    Bytes body;                  // from offset 39
    bool badCrc = false;         // a CRC that does not match the body
};
Bytes Encode(const Frame& f);

// A body that starts with a 16-bit code in host order.
Bytes CodeBody(uint16_t code, size_t extra = 0);

// The frames of the sequences (codes as comp names them).
Bytes ConnectRequest(uint16_t serial = 1);                               // "00FF5109", TranP's
Bytes ConnectFeedback(const unsigned char* identity, bool accepted, uint16_t serial);  // "00FF5109" feedback
Bytes Control(uint16_t code, uint16_t serial, uint16_t value41 = 0);     // "0400xxxx" with the code at 39
Bytes ParamAnswer();                                                     // "04005401": identity filled by comp
Bytes SeqAck(uint16_t serial = 1);                                       // "05003101"
Bytes Trade(std::string_view text, uint16_t serial = 1);                 // "02000FFF"
Bytes Business(unsigned char b92, unsigned char b93, std::string_view text, uint16_t serial = 1);
Bytes KeepAlive(uint16_t serial);                                        // sub-type 0xFC
// An acknowledgement (or NACK) of the frame with this identity.
Bytes Ack(const unsigned char* identity, bool nack, uint16_t serial);

// Reading.
inline constexpr int kIdentityAt = 13;
inline constexpr int kIdentityLen = 16;
uint32_t LengthOf(const Bytes& f);
int ClassOf(const Bytes& f);
int SubOf(const Bytes& f);
uint16_t SerialOf(const Bytes& f);
// The identity of a frame, or the body of an acknowledgement (16 bytes).
Bytes IdentityOf(const Bytes& f);
Bytes AckedIdentity(const Bytes& f);
bool CrcOk(const Bytes& f);
// The 8-character code comp forms for the frame ("" for reserved and
// illegal classes).
std::string CodeOf(const Bytes& f);
// A readable line: code, class/sub-type, serial, length and what matters.
std::string Describe(const Bytes& f);
// 32 upper-case hex digits of an identity.
std::string HexOf(const Bytes& b);

// Cuts frames out of a byte stream by their length field.
class Reader {
public:
    void feed(const void* data, size_t len);
    // The next whole frame; nullopt when more bytes are needed. *bad is set
    // when the stream does not start with a begin tag or a usable length.
    std::optional<Bytes> next(bool* bad);

private:
    Bytes buf_;
};

// What the stand-in router sends to a station-link comp for a message the
// comp wrote to TranP (its body after the PlatMsg header): the connection
// request for the N004 0x00FF5109, the sequence acknowledgement for the N004
// 0x05003101, the parameter answer for a "0400520C", and a transaction frame
// echoing a received one. nullopt: nothing. *what names it.
std::optional<Bytes> TranpReply(const unsigned char* body, int len, std::string* what);

}  // namespace kit::station
