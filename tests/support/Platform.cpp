#include "Platform.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <sstream>

#include "comp/SysGlobals.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace comptest {

namespace {
constexpr int kQueueIndices[] = {comp::kQueueCommonp,    comp::kQueueToTranp,   comp::kQueueFromTranp,
                                 comp::kQueuePasRequest, comp::kQueuePasAnswer, comp::kQueueDrain};
constexpr int kStopGraceMs = 3000;

std::string Today() {
    time_t now = time(nullptr);
    tm t{};
    localtime_r(&now, &t);
    char buf[16];
    std::snprintf(buf, sizeof buf, "%04d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
    return buf;
}
}  // namespace

namespace {
std::string& BuildDirStore() {
    static std::string dir;
    return dir;
}
}  // namespace

void SetBuildDir(const char* pcDir) { BuildDirStore() = pcDir; }
const std::string& BuildDir() { return BuildDirStore(); }

int FreeLoopbackPort() {
    kit::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0)
        return -1;
    return ntohs(sa.sin_port);
}

RouteRow MakeRouteRow(int route, const std::string& ipPort, const std::string& msgSndType) {
    return RouteRow{
        {"ROUTEID", std::to_string(route)}, {"ROUTEMONID", "1"},     {"ROUTENAME", "route" + std::to_string(route)},
        {"MSGSNDTYPE", msgSndType},         {"IDLETIMEOUT", "30"},   {"HEADERLEN", "4"},
        {"MSGLENGETLEN", "4"},              {"MSGLENGETOFFSET", "0"}, {"MSGLENGETTYPE", "0"},
        {"MSGLENINTEL", "0"},               {"MSGLENADJUST", "0"},   {"MSGTYPEGETLEN", "4"},
        {"MSGTYPEGETOFFSET", "4"},          {"MSGTYPEGETTYPE", "1"}, {"MSGTYPECHARLEN", "4"},
        {"SEQINTEL", "0"},                  {"ROUTEMSGFLAG", "M"},   {"BEATINTERVAL", "60"},
        {"RECONNINTERVAL", "5"},            {"IPPORT", ipPort},
    };
}

void PlatformTest::SetUp() {
    SysResetGlobals();
    kit::DirectLogs(run.path(), "fixture");
    for (int idx : kQueueIndices) queueKeys_[idx] = keys.next();
    semKey_ = keys.next();
    registryKey_ = keys.next();
    tablesKey_ = keys.next();
}

void PlatformTest::TearDown() {
    for (size_t i = 0; i < comps_.size(); ++i) StopComp(i);
    if (up_) {
        std::vector<std::string> notes;
        std::string why;
        EXPECT_TRUE(kit::PlatformDown(run.path(), &notes, &why)) << why;
        up_ = false;
    }
    SysResetGlobals();
}

std::string PlatformTest::SysCfgText(int tableSegmentBytes) const {
    std::ostringstream s;
    s << "LOGONTIMELIMIT 30\nCOMLOGONTIMELIMIT 30\nINQUERYTIME 10\nINQUERYCOUNT 3\nSHUTDOWNTIME 10\n"
      << "MSGQUEUECOUNT " << queueKeys_.size() << "\nSEMPHORECOUNT 1\nSHAREMEMCOUNT 2\nPROCNAMECOUNT 0\n"
      << "[QRESOURCE]\n";
    for (const auto& [idx, key] : queueKeys_) s << "Q" << idx << " " << idx << " " << key << "\n";
    s << "[SEMRESOURCE]\nREGLOCK 1 " << semKey_ << " 10\n"
      << "[SHMRESOURCE]\nREGISTRY 1 " << registryKey_ << " " << comp::kRegistrySegmentMin << "\n"
      << "TABLES 2 " << tablesKey_ << " " << tableSegmentBytes << "\n[PROCESS]\n";
    return s.str();
}

