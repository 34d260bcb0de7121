#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "util/SysChecksum.h"

namespace {

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

TEST(Crc, Crc16ArcCheckValueAndTable) {
    EXPECT_EQ(GenCrc16(Bytes("123456789"), 9), 0xBB3D);
    EXPECT_EQ(wCRC16Table[128], 0xA001);
}

TEST(Crc, Crc32StartsFromCallersValueWithoutFinalXor) {
    const std::string check = "123456789";
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
    // Message lengths around the padding edge, against a one-byte feed.
    for (size_t len : {55u, 56u, 57u, 63u, 64u, 119u, 120u}) {
        SCOPED_TRACE(len);
        EXPECT_EQ(Md5Hex(msg.substr(0, len), 1), Md5Hex(msg.substr(0, len), len));
    }
}

}  // namespace
