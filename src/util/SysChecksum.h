// CRC-16/ARC, the reflected CRC-32 of IEEE 802.3 and the MD5 digest of RFC 1321.
#pragma once

#include <cstdint>

extern "C" {

extern unsigned short wCRC16Table[256];

unsigned short GenCrc16(const unsigned char* pucData, int iLen);
// Reflected CRC-32 from the caller's initial value, without the final XOR.
unsigned int SysGenCrc32Value(const unsigned char* pucData, int iLen, unsigned int uiInit);

struct MD5_CTX {
    uint32_t state[4];
    uint32_t count[2];     // bit count, low word first
    unsigned char buffer[64];
};
void MD5Init(MD5_CTX* pstCtx);
void MD5Update(MD5_CTX* pstCtx, const unsigned char* pucInput, unsigned int uiLen);
void MD5Final(unsigned char pucDigest[16], MD5_CTX* pstCtx);

}  // extern "C"
