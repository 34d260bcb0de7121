// compkit as a library and a process: up and down (what they create and
// remove, the state they leave the registry lock in), tables.cfg (its parser,
// its row images, what the product's lookups find after up), and run (the
// supervisor with comp as its instances).
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <set>
#include <thread>
#include <sstream>

#include "Platform.h"
#include "config/SysRscApp.h"
#include "config/SysTable.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"
#include "kit/TablesCfg.h"

namespace {

namespace fs = std::filesystem;

class UpDown : public comptest::PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        run.write("etc/sys.cfg", SysCfgText());
        run.write("etc/tables.cfg", "[VARSTABLE]\nVARSNAME VARSVALUE\nMAX_COM_NUM 1024\n");
    }
    bool Up() { return kit::PlatformUp(run.path(), &notes, &why); }
    // "msg|sem|shm key" of every System V object under this test's keys.
    std::set<std::string> OwnIpcObjects() const {
        std::set<std::string> out;
        for (key_t k : keys.all()) {
            if (msgget(k, 0) >= 0) out.insert("msg " + std::to_string(k));
            if (semget(k, 0, 0) >= 0) out.insert("sem " + std::to_string(k));
            if (shmget(k, 0, 0) >= 0) out.insert("shm " + std::to_string(k));
        }
        return out;
    }
    bool Down() { return kit::PlatformDown(run.path(), &notes, &why); }
    std::vector<std::string> notes;
    std::string why;
};

TEST_F(UpDown, down_removes_everything_up_created_and_the_fifos) {
    const auto before = OwnIpcObjects();
    ASSERT_TRUE(Up()) << why;
    EXPECT_EQ(OwnIpcObjects().size(), before.size() + 6 + 1 + 2);  // queues, lock set, segments
    if (geteuid() == 0) {
        msqid_ds ds{};
        ASSERT_EQ(msgctl(QueueId(8), IPC_STAT, &ds), 0);
        EXPECT_GE(ds.msg_qbytes, static_cast<msglen_t>(kit::kNeedMsgMnb)) << "root raises the queue size";
    }
    // A full queue and an attached segment are removed all the same.
    auto msg = std::make_unique<QueueMsg>();
    msg->lMsgType = 1;
    while (MsgWriteNoWait(QueueId(7), msg.get(), 4096) == 0) {
    }
    kit::Resources res;
    ASSERT_TRUE(kit::ReadResources(run.path(), &res, &why)) << why;
    char* attached = pcShmAt(shmget(res.shms[1].iKey, 0, 0));
    ASSERT_NE(attached, nullptr);
    close(iOpenFIFO("4242", 1));
    run.write("fifo/notes.txt", "kept");

    ASSERT_TRUE(Down()) << why;
    SysShmdt(attached);
    EXPECT_EQ(OwnIpcObjects(), before);
    EXPECT_FALSE(fs::exists(run.file("fifo/1_4242")));
    EXPECT_TRUE(fs::exists(run.file("fifo/notes.txt"))) << "only FIFOs are removed";
    EXPECT_FALSE(fs::exists(kit::ObjectsFile(run.path())));

    // Without the record of what up made, down goes by the keys of sys.cfg.
    ASSERT_TRUE(Up()) << why;
    fs::remove(kit::ObjectsFile(run.path()));
    ASSERT_TRUE(Down()) << why;
    EXPECT_EQ(OwnIpcObjects(), before);
}

