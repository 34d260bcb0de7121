// Stream framing from memory (FuzzFrame.h has the input's form).
#include "FuzzFrame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pucData, size_t iSize) {
    compfuzz::FuzzFrame(pucData, iSize, compfuzz::Via::kMemory);
    return 0;
}
