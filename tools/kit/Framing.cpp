#include "kit/Framing.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

#include "base/SysTypes.h"
#include "kit/KitUtil.h"
#include "kit/TablesCfg.h"

namespace kit {

namespace {
std::vector<std::string> SplitComma(std::string_view s) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (true) {
        size_t c = s.find(',', pos);
        out.emplace_back(s.substr(pos, c == std::string_view::npos ? std::string_view::npos : c - pos));
        if (c == std::string_view::npos) break;
        pos = c + 1;
    }
    return out;
}
}  // namespace

std::optional<Framing> Framing::Parse(std::string_view rule, std::string* why) {
    auto parts = SplitComma(rule);
    if (parts.size() < 4 || parts.size() > 6 || parts[3].size() != 1) {
        *why = "a framing is HEADERLEN,OFFSET,WIDTH,TYPE[,INTEL[,ADJUST]], e.g. 4,0,4,0";
        return std::nullopt;
    }
    Framing f;
    auto h = ParseLong(parts[0]), o = ParseLong(parts[1]), w = ParseLong(parts[2]);
    auto in = parts.size() > 4 ? ParseLong(parts[4]) : std::optional<long>(0);
    auto adj = parts.size() > 5 ? ParseLong(parts[5]) : std::optional<long>(0);
    if (!h || !o || !w || !in || !adj) {
        *why = "framing '" + std::string(rule) + "' holds something that is not a number";
        return std::nullopt;
    }
    f.headerLen = static_cast<int>(*h);
    f.lenOffset = static_cast<int>(*o);
    f.lenWidth = static_cast<int>(*w);
    f.lenType = parts[3][0];
    f.lenIntel = static_cast<int>(*in);
    f.adjust = static_cast<int>(*adj);
    if (!f.valid(why)) return std::nullopt;
    return f;
}

std::optional<Framing> Framing::FromTables(const std::string& runDir, int route, std::string* why) {
    const std::string path = runDir + "/etc/tables.cfg";
    auto text = ReadWholeFile(path);
    std::vector<KitTable> tables;
    if (!text) {
        *why = path + ": cannot be read";
        return std::nullopt;
    }
    if (!ParseTablesCfg(*text, path, &tables, why)) return std::nullopt;
    for (const KitTable& t : tables) {
        if (t.name != "PLAT_STATICROUTEINF") continue;
        for (const auto& row : t.rows) {
            if (ParseLong(row[RT_ROUTEID]) != route) continue;
            Framing f;
            f.headerLen = std::atoi(row[RT_HEADERLEN].substr(0, 4).c_str());
            f.lenOffset = std::atoi(row[RT_MSGLENGETOFFSET].c_str());
            f.lenWidth = std::atoi(row[RT_MSGLENGETLEN].c_str());
            f.lenType = row[RT_MSGLENGETTYPE].empty() ? '?' : row[RT_MSGLENGETTYPE][0];
            f.lenIntel = std::atoi(row[RT_MSGLENINTEL].c_str());
            f.adjust = std::atoi(row[RT_MSGLENADJUST].c_str());
            if (!f.valid(why)) {
                *why = "route " + std::to_string(route) + " in " + path + ": " + *why;
                return std::nullopt;
            }
            return f;
        }
    }
    *why = path + " has no PLAT_STATICROUTEINF row for route " + std::to_string(route);
    return std::nullopt;
}

bool Framing::valid(std::string* why) const {
    const int binaryWidth = lenType == '2' ? 2 : 4;
    if (lenType < '0' || lenType > '3') {
        *why = "length type must be 0 (digits), 1 or 3 (32-bit) or 2 (16-bit)";
        return false;
    }
    const int fieldWidth = lenType == '0' ? lenWidth : binaryWidth;
    if (headerLen < 1 || headerLen > comp::kMaxNetMsgLen || lenOffset < 0 || fieldWidth < 1 || fieldWidth > 10 ||
        lenOffset + fieldWidth > headerLen) {
        *why = "the length field (offset " + std::to_string(lenOffset) + ", width " + std::to_string(fieldWidth) +
               ") must lie inside the header of " + std::to_string(headerLen) + " bytes";
        return false;
    }
    return true;
}

bool Framing::fits(size_t bodyLen, std::string* why) const {
    long maxValue = 4294967295L;   // '1', '3': 32 bits
    if (lenType == '2') maxValue = 65535L;
    if (lenType == '0') {
        maxValue = 1;
        for (int i = 0; i < lenWidth; ++i) maxValue *= 10;   // the width is at most 10
        --maxValue;
    }
    const long value = static_cast<long>(bodyLen) - adjust;
    if (value < 0 || value > maxValue) {
        *why = "a body of " + std::to_string(bodyLen) + " bytes gives the length value " + std::to_string(value) +
               ", which the length field does not hold (0 to " + std::to_string(maxValue) + ")";
        return false;
    }
    if (static_cast<long>(bodyLen) + headerLen > comp::kMaxNetMsgLen) {
        *why = "a body of " + std::to_string(bodyLen) + " bytes makes a message over " +
               std::to_string(comp::kMaxNetMsgLen) + " bytes";
        return false;
    }
    return true;
}

std::vector<char> Framing::encode(std::string_view body, std::string_view headerFill) const {
    std::vector<char> msg(static_cast<size_t>(headerLen), '0');
    if (!headerFill.empty()) std::memcpy(msg.data(), headerFill.data(), std::min(headerFill.size(), msg.size()));
    const long value = static_cast<long>(body.size()) - adjust;
    char* field = msg.data() + lenOffset;
    if (lenType == '0') {
        char digits[32];
        std::snprintf(digits, sizeof digits, "%0*ld", lenWidth, value);
        std::memcpy(field, digits + std::strlen(digits) - static_cast<size_t>(lenWidth), static_cast<size_t>(lenWidth));
    } else if (lenType == '2') {
        uint16_t v = static_cast<uint16_t>(value);
        if (lenIntel == 0) v = htons(v);
        std::memcpy(field, &v, sizeof v);
    } else {
        uint32_t v = static_cast<uint32_t>(value);
        if (lenIntel == 0) v = htonl(v);
        std::memcpy(field, &v, sizeof v);
    }
    msg.insert(msg.end(), body.begin(), body.end());
    return msg;
}

long Framing::bodyLength(const char* header) const {
    const char* field = header + lenOffset;
    long value = 0;
    if (lenType == '0') {
        std::string text(field, static_cast<size_t>(lenWidth));
        value = std::atol(text.c_str());
    } else if (lenType == '2') {
        uint16_t v = 0;
        std::memcpy(&v, field, sizeof v);
        value = lenIntel == 0 ? ntohs(v) : v;
    } else {
        uint32_t v = 0;
        std::memcpy(&v, field, sizeof v);
        value = lenIntel == 0 ? ntohl(v) : v;
    }
    value += adjust;
    if (value < 0 || value + headerLen > comp::kMaxNetMsgLen) return -1;
    return value;
}

std::optional<std::vector<char>> FrameReader::next(bool* bad) {
    *bad = false;
    if (buf_.size() < static_cast<size_t>(f_.headerLen)) return std::nullopt;
    long body = f_.bodyLength(buf_.data());
    if (body < 0) {
        *bad = true;
        return std::nullopt;
    }
    const size_t total = static_cast<size_t>(f_.headerLen) + static_cast<size_t>(body);
    if (buf_.size() < total) return std::nullopt;
    std::vector<char> msg(buf_.begin(), buf_.begin() + static_cast<long>(total));
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<long>(total));
    return msg;
}

}  // namespace kit