TEST_F(UpDown, up_refuses_an_object_that_exists_and_leaves_nothing_of_its_own) {
    ASSERT_TRUE(Up()) << why;
    EXPECT_FALSE(Up());
    EXPECT_NE(why.find("compkit down first"), std::string::npos) << why;
    ASSERT_TRUE(Down()) << why;

    // Someone else's queue under the key of queue 8.
    const auto before = OwnIpcObjects();
    const std::string cfg = run.read("etc/sys.cfg");
    const key_t key8 = static_cast<key_t>(std::stol(cfg.substr(cfg.find("Q8 8 ") + 5)));
    const int foreign = msgget(key8, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(foreign, 0);
    EXPECT_FALSE(Up());
    EXPECT_NE(why.find("exists already"), std::string::npos) << why;
    EXPECT_EQ(OwnIpcObjects().size(), before.size() + 1) << "only the foreign queue";
    EXPECT_EQ(msgget(key8, 0), foreign);
}

TEST_F(UpDown, registry_lock_is_free_after_the_up_process_has_ended) {
    ASSERT_EQ(comptest::RunInChild([this] { return Up() ? 0 : 1; }), 0);
    kit::Resources res;
    ASSERT_TRUE(kit::ReadResources(run.path(), &res, &why)) << why;
    const int lockSet = semget(res.sems[0].iKey, 0, 0);
    ASSERT_GE(lockSet, 0);
    // Formatting released the lock with undo-on-exit; the undo must not take
    // it again when the process that ran `up` ends.
    EXPECT_EQ(SemGetValue2(lockSet, 0), 1);
    EXPECT_TRUE(Down()) << why;
}

TEST_F(UpDown, up_with_a_bad_row_or_too_small_a_segment_fails_and_creates_nothing) {
    const struct {
        int segmentBytes;
        const char *tables, *why;
    } cases[] = {
        {1048576, "[VARSTABLE]\nVARSNAME VARSVALUE\nMAX_COM_NUM 1024 extra\n", "tables.cfg:3: row has 3 values"},
        {6188, "[VARSTABLE]\nVARSNAME VARSVALUE\nMAX_COM_NUM 1024\n", "need 12376"},  // the end record fits only
    };
    for (const auto& c : cases) {
        run.write("etc/sys.cfg", SysCfgText(c.segmentBytes));
        run.write("etc/tables.cfg", c.tables);
        EXPECT_FALSE(Up());
        EXPECT_NE(why.find(c.why), std::string::npos) << why;
        for (int idx : {6, 7, 8}) EXPECT_LT(QueueId(idx), 0);
    }
}

using TablesRoundTrip = comptest::PlatformTest;

TEST_F(TablesRoundTrip, rows_reach_the_product_lookups_at_their_column_positions) {
    comptest::PlatformSetup setup;
    setup.routes = {comptest::MakeRouteRow(10, "127.0.0.1:7010", "0"), comptest::MakeRouteRow(20, "127.0.0.1:7020", "1")};
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
    // The product's lookups read these records (see the round trip above).
    EXPECT_STREQ(ia[0].caTableName, "PLAT_STATICROUTEINF");
    EXPECT_STREQ(ia[0].caValues + 32 * RT_ROUTEMONID, "1") << "ROUTEMONID defaults to 1";
    EXPECT_EQ(ia[1].caTableName[0], '\0') << "the image ends with an empty record";
}

TEST(TablesCfg, route_rows_may_come_in_several_sections_with_headers_of_their_own) {
    std::vector<kit::KitTable> t;
    std::string why;
    ASSERT_TRUE(kit::ParseTablesCfg("[PLAT_STATICROUTEINF]\nROUTEID IPPORT\n10 1.2.3.4:5\n[VARSTABLE]\nVARSNAME VARSVALUE\n"
                                    "X 1\n[PLAT_STATICROUTEINF]\nBEATSWITCH ROUTEID\n1 70\n",
                                    "t", &t, &why))
        << why;
    ASSERT_EQ(t.size(), 2u);
    const kit::KitTable& routes = t[1];
    ASSERT_EQ(routes.rows.size(), 2u);
    EXPECT_EQ(routes.columns.size(), size_t(comp::kRouteFields));
    EXPECT_EQ(routes.rows[0][RT_IPPORT], "1.2.3.4:5");
    EXPECT_EQ(routes.rows[1][RT_ROUTEID], "70");
    EXPECT_EQ(routes.rows[1][RT_BEATSWITCH], "1");
    EXPECT_EQ(routes.rows[1][RT_IPPORT], "");
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

TEST(CompkitCommandLine, help_prints_the_usage_and_mistakes_say_what_is_wrong_first) {
    comptest::TempRunDir run;
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string first;   // the output's first line begins so
    } cases[] = {
        {{"help"}, 0, "usage: compkit"},
        {{"--help"}, 0, "usage: compkit"},
        {{"-h"}, 0, "usage: compkit"},
        {{}, 2, "compkit: no subcommand given"},
        {{"start", run.path()}, 2, "compkit: unknown subcommand 'start'"},
        {{"up"}, 2, "compkit: up needs the run directory"},
        {{"status", run.file("nowhere")}, 2, "compkit: the run directory " + run.file("nowhere") + " does not exist"},
    };
    int n = 0;
    for (const Case& c : cases) {
        kit::SpawnOptions plan;
        plan.path = comptest::CompkitBinary();
        plan.argv = {plan.path};
        plan.argv.insert(plan.argv.end(), c.args.begin(), c.args.end());
        plan.outputPath = run.file("log/compkit" + std::to_string(++n) + ".out");
        std::string why;
        const pid_t pid = kit::Spawn(plan, &why);
        int status = -1;
        ASSERT_TRUE(kit::WaitChild(pid, 5000, &status)) << why;
        const std::string out = comptest::ReadFile(plan.outputPath);
        EXPECT_EQ(WEXITSTATUS(status), c.status) << out;
        EXPECT_EQ(out.rfind(c.first, 0), 0u) << out;
        EXPECT_NE(out.find("usage: compkit"), std::string::npos) << out;
    }
}

class SupervisorTest : public comptest::PlatformTest {
protected:
    void TearDown() override {
        if (supervisor > 0) kit::StopChild(supervisor, 10000);
        PlatformTest::TearDown();
    }
    std::string Output() const { return comptest::ReadFile(run.file("log/run.out")); }
    // Lines of the output that hold every one of the texts, in this order.
    std::vector<std::string> Lines(std::initializer_list<std::string> texts) const {
        std::vector<std::string> out;
        std::istringstream in(Output());
        for (std::string line; std::getline(in, line);) {
            size_t at = 0;
            for (const std::string& t : texts)
                if (at != std::string::npos && (at = line.find(t, at)) != std::string::npos) at += t.size();
            if (at != std::string::npos) out.push_back(line);
        }
        return out;
    }
    // Waits until `count` lines hold the texts.
    bool WaitFor(std::initializer_list<std::string> texts, size_t count) {
        for (const int64_t deadline = kit::NowMs() + 10000; Lines(texts).size() < count; kit::SleepMs(20))
            if (kit::NowMs() >= deadline) return false;
        return true;
    }
    // Pids of the "started NAME (...) pid N" lines, in order.
    std::vector<pid_t> Started(const std::string& name) const {
        std::vector<pid_t> pids;
        for (const std::string& line : Lines({"started " + name, ") pid "}))
            pids.push_back(std::stoi(line.substr(line.rfind(' ') + 1)));
        return pids;
    }

    void StartSupervisor() {
        kit::SpawnOptions plan;
        plan.path = comptest::CompkitBinary();
        plan.argv = {plan.path, "run", run.path()};
        plan.outputPath = run.file("log/run.out");
        std::string why;
        ASSERT_GT(supervisor = kit::Spawn(plan, &why), 0) << why;
    }

    pid_t supervisor = -1;
};

TEST_F(SupervisorTest, reports_an_ended_instance_restarts_it_only_when_asked_and_stops_all_on_sigterm) {
    comptest::PlatformSetup setup;
    setup.routes = {comptest::MakeRouteRow(20, "127.0.0.1:1", "1")};
    StartPlatform(setup);
    run.write("etc/compkit.cfg", "route 20 SysTCPTC\ninstance 20 1\ninstance 20 2\n");
    StartSupervisor();

    ASSERT_TRUE(WaitFor({"logon: TC20_"}, 2)) << Output();
    std::vector<pid_t> first = Started("TC20_1");
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(kit::ParentOf(first[0]), supervisor);
    kill(first[0], SIGKILL);

    ASSERT_TRUE(WaitFor({"TC20_1 pid ", " killed by signal 9; not restarted"}, 1)) << Output();
    EXPECT_FALSE(fs::exists(run.file("fifo/3_" + std::to_string(first[0]) + "_1")))
        << "the killed instance's control FIFO is removed";
    kit::SleepMs(1500);
    EXPECT_EQ(Started("TC20_1").size(), 1u) << Output();
    // Only the operator's SIGUSR1 starts it again.
    kill(supervisor, SIGUSR1);
    ASSERT_TRUE(WaitFor({"logon: TC20_1"}, 2)) << Output();
    EXPECT_EQ(Started("TC20_1").size(), 2u) << Output();
    EXPECT_EQ(Started("TC20_2").size(), 1u) << "what runs is left alone";

    std::vector<pid_t> all = Started("TC20_");
    kill(supervisor, SIGTERM);
    int status = -1;
    EXPECT_TRUE(kit::WaitChild(supervisor, 15000, &status));
    supervisor = -1;
    EXPECT_EQ(status, 0) << Output();
    EXPECT_EQ(Lines({"logoff: TC20_1"}).size(), 1u) << "the killed one could not log off, its successor did"
                                                    << Output();
    EXPECT_EQ(Lines({"logoff: TC20_2"}).size(), 1u) << Output();
    EXPECT_EQ(Lines({"down: ", " IPC objects removed"}).size(), 1u) << Output();
    for (pid_t pid : all) EXPECT_FALSE(kit::ProcessAlive(pid)) << pid;
    EXPECT_LT(QueueId(comp::kQueueCommonp), 0) << "the platform was taken down";
    for (const auto& e : fs::directory_iterator(run.file("fifo"))) EXPECT_FALSE(e.is_fifo()) << e.path();
}

// The starting process of a shared-listener route: the instances inherit the
// listener, and each waiting client goes to the next instance that runs.
TEST_F(SupervisorTest, shared_listener_clients_go_to_the_instances_in_turn) {
    comptest::PlatformSetup setup;
    setup.routes = {comptest::MakeRouteRow(31, "", "0")};
    StartPlatform(setup);
    const int port = comptest::FreeLoopbackPort();
    run.write("etc/compkit.cfg", "route 31 SysTCPPS listen 127.0.0.1:" + std::to_string(port) +
                                     "\ninstance 31 1\ninstance 31 2\n");
    StartSupervisor();
    ASSERT_TRUE(WaitFor({"logon: PS31_"}, 2)) << Output();
    const std::vector<pid_t> ps1 = Started("PS31_1"), ps2 = Started("PS31_2");
    ASSERT_EQ(ps1.size(), 1u);
    ASSERT_EQ(ps2.size(), 1u);
    EXPECT_NE(kit::ProcessCmdline(ps1[0]).find("SysTCPPS 31 1 "), std::string::npos);
    // Both take commands once their control FIFOs are open (after the logon);
    // until then the starting process passes over an instance.
    for (const std::string& fifo : {"3_" + std::to_string(ps1[0]) + "_1", "3_" + std::to_string(ps2[0]) + "_2"})
        for (int i = 0; i < 500 && !fs::exists(run.file("fifo/" + fifo)); ++i) kit::SleepMs(10);

    std::vector<comp::UniqueFd> clients;
    for (const char* who : {"PS31_1", "PS31_2", "PS31_1"}) {
        clients.push_back(comptest::Connect(port));
        EXPECT_TRUE(WaitFor({"told ", who, " to accept"}, clients.size() == 3 ? 2 : 1)) << Output();
        EXPECT_TRUE(WaitFor({"accept reported by ", who}, clients.size() == 3 ? 2 : 1)) << Output();
    }
    // A PS instance ends on its client's first message, and stays ended: the
    // next client goes to the instance left.
    ASSERT_TRUE(comptest::Send(clients[0].get(), comptest::Frame("hi")));
    EXPECT_TRUE(WaitFor({"PS31_1 pid ", " exited with status 0; not restarted"}, 1)) << Output();
    clients.push_back(comptest::Connect(port));
    EXPECT_TRUE(WaitFor({"told PS31_2 to accept"}, 2)) << Output();
    EXPECT_EQ(Started("PS31_1").size(), 1u);
}

TEST_F(SupervisorTest, two_clients_at_once_through_a_relay_to_two_tc_instances_each_get_their_own_answers) {
    const int tsPort = comptest::FreeLoopbackPort(), echoPort = comptest::FreeLoopbackPort();
    comptest::PlatformSetup setup;
    setup.routes = {comptest::MakeRouteRow(10, "127.0.0.1:" + std::to_string(tsPort), "0"),
                    comptest::MakeRouteRow(20, "127.0.0.1:" + std::to_string(echoPort), "1")};
    StartPlatform(setup);
    run.write("etc/compkit.cfg",
              "route 10 SysTCPTS relay 20\nroute 20 SysTCPTC\ninstance 10 1\ninstance 20 1\ninstance 20 2\n");
    std::string why;
    kit::SpawnOptions echo;
    echo.path = comptest::CompkitBinary();
    echo.argv = {echo.path, "echo-server", "127.0.0.1:" + std::to_string(echoPort), "--frame", "4,0,4,0",
                 "--prefix", "echo: "};
    echo.outputPath = run.file("log/echo.out");
    const pid_t echoPid = kit::Spawn(echo, &why);
    ASSERT_GT(echoPid, 0) << why;
    StartSupervisor();
    // Both TC instances wait on their doorbells: they say so once their
    // FIFOs are open (a ring before that, when the FIFO has just been made,
    // would be lost).
    auto working = [&] {
        int n = 0;
        for (const auto& e : fs::directory_iterator(run.file("log")))
            if (e.path().filename().string().rfind("com_TC20_", 0) == 0 &&
                comptest::ReadFile(e.path().string()).find("Begin Working") != std::string::npos)
                ++n;
        return n;
    };
    for (int i = 0; i < 500 && working() < 2; ++i) kit::SleepMs(20);

    constexpr int kEach = 25;
    std::atomic<int> ready{0};
    std::vector<std::string> wrong[2];
    auto client = [&](int who) {
        ++ready;
        while (ready < 2) std::this_thread::yield();
        for (int i = 0; i < kEach; ++i) {
            const std::string body = "client" + std::to_string(who) + "-" + std::to_string(i);
            comp::UniqueFd s = comptest::Connect(tsPort);
            const bool sent = comptest::Send(s.get(), comptest::Frame(body));
            const std::string got = sent ? comptest::ReadFrame(s.get(), 10000) : "";
            if (got != comptest::Frame("echo: " + body)) wrong[who].push_back(body + " got [" + got + "]");
        }
    };
    std::thread first(client, 0), second(client, 1);
    first.join();
    second.join();
    kit::StopChild(echoPid, 3000);
    EXPECT_TRUE(wrong[0].empty() && wrong[1].empty())
        << wrong[0].size() + wrong[1].size() << " wrong, e.g. " << (wrong[0].empty() ? wrong[1] : wrong[0]).front()
        << "\n" << Output();
}

}  // namespace
