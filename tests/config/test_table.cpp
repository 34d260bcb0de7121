// Lookups in the loaded-table segment: values, rows, counts, damaged segments.
#include <sys/shm.h>

#include <cstring>

#include "UnitFixture.h"
#include "TableImage.h"
#include "config/SysRscApp.h"
#include "config/SysTable.h"

namespace {

using comptest::Contains;

std::vector<std::string> Route(const std::string& id, const std::string& mon, const std::string& name) {
    std::vector<std::string> v(28);
    v[RT_ROUTEID] = id;
    v[RT_ROUTEMONID] = mon;
    v[RT_ROUTENAME] = name;
    return v;
}

class Table : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        img.appendVar("MAX_COM_NUM", "256")
            .appendVar("LIVEMSGTYPE", "0000")
            .appendRoute(Route("1", "1", "alpha"))
            .appendRoute(Route("2", "1", "beta"))
            .appendRoute(Route("2", "2", "beta-2"))
            .appendRoute(Route("3", "1", "gamma"))
            .append("PAIRS", {"A", "B", "C", "D", "E", "F"}, {"1", "2", "3", "4", "5", "6"});
        Load();
    }
    void Load() { ASSERT_GE(g_iShmTblId = img.createShm(keys), 0); }
    int Count(const char* pcTable, const char* pcKey, const char* pcVal) {
        return SysGetRecords(0, pcTable, nullptr, pcKey, pcVal, PARA_END);
    }

    comptest::TableImage img;
    char value[64] = {};
};

TEST_F(Table, VariablesByNameAndTheNotFoundText) {
    EXPECT_EQ(SysGetenvByName("LIVEMSGTYPE", value), 0);
    EXPECT_STREQ(value, "0000");
    EXPECT_EQ(SysGetenvByName("KERNEL_BACKLOG", value), SQL_NOTFOUND);
    EXPECT_STREQ(g_caMsg, "There is no such key-value in sys.cfg");
    EXPECT_FALSE(Contains(Logs(), "no such key-value"));  // left for the caller
    EXPECT_EQ(SysGetenvByName("", value), -1);
    EXPECT_TRUE(Contains(g_caMsg, "]Parameter error[]"));
}

TEST_F(Table, KeysMatchExactlyAndOnlyTheRowFetchesUpperCaseTheFirstKey) {
    EXPECT_EQ(SysGetValueByTableKey("plat_staticrouteinf", "routename", value, "ROUTEID", "2", "routemonid", "2",
                                    PARA_END),
              0);
    EXPECT_STREQ(value, "beta-2");
    EXPECT_EQ(SysGetValueByTableKey("PLAT_STATICROUTEINF", "ROUTENAME", value, "ROUTEID", "2", PARA_END), 0);
    EXPECT_STREQ(value, "beta");  // the first matching row
    EXPECT_EQ(SysGetValueByTableKey("PLAT_STATICROUTEINF", "ROUTENAME", value, "routeid", "3", PARA_END),
              SQL_NOTFOUND);
    EXPECT_STREQ(g_caMsg, "There is no such key-value in table [PLAT_STATICROUTEINF]");
    EXPECT_EQ(SysGetValueByTableKey("PLAT_STATICROUTEINF", "NOSUCH", value, "ROUTEID", "1", PARA_END),
              SQL_NOTFOUND);
    EXPECT_EQ(SysGetenvByName("max_com_num", value), SQL_NOTFOUND);

    RouteRecord stRoute{};
    ASSERT_EQ(SysGetSingleRecord("plat_staticrouteinf", &stRoute, "routeid", "3", PARA_END), 0);
    EXPECT_STREQ(stRoute.caField[RT_ROUTENAME], "gamma");
    EXPECT_EQ(SysGetSingleRecord("PLAT_STATICROUTEINF", &stRoute, "ROUTEID", "9", PARA_END), SQL_NOTFOUND);
    EXPECT_TRUE(Contains(g_caMsg, "]There is no such key-value in table [PLAT_STATICROUTEINF]"));
    EXPECT_EQ(g_caMsg[0], '[');

    char caRow[16] = {};
    ASSERT_EQ(SysGetSingleRecord("PAIRS", caRow, "C", "3", PARA_END), 0);
    EXPECT_EQ(std::string(caRow, 12), std::string("1\0002\0003\0004\0005\0006\0", 12));  // packed values
}

