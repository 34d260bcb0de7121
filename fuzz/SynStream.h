// Shared by the fuzz targets of the polled synchronous frames: the input's
// first byte is the serial the side starts from, the second the length of a
// task (TranP's message) taken from the end of the input; the rest is the
// byte stream, cut into frames from memory by the route framing of the
// polled routes (HEADERLEN 5, the 16-bit data length at offset 3 in network
// order, plus one for the end byte) exactly as SysGetLenFromHead reads it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "FuzzSupport.h"
#include "base/SysTypes.h"
#include "comp/SysNetFrame.h"
#include "modes/SynFrame.h"

namespace compfuzz {

inline RouteRecord SynRoute() {
    RouteRecord r{};
    auto put = [&](RouteColumn c, const char* v) { std::snprintf(r.caField[c], sizeof r.caField[c], "%s", v); };
    put(RT_ROUTEID, "50");
    put(RT_HEADERLEN, "5");
    put(RT_MSGLENGETOFFSET, "3");
    put(RT_MSGLENGETLEN, "2");
    put(RT_MSGLENGETTYPE, "2");
    put(RT_MSGLENINTEL, "0");
    put(RT_MSGLENADJUST, "1");
    return r;
}

struct SynInput {
    uint8_t serial = 0;
    std::string_view task;     // the queue text of a task: header and TranP's frame
    std::string_view stream;
};

inline SynInput SplitSynInput(const uint8_t* data, size_t size) {
    SynInput in;
    std::string_view all(reinterpret_cast<const char*>(data), size);
    if (all.size() < 2) return in;
    in.serial = static_cast<uint8_t>(all[0]);
    const size_t taskLen = std::min<size_t>(static_cast<uint8_t>(all[1]), all.size() - 2);
    in.stream = all.substr(2, all.size() - 2 - taskLen);
    in.task = all.substr(all.size() - taskLen);
    return in;
}

// Calls f(frame) for each whole frame of the stream, each in a buffer of its
// own size so that a read past it is caught; stops at a frame the length rule
// refuses or one cut short.
template <class F>
void ForEachFrame(std::string_view stream, F f) {
    static const RouteRecord route = SynRoute();
    constexpr int kHeaderLen = 5;
    while (stream.size() >= static_cast<size_t>(kHeaderLen)) {
        const int body = SysGetLenFromHead(stream.data(), &route, kHeaderLen);
        if (body < 0 || static_cast<size_t>(kHeaderLen + body) > stream.size()) return;
        const size_t len = static_cast<size_t>(kHeaderLen + body);
        auto frame = std::make_unique<char[]>(len);
        std::memcpy(frame.get(), stream.data(), len);
        f(std::span<const char>(frame.get(), len));
        stream.remove_prefix(len);
    }
}

// The answer of one side to one frame, built from the input's task (in a
// buffer of the task's own size) and checked: command and serial stamped, a
// frame of the task's bytes or the six-byte empty frame.
inline void CheckAnswer(std::string_view task, uint8_t emptyCmd, uint8_t serial) {
    const int taskLen = static_cast<int>(task.size());
    auto text = std::make_unique<char[]>(task.size() + 1);
    if (!task.empty()) std::memcpy(text.get(), task.data(), task.size());
    char empty[comp::syn::kEmptyLen];
    const comp::syn::Answer a = comp::syn::MakeAnswer(text.get(), taskLen, emptyCmd, serial, empty);
    const bool fits = taskLen - comp::plat::kHeaderLen >= comp::syn::kMinFrameLen;
    if (a.task != fits || a.len < comp::syn::kMinFrameLen) std::abort();
    if (static_cast<uint8_t>(a.data[comp::syn::kOffSerial]) != serial) std::abort();
    if (static_cast<uint8_t>(a.data[comp::syn::kOffCmd]) != (a.task ? comp::syn::kCmdData : emptyCmd)) std::abort();
    if (!a.task && std::memcmp(a.data + 3, "\0\0\3", 3) != 0) std::abort();
}

}  // namespace compfuzz
