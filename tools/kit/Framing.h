// A route's framing from the peer's side: a fixed header that carries the
// length of the body in one of four encodings (text digits, 32-bit or 16-bit
// binary), as the route row's MSGLEN* columns and HEADERLEN describe it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kit {

struct Framing {
    int headerLen = 4;
    int lenOffset = 0;
    int lenWidth = 4;
    char lenType = '0';   // '0' digits, '1'/'3' 32-bit, '2' 16-bit
    int lenIntel = 0;     // 0: network byte order, else host order
    int adjust = 0;       // added to the decoded length to give the body length

    // "HEADERLEN,OFFSET,WIDTH,TYPE[,INTEL[,ADJUST]]"
    static std::optional<Framing> Parse(std::string_view rule, std::string* why);
    // From the PLAT_STATICROUTEINF row of the route in RUNDIR/etc/tables.cfg.
    static std::optional<Framing> FromTables(const std::string& runDir, int route, std::string* why);
    // False with the reason when the rule cannot frame anything.
    bool valid(std::string* why) const;

    // Whether a body of bodyLen bytes can be framed: its length value must fit
    // the length field, and the message comp's limit of 65,535 bytes. False
    // with the reason.
    bool fits(size_t bodyLen, std::string* why) const;
    // One message: the header (headerFill, cut or padded with '0', with the
    // length field written over it) and the body. The body must fit().
    std::vector<char> encode(std::string_view body, std::string_view headerFill = {}) const;
    // Body length a complete header announces, or -1 when it is unusable.
    long bodyLength(const char* header) const;
};

// Cuts messages out of a byte stream.
class FrameReader {
public:
    explicit FrameReader(const Framing& f) : f_(f) {}
    void feed(const char* data, size_t len) { buf_.insert(buf_.end(), data, data + len); }
    // The next whole message (header and body); nullopt when more bytes are
    // needed. *bad is set when a header announces an unusable length.
    std::optional<std::vector<char>> next(bool* bad);

private:
    Framing f_;
    std::vector<char> buf_;
};

}  // namespace kit
