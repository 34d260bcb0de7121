// CRC-16/ARC, the reflected CRC-32 of IEEE 802.3 and the MD5 message digest
// (RFC 1321), all written here so the process needs no outside library.
#include "util/SysChecksum.h"

#include <array>
#include <cstring>

namespace {

// One entry of a reflected CRC table: the byte shifted through eight rounds
// of the reversed polynomial.
template <typename T>
constexpr T ReflectedEntry(unsigned uiByte, T poly) {
    T crc = static_cast<T>(uiByte);
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? static_cast<T>((crc >> 1) ^ poly) : static_cast<T>(crc >> 1);
    return crc;
}

constexpr unsigned short kCrc16Poly = 0xA001;       // 0x8005 reflected
constexpr unsigned int kCrc32Poly = 0xEDB88320u;    // 0x04C11DB7 reflected

constexpr unsigned short Crc16Entry(unsigned i) { return ReflectedEntry<unsigned short>(i, kCrc16Poly); }

constexpr std::array<unsigned int, 256> MakeCrc32Table() {
    std::array<unsigned int, 256> t{};
    for (unsigned i = 0; i < 256; ++i) t[i] = ReflectedEntry<unsigned int>(i, kCrc32Poly);
    return t;
}
constexpr std::array<unsigned int, 256> kCrc32Table = MakeCrc32Table();

static_assert(Crc16Entry(1) == 0xC0C1 && Crc16Entry(255) == 0x4040);
static_assert(kCrc32Table[1] == 0x77073096u && kCrc32Table[255] == 0x2D02EF8Du);

}  // namespace

// The CRC-16 table is a plain global that other code of the platform reads;
// it is filled at compile time, so it is valid before any constructor runs.
#define CRC16_4(n) Crc16Entry(n), Crc16Entry(n + 1), Crc16Entry(n + 2), Crc16Entry(n + 3)
#define CRC16_16(n) CRC16_4(n), CRC16_4(n + 4), CRC16_4(n + 8), CRC16_4(n + 12)
#define CRC16_64(n) CRC16_16(n), CRC16_16(n + 16), CRC16_16(n + 32), CRC16_16(n + 48)

extern "C" {

unsigned short wCRC16Table[256] = {CRC16_64(0), CRC16_64(64), CRC16_64(128), CRC16_64(192)};

unsigned short GenCrc16(const unsigned char* pucData, int iLen) {
    unsigned short crc = 0;
    if (pucData == nullptr) return crc;
    for (int i = 0; i < iLen; ++i)
        crc = static_cast<unsigned short>((crc >> 8) ^ wCRC16Table[(crc ^ pucData[i]) & 0xFF]);
    return crc;
}

unsigned int SysGenCrc32Value(const unsigned char* pucData, int iLen, unsigned int uiInit) {
    if (pucData == nullptr || iLen <= 0) return 0;
    unsigned int crc = uiInit;
    for (int i = 0; i < iLen; ++i) crc = kCrc32Table[(crc ^ pucData[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

}  // extern "C"

#undef CRC16_4
#undef CRC16_16
#undef CRC16_64

// ---------------------------------------------------------------------------
// MD5
// ---------------------------------------------------------------------------
namespace {

constexpr uint32_t RotateLeft(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// Per-step shift amounts, four per round.
constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Sine-derived constants: floor(abs(sin(i + 1)) * 2^32).
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

uint32_t LoadLE32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void StoreLE32(uint32_t v, unsigned char* p) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// One 64-byte block into the state.
void Md5Transform(uint32_t state[4], const unsigned char block[64]) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = LoadLE32(block + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (int i = 0; i < 64; ++i) {
        const int round = i / 16;
        uint32_t f;
        int k;
        switch (round) {
            case 0: f = (b & c) | (~b & d); k = i; break;
            case 1: f = (b & d) | (c & ~d); k = (5 * i + 1) % 16; break;
            case 2: f = b ^ c ^ d; k = (3 * i + 5) % 16; break;
            default: f = c ^ (b | ~d); k = (7 * i) % 16; break;
        }
        const uint32_t rotated = RotateLeft(a + f + kSine[i] + x[k], kShift[round][i % 4]);
        a = d;
        d = c;
        c = b;
        b = b + rotated;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

}  // namespace

extern "C" {

void MD5Init(MD5_CTX* pstCtx) {
    if (pstCtx == nullptr) return;
    pstCtx->count[0] = pstCtx->count[1] = 0;
    pstCtx->state[0] = 0x67452301;
    pstCtx->state[1] = 0xefcdab89;
    pstCtx->state[2] = 0x98badcfe;
    pstCtx->state[3] = 0x10325476;
    std::memset(pstCtx->buffer, 0, sizeof pstCtx->buffer);
}

void MD5Update(MD5_CTX* pstCtx, const unsigned char* pucInput, unsigned int uiLen) {
    if (pstCtx == nullptr || pucInput == nullptr || uiLen == 0) return;
    unsigned int uiIndex = (pstCtx->count[0] >> 3) & 0x3F;   // bytes already in the buffer
    const uint32_t uiBits = uiLen << 3;
    pstCtx->count[0] += uiBits;
    if (pstCtx->count[0] < uiBits) ++pstCtx->count[1];
    pstCtx->count[1] += uiLen >> 29;

    const unsigned int uiPartLen = 64 - uiIndex;
    unsigned int i = 0;
    if (uiLen >= uiPartLen) {
        std::memcpy(pstCtx->buffer + uiIndex, pucInput, uiPartLen);
        Md5Transform(pstCtx->state, pstCtx->buffer);
        for (i = uiPartLen; i + 63 < uiLen; i += 64) Md5Transform(pstCtx->state, pucInput + i);
        uiIndex = 0;
    }
    std::memcpy(pstCtx->buffer + uiIndex, pucInput + i, uiLen - i);
}

void MD5Final(unsigned char pucDigest[16], MD5_CTX* pstCtx) {
    if (pstCtx == nullptr || pucDigest == nullptr) return;
    unsigned char bits[8];
    StoreLE32(pstCtx->count[0], bits);
    StoreLE32(pstCtx->count[1], bits + 4);

    // Pad to 56 bytes mod 64 with a single 1 bit and zeros, then the length.
    static constexpr unsigned char kPadding[64] = {0x80};
    const unsigned int uiIndex = (pstCtx->count[0] >> 3) & 0x3F;
    const unsigned int uiPadLen = uiIndex < 56 ? 56 - uiIndex : 120 - uiIndex;
    MD5Update(pstCtx, kPadding, uiPadLen);
    MD5Update(pstCtx, bits, 8);

    for (int i = 0; i < 4; ++i) StoreLE32(pstCtx->state[i], pucDigest + 4 * i);
    // Leave nothing of the message behind in the context.
    std::memset(pstCtx, 0, sizeof *pstCtx);
}

}  // extern "C"
