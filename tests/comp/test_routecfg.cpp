// The framing fields of the route row and the "IP:PORT" field.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "TestEnv.h"
#include "comp/SysComPub.h"
#include "comp/SysGlobals.h"

namespace {

class RouteCfg : public ::testing::Test {
protected:
    void SetUp() override {
        comptest::ResetGlobals();
        std::snprintf(g_stProcState.stLog.caErrLogName, sizeof g_stProcState.stLog.caErrLogName, "%s/log/err",
                      run.path().c_str());
    }
    void TearDown() override { comptest::ResetGlobals(); }
    static std::string Msg() { return std::strchr(g_caMsg, ']'); }

    comptest::TempRunDir run;
};

TEST_F(RouteCfg, FramingFieldsAreReadByPositionAndGuardedByTheirOutputs) {
    RouteRecord st{};
    std::snprintf(st.caField[RT_MSGLENGETLEN], 32, "%s", "0");
    std::snprintf(st.caField[RT_MSGLENGETOFFSET], 32, "%s", "2");
    std::snprintf(st.caField[RT_IDLETIMEOUT], 32, "%s", "60");
    std::snprintf(st.caField[RT_HEADERLEN], 32, "%s", "00012");
    int iLen = -1, iOff = -1, iIdle = -1, iHdr = -1;
    ASSERT_EQ(iGetStaticTblValues(st, &iLen, &iOff, &iIdle, &iHdr), 0);
    EXPECT_EQ(iLen, 0);
    EXPECT_EQ(iOff, 2);
    EXPECT_EQ(iIdle, 60);
    EXPECT_EQ(iHdr, 1);  // only four characters count

    // A field that fills its 32 bytes ends there.
    std::snprintf(st.caField[RT_HEADERLEN], 32, "%s", "12");
    std::memset(st.caField[RT_MSGLENGETLEN], '0', 31);
    st.caField[RT_MSGLENGETLEN][31] = '4';
    ASSERT_EQ(iGetStaticTblValues(st, &iLen, &iOff, &iIdle, &iHdr), 0);
    EXPECT_EQ(iLen, 4);
    EXPECT_EQ(iHdr, 12);

    EXPECT_EQ(iGetStaticTblValues(st, nullptr, &iOff, &iIdle, &iHdr), -1);
    EXPECT_EQ(Msg(), "]PLAT_STATICROUTEINF config error,MSGLENGETLEN must greater then zero");
    EXPECT_EQ(iGetStaticTblValues(st, &iLen, &iOff, &iIdle, nullptr), -1);
    EXPECT_EQ(Msg(), "]PLAT_STATICROUTEINF config error,HEADERLEN");
    EXPECT_EQ(iGetStaticTblValues(st, &iLen, nullptr, &iIdle, &iHdr), -1);
    EXPECT_EQ(Msg(), "]parameter error.");
}

TEST_F(RouteCfg, IpAndPortForms) {
    char caIp[32];
    int iPort = -5;
    ASSERT_EQ(SysGetIpAndPort("10.1.2.3:7001", caIp, &iPort), 0);
    EXPECT_STREQ(caIp, "10.1.2.3");
    EXPECT_EQ(iPort, 7001);
    ASSERT_EQ(SysGetIpAndPort("10.1.2.3:", caIp, &iPort), 0);
    EXPECT_EQ(iPort, 0);

    EXPECT_EQ(SysGetIpAndPort("-1", caIp, &iPort), -2);
    EXPECT_EQ(Msg(), "]not server config.IP:PORT [-1].");
    EXPECT_EQ(SysGetIpAndPort("-1:0", caIp, &iPort), -2);

    std::memset(caIp, 'z', sizeof caIp);
    EXPECT_EQ(SysGetIpAndPort("10.1.2.3", caIp, &iPort), -1);
    EXPECT_EQ(Msg(), "]IPPORT has wrong value.[]");
    EXPECT_STREQ(caIp, "10.1.2.3");  // terminated all the same
    char caWide[64];
    EXPECT_EQ(SysGetIpAndPort((std::string(70, '1') + ":80").c_str(), caWide, &iPort), -1);
    EXPECT_EQ(std::strlen(caWide), 63u);
    EXPECT_EQ(SysGetIpAndPort(nullptr, caIp, &iPort), -1);
    EXPECT_EQ(Msg(), "]parameter error.");
}

}  // namespace