TEST_F(Table, ArgumentListsAreCheckedBeforeTheSegment) {
    g_iShmTblId = -1;
    EXPECT_EQ(SysGetValueByTableKey("PAIRS", "F", value, "A", "1", "B", "2", "C", "3", "D", "4", "E", "5", "F", "6",
                                    PARA_END),
              -1);
    EXPECT_TRUE(Contains(g_caMsg, "]Too much parameters. No more than 10,but now iCounter=12"));
    EXPECT_EQ(SysGetSingleRecord("PAIRS", value, "A", "1", "B", PARA_END), -1);
    EXPECT_TRUE(Contains(g_caMsg, "] The number of parameter is not properly.[3]"));
    EXPECT_EQ(SysGetRecords(0, "PAIRS", nullptr, "A", "1", nullptr), -1);
    EXPECT_STREQ(g_caMsg, "[SysTable]param error,lost flag PARA_END");
    EXPECT_EQ(SysGetValueByTableKey("PAIRS", "A", value, PARA_END), -1);
    EXPECT_TRUE(Contains(g_caMsg, "] lost parameter [PAIRS]"));

    Load();
    EXPECT_EQ(SysGetValueByTableKey("PAIRS", "F", value, "A", "1", "B", "2", "C", "3", "D", "4", "E", "5", PARA_END),
              0);
    EXPECT_STREQ(value, "6");
}

TEST_F(Table, RecordsAreCountedCopiedAndEndAtAForeignRow) {
    std::vector<RouteRecord> rows(3);
    std::memset(rows.data(), 0x5A, rows.size() * sizeof(RouteRecord));
    EXPECT_EQ(SysGetRecords(0, "PLAT_STATICROUTEINF", rows.data(), "ROUTEMONID", "1", PARA_END), 3);
    EXPECT_EQ(rows[0].caField[0][0], 0x5A);  // mode 0 copies nothing
    EXPECT_EQ(SysGetRecords(1, "PLAT_STATICROUTEINF", rows.data(), "ROUTEID", "2", PARA_END), 2);
    EXPECT_STREQ(rows[1].caField[RT_ROUTENAME], "beta-2");
    EXPECT_EQ(rows[2].caField[0][0], 0x5A);
    EXPECT_EQ(Count("PLAT_STATICROUTEINF", "NULL", "NULL"), 4);
    EXPECT_EQ(Count("VARSTABLE", "null", "NULL"), 2);
    EXPECT_EQ(Count("VARSTABLE", "NULL", "null"), 0);

    img.appendVar("LATE", "1").appendRoute(Route("4", "1", "delta"));
    Load();
    EXPECT_EQ(Count("PLAT_STATICROUTEINF", "NULL", "NULL"), 4);
    EXPECT_EQ(Count("PLAT_STATICROUTEINF", "ROUTEID", "4"), 0);
    EXPECT_EQ(SysGetValueByTableKey("PLAT_STATICROUTEINF", "ROUTENAME", value, "ROUTEID", "4", PARA_END), 0);
}

TEST_F(Table, DamagedRecordsAndSegmentsMatchNothing) {
    auto& recs = img.records();
    recs[0].iFieldCount = 129;                      // MAX_COM_NUM
    recs[1].iaFieldOffset[1] = 1020;                // LIVEMSGTYPE's value past the area
    recs[1].iaFieldLen[1] = 5;
    std::memset(recs[2].caFieldNames[0], 'R', 32);  // route 1: ROUTEID without NUL
    recs[3].iRowLen = 2000;                         // route 2/1
    recs[4].iFieldCount = -1;                       // route 2/2
    std::memset(recs[6].caTableName, 'P', 32);      // PAIRS without NUL
    Load();
    EXPECT_EQ(SysGetenvByName("MAX_COM_NUM", value), SQL_NOTFOUND);
    EXPECT_EQ(SysGetenvByName("LIVEMSGTYPE", value), SQL_NOTFOUND);
    EXPECT_EQ(Count("PLAT_STATICROUTEINF", "NULL", "NULL"), 2);
    EXPECT_EQ(Count("PLAT_STATICROUTEINF", "ROUTEID", "1"), 0);
    EXPECT_EQ(Count("PLAT_STATICROUTEINF", "ROUTEID", "2"), 0);
    EXPECT_EQ(Count(std::string(32, 'P').c_str(), "NULL", "NULL"), 0);

    // Rows only, without the end record behind them; then a segment smaller
    // than one record.
    img.records() = {img.records()[5]};
    g_iShmTblId = keys.newShm(sizeof(TableRecord));
    void* pv = shmat(g_iShmTblId, nullptr, 0);
    ASSERT_NE(pv, reinterpret_cast<void*>(-1));
    std::memcpy(pv, img.records().data(), sizeof(TableRecord));
    shmdt(pv);
    EXPECT_EQ(SysGetValueByTableKey("PLAT_STATICROUTEINF", "ROUTENAME", value, "ROUTEID", "3", PARA_END), 0);
    EXPECT_EQ(Count("PLAT_STATICROUTEINF", "ROUTEID", "4"), 0);
    g_iShmTblId = keys.newShm(100);
    EXPECT_EQ(Count("PLAT_STATICROUTEINF", "NULL", "NULL"), 0);
}

