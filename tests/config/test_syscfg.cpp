// sys.cfg: the file library under its readers (values, lines, opening),
// the CommCfg block and the four resource sections.
#include <cstdlib>
#include <cstring>
#include <functional>

#include "UnitFixture.h"
#include "config/CfgSource.h"
#include "config/SysRscApp.h"

namespace {

using comptest::Contains;

const std::string kComm =
    "LOGONTIMELIMIT 10\nCOMLOGONTIMELIMIT 20\nINQUERYTIME 30\nINQUERYCOUNT 40\nSHUTDOWNTIME 50\n"
    "MSGQUEUECOUNT 3\nSEMPHORECOUNT 2\nSHAREMEMCOUNT 2\nPROCNAMECOUNT 1\n";

class SysCfg : public comptest::UnitTest {
protected:
    std::string Cfg(const std::string& text) {
        run.write("etc/sys.cfg", text);
        return path;
    }
    std::string Pid(const std::string& rest) const { return "]pid[" + std::to_string(getpid()) + rest; }
    // GetValue over the data; the value, or "<fail>".
    static std::string Value(const std::string& data, const char* key) {
        char value[80];
        std::memset(value, 'x', sizeof value);
        int n = GetValue(data.data(), static_cast<int>(data.size()), key, static_cast<int>(std::strlen(key)),
                         value);
        if (n < 0) return "<fail>";
        EXPECT_EQ(static_cast<size_t>(n), std::strlen(value));
        return value;
    }
    const std::string path = run.file("etc/sys.cfg");
};

TEST_F(SysCfg, ValueSeparatorsEndsFirstOccurrenceAndLengthLimit) {
    // Blanks, tabs, "=" and trailing comments: see the CommCfg test below.
    EXPECT_EQ(Value("KEY 30\r\n", "KEY"), "30\r");   // atoi still gives 30
    EXPECT_EQ(Value("KEY 3\t0\n", "KEY"), "3\t0");   // a tab does not end the value
    EXPECT_EQ(Value("KEY\nOTHER 5\n", "KEY"), "");
    EXPECT_EQ(Value(std::string("KEY=\0\0 7\n", 9), "KEY"), "7");
    EXPECT_EQ(Value("A 1\nKEY 30", "KEY"), "30");   // up to the end of the data
    EXPECT_EQ(Value("A 1\nKEY", "KEY"), "");
    EXPECT_EQ(Value("# MAXCOM 1\nMAXCOM 2\n", "MAXCOM"), "1");   // comments are no exception
    EXPECT_EQ(Value("A 1\n", "KEY"), "<fail>");
    EXPECT_TRUE(Contains(Logs(), "String[KEY] No Match in netcfg file"));

    const std::string v64(64, '9');
    EXPECT_EQ(Value("KEY " + v64 + "\n", "KEY"), v64);
    EXPECT_EQ(Value("KEY " + v64, "KEY"), v64);
    EXPECT_EQ(Value("KEY " + v64 + "9\n", "KEY"), "<fail>");
    EXPECT_TRUE(Contains(Logs(), "CFG[KEY] Value >MAXLEN"));

    int pos = -1;
    EXPECT_EQ(JudgeIfStrMatch("CD", 2, "ABCD", 4, &pos), 0);
    EXPECT_EQ(pos, 4);
    EXPECT_EQ(JudgeIfStrMatch("CD", 2, "ABCD", 3, &pos), -1);   // never across the end
}

TEST_F(SysCfg, ReadFileLineLimitsAndLastLine) {
    const std::string l127(127, 'a'), l128(128, 'b');
    int fd = InitFile(Cfg(l127 + "\n" + l128 + "\n").c_str(), 1);
    ASSERT_GE(fd, 0);
    char line[128] = {};
    EXPECT_EQ(ReadFileLine(fd, line), 127);
    EXPECT_EQ(std::string(line), l127);
    std::memset(line, 0, sizeof line);
    EXPECT_EQ(ReadFileLine(fd, line), -1);
    EXPECT_EQ(line[127], '\0');   // never fills the last byte
    CloseFile(fd);

    fd = InitFile(Cfg("one\n\nlast").c_str(), 1);
    EXPECT_EQ(ReadFileLine(fd, line), 3);
    EXPECT_EQ(ReadFileLine(fd, line), 0);
    EXPECT_EQ(ReadFileLine(fd, line), -2);   // no newline: the line does not count
    CloseFile(fd);
}

TEST_F(SysCfg, InitFileCreatesMissingFileAndResolvesEnvName) {
    const std::string created = run.file("etc/new.cfg");
    CloseFile(InitFile(created.c_str(), 1));
    EXPECT_EQ(run.read("etc/new.cfg"), "");
    setenv("NETCFG_TEST_PATH", created.c_str(), 1);
    int fd = InitFile("NETCFG_TEST_PATH", 2);
    EXPECT_GE(fd, 0);
    CloseFile(fd);
    unsetenv("NETCFG_TEST_PATH");
    EXPECT_EQ(InitFile("NETCFG_TEST_PATH", 2), -1);
    std::string tooLong(121, 'p');   // does not fit 100 bytes
    tooLong[0] = '/';
    EXPECT_EQ(InitFile(tooLong.c_str(), 1), -1);
}

TEST_F(SysCfg, CommCfgTakesTheFirstOccurrenceWhateverTheSeparator) {
    CommCfg cfg;
    std::memset(&cfg, 0x55, sizeof cfg);
    ASSERT_EQ(GetCommConfigValue(Cfg("COMLOGONTIMELIMIT=31\n# LOGONTIMELIMIT 1 is inside the line above\n"
                                     "LOGONTIMELIMIT = 30\nINQUERYTIME\t32\nINQUERYCOUNT 33 # note\n"
                                     "SHUTDOWNTIME 34\r\nMSGQUEUECOUNT\nSEMPHORECOUNT ==\t 7\n"
                                     "SHAREMEMCOUNT " + std::string(64, '0') + "\nPROCNAMECOUNT -1\n")
                                     .c_str(),
                                 &cfg),
              0);
    const int32_t want[] = {31, 31, 32, 33, 34, 0, 7, 0, -1};
    EXPECT_EQ(std::memcmp(&cfg, want, sizeof want), 0);
}

TEST_F(SysCfg, CommCfgFailuresKeepWhatWasRead) {
    CommCfg cfg;
    std::string text = kComm;
    EXPECT_EQ(GetCommConfigValue(Cfg(text.erase(text.find("SHUTDOWN"), 16)).c_str(), &cfg), -1);
    EXPECT_EQ(MsgTail(), Pid("]File[" + path + "] GetValue Fail [SHUTDOWNTIME]"));
    EXPECT_EQ(cfg.iInqueryCount, 40);
    EXPECT_EQ(cfg.iShutdownTime, 0);
    EXPECT_EQ(cfg.iProcNameCount, 0);

    text = kComm;
    EXPECT_EQ(GetCommConfigValue(Cfg(text.erase(text.find("COMLOGON"), 21)).c_str(), &cfg), -1);
    EXPECT_EQ(MsgTail(), Pid("] File[" + path + "] GetValue Fail [COMLOGONTIMELIMIT]"));
    EXPECT_EQ(GetCommConfigValue(Cfg("INQUERYTIME " + std::string(65, '1') + "\n" + kComm).c_str(), &cfg), -1);
    EXPECT_TRUE(Contains(Logs(), "CFG[INQUERYTIME] Value >MAXLEN"));
    EXPECT_EQ(GetCommConfigValue(Cfg("").c_str(), &cfg), -1);
    EXPECT_EQ(MsgTail(), Pid("] File Read Fail [" + path + "]"));

    int iCount = 0;
    EXPECT_EQ(GetAppCommConfigValue(Cfg("PROCNAMECOUNT=4\n").c_str(), &iCount), 0);
    EXPECT_EQ(iCount, 4);
    EXPECT_EQ(GetAppCommConfigValue(Cfg("X\n").c_str(), &iCount), -1);
    EXPECT_EQ(MsgTail(), Pid("]File[" + path + "] GetValue Fail [PROCNAMECOUNT]"));
}

TEST_F(SysCfg, SectionsAreReadInFileOrderSkippingComments) {
    Cfg(kComm + "[QRESOURCE] queues\n# name index key\nTOCOMMONP 6 4096\nTOTRANP\t7\t4097\n#\nFROMTRANP 8 4098\n"
                "never read\n[SEMRESOURCE]\nREGLOCK 1 5000 10\nPOOL 2 5001\n[SHMRESOURCE]\nREG 1 6000 9\n"
                "TABLES 5 6001 6188\n[PROCESS]\ntranp TR 3 AB some-text\n");
    QueueCfgEntry q[3];
    ASSERT_EQ(GetQueueConfigValue(3, path.c_str(), q), 0);
    EXPECT_STREQ(q[1].caName, "TOTRANP");
    EXPECT_EQ(q[2].iIndex, 8);
    EXPECT_EQ(q[2].iKey, 4098);
    SemCfgEntry s[2];
    ASSERT_EQ(GetSemConfigValue(2, path.c_str(), s), 0);
    EXPECT_EQ(s[0].iNum, 10);
    EXPECT_EQ(s[1].iNum, 0);  // the count is optional
    ShmCfgEntry m[2];
    ASSERT_EQ(GetShmConfigValue(2, path.c_str(), m), 0);
    EXPECT_EQ(m[1].iSize, 6188);
    ProcCfgEntry p[1];
    ASSERT_EQ(GetProcConfigValue(1, path.c_str(), p), 0);
    EXPECT_STREQ(p[0].caCode, "TR");
    EXPECT_EQ(p[0].iNumber, 3);
    EXPECT_STREQ(p[0].caText, "some-text");
}

TEST_F(SysCfg, BadOrMissingSectionsFailWithTheirOwnText) {
    QueueCfgEntry q[2];
    SemCfgEntry s[2];
    ShmCfgEntry m[2];
    ProcCfgEntry p[2];
    using Reader = std::function<int(const char*)>;
    const Reader queue = [&](const char* f) { return GetQueueConfigValue(2, f, q); };
    const Reader sem = [&](const char* f) { return GetSemConfigValue(2, f, s); };
    const Reader shm = [&](const char* f) { return GetShmConfigValue(2, f, m); };
    const Reader proc = [&](const char* f) { return GetProcConfigValue(2, f, p); };
    const std::string kLong = std::string(200, '#') + "\n";
    const struct {
        Reader read;
        std::string text, want;
    } cases[] = {
        {queue, "[QRESOURCE]\nQ1 1 100\n\nQ2 2 200\n", "]File Get Queue Cfg Fail ["},       // blank line
        {queue, "[QRESOURCE]\nQ1 1 100\n   \n", "]File Get Queue Cfg Fail ["},             // blanks only
        {queue, "[QRESOURCE]\nQ 1 1\nQ 2 2 " + std::string(122, 'x') + "\n", "Queue Cfg Fail"},  // 128
        {queue, "[QRESOURCE]\nQ1 1 100\nQ2 2 200", "Queue Cfg Fail"},                       // no newline
        {queue, "[QRESOURCE]\nQ1 0 100\nQ2 2 200\n", "Queue Cfg Fail"},
        {queue, "[QRESOURCE]\nQ1 1\nQ2 2 200\n", "Queue Cfg Fail"},
        {queue, kComm + "[SEMRESOURCE]\nS 1 1 1\n", "Queue Cfg Fail"},                      // no header
        {shm, "[SHMRESOURCE]\nM 1 2 0\nM 2 2 2\n", "]File Get Shm Cfg Fail ["},
        {shm, kComm, "]File Get Shm Cfg Fail ["},
        {proc, "[PROCESS]\nname C -1 x y\n", "]File Get Proc Cfg Fail ["},
        {proc, "[PROCESS]\nname C x y z\n", "]File Get Proc Cfg Fail ["},
        {proc, kComm, "]File Get Proc Cfg Fail ["},
        {sem, "[SEMRESOURCE]\nS1 1 100 1\n\n", Pid("]File Get SemCfg Fail[")},
        {sem, "[SEMRESOURCE]\nS1 1 0 1\nS1 2 2 1\n", Pid("]File Get SemCfg Fail[")},
        {sem, kComm, Pid("]File Get Sem Cfg Fail [")},
        {sem, kLong + "[SEMRESOURCE]\nS1 1 1 1\nS2 2 2 2\n", "File Get Sem Cfg Fail ["},  // long line first
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.read(Cfg(c.text).c_str()), -1) << c.text;
        EXPECT_TRUE(Contains(g_caMsg, c.want)) << c.text;
    }
    // A line of 127 characters still counts, and the other readers pass over
    // long lines before their header.
    EXPECT_EQ(queue(Cfg(kLong + "[QRESOURCE]\nQ 1 1 " + std::string(121, 'x') + "\nQ 2 2\n").c_str()), 0);
    EXPECT_EQ(queue(run.file("nodir/sys.cfg").c_str()), -1);
    EXPECT_EQ(MsgTail(), Pid("]File Open Fail [" + run.file("nodir/sys.cfg") + "]"));
}

