// Texts, BCD and hexadecimal packing, digit-string arithmetic, time stamps
// and whole-file helpers. All work on caller-owned buffers.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/time.h>

extern "C" {

// BCD and hexadecimal.
unsigned char NumericToBCD(char* pcTwoDigits);
unsigned char NumericToBCD16(char* pcTwoHex);
void BCDToNumeric(unsigned char ucBcd, char* pcOut);
int NumberStr2BCDStr(const char* pcDigits, int iCount, unsigned char* pucOut);
void ConvHexToChar(const unsigned char* pucIn, int iLen, char* pcOut);
void Unpack(const unsigned char* pucIn, int iLen, char* pcOut);
int Pack(char* pcHex, int iLen, unsigned char* pucOut);
void ConvIntToChar2(int iValue, unsigned char* pucOut);
int ConvChar2ToInt(const unsigned char* pucIn);

// Digit-string numbers.
int PackInt(const char* pcDigits, int* piOut, int iWidth);
int PackLong(const char* pcDigits, long* plOut, int iWidth);
int UnpackInt(char* pcOut, int iValue, int iWidth);
int UnpackLong(char* pcOut, long lValue, int iWidth);
int StrAdd(const char* pcA, const char* pcB, int iWidth, char* pcOut);
int StrSub(const char* pcA, const char* pcB, int iWidth, char* pcOut);
int RemoveHeadZero(char* pcText, int iLen);
int trimZero(char* pcOut, const char* pcDigits);

// Texts.
int upperStr(char* pcText);
int strPack(char* pcText);
int delSpacePreLast(char* pcText);
int zipAll(char* pcText);
int zipNullCh(char* pcBuf, int iLen);
int FillTailSpace(char* pcBuf, int iWidth);
int CutTailSpace(char* pcBuf, int iWidth);
int RemoveTailSpace(const char* pcBuf, int iLen);
int iIsEmptyLine(const char* pcLine);
int FltByStr(const char* pcRecords, int iTotalLen, const char* pcPattern, int iFieldOff, int iGap,
             int iFieldLen);

// Time.
int GetDateTimeStr(char* pcOut);
int SpWriteGetDateTimeStr(char* pcOut);
int getPureTimeStr(time_t tTime, char* pcOut);
int SysGetTimeTV(struct timeval* pstTv);
long long timeSubtract(const struct timeval* pstEarlier, const struct timeval* pstLater);

// Files.
long GetFileSize(const char* pcPath);
long ReadFileDate(const char* pcPath, char* pcBuf);
long WriteFileDate(const char* pcPath, const char* pcData, long lLen);
int ReadSpecData(int iFd, char* pcBuf, int iLen);
int WriteSpecData(int iFd, const char* pcData, int iLen);
int WriteFile(int iFd, const char* pcData, int iLen);

}  // extern "C"

namespace comp {
// The value of a text that starts with one to nine decimal digits followed by
// anything but a digit (the usual configuration number), into *piValue; false
// for any other text, which the caller reads with atoi or strtol as before.
// Those go through the locale-aware strtol machinery, which costs several
// times more for these short numbers read on every message.
bool PlainDecimal(const char* pcText, int* piValue);
}  // namespace comp
