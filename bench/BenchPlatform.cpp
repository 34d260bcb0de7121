#include "BenchPlatform.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "base/SysTypes.h"
#include "kit/KitIpc.h"
#include "kit/KitUtil.h"

namespace bench {

namespace {

// Keys 0x42PPPPnn: "B" for bench, 16 bits of the pid, the object's number.
constexpr unsigned kKeyPrefix = 0x42000000u;
constexpr int kKeyAttempts = 16;
constexpr int kQueueIndices[] = {comp::kQueueCommonp,    comp::kQueueToTranp,   comp::kQueueFromTranp,
                                 comp::kQueuePasRequest, comp::kQueuePasAnswer, comp::kQueueDrain};
constexpr int kSemOffset = 0x40;
constexpr int kRegistryOffset = 0x41;
constexpr int kTablesOffset = 0x42;
constexpr int kTablesBytes = 1048576;
constexpr int kTraceSizeKiB = 20480;

key_t KeyBase(int attempt) {
    unsigned spread = (static_cast<unsigned>(getpid()) + static_cast<unsigned>(attempt) * 7919u) & 0xFFFFu;
    return static_cast<key_t>(kKeyPrefix | (spread << 8));
}

// True when no queue, set or segment exists under any key of this base.
bool KeysFree(key_t base) {
    for (int idx : kQueueIndices)
        if (msgget(base + idx, 0) >= 0) return false;
    return semget(base + kSemOffset, 0, 0) < 0 && shmget(base + kRegistryOffset, 0, 0) < 0 &&
           shmget(base + kTablesOffset, 0, 0) < 0;
}

std::string SysCfgText(key_t base) {
    std::ostringstream s;
    // The common block is found by name anywhere in the file: no comments here.
    s << "LOGONTIMELIMIT 30\nCOMLOGONTIMELIMIT 30\nINQUERYTIME 10\nINQUERYCOUNT 3\nSHUTDOWNTIME 10\n"
      << "MSGQUEUECOUNT " << std::size(kQueueIndices) << "\nSEMPHORECOUNT 1\nSHAREMEMCOUNT 2\nPROCNAMECOUNT 0\n"
      << "[QRESOURCE]\n";
    for (int idx : kQueueIndices) s << "Q" << idx << " " << idx << " " << (base + idx) << "\n";
    s << "[SEMRESOURCE]\nREGLOCK 1 " << (base + kSemOffset) << " 10\n"
      << "[SHMRESOURCE]\nREGISTRY 1 " << (base + kRegistryOffset) << " " << comp::kRegistrySegmentMin << "\n"
      << "TABLES 2 " << (base + kTablesOffset) << " " << kTablesBytes << "\n[PROCESS]\n";
    return s.str();
}

// A route row; upperPort 0 leaves IPPORTUPPER empty.
std::string RouteLine(int route, const char* name, const char* sndType, int port, int idle = 30, int upperPort = 0,
                      const char* beatSwitch = "-", int reconn = 5) {
    char line[256];
    std::snprintf(line, sizeof line, "%d 1 %s %s %d 4 4 0 0 0 0 4 4 1 4 0 M 60 %d 127.0.0.1:%d %s %s\n", route, name,
                  sndType, idle, reconn, port,
                  upperPort > 0 ? ("127.0.0.1:" + std::to_string(upperPort)).c_str() : "-", beatSwitch);
    return line;
}

// A station link route: the 39-byte header's 32-bit length at offset 1 in
// host order counts the whole frame; no beats, a long idle time-out.
std::string StationRouteLine(int route, const char* name, int port) {
    char line[256];
    std::snprintf(line, sizeof line, "%d 1 %s 1 3600 39 4 1 1 1 -39 4 4 1 4 0 M 60 5 127.0.0.1:%d 0\n", route, name,
                  port);
    return line;
}

std::string TablesCfgText(const BenchRoutes& r, const BenchExtras& x) {
    std::string s = "[VARSTABLE]\nVARSNAME VARSVALUE\nMAX_COM_NUM " + std::to_string(x.maxComNum) +
                    "\nLIVEMSGTYPE 0602\nOFFLINEMODE 0\nKERNEL_BACKLOG 128\n"
                    "[PLAT_STATICROUTEINF]\n"
                    "ROUTEID ROUTEMONID ROUTENAME MSGSNDTYPE IDLETIMEOUT HEADERLEN MSGLENGETLEN MSGLENGETOFFSET "
                    "MSGLENGETTYPE MSGLENINTEL MSGLENADJUST MSGTYPEGETLEN MSGTYPEGETOFFSET MSGTYPEGETTYPE "
                    "MSGTYPECHARLEN SEQINTEL ROUTEMSGFLAG BEATINTERVAL RECONNINTERVAL IPPORT IPPORTUPPER BEATSWITCH\n";
    s += RouteLine(r.tsRoute, "bench-ts", "0", r.tsPort);
    s += RouteLine(r.baseRoute, "bench-base", "0", r.basePort);
    s += RouteLine(r.tsDeadlineRoute, "bench-tsdl", "0", r.tsDeadlinePort);
    s += RouteLine(r.tcRoute, "bench-tc", "1", r.tcServerPort);
    s += RouteLine(r.fwbRoute, "bench-fwb", "0", r.fwbPort, 3600, r.fwsPort);
    s += RouteLine(r.fwsRoute, "bench-fws", "0", r.fwsPort, 3600);
    s += RouteLine(r.pairRoute, "bench-pair", "0", r.pairUpperPort, 3600);
    for (const BenchExtras::Route& e : x.routes)
        s += RouteLine(e.id, e.name.c_str(), e.sndType.c_str(), e.port, e.idleTimeout, 0, "0", e.reconnInterval);
    s += "[PLAT_STATICROUTEINF]\n"
         "ROUTEID ROUTEMONID ROUTENAME MSGSNDTYPE IDLETIMEOUT HEADERLEN MSGLENGETLEN MSGLENGETOFFSET MSGLENGETTYPE "
         "MSGLENINTEL MSGLENADJUST MSGTYPEGETLEN MSGTYPEGETOFFSET MSGTYPEGETTYPE MSGTYPECHARLEN SEQINTEL "
         "ROUTEMSGFLAG BEATINTERVAL RECONNINTERVAL IPPORT BEATSWITCH\n";
    s += StationRouteLine(r.stationRoute, "bench-station", r.stationPeerPort);
    s += StationRouteLine(r.baseStationRoute, "bench-stbase", r.baseStationPeerPort);
    return s;
}

std::string KitCfgText(const BenchRoutes& r, const BenchExtras& x) {
    // The router only answers; the listeners named for the FWS-form routes
    // are the bench's own.
    auto fws = [](int route, int port) {
        return "route " + std::to_string(route) + " SysTCPFWS echo listen 127.0.0.1:" + std::to_string(port) + "\n";
    };
    std::string s = "route " + std::to_string(r.tsRoute) + " SysTCPTS echo\n" + "route " +
                    std::to_string(r.baseRoute) + " SysTCPTS echo\n" + "route " + std::to_string(r.tsDeadlineRoute) +
                    " SysTCPTS echo\n" + "route " + std::to_string(r.tcRoute) + " SysTCPTC\n" +
                    fws(r.fwsRoute, r.fwsPort) + fws(r.pairRoute, r.pairUpperPort);
    for (const BenchExtras::Route& e : x.routes) s += e.kitLine + "\n";
    return s;
}

std::string AppCfgText(int logLevel, const BenchExtras& x, const std::string& moreVars = "") {
    return "[APPVARS]\nLOG_LEVEL " + std::to_string(logLevel) + "\nTRC_LOGSIZE_SET " +
           std::to_string(kTraceSizeKiB) + "\nSTATION_ID 0001\nFTPSERVER 127.0.0.1\nFTPUSER bench\nFTPPWD bench\n" +
           x.appVars + moreVars + "[]\n";
}

}  // namespace

int FreeLoopbackPort() {
    kit::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0)
        return -1;
    return ntohs(sa.sin_port);
}

