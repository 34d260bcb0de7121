// What the whole-process tests of the two polled modes share: the route
// framing of the polled frames, reading comp's next frame, and reading what
// comp sent TranP.
#pragma once

#include <cstring>
#include <string>

#include "ModeFixture.h"
#include "kit/SynPeers.h"

namespace comptest {

// Route columns of the polled frames: a 5-byte header whose bytes 3-4 give
// the data length, plus one byte for the end byte.
inline RouteRow SynRouteColumns() {
    return {{"HEADERLEN", "5"}, {"MSGLENGETOFFSET", "3"}, {"MSGLENGETLEN", "2"},
            {"MSGLENGETTYPE", "2"}, {"MSGLENINTEL", "0"}, {"MSGLENADJUST", "1"}};
}

class SynModeTest : public ModeTest {
protected:
    static RouteRow SynColumns() { return SynRouteColumns(); }
    // The next frame from comp ("" when none came within ms).
    static std::string Frame(int fd, int ms = 3000) { return kit::ReadSyn(fd, ms); }
    // The next message to TranP: "N001 <ip>", "N003 <ip>", or the data body
    // (its header in `header`); "" when none came.
    std::string Next(int ms = 3000, std::string* header = nullptr) {
        const int len = ReadToTranp(buf.get(), pid, ms);
        if (len < comp::kPlatHdrLen) return "";
        const char* body = buf->caText + comp::kPlatHdrLen;
        if (At<uint16_t>(buf->caText, comp::plat::kKind) == comp::plat::kKindNotice)
            return std::string(body, 4) + " " + std::string(body + 4, strnlen(body + 4, 16));
        if (header) header->assign(buf->caText, comp::kPlatHdrLen);
        return std::string(body, static_cast<size_t>(len - comp::kPlatHdrLen));
    }
};

}  // namespace comptest
