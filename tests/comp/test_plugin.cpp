// Plug-in hooks with the test plug-in built in the tree, the built-in
// heartbeat frames and the MD5 check.
#include <sys/socket.h>

#include "UnitFixture.h"
#include "base/FdUtil.h"
#include "comp/SysPlugin.h"

namespace {

namespace fs = std::filesystem;

class PluginTest : public comptest::UnitTest {
protected:
    std::string LibPath() const { return run.file("runs/bin/libBeatMsg.so"); }
    void Install() { fs::copy_file(COMP_PLUGIN_DIR "/libBeatMsg.so", LibPath(), fs::copy_options::overwrite_existing); }
    int PreHdl(const char* pcFunc, const std::string& data, unsigned short usValue = 0) {
        char caOut[1024] = {};
        int iOutLen = 0;
        int iRet = SysPreHdl("301", pcFunc, data.data(), static_cast<int>(data.size()), caOut, &iOutLen, usValue);
        out = std::string(caOut, static_cast<size_t>(iOutLen > 0 ? iOutLen : 0));
        return iRet;
    }
    // The heartbeat of a type, in a buffer that shows bytes written past it.
    int Beat(const char* pcType) {
        beat.assign(80, '\x55');
        int iRet = SysDealBeatHeart(pcType, beat.data(), &beatLen);
        return iRet;
    }
    std::string out, beat;
    int beatLen = 0;
};

TEST_F(PluginTest, PreHandlingLoadsThePluginForEveryCall) {
    EXPECT_EQ(PreHdl("PreUpper", "x"), -1);
    EXPECT_NE(Logs().find("lost " + LibPath()), std::string::npos);
    Install();
    EXPECT_EQ(PreHdl("NoSuchFunction", "abc"), 1) << "a missing function leaves the message alone";
    EXPECT_EQ(PreHdl("PreRewrite", "hello", 7), 0);
    EXPECT_EQ(out, "RW301/7:hello");
    EXPECT_EQ(PreHdl("PreReplyConsume", "req"), 1);
    EXPECT_EQ(out, "ACK");
    EXPECT_EQ(PreHdl("PreFail", "req"), -1);
    EXPECT_EQ(PreHdl("PreUpper", "MixEd"), 0);
    EXPECT_EQ(out, "MIXED");
    EXPECT_EQ(Beat("11"), 6) << "the plug-in's heartbeat";
    EXPECT_EQ(beat.substr(0, 6), "BEAT11");
    EXPECT_NE(Logs().find("plugin PreRewrite len=13"), std::string::npos) << "plug-ins reach the host's log";

    run.write("runs/bin/libBeatMsg.so", "not a shared object");
    EXPECT_EQ(PreHdl("PreUpper", "x"), -1);
    EXPECT_EQ(Beat("11"), -1);
    EXPECT_NE(Logs().find("dlopen [" + LibPath() + "] error="), std::string::npos);
}

TEST_F(PluginTest, BuiltInHeartbeatsWithoutPlugin) {
    for (const char* pcType : {"11", "12"}) {
        ASSERT_EQ(Beat(pcType), 0);
        ASSERT_EQ(beatLen, 62);
        std::string want(62, '\0');
        want.replace(0, 4, std::string("\x3a\0\0\0", 4));   // 58, host order
        want.replace(34, 2, "\x06\x02");
        EXPECT_EQ(beat.substr(0, 63), want + '\x55') << "type " << pcType;
    }

    run.write("etc/app.cfg", "[APPVARS]\n0002 1234\n[]\n");
    ASSERT_EQ(Beat("13"), 0);
    ASSERT_EQ(beatLen, 40);
    const std::string head("\xF0\x28\0\0\0\1\0\0\0\1\1\0\xFF\x08", 14);   // tag, 40, 1, 1, 1, class 0, 0xFF, beat
    EXPECT_EQ(beat.substr(0, 14), head);
    EXPECT_EQ(beat.substr(23, 4), "\x5D\x12\x34\x01") << "station id 1234 in BCD";
    EXPECT_EQ(beat.substr(31, 2), "\1\1") << "packet 1 of 1";
    EXPECT_EQ(beat.substr(37, 4), "\1\xFF\xFF\x55") << "header end, end tag, nothing more";

    run.write("etc/app.cfg", "[APPVARS]\n0002 7\n[]\n");
    ASSERT_EQ(Beat("13"), 0);
    EXPECT_EQ(beat.substr(24, 2), std::string("\0\x07", 2));
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 1\n[]\n");
    EXPECT_EQ(Beat("13"), -1) << "built, with station 0000, but reported";
    EXPECT_EQ(beatLen, 40);
    EXPECT_EQ(beat.substr(24, 2), std::string("\0\0", 2));
    EXPECT_NE(Logs().find("app.cfg中缺少配置STATION_ID"), std::string::npos);

    EXPECT_EQ(Beat("301"), -1) << "no built-in frame for other types";
    EXPECT_EQ(beatLen, 0);
}

TEST_F(PluginTest, Md5OfAllButTheLast16Bytes) {
    // Exactly 16 bytes: the digest of the empty message.
    const std::string empty("\xd4\x1d\x8c\xd9\x8f\x00\xb2\x04\xe9\x80\x09\x98\xec\xf8\x42\x7e", 16);
    EXPECT_EQ(SysCheckMd5(empty.data(), 16), 0);
    EXPECT_EQ(SysCheckMd5(empty.data(), 15), -1);
    std::string msg = "x" + empty;
    EXPECT_EQ(SysCheckMd5(msg.data(), 17), -1);
    EXPECT_NE(Logs().find("SysCheckMd5 Error "), std::string::npos);
}

// The receiver plug-in, loaded for every message: a whole message is read
// through it; without it, or without its function, nothing is read.
TEST_F(PluginTest, ReceiverPluginReadsOneMessagePerCall) {
    RouteRecord route{};
    for (auto [col, value] : {std::pair{RT_MSGLENGETLEN, "4"}, {RT_MSGLENGETOFFSET, "0"}, {RT_MSGLENGETTYPE, "0"},
                              {RT_MSGLENINTEL, "0"}, {RT_HEADERLEN, "4"}, {RT_MSGLENADJUST, "0"}})
        std::snprintf(route.caField[col], sizeof route.caField[col], "%s", value);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    comp::UniqueFd peer(sv[0]), mine(sv[1]);
    std::vector<char> buf(65536);
    int total = -7;
    bool noReceiver = true;
    const comp::NetRuleCall call{30, mine.get(), buf.data(), 4, &route, &total};
    const std::string lib = run.file("runs/bin/libnetrule.so");
    ASSERT_EQ(write(peer.get(), "0005hello0002hi", 15), 15);

    EXPECT_EQ(comp::RecvByNetRule("T", call, &noReceiver), -1);
    EXPECT_NE(Logs().find("lost " + lib), std::string::npos);
    fs::copy_file(COMP_PLUGIN_DIR "/libnetrule.so", lib);
    EXPECT_EQ(comp::RecvByNetRule("T", call, &noReceiver), 9);
    EXPECT_EQ(std::string(buf.data(), 9), "0005hello");
    EXPECT_EQ(total, 9);
    EXPECT_FALSE(noReceiver);

    fs::copy_file(COMP_PLUGIN_DIR "/libBeatMsg.so", lib, fs::copy_options::overwrite_existing);
    EXPECT_EQ(comp::RecvByNetRule("T", call, &noReceiver), 1) << "length 1 without SysRcvMulPkg";
    EXPECT_TRUE(noReceiver);
    EXPECT_NE(Logs().find("dlsym[" + lib + "]error="), std::string::npos);
    run.write("runs/bin/libnetrule.so", "not a shared object");
    EXPECT_EQ(comp::RecvByNetRule("T", call, &noReceiver), -1);
    fs::copy_file(COMP_PLUGIN_DIR "/libnetrule.so", lib, fs::copy_options::overwrite_existing);
    EXPECT_EQ(comp::RecvByNetRule("T", call, &noReceiver), 6) << "nothing was lost on the way";
    EXPECT_EQ(std::string(buf.data(), 6), "0002hi");
}

}  // namespace
