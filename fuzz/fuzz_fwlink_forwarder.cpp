// The forwarder link as FWB reads it from its upper server: a framed message
// behind every header, units of unknown kind dropped.
#include <cstddef>
#include <cstdint>

#include "FuzzFwLink.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    compfuzz::FuzzLink(data, size, comp::fw::Reader::kForwarder);
    return 0;
}
