// The client side of the polled link (PCSYN): the server's requests, cut from
// the stream, checked against the serial of the last answer, and answered;
// the serial must advance by one with every answer and stay with "no data".
//
// Input: serial byte, task length byte, stream bytes, task bytes (SynStream.h).
#include "SynStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pucData, size_t iSize) {
    compfuzz::KeepLogsSmall();
    const compfuzz::SynInput in = compfuzz::SplitSynInput(pucData, iSize);
    uint8_t last = in.serial;
    compfuzz::ForEachFrame(in.stream, [&](std::span<const char> frame) {
        // Every prefix of a frame, as a peer that was cut off would leave it.
        for (size_t n = 0; n < frame.size(); ++n) comp::syn::Check(frame.first(n), static_cast<uint8_t>(last + 1));
        const comp::syn::Step s = comp::syn::ClientStep(frame, last);
        if (s.verdict != comp::syn::Verdict::kOk) {
            if (s.answer || s.forward) std::abort();
            return;
        }
        if (comp::syn::Serial(frame) != static_cast<uint8_t>(last + 1)) std::abort();
        if (s.answer != (s.cmd == comp::syn::kCmdPoll || s.cmd == comp::syn::kCmdData)) std::abort();
        if (s.forward != (s.cmd == comp::syn::kCmdData)) std::abort();
        if (!s.answer) return;
        last = static_cast<uint8_t>(last + 1);
        compfuzz::CheckAnswer(in.task, comp::syn::kCmdNoData, last);
    });
    return 0;
}
