// Stream framing end to end: the bytes reach the reader through a socket
// pair, as comp reads a connection, so the receive path itself (short reads,
// the peer's close) is under test too. Slower than fuzz_frame; same input.
#include "FuzzFrame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pucData, size_t iSize) {
    compfuzz::FuzzFrame(pucData, iSize, compfuzz::Via::kSocket);
    return 0;
}
