// Texts, BCD and hexadecimal packing, digit-string arithmetic, time stamps and
// whole-file helpers. Every routine works on buffers that the caller owns.
#include "util/StrTools.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "log/SysTraceLog.h"

namespace {

constexpr char kLowerHex[] = "0123456789abcdef";
constexpr char kUpperHex[] = "0123456789ABCDEF";
constexpr int kDateTimeLen = 14;   // "YYYYMMDDhhmmss"

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsBlankOrTab(char c) { return c == ' ' || c == '\t'; }

// Value of one hexadecimal character, -1 when it is none.
int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void HexOut(const unsigned char* pucIn, int iLen, char* pcOut, const char* pcDigits) {
    if (pucIn == nullptr || pcOut == nullptr || iLen <= 0) return;
    for (int i = 0; i < iLen; ++i) {
        pcOut[2 * i] = pcDigits[pucIn[i] >> 4];
        pcOut[2 * i + 1] = pcDigits[pucIn[i] & 0x0F];
    }
}

// Value of the last iWidth characters of the text, four bits per character.
// Unsigned arithmetic so that overlong texts wrap instead of overflowing.
unsigned long long PackDigits(const char* pcDigits, int iWidth) {
    size_t len = std::strlen(pcDigits);
    size_t width = iWidth > 0 ? static_cast<size_t>(iWidth) : 0;
    const char* p = len > width ? pcDigits + (len - width) : pcDigits;
    unsigned long long v = 0;
    for (; *p != '\0'; ++p) v = v * 10 + (static_cast<unsigned char>(*p) & 0x0F);
    return v;
}

// Writes the magnitude as exactly iWidth digits, keeping the low ones.
void UnpackDigits(char* pcOut, unsigned long long ullValue, int iWidth) {
    for (int i = iWidth - 1; i >= 0; --i) {
        pcOut[i] = static_cast<char>('0' + ullValue % 10);
        ullValue /= 10;
    }
}

unsigned long long Magnitude(long long llValue) {
    return llValue < 0 ? 0ULL - static_cast<unsigned long long>(llValue)
                       : static_cast<unsigned long long>(llValue);
}

int Today(time_t tTime, char* pcOut) {
    struct tm stTm {};
    if (localtime_r(&tTime, &stTm) == nullptr) {
        std::snprintf(pcOut, kDateTimeLen + 1, "%s%s%s%s%s%s", "1970", "01", "01", "00", "00", "00");
        return -1;
    }
    std::snprintf(pcOut, kDateTimeLen + 1, "%04d%02d%02d%02d%02d%02d", stTm.tm_year + 1900,
                  stTm.tm_mon + 1, stTm.tm_mday, stTm.tm_hour, stTm.tm_min, stTm.tm_sec);
    return 0;
}

// Adds (iSign 1) or subtracts (iSign -1) two iWidth-digit texts from the
// right; a carry or borrow out of the top digit is dropped. A non-digit in
// either operand blanks the whole output, which is how callers see it.
int DigitArith(const char* pcA, const char* pcB, int iWidth, char* pcOut, int iSign) {
    if (pcA == nullptr || pcB == nullptr || pcOut == nullptr || iWidth <= 0) return -1;
    int iCarry = 0;
    for (int i = iWidth - 1; i >= 0; --i) {
        if (!IsDigit(pcA[i]) || !IsDigit(pcB[i])) {
            std::memset(pcOut, ' ', static_cast<size_t>(iWidth));
            return -1;
        }
        int d = (pcA[i] - '0') + iSign * ((pcB[i] - '0') + iCarry);
        iCarry = 0;
        if (d > 9) {
            d -= 10;
            iCarry = 1;
        } else if (d < 0) {
            d += 10;
            iCarry = 1;
        }
        pcOut[i] = static_cast<char>('0' + d);
    }
    return 0;
}

struct FileCloser {
    void operator()(FILE* fp) const { std::fclose(fp); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------
// BCD and hexadecimal
// ---------------------------------------------------------------------------

unsigned char NumericToBCD(char* pcTwoDigits) {
    if (pcTwoDigits == nullptr) return 0;
    for (int i = 0; i < 2; ++i)
        if (!IsDigit(pcTwoDigits[i])) pcTwoDigits[i] = '0';
    return static_cast<unsigned char>(((pcTwoDigits[0] - '0') << 4) | (pcTwoDigits[1] - '0'));
}

unsigned char NumericToBCD16(char* pcTwoHex) {
    if (pcTwoHex == nullptr) return 0;
    int iHigh = HexValue(pcTwoHex[0]);
    if (iHigh < 0) {
        pcTwoHex[0] = '0';
        iHigh = 0;
    }
    int iLow = HexValue(pcTwoHex[1]);
    if (iLow < 0) {
        // A bad low digit loses the whole byte, the high digit with it.
        pcTwoHex[1] = '0';
        return 0;
    }
    return static_cast<unsigned char>((iHigh << 4) | iLow);
}

void BCDToNumeric(unsigned char ucBcd, char* pcOut) {
    if (pcOut == nullptr) return;
    pcOut[0] = static_cast<char>('0' + (ucBcd >> 4));
    pcOut[1] = static_cast<char>('0' + (ucBcd & 0x0F));
}

int NumberStr2BCDStr(const char* pcDigits, int iCount, unsigned char* pucOut) {
    if (pcDigits == nullptr || pucOut == nullptr || iCount < 0) {
        std::printf("[%s:%d] NumberStr2BCDStr input parameter error!\n", __FILE_NAME__, __LINE__);
        return -1;
    }
    auto digit = [](char c) { return IsDigit(c) ? c - '0' : 0; };
    int iIn = 0;
    int iOut = 0;
    if (iCount % 2 != 0) pucOut[iOut++] = static_cast<unsigned char>(digit(pcDigits[iIn++]));
    while (iIn < iCount) {
        pucOut[iOut++] = static_cast<unsigned char>((digit(pcDigits[iIn]) << 4) | digit(pcDigits[iIn + 1]));
        iIn += 2;
    }
    return 0;
}

void ConvHexToChar(const unsigned char* pucIn, int iLen, char* pcOut) {
    HexOut(pucIn, iLen, pcOut, kLowerHex);
}

void Unpack(const unsigned char* pucIn, int iLen, char* pcOut) { HexOut(pucIn, iLen, pcOut, kUpperHex); }

int Pack(char* pcHex, int iLen, unsigned char* pucOut) {
    if (pcHex == nullptr || pucOut == nullptr || iLen <= 0) return 0;
    for (int i = 0; i < iLen; ++i)
        if (pcHex[i] >= 'a' && pcHex[i] <= 'z') pcHex[i] = static_cast<char>(pcHex[i] - 'a' + 'A');
    for (int i = 0; i < iLen; ++i) {
        int c = static_cast<unsigned char>(pcHex[i]);
        // Digits give 0..9, letters their distance from 'A' plus 10; the
        // nibble mask keeps a stray character from spilling into the other half.
        int iNibble = (IsDigit(static_cast<char>(c)) ? c - '0' : c - 55) & 0x0F;
        if (i % 2 == 0)
            pucOut[i / 2] = static_cast<unsigned char>(iNibble << 4);
        else
            pucOut[i / 2] = static_cast<unsigned char>(pucOut[i / 2] | iNibble);
    }
    return (iLen + 1) / 2;
}

void ConvIntToChar2(int iValue, unsigned char* pucOut) {
    if (pucOut == nullptr) return;
    pucOut[0] = static_cast<unsigned char>((iValue >> 8) & 0xFF);
    pucOut[1] = static_cast<unsigned char>(iValue & 0xFF);
}

int ConvChar2ToInt(const unsigned char* pucIn) {
    if (pucIn == nullptr) return 0;
    return (pucIn[0] << 8) | pucIn[1];
}

// ---------------------------------------------------------------------------
// Digit-string numbers
// ---------------------------------------------------------------------------

int PackInt(const char* pcDigits, int* piOut, int iWidth) {
    if (pcDigits == nullptr || piOut == nullptr) return -1;
    *piOut = static_cast<int>(static_cast<unsigned int>(PackDigits(pcDigits, iWidth)));
    return 0;
}

int PackLong(const char* pcDigits, long* plOut, int iWidth) {
    if (pcDigits == nullptr || plOut == nullptr) return -1;
    *plOut = static_cast<long>(PackDigits(pcDigits, iWidth));
    return 0;
}

int UnpackInt(char* pcOut, int iValue, int iWidth) {
    if (pcOut == nullptr) return -1;
    UnpackDigits(pcOut, Magnitude(iValue), iWidth);
    return 0;
}

int UnpackLong(char* pcOut, long lValue, int iWidth) {
    if (pcOut == nullptr) return -1;
    UnpackDigits(pcOut, Magnitude(lValue), iWidth);
    return 0;
}

int StrAdd(const char* pcA, const char* pcB, int iWidth, char* pcOut) {
    return DigitArith(pcA, pcB, iWidth, pcOut, 1);
}

int StrSub(const char* pcA, const char* pcB, int iWidth, char* pcOut) {
    return DigitArith(pcA, pcB, iWidth, pcOut, -1);
}

int RemoveHeadZero(char* pcText, int iLen) {
    if (pcText == nullptr) return -1;
    if (iLen <= 0) return 0;
    int iSkip = 0;
    while (iSkip < iLen && (pcText[iSkip] == '0' || pcText[iSkip] == ' ')) ++iSkip;
    std::memmove(pcText, pcText + iSkip, static_cast<size_t>(iLen - iSkip));
    return iLen - iSkip;
}

int trimZero(char* pcOut, const char* pcDigits) {
    if (pcOut == nullptr || pcDigits == nullptr) return -1;
    std::memset(pcOut, 0, std::strlen(pcOut));
    while (*pcDigits == '0') ++pcDigits;
    if (*pcDigits == '\0') {
        pcOut[0] = '0';
        pcOut[1] = '\0';
        return 0;
    }
    std::memmove(pcOut, pcDigits, std::strlen(pcDigits) + 1);
    return 0;
}

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

int upperStr(char* pcText) {
    if (pcText == nullptr) return -1;
    for (char* p = pcText; *p != '\0'; ++p)
        if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - 'a' + 'A');
    return 0;
}

int strPack(char* pcText) {
    if (pcText == nullptr || pcText[0] == '\0') return -1;
    size_t len = std::strlen(pcText);
    while (len > 0 && IsBlankOrTab(pcText[len - 1])) --len;
    pcText[len] = '\0';
    return 0;
}

int delSpacePreLast(char* pcText) {
    if (pcText == nullptr) return -1;
    size_t len = std::strlen(pcText);
    while (len > 0 && IsBlankOrTab(pcText[len - 1])) --len;
    size_t start = 0;
    while (start < len && IsBlankOrTab(pcText[start])) ++start;
    std::memmove(pcText, pcText + start, len - start);
    pcText[len - start] = '\0';
    return 0;
}

int zipAll(char* pcText) {
    if (pcText == nullptr) return -1;
    size_t len = std::strlen(pcText);
    size_t out = 0;
    for (size_t i = 0; i < len; ++i)
        if (!IsBlankOrTab(pcText[i])) pcText[out++] = pcText[i];
    std::memset(pcText + out, 0, len - out);
    return 0;
}

int zipNullCh(char* pcBuf, int iLen) {
    if (pcBuf == nullptr || iLen < 0) return -1;
    int out = 0;
    for (int i = 0; i < iLen; ++i)
        if (pcBuf[i] != '\0') pcBuf[out++] = pcBuf[i];
    std::memset(pcBuf + out, 0, static_cast<size_t>(iLen - out));
    return out;
}

int FillTailSpace(char* pcBuf, int iWidth) {
    if (pcBuf == nullptr || iWidth <= 0) return -1;
    size_t len = strnlen(pcBuf, static_cast<size_t>(iWidth));
    std::memset(pcBuf + len, ' ', static_cast<size_t>(iWidth) - len);
    return 0;
}

int CutTailSpace(char* pcBuf, int iWidth) {
    if (pcBuf == nullptr || iWidth <= 0) return -1;
    for (int i = 0; i < iWidth && pcBuf[i] != '\0'; ++i) {
        if (pcBuf[i] == ' ') {
            pcBuf[i] = '\0';
            break;
        }
    }
    return 0;
}

int RemoveTailSpace(const char* pcBuf, int iLen) {
    if (pcBuf == nullptr || iLen <= 0) return 0;
    while (iLen > 0 && (pcBuf[iLen - 1] == ' ' || pcBuf[iLen - 1] == '\0')) --iLen;
    return iLen;
}

int iIsEmptyLine(const char* pcLine) {
    if (pcLine == nullptr) return 1;
    for (const char* p = pcLine; *p != '\0' && *p != '\n'; ++p)
        if (!IsBlankOrTab(*p)) return 0;
    return 1;
}

// Records of iFieldLen + iGap bytes; the field starts iFieldOff bytes into
// the data. Returns the offset of the first field equal to the pattern, or -1.
int FltByStr(const char* pcRecords, int iTotalLen, const char* pcPattern, int iFieldOff, int iGap,
             int iFieldLen) {
    if (pcRecords == nullptr || pcPattern == nullptr || iFieldOff < 0 || iGap < 0 || iFieldLen <= 0)
        return -1;
    for (long pos = iFieldOff; pos + iFieldLen <= iTotalLen; pos += iFieldLen + iGap)
        if (std::memcmp(pcRecords + pos, pcPattern, static_cast<size_t>(iFieldLen)) == 0)
            return static_cast<int>(pos);
    return -1;
}

// ---------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------

int GetDateTimeStr(char* pcOut) {
    if (pcOut == nullptr) return -1;
    return Today(time(nullptr), pcOut);
}

int SpWriteGetDateTimeStr(char* pcOut) { return GetDateTimeStr(pcOut); }

int getPureTimeStr(time_t tTime, char* pcOut) {
    if (pcOut == nullptr) return -1;
    Today(tTime == 0 ? time(nullptr) : tTime, pcOut);
    return 0;
}

int SysGetTimeTV(struct timeval* pstTv) {
    if (pstTv == nullptr || gettimeofday(pstTv, nullptr) != 0) {
        wlog("gettimeofday error");
        return -1;
    }
    return 0;
}

long long timeSubtract(const struct timeval* pstEarlier, const struct timeval* pstLater) {
    if (pstEarlier == nullptr || pstLater == nullptr) return -1;
    long long llDiff = (static_cast<long long>(pstLater->tv_sec) - pstEarlier->tv_sec) * 1000000LL +
                       (pstLater->tv_usec - pstEarlier->tv_usec);
    return llDiff < 0 ? -1 : llDiff;
}

// ---------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------

long GetFileSize(const char* pcPath) {
    struct stat st {};
    if (pcPath == nullptr || stat(pcPath, &st) != 0) return -1;
    return static_cast<long>(st.st_size);
}

long ReadFileDate(const char* pcPath, char* pcBuf) {
    if (pcPath == nullptr || pcBuf == nullptr) return -1;
    long lSize = GetFileSize(pcPath);
    if (lSize < 0) return -1;
    UniqueFile fp(std::fopen(pcPath, "rb"));
    if (!fp) return -1;
    return static_cast<long>(std::fread(pcBuf, 1, static_cast<size_t>(lSize), fp.get()));
}

long WriteFileDate(const char* pcPath, const char* pcData, long lLen) {
    if (pcPath == nullptr || (pcData == nullptr && lLen > 0) || lLen < 0) {
        wlog("fopen error");
        return -1;
    }
    UniqueFile fp(std::fopen(pcPath, "wb"));
    if (!fp) {
        wlog("fopen error");
        return -1;
    }
    if (lLen > 0 && std::fwrite(pcData, 1, static_cast<size_t>(lLen), fp.get()) != static_cast<size_t>(lLen)) {
        wlog("fwrite error");
        return -1;
    }
    if (std::fclose(fp.release()) != 0) {
        wlog("fwrite error");
        return -1;
    }
    return lLen;
}

// Reads up to iLen bytes, continuing after partial reads; the count read
// (short only at end of file), or -1.
int ReadSpecData(int iFd, char* pcBuf, int iLen) {
    if (pcBuf == nullptr || iLen < 0) return -1;
    int iDone = 0;
    while (iDone < iLen) {
        ssize_t n = read(iFd, pcBuf + iDone, static_cast<size_t>(iLen - iDone));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        iDone += static_cast<int>(n);
    }
    return iDone;
}

// Writes all iLen bytes, continuing after partial writes; iLen, or -1.
int WriteSpecData(int iFd, const char* pcData, int iLen) {
    if (pcData == nullptr || iLen < 0) return -1;
    int iDone = 0;
    while (iDone < iLen) {
        ssize_t n = write(iFd, pcData + iDone, static_cast<size_t>(iLen - iDone));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        iDone += static_cast<int>(n);
    }
    return iDone;
}

int WriteFile(int iFd, const char* pcData, int iLen) { return WriteSpecData(iFd, pcData, iLen); }

}  // extern "C"

namespace comp {
bool PlainDecimal(const char* pcText, int* piValue) {
    constexpr int kMaxDigits = 9;   // nine digits always fit an int
    auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    int iValue = 0, i = 0;
    for (; i < kMaxDigits && isDigit(pcText[i]); ++i) iValue = iValue * 10 + (pcText[i] - '0');
    if (i == 0 || isDigit(pcText[i])) return false;
    *piValue = iValue;
    return true;
}
}  // namespace comp