TEST_F(Table, NewSegmentIdIsFollowedAndAMissingOneReported) {
    ASSERT_EQ(SysGetenvByName("MAX_COM_NUM", value), 0);
    comptest::TableImage other;
    other.appendVar("MAX_COM_NUM", "512");
    g_iShmTblId = other.createShm(keys);
    ASSERT_EQ(SysGetenvByName("MAX_COM_NUM", value), 0);
    EXPECT_STREQ(value, "512");
    other.records()[0].caValues[other.records()[0].iaFieldOffset[1]] = '9';
    ASSERT_TRUE(other.writeTo(g_iShmTblId));
    ASSERT_EQ(SysGetenvByName("MAX_COM_NUM", value), 0);
    EXPECT_STREQ(value, "912");  // rewritten contents are seen

    g_iShmTblId = -1;
    EXPECT_EQ(SysGetenvByName("MAX_COM_NUM", value), -1);
    EXPECT_TRUE(Contains(g_caMsg, "]table segment not found,shmid=[-1]"));
    EXPECT_TRUE(Contains(Logs(), "SysGetValueByTableKey error"));
}

TEST_F(Table, RemovedSegmentFailsLookupsUntilTheKeyNamesANewOne) {
    // The table segment is the second [SHMRESOURCE] entry of sys.cfg.
    key_t key = 0;
    const int iFirst = keys.newShm(static_cast<int>(img.imageBytes()), &key);
    ASSERT_TRUE(img.writeTo(iFirst));
    run.write("etc/sys.cfg", "[SHMRESOURCE]\nCONNREG 1 4660 4096\nTABLE 2 " + std::to_string(key) + " " +
                                 std::to_string(img.imageBytes()) + "\n");
    g_stCommCfgValue.iShareMemCount = 2;
    g_iShmTblId = iFirst;
    ASSERT_EQ(SysGetenvByName("MAX_COM_NUM", value), 0);

    // Removed under the live attachment: its old rows are not served.
    ASSERT_EQ(shmctl(iFirst, IPC_RMID, nullptr), 0);
    EXPECT_EQ(SysGetenvByName("MAX_COM_NUM", value), -1);
    EXPECT_TRUE(Contains(g_caMsg, "]table segment not found,shmid=[" + std::to_string(iFirst) + "]"));
    RouteRecord stRoute{};
    EXPECT_EQ(SysGetSingleRecord("PLAT_STATICROUTEINF", &stRoute, "ROUTEID", "1", PARA_END), -1);

    // Reloaded under the same key with changed rows.
    auto load = [&](const char* pcMaxCom, const char* pcName) {
        comptest::TableImage next;
        next.appendVar("MAX_COM_NUM", pcMaxCom).appendRoute(Route("1", "1", pcName));
        const int iId = shmget(key, next.imageBytes(), IPC_CREAT | IPC_EXCL | 0666);
        EXPECT_TRUE(next.writeTo(iId));
        return iId;
    };
    const int iSecond = load("512", "alpha-2");
    ASSERT_EQ(SysGetenvByName("MAX_COM_NUM", value), 0);
    EXPECT_STREQ(value, "512");
    EXPECT_EQ(g_iShmTblId, iSecond);
    ASSERT_EQ(SysGetSingleRecord("PLAT_STATICROUTEINF", &stRoute, "ROUTEID", "1", PARA_END), 0);
    EXPECT_STREQ(stRoute.caField[RT_ROUTENAME], "alpha-2");
    const std::string reloaded = "table segment reloaded,old shmid=[" + std::to_string(iFirst) +
                                 "],new shmid=[" + std::to_string(iSecond) + "]";
    const std::string logs = Logs();
    EXPECT_EQ(logs.find(reloaded), logs.rfind(reloaded)) << "said once";
    EXPECT_NE(logs.find(reloaded), std::string::npos);

    // A reload between two lookups: the next lookup already has the new rows.
    ASSERT_EQ(shmctl(iSecond, IPC_RMID, nullptr), 0);
    const int iThird = load("1024", "alpha-3");
    ASSERT_EQ(SysGetenvByName("MAX_COM_NUM", value), 0);
    EXPECT_STREQ(value, "1024");
    EXPECT_EQ(g_iShmTblId, iThird);
}

TEST_F(Table, TextHelpers) {
    EXPECT_EQ(getValueByKey("A=1;KEY=22;KEY=3;", "KEY=", value), 0);
    EXPECT_STREQ(value, "22");
    EXPECT_EQ(getValueByKey("A=1;KEY=22", "KEY=", value), -1);  // the last segment needs its ";"
    EXPECT_STREQ(g_caMsg, "not found key 'KEY=' in 'A=1;KEY=22'\n");
    EXPECT_EQ(findSubString("ab;cd;ef;", "cd"), 0);
    EXPECT_EQ(findSubString("ab;cd;ef;", "c"), -1);
    std::memset(value, 'z', sizeof value);
    EXPECT_EQ(getRecord("A,1;B,22;C,333;", 9, value), 0);
    EXPECT_EQ(std::string(value, 4), "122z");  // no NUL added
}

}  // namespace
