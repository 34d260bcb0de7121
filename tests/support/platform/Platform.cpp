#include "Platform.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <filesystem>
#include <random>
#include <sstream>

#include "base/SysGlobals.h"
#include "kit/Framing.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"
#include "kit/NetTools.h"

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
sockaddr_in Loopback(const std::string& ip, int port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, ip.c_str(), &sa.sin_addr);
    return sa;
}
// tables.cfg: the variables, then one route header naming every column that
// some row sets, "-" where a row has none.
std::string TablesCfgText(const PlatformSetup& setup) {
    std::ostringstream s;
    s << "[VARSTABLE]\nVARSNAME VARSVALUE\n";
    for (const auto& [name, value] : setup.vars) s << name << " \"" << value << "\"\n";
    if (setup.routes.empty()) return s.str();
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
}  // namespace

// Ports for listeners that a test binds later are taken below the kernel's
// ephemeral range: the many connections of tests running in parallel take
// their local ports from that range and would otherwise sometimes hold a
// port between the moment it is found free and the moment it is bound.
int FreeLoopbackPort() {
    int low = 32768;
    if (FILE* f = std::fopen("/proc/sys/net/ipv4/ip_local_port_range", "r")) {
        if (std::fscanf(f, "%d", &low) != 1) low = 32768;
        std::fclose(f);
    }
    constexpr int kFirst = 10000;
    if (low - kFirst >= 1000) {
        static std::mt19937 pick(static_cast<unsigned>(getpid()) * 7919u + static_cast<unsigned>(time(nullptr)));
        std::uniform_int_distribution<int> in(kFirst, low - 1);
        for (int attempt = 0; attempt < 100; ++attempt) {
            int port = in(pick);
            if (Listen(&port).valid()) return port;
        }
    }
    int port = 0;
    Listen(&port);
    return port;
}

comp::UniqueFd Connect(int port, const std::string& from) {
    const sockaddr_in local = Loopback(from, 0), to = Loopback("127.0.0.1", port);
    for (int i = 0; i < 100; ++i, usleep(50 * 1000)) {
        comp::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0 &&
            connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0)
            return fd;
    }
    return comp::UniqueFd();
}

comp::UniqueFd Listen(int* port) {
    comp::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa = Loopback("127.0.0.1", *port);
    socklen_t len = sizeof sa;
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(fd.get(), 16) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0)
        return comp::UniqueFd();
    *port = ntohs(sa.sin_port);
    return fd;
}

