#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "TestEnv.h"
#include "comp/SysGlobals.h"
#include "util/StrTools.h"

namespace {

std::string Text(const char* p, size_t n) { return std::string(p, n); }

TEST(Bcd, DigitPairsAndTheirRepairOfBadCharacters) {
    char two[] = "47";
    EXPECT_EQ(NumericToBCD(two), 0x47);
    char bad[] = "4x";
    EXPECT_EQ(NumericToBCD(bad), 0x40);
    EXPECT_STREQ(bad, "40");

    char hex[] = "aF";
    EXPECT_EQ(NumericToBCD16(hex), 0xAF);
    char badHigh[] = "g5";
    EXPECT_EQ(NumericToBCD16(badHigh), 0x05);
    EXPECT_STREQ(badHigh, "05");
    char badLow[] = "5g";   // the bad low digit takes the high one with it
    EXPECT_EQ(NumericToBCD16(badLow), 0x00);
    EXPECT_STREQ(badLow, "50");

    char out[2];
    BCDToNumeric(0x3C, out);
    EXPECT_EQ(Text(out, 2), "3<");
}

TEST(Bcd, NumberStringPacksTwoDigitsPerByteLeftPadded) {
    unsigned char out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    ASSERT_EQ(NumberStr2BCDStr("123", 3, out), 0);
    EXPECT_EQ(Text(reinterpret_cast<char*>(out), 3), "\x01\x23\xEE");
    ASSERT_EQ(NumberStr2BCDStr("1234", 4, out), 0);
    EXPECT_EQ(Text(reinterpret_cast<char*>(out), 2), "\x12\x34");
    EXPECT_EQ(NumberStr2BCDStr(nullptr, 2, out), -1);
}

TEST(Hex, ToTextAndBack) {
    const unsigned char in[] = {0xAB, 0x01, 0xF0};
    char out[7] = "......";
    ConvHexToChar(in, 3, out);
    EXPECT_STREQ(out, "ab01f0");
    Unpack(in, 3, out);
    EXPECT_STREQ(out, "AB01F0");

    char hex[] = "ab01f";
    unsigned char packed[3] = {};
    EXPECT_EQ(Pack(hex, 5, packed), 3);
    EXPECT_STREQ(hex, "AB01F");   // upper-cased in place
    EXPECT_EQ(Text(reinterpret_cast<char*>(packed), 3), "\xAB\x01\xF0");   // odd: high nibble only

    unsigned char two[2];
    ConvIntToChar2(0x12345, two);
    EXPECT_EQ(ConvChar2ToInt(two), 0x2345);   // low 16 bits, big-endian
}

TEST(DigitString, PackAndUnpackFixedWidths) {
    int v = 0;
    ASSERT_EQ(PackInt("991234", &v, 4), 0);
    EXPECT_EQ(v, 1234);

    char out[6] = "#####";
    UnpackInt(out, -45, 4);
    EXPECT_STREQ(out, "0045#");   // no NUL written
    UnpackInt(out, 12345, 3);
    EXPECT_EQ(Text(out, 3), "345");
}

TEST(DigitString, AddAndSubtractWithCarriesBorrowsAndBadOperands) {
    char out[5] = {};
    StrAdd("0999", "0001", 4, out);
    EXPECT_STREQ(out, "1000");
    StrAdd("9999", "0001", 4, out);
    EXPECT_STREQ(out, "0000");
    StrAdd("0123", "0a01", 4, out);
    EXPECT_STREQ(out, "    ");
    StrSub("1000", "0001", 4, out);
    EXPECT_STREQ(out, "0999");
    StrSub("0000", "0001", 4, out);
    EXPECT_STREQ(out, "9999");
}

TEST(DigitString, LeadingZeros) {
    char text[] = " 0012xy";
    EXPECT_EQ(RemoveHeadZero(text, 5), 2);
    EXPECT_EQ(Text(text, 2), "12");

    char out[16] = "abcdefgh";
    ASSERT_EQ(trimZero(out, "000"), 0);
    EXPECT_STREQ(out, "0");
    EXPECT_EQ(std::string(out + 2, 6), std::string(6, '\0'));   // old text cleared
    trimZero(out, "00120");
    EXPECT_STREQ(out, "120");
    trimZero(out, "");
    EXPECT_STREQ(out, "0");
}

TEST(Texts, TrimAndZipClearWhatTheyFree) {
    char a[] = "\t a b \t";
    delSpacePreLast(a);
    EXPECT_STREQ(a, "a b");
    char c[] = " 1 2\t3 ";
    zipAll(c);
    EXPECT_EQ(Text(c, sizeof c), std::string("123\0\0\0\0\0", 8));
    char d[] = {'a', '\0', 'b', '\0', 'c', 'z'};
    EXPECT_EQ(zipNullCh(d, 5), 3);
    EXPECT_EQ(Text(d, 6), std::string("abc\0\0z", 6));   // only the first 5 bytes
    char e[8] = "ab";
    FillTailSpace(e, 5);
    EXPECT_EQ(Text(e, 6), std::string("ab   \0", 6));
    EXPECT_EQ(iIsEmptyLine(" \t\n"), 1);
    EXPECT_EQ(iIsEmptyLine(" \r\n"), 0);
}

TEST(Files, WholeFileRoundTrip) {
    comptest::ResetGlobals();
    comptest::TempRunDir dir;
    std::snprintf(g_stProcState.stLog.caTraceBase, sizeof g_stProcState.stLog.caTraceBase, "%s",
                  dir.file("log/trace").c_str());
    const std::string path = dir.file("data.bin");
    const char data[] = {'a', '\0', 'b', '\n'};
    EXPECT_EQ(WriteFileDate(path.c_str(), data, 4), 4);
    EXPECT_EQ(GetFileSize(path.c_str()), 4);
    char buf[8] = {};
    EXPECT_EQ(ReadFileDate(path.c_str(), buf), 4);
    EXPECT_EQ(Text(buf, 4), Text(data, 4));
    EXPECT_EQ(ReadFileDate(dir.file("missing").c_str(), buf), -1);
    EXPECT_EQ(WriteFileDate(dir.file("no/such/dir").c_str(), data, 4), -1);
    comptest::ResetGlobals();
}

}  // namespace
