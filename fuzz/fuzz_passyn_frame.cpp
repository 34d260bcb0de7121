// The server side of the polled link (PASSYN): a client's frames, cut from
// the stream, checked against the serial of the last frame sent; only data
// is answered, with the serial advanced by one.
//
// Input: serial byte, task length byte, stream bytes, task bytes (SynStream.h).
#include "SynStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pucData, size_t iSize) {
    compfuzz::KeepLogsSmall();
    const compfuzz::SynInput in = compfuzz::SplitSynInput(pucData, iSize);
    uint8_t sent = in.serial;
    compfuzz::ForEachFrame(in.stream, [&](std::span<const char> frame) {
        for (size_t n = 0; n < frame.size(); ++n) comp::syn::Check(frame.first(n), sent);
        const comp::syn::Step s = comp::syn::ServerStep(frame, sent);
        if (s.verdict != comp::syn::Verdict::kOk) {
            if (s.answer || s.forward) std::abort();
            return;
        }
        if (comp::syn::Serial(frame) != sent) std::abort();
        if (s.answer != (s.cmd == comp::syn::kCmdData) || s.forward != s.answer) std::abort();
        if (!s.answer) return;
        sent = static_cast<uint8_t>(sent + 1);
        compfuzz::CheckAnswer(in.task, comp::syn::kCmdPoll, sent);
    });
    return 0;
}