comp::UniqueFd Accept(int listener, int timeoutMs) {
    pollfd p{listener, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return comp::UniqueFd();
    return comp::UniqueFd(accept(listener, nullptr, nullptr));
}

bool Send(int fd, const std::string& data) {
    return send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

std::string ReadUntilClose(int fd, int timeoutMs, bool* closed) {
    std::string out;
    const int64_t deadline = kit::NowMs() + timeoutMs;
    if (closed) *closed = false;
    for (int64_t left; (left = deadline - kit::NowMs()) > 0;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            if (closed) *closed = true;
            break;
        }
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

std::string ReadFrame(int fd, int timeoutMs) {
    std::vector<char> msg;
    std::string why;
    return kit::ReadFramed(fd, kit::Framing{}, timeoutMs, &msg, &why) ? std::string(msg.begin(), msg.end()) : "";
}

std::string Frame(const std::string& body) {
    char h[16];
    std::snprintf(h, sizeof h, "%04zu", body.size());
    return h + body;
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

std::string PlatformTest::AppVars() {
    // The whole-process suite runs once per wait style; ctest says which.
    const char* style = getenv("COMP_TEST_WAIT");
    return style != nullptr && *style != '\0' ? std::string("COMP_WAIT ") + style + "\n" : "";
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
    CheckLogsClean();
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

void PlatformTest::StartPlatform(const PlatformSetup& setup) {
    run.write("etc/sys.cfg", SysCfgText());
    std::string app = "[APPVARS]\n" + std::string(setup.appVars.count("LOG_LEVEL") ? "" : "LOG_LEVEL 1\n") + AppVars();
    for (const auto& [name, value] : setup.appVars) app += name + " " + value + "\n";
    run.write("etc/app.cfg", app + "[]\n");
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

namespace {
const char* FaketimeLibrary() {
    for (const char* lib : {"/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1",
                            "/usr/lib/aarch64-linux-gnu/faketime/libfaketime.so.1",
                            "/usr/lib/faketime/libfaketime.so.1"})
        if (access(lib, R_OK) == 0) return lib;
    return nullptr;
}
// A library preloaded ahead of the sanitizer runtime of a sanitized comp
// (libfaketime, the connect-fault shim) is refused unless the runtime is told
// that the order is meant.
std::string SanitizerOrderOption() {
    const char* given = getenv("ASAN_OPTIONS");
    std::string opts = given != nullptr ? given : "";
    return "ASAN_OPTIONS=" + opts + (opts.empty() ? "" : ":") + "verify_asan_link_order=0";
}
}  // namespace

std::vector<std::string> PlatformTest::PreloadEnv(const std::string& lib) {
    return {"LD_PRELOAD=" + lib, SanitizerOrderOption()};
}

std::vector<std::string> PlatformTest::FastClock(int speed) {
    const char* lib = FaketimeLibrary();
    if (lib == nullptr) return {};
    std::vector<std::string> env = PreloadEnv(lib);
    env.insert(env.end(), {"FAKETIME=+0 x" + std::to_string(speed), "FAKETIME_DONT_RESET=1"});
    return env;
}

std::vector<std::string> PlatformTest::SteppedClock(const std::string& specFile) {
    const char* lib = FaketimeLibrary();
    if (lib == nullptr) return {};
    std::vector<std::string> env = PreloadEnv(lib);
    env.insert(env.end(), {"FAKETIME_TIMESTAMP_FILE=" + specFile, "FAKETIME_NO_CACHE=1"});
    return env;
}

size_t PlatformTest::StartComp(const std::vector<std::string>& args, const std::vector<std::string>& env,
                               int inheritFd) {
    CompProc p;
    p.procName = args.size() >= 5 ? args[4] : "";
    // Beside log/, not in it: a test may start comp before log/ exists.
    p.outputPath = run.file("comp_" + std::to_string(comps_.size()) + ".out");
    kit::SpawnOptions plan;
    plan.path = CompBinary();
    plan.argv.push_back(plan.path);
    plan.argv.insert(plan.argv.end(), args.begin(), args.end());
    plan.outputPath = p.outputPath;
    plan.env = env;
    plan.inheritFd = inheritFd;
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
    if (!p.reaped) kit::StopChild(p.pid, kStopGraceMs);
    p.reaped = true;
}

std::string PlatformTest::CompOutput(size_t i) const { return ReadFile(comps_[i].outputPath); }

std::string PlatformTest::CompTraceLog(size_t i) const {
    const CompProc& p = comps_[i];
    return ReadFile(run.file("log/com_" + p.procName + "_" + std::to_string(p.pid) + "_" + Today() + ".log"));
}

// Like nginx's tests, a run fails when a sanitizer spoke in any comp's output
// or a fatal line shows in the logs that the test did not ask for.
void PlatformTest::CheckLogsClean() {
    for (size_t i = 0; i < comps_.size(); ++i) {
        const std::string out = CompOutput(i);
        for (const char* mark : {"AddressSanitizer", "LeakSanitizer", "runtime error:", "UndefinedBehaviorSanitizer"})
            if (out.find(mark) != std::string::npos) ADD_FAILURE() << "comp " << i << " output:\n" << out;
    }
    if (!std::filesystem::exists(run.file("log"))) return;
    for (const auto& e : std::filesystem::directory_iterator(run.file("log"))) {
        std::istringstream lines(ReadFile(e.path().string()));
        const bool fatalFile = e.path().filename() == "fatalerr.log";
        for (std::string line; std::getline(lines, line);) {
            if (!fatalFile && line.find("fatal") == std::string::npos) continue;
            bool allowed = false;
            for (const std::string& a : allowedFatal_) allowed = allowed || line.find(a) != std::string::npos;
            if (!allowed) ADD_FAILURE() << "unexpected fatal line in " << e.path().filename() << ": " << line;
        }
    }
}

std::string PlatformTest::AllLogs() const {
    std::string all;
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(run.file("log"), ec)) files.push_back(e.path());
    for (size_t i = 0; i < comps_.size(); ++i) files.emplace_back(comps_[i].outputPath);
    for (const auto& f : files) all += "==> " + f.filename().string() + "\n" + ReadFile(f.string());
    return all;
}

void PlatformTest::DeliverToComp(long type, int fifoKind, const std::string& fifoName, const std::vector<char>& text) {
    kit::Delivery d{type, text, fifoKind, fifoName};
    std::string why;
    EXPECT_TRUE(kit::Deliver(QueueId(comp::kQueueFromTranp), d, &why)) << why;
}

}  // namespace comptest