TEST_F(SysCfg, LongWordsRunOnWithinTheirRecordOnly) {
    ProcCfgEntry p[2];
    std::memset(p, 0x5A, sizeof p);
    ASSERT_EQ(GetProcConfigValue(1, Cfg("[PROCESS]\n" + std::string(66, 'P') + " ABCDEFG 12 XYZW " +
                                        std::string(40, 'T') + "\n").c_str(), p),
              0);
    EXPECT_EQ(std::string(p[0].caName, 64), std::string(64, 'P'));
    EXPECT_EQ(std::string(p[0].caCode, 4), "ABCD");
    EXPECT_EQ(p[0].iNumber, 12);
    EXPECT_EQ(std::string(p[0].caCode2, 3), "XYZ");
    EXPECT_EQ(std::string(p[0].caText), std::string(32, 'T'));
    ProcCfgEntry untouched;
    std::memset(&untouched, 0x5A, sizeof untouched);
    EXPECT_EQ(std::memcmp(&p[1], &untouched, sizeof untouched), 0);

    QueueCfgEntry q[1];
    ASSERT_EQ(GetQueueConfigValue(1, Cfg("[QRESOURCE]\n" + std::string(30, 'N') + " 4 5\n").c_str(), q), 0);
    EXPECT_EQ(std::string(q[0].caName), std::string(19, 'N'));
    EXPECT_EQ(q[0].iKey, 5);
}

}  // namespace