std::vector<int> FreeLoopbackPorts(size_t n) {
    // All bound at once, so that the kernel cannot hand out one port twice.
    std::vector<kit::UniqueFd> held;
    std::vector<int> ports;
    for (size_t i = 0; i < n; ++i) {
        held.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sa;
        if (!held.back().valid() || bind(held.back().get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
            getsockname(held.back().get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0)
            return {};
        ports.push_back(ntohs(sa.sin_port));
    }
    return ports;
}

bool WriteTextFile(const std::string& path, const std::string& text, std::string* why) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    out.flush();
    if (out) return true;
    *why = path + ": cannot be written";
    return false;
}

BenchPlatform::~BenchPlatform() { Destroy(); }

std::string BenchPlatform::ExtraRows() const {
    return extraRows_.empty() ? "" : "[PLAT_STATICROUTEINF]\n" + std::string(kExtraRouteColumns) + "\n" + extraRows_;
}

bool BenchPlatform::WriteConfig(int logLevel, std::string* why) const {
    return WriteTextFile(runDir_ + "/etc/sys.cfg", SysCfgText(keyBase_), why) &&
           WriteTextFile(runDir_ + "/etc/tables.cfg", TablesCfgText(routes_, extras_) + ExtraRows(), why) &&
           WriteTextFile(runDir_ + "/etc/compkit.cfg", KitCfgText(routes_, extras_) + extraKit_, why) &&
           WriteTextFile(runDir_ + "/etc/app.cfg", AppCfgText(logLevel, extras_), why);
}

bool BenchPlatform::Create(int logLevel, std::string* why) {
    // FIFO paths are limited to 128 bytes: keep the directory short.
    char tmpl[] = "/tmp/compbench.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        *why = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    runDir_ = tmpl;
    for (const char* sub : {"etc", "log", "fifo", "runs", "runs/bin", "runs/log"})
        mkdir((runDir_ + "/" + sub).c_str(), 0755);

    if (const char* v = std::getenv("RUNDIR")) hadRunDir_ = true, oldRunDir_ = v;
    if (const char* v = std::getenv("HOME")) hadHome_ = true, oldHome_ = v;
    setenv("RUNDIR", runDir_.c_str(), 1);
    setenv("HOME", runDir_.c_str(), 1);
    envSet_ = true;
    kit::DirectLogs(runDir_, "bench");

    const auto wanted = {&routes_.tsPort,         &routes_.basePort,       &routes_.tsDeadlinePort,
                         &routes_.tcServerPort,   &routes_.fwbPort,        &routes_.fwsPort,
                         &routes_.pairFrontPort,  &routes_.pairUpperPort,  &routes_.stationPeerPort,
                         &routes_.baseStationPeerPort};
    const std::vector<int> ports = FreeLoopbackPorts(wanted.size());
    if (ports.size() != wanted.size()) {
        *why = "no free loopback ports";
        Destroy();
        return false;
    }
    auto port = ports.begin();
    for (int* p : wanted) *p = *port++;
    for (int attempt = 0; attempt < kKeyAttempts && !up_; ++attempt) {
        keyBase_ = KeyBase(attempt);
        if (!KeysFree(keyBase_)) continue;
        if (!WriteConfig(logLevel, why)) break;
        std::vector<std::string> notes;
        up_ = kit::PlatformUp(runDir_, &notes, why);
        if (up_) {
            for (const std::string& n : notes)
                if (n.rfind("up:", 0) != 0 && n.rfind("note:", 0) != 0) std::fprintf(stderr, "bench: %s\n", n.c_str());
        }
    }
    if (!up_) {
        if (why->empty()) *why = "no free System V keys found";
        Destroy();
        return false;
    }
    return true;
}

void BenchPlatform::Destroy() {
    if (up_) {
        std::vector<std::string> notes;
        std::string why;
        if (!kit::PlatformDown(runDir_, &notes, &why)) std::fprintf(stderr, "bench: platform down: %s\n", why.c_str());
        up_ = false;
    }
    if (!runDir_.empty()) {
        std::error_code ec;
        if (!keepDir_) std::filesystem::remove_all(runDir_, ec);
        runDir_.clear();
    }
    if (envSet_) {
        if (hadRunDir_) setenv("RUNDIR", oldRunDir_.c_str(), 1); else unsetenv("RUNDIR");
        if (hadHome_) setenv("HOME", oldHome_.c_str(), 1); else unsetenv("HOME");
        envSet_ = false;
    }
}

bool BenchPlatform::SetLogLevel(int logLevel, std::string* why, bool deadline) {
    return WriteTextFile(runDir_ + "/etc/app.cfg", AppCfgText(logLevel, extras_, deadline ? "COMP_WAIT DEADLINE\n" : ""),
                         why);
}

bool BenchPlatform::SetAppCfg(int logLevel, const std::string& moreVars, std::string* why) {
    return WriteTextFile(runDir_ + "/etc/app.cfg", AppCfgText(logLevel, extras_, moreVars), why);
}


void BenchPlatform::TrimLogs() const {
    // Error logs stay: the report looks into them.
    for (const char* sub : {"/log", "/runs/log"}) {
        const std::string dir = runDir_ + sub;
        const bool connLogs = std::strcmp(sub, "/runs/log") == 0;
        DIR* d = opendir(dir.c_str());
        if (d == nullptr) continue;
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            const std::string path = dir + "/" + name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".bak") == 0)
                unlink(path.c_str());
            else if (connLogs && name.rfind("com_", 0) == 0 && truncate(path.c_str(), 0) != 0)
                std::fprintf(stderr, "bench: cannot empty %s\n", path.c_str());
        }
        closedir(d);
    }
}

}  // namespace bench
