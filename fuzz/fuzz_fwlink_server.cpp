// The forwarder link as FWS reads it from a forwarder: "A" and "Z" alone,
// "F" and "B" with a framed message behind them.
#include <cstddef>
#include <cstdint>

#include "FuzzFwLink.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    compfuzz::FuzzLink(data, size, comp::fw::Reader::kServer);
    return 0;
}