TEST_F(SysCfg, ATextInMemoryReadsAsTheFileDoes) {
    namespace cfg = comp::cfg;
    const std::string texts[] = {
        kComm + "[QRESOURCE]\nA 1 10\n#\nB 2 20\nC 3 30\n[SEMRESOURCE]\nL 1 5 2\nP 2 6\n[SHMRESOURCE]\n"
                "R 1 7 9\nT 2 8 99\n[PROCESS]\np PA 1 x\n",
        "[QRESOURCE]\nA 1\n" + std::string(200, 'x') + "\n",
        "",
    };
    for (const std::string& text : texts) {
        Cfg(text);
        const cfg::CfgSource mem(text, "in memory");
        CommCfg a{}, b{};
        EXPECT_EQ(cfg::CommConfig(mem, &a), GetCommConfigValue(path.c_str(), &b));
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
        QueueCfgEntry qa[3] = {}, qb[3] = {};
        EXPECT_EQ(cfg::QueueConfig(mem, 3, qa), GetQueueConfigValue(3, path.c_str(), qb));
        EXPECT_EQ(std::memcmp(qa, qb, sizeof qa), 0);
        SemCfgEntry sa[2] = {}, sb[2] = {};
        EXPECT_EQ(cfg::SemConfig(mem, 2, sa), GetSemConfigValue(2, path.c_str(), sb));
        EXPECT_EQ(std::memcmp(sa, sb, sizeof sa), 0);
        ShmCfgEntry ma[2] = {}, mb[2] = {};
        EXPECT_EQ(cfg::ShmConfig(mem, 2, ma), GetShmConfigValue(2, path.c_str(), mb));
        EXPECT_EQ(std::memcmp(ma, mb, sizeof ma), 0);
    }
    EXPECT_TRUE(Contains(Logs(), "File Read Fail [in memory]")) << "the log names the text";
}
