// Codecs: the checksums against their published vectors, BCD packing and
// digit strings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/StrTools.h"
#include "util/SysChecksum.h"

namespace {

std::string Text(const char* p, size_t n) { return std::string(p, n); }

const unsigned char* Bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// Feeds the message in pieces of the given size.
std::string Md5Hex(const std::string& msg, size_t piece) {
    MD5_CTX ctx;
    MD5Init(&ctx);
    for (size_t i = 0; i < msg.size(); i += piece)
        MD5Update(&ctx, Bytes(msg) + i, static_cast<unsigned>(std::min(piece, msg.size() - i)));
    unsigned char digest[16];
    MD5Final(digest, &ctx);
    char hex[33];
    for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

TEST(Crc, Crc16ArcAndCrc32CheckValuesWithoutFinalXorFromTheCallersStart) {
    const std::string check = "123456789";
    EXPECT_EQ(GenCrc16(Bytes(check), 9), 0xBB3D);
    EXPECT_EQ(SysGenCrc32Value(Bytes(check), 9, 0xFFFFFFFFu), 0x340BC6D9u);
    EXPECT_EQ(SysGenCrc32Value(Bytes(check), 9, 0), 0x2DFD2D88u);
    EXPECT_EQ(SysGenCrc32Value(Bytes(check), 0, 0x12345678u), 0u);
    // The initial value lets a caller continue over a second piece.
    unsigned int first = SysGenCrc32Value(Bytes(check), 4, 0);
    EXPECT_EQ(SysGenCrc32Value(Bytes(check) + 4, 5, first), 0x2DFD2D88u);
}

TEST(Md5, Rfc1321TestSuite) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& [msg, digest] : cases) {
        SCOPED_TRACE(msg);
        EXPECT_EQ(Md5Hex(msg, msg.empty() ? 1 : msg.size()), digest);
    }
}

TEST(Md5, PiecewiseUpdatesMatchOneUpdate) {
    // 200 bytes cross several block boundaries and the 56-byte padding edge.
    std::string msg;
    for (int i = 0; i < 200; ++i) msg += static_cast<char>('A' + i % 26);
    const std::string whole = Md5Hex(msg, msg.size());
    for (size_t piece : {1u, 7u, 55u, 56u, 63u, 64u, 65u, 128u}) {
        SCOPED_TRACE(piece);
        EXPECT_EQ(Md5Hex(msg, piece), whole);
    }
}

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

TEST(DigitString, PlainDecimalReadsWhatAtoiReadsOrDeclines) {
    int v = -1;
    for (const char* text : {"0", "4", "0012", "30 ", "65535x", "123456789", "7\0" "9"}) {
        ASSERT_TRUE(comp::PlainDecimal(text, &v)) << text;
        EXPECT_EQ(v, std::atoi(text)) << text;
    }
    // Blanks, signs, ten digits and no digits at all are left to atoi.
    for (const char* text : {"", " 12", "+1", "-1", "1234567890", "x1"})
        EXPECT_FALSE(comp::PlainDecimal(text, &v)) << text;
}

}  // namespace