std::string PlatformTest::TablesCfgText(const PlatformSetup& setup) const {
    std::ostringstream s;
    s << "[VARSTABLE]\nVARSNAME VARSVALUE\n";
    for (const auto& [name, value] : setup.vars) s << name << " \"" << value << "\"\n";
    if (setup.routes.empty()) return s.str();
    // One header naming every column that some row sets; "-" where a row has none.
    std::vector<std::string> cols;
    for (const RouteRow& r : setup.routes)
        for (const auto& [c, v] : r)
            if (std::find(cols.begin(), cols.end(), c) == cols.end()) cols.push_back(c);
    s << "[PLAT_STATICROUTEINF]\n";
    for (const std::string& c : cols) s << c << " ";
    s << "\n";
    for (const RouteRow& r : setup.routes) {
        for (const std::string& c : cols) {
            auto it = r.find(c);
            s << (it == r.end() || it->second.empty() ? "-" : "\"" + it->second + "\"") << " ";
        }
        s << "\n";
    }
    return s.str();
}

void PlatformTest::StartPlatform(const PlatformSetup& setup) {
    run.write("etc/sys.cfg", SysCfgText(setup.tableSegmentBytes));
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL " + std::to_string(setup.logLevel) + "\n" + setup.extraAppVars +
                                 (setup.extraAppVars.empty() || setup.extraAppVars.back() == '\n' ? "" : "\n") + "[]\n");
    run.write("etc/tables.cfg", TablesCfgText(setup));
    std::vector<std::string> notes;
    std::string why;
    up_ = kit::PlatformUp(run.path(), &notes, &why);
    ASSERT_TRUE(up_) << why;
}

int PlatformTest::QueueId(int index) const {
    auto it = queueKeys_.find(index);
    return it == queueKeys_.end() ? -1 : msgget(it->second, 0);
}

size_t PlatformTest::StartComp(const std::vector<std::string>& args) {
    CompProc p;
    p.procName = args.size() >= 5 ? args[4] : "";
    p.outputPath = run.file("log/comp_" + std::to_string(comps_.size()) + ".out");
    kit::SpawnOptions plan;
    plan.path = CompBinary();
    plan.argv.push_back(plan.path);
    plan.argv.insert(plan.argv.end(), args.begin(), args.end());
    plan.outputPath = p.outputPath;
    std::string why;
    p.pid = kit::Spawn(plan, &why);
    EXPECT_GT(p.pid, 0) << why;
    comps_.push_back(p);
    return comps_.size() - 1;
}

int PlatformTest::WaitComp(size_t i, int timeoutMs) {
    CompProc& p = comps_[i];
    if (!p.reaped && p.pid > 0 && kit::WaitChild(p.pid, timeoutMs, &p.status)) p.reaped = true;
    if (!p.reaped) return -1;
    if (WIFSIGNALED(p.status)) return -WTERMSIG(p.status) - 100;
    return WEXITSTATUS(p.status);
}

void PlatformTest::StopComp(size_t i) {
    CompProc& p = comps_[i];
    if (p.reaped || p.pid <= 0) return;
    kill(p.pid, SIGTERM);
    if (!kit::WaitChild(p.pid, kStopGraceMs, &p.status)) {
        kill(p.pid, SIGKILL);
        kit::WaitChild(p.pid, kStopGraceMs, &p.status);
    }
    p.reaped = true;
}

std::string PlatformTest::CompOutput(size_t i) const { return ReadFile(comps_[i].outputPath); }

std::string PlatformTest::CompTraceLog(size_t i) const {
    const CompProc& p = comps_[i];
    return ReadFile(run.file("log/com_" + p.procName + "_" + std::to_string(p.pid) + "_" + Today() + ".log"));
}

std::string PlatformTest::AllLogs() const {
    std::string all;
    for (const auto& e : std::filesystem::directory_iterator(run.file("log")))
        all += "==> " + e.path().filename().string() + "\n" + ReadFile(e.path().string());
    return all;
}

int PlatformTest::ReadToTranp(QueueMsg* buf, long type, int timeoutMs) {
    int n = kit::ReadQueue(QueueId(comp::kQueueToTranp), type, buf, timeoutMs);
    return n < 0 ? 0 : n;
}

int PlatformTest::ReadCommonp(QueueMsg* buf, long type, int timeoutMs) {
    int n = kit::ReadQueue(QueueId(comp::kQueueCommonp), type, buf, timeoutMs);
    return n < 0 ? 0 : n;
}

bool PlatformTest::DeliverToComp(const kit::Delivery& d) {
    std::string why;
    bool ok = kit::Deliver(QueueId(comp::kQueueFromTranp), d, &why);
    EXPECT_TRUE(ok) << why;
    return ok;
}

}  // namespace comptest
