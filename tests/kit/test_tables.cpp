// tables.cfg: its parser, its layout in the table segment, and what the
// product's lookups find there after `compkit up`.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Platform.h"
#include "comp/SysGlobals.h"
#include "config/SysRscApp.h"
#include "config/SysTable.h"
#include "ipc/SysIpc.h"
#include "kit/KitIpc.h"
#include "kit/TablesCfg.h"

namespace {

using comptest::MakeRouteRow;
using comptest::PlatformSetup;

class TablesRoundTrip : public comptest::PlatformTest {};

TEST_F(TablesRoundTrip, rows_reach_the_product_lookups_at_their_column_positions) {
    PlatformSetup setup;
    setup.routes = {MakeRouteRow(10, "127.0.0.1:7010", "0"), MakeRouteRow(20, "127.0.0.1:7020", "1")};
    setup.routes[1]["ROUTENAME"] = "tc with blanks";
    setup.routes[1]["OUTPREHDL"] = "PreOut";
    setup.vars["MAX_COM_NUM"] = "512";
    StartPlatform(setup);
    ASSERT_GE(SysGetShmIdByIndex(2, 2), 0);

    char value[64] = {0};
    EXPECT_EQ(SysGetValueByTableKey("PLAT_STATICROUTEINF", "IPPORT", value, "ROUTEID", "20", PARA_END), 0);
    EXPECT_STREQ(value, "127.0.0.1:7020");
    EXPECT_EQ(SysGetenvByName("MAX_COM_NUM", value), 0);
    EXPECT_STREQ(value, "512");
    EXPECT_EQ(SysGetValueByTableKey("PLAT_STATICROUTEINF", "IPPORT", value, "ROUTEID", "30", PARA_END), SQL_NOTFOUND);

    RouteRecord rec;
    std::memset(&rec, 0, sizeof rec);
    ASSERT_EQ(SysGetSingleRecord("PLAT_STATICROUTEINF", &rec, "ROUTEID", "20", "ROUTEMONID", "1", PARA_END), 0);
    EXPECT_STREQ(rec.caField[RT_ROUTEID], "20");
    EXPECT_STREQ(rec.caField[RT_ROUTENAME], "tc with blanks");
    EXPECT_STREQ(rec.caField[RT_MSGSNDTYPE], "1");
    EXPECT_STREQ(rec.caField[RT_HEADERLEN], "4");
    EXPECT_STREQ(rec.caField[RT_IPPORT], "127.0.0.1:7020");
    EXPECT_STREQ(rec.caField[RT_OUTPREHDL], "PreOut");
    EXPECT_STREQ(rec.caField[RT_INPREHDL], "") << "a column left out is empty";
    EXPECT_EQ(SysGetRecords(0, "PLAT_STATICROUTEINF", nullptr, "NULL", "NULL", PARA_END), 2);
}

TEST(TablesCfg, column_order_of_the_header_does_not_change_the_row_image) {
    std::vector<kit::KitTable> a, b;
    std::string why;
    ASSERT_TRUE(kit::ParseTablesCfg("[PLAT_STATICROUTEINF]\nROUTEID IPPORT HEADERLEN\n10 1.2.3.4:5 8\n", "t", &a, &why))
        << why;
    ASSERT_TRUE(kit::ParseTablesCfg("[plat_staticrouteinf]\nheaderlen routeid ipport routemonid\n8 10 1.2.3.4:5 1\n",
                                    "t", &b, &why))
        << why;
    std::vector<TableRecord> ia = kit::BuildTableImage(a), ib = kit::BuildTableImage(b);
    ASSERT_EQ(ia.size(), 2u);
    ASSERT_EQ(ib.size(), 2u);
    EXPECT_EQ(std::memcmp(&ia[0], &ib[0], sizeof(TableRecord)), 0);
    const TableRecord& r = ia[0];
    EXPECT_EQ(r.iFieldCount, 28);
    EXPECT_EQ(r.iRowLen, 896);
    EXPECT_STREQ(r.caTableName, "PLAT_STATICROUTEINF");
    EXPECT_STREQ(r.caValues + 32 * RT_IPPORT, "1.2.3.4:5");
    EXPECT_STREQ(r.caValues + 32 * RT_ROUTEMONID, "1") << "ROUTEMONID defaults to 1";
    EXPECT_EQ(r.iaFieldOffset[RT_HEADERLEN], 32 * RT_HEADERLEN);
    EXPECT_EQ(r.iaFieldLen[RT_HEADERLEN], 1);
    EXPECT_STREQ(r.caFieldNames[RT_MSGLENADJUST], "MSGLENADJUST");
    EXPECT_EQ(ia[1].caTableName[0], '\0') << "the image ends with an empty record";
}

TEST(TablesCfg, bad_lines_are_reported_with_their_line_number) {
    struct Case {
        const char* text;
        const char* where;
        const char* what;
    } cases[] = {
        {"[PLAT_STATICROUTEINF]\nROUTEID IPPORT\n10 1.2.3.4:5\n20\n", "tables.cfg:4: ",
         "row has 1 values but the header names 2 columns"},
        {"# routes\n[PLAT_STATICROUTEINF]\nROUTEID BOGUS\n", "tables.cfg:3: ", "unknown column BOGUS"},
        {"[PLAT_STATICROUTEINF]\nIPPORT\n", "tables.cfg:2: ", "needs a ROUTEID column"},
        {"[VARSTABLE]\nVARSNAME VARSVALUE\nX 01234567890123456789012345678912\n", "tables.cfg:3: ", "at most 31 fit"},
        {"\nVARSNAME VARSVALUE\n", "tables.cfg:2: ", "before the first"},
        {"[T]\nA B\n1 \"2\n", "tables.cfg:3: ", "not closed"},
        {"[T]\nA\n1\n\n[t]\n", "tables.cfg:5: ", "has a section already (line 1)"},
        {"[T]\nA A\n", "tables.cfg:2: ", "named twice"},
        {"[T] x\n", "tables.cfg:1: ", "a section line is"},
    };
    for (const Case& c : cases) {
        std::vector<kit::KitTable> t;
        std::string why;
        EXPECT_FALSE(kit::ParseTablesCfg(c.text, "tables.cfg", &t, &why)) << c.text;
        EXPECT_EQ(why.rfind(c.where, 0), 0u) << why;
        EXPECT_NE(why.find(c.what), std::string::npos) << why;
    }
}

TEST_F(TablesRoundTrip, up_with_a_bad_row_fails_with_its_line_and_creates_nothing) {
    run.write("etc/sys.cfg", SysCfgText(1048576));
    run.write("etc/tables.cfg", "[VARSTABLE]\nVARSNAME VARSVALUE\nMAX_COM_NUM 1024 extra\n");
    std::vector<std::string> notes;
    std::string why;
    EXPECT_FALSE(kit::PlatformUp(run.path(), &notes, &why));
    EXPECT_NE(why.find("tables.cfg:3: row has 3 values"), std::string::npos) << why;
    for (int idx : {6, 7, 8}) EXPECT_LT(QueueId(idx), 0);
}

TEST_F(TablesRoundTrip, a_table_segment_too_small_for_the_rows_is_refused) {
    run.write("etc/sys.cfg", SysCfgText(6188));  // room for the end record only
    run.write("etc/tables.cfg", "[VARSTABLE]\nVARSNAME VARSVALUE\nMAX_COM_NUM 1024\n");
    std::vector<std::string> notes;
    std::string why;
    EXPECT_FALSE(kit::PlatformUp(run.path(), &notes, &why));
    EXPECT_NE(why.find("need 12376"), std::string::npos) << why;
}

}  // namespace
