// soak: runs the example platform of examples/ (compkit with every route it
// has, the station link included) under steady traffic on every route for a
// given time, while a chaos part restarts the peers, resets connections,
// stalls readers and sends malformed frames. It counts every message of the
// steady traffic (sent, answered, dropped with the line comp logs for the
// drop), samples the memory and descriptors of every comp instance and the
// System V objects of the run's keys, and writes a markdown report.
//
//   soak [--seconds N] [--report FILE] [--rate PER_SECOND] [--chaos-every MS]
//        [--comp PATH] [--compkit PATH] [--examples DIR] [--keep]
//
// Exit status: 0 when every count matches and every series is flat, 1 when
// not, 2 on a usage error, 77 when the machine lacks what the run needs.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchPlatform.h"
#include "BenchProcs.h"
#include "LoadGen.h"
#include "PersistentLoad.h"
#include "ProcStat.h"
#include "Soak.h"
#include "kit/Framing.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"
#include "kit/NetTools.h"
#include "kit/SynPeers.h"

namespace fs = std::filesystem;
using namespace bench;
using namespace bench::soak;

namespace {

volatile sig_atomic_t g_signal = 0;
std::atomic<bool> g_end{false};   // the traffic stops

void OnSignal(int) {
    g_signal = 1;
    g_end = true;
}

bool Ending() { return g_end.load() || g_signal != 0; }

// Sleeps up to ms in slices, until the run ends.
void Nap(int ms) {
    for (int64_t end = kit::NowMs() + ms; !Ending() && kit::NowMs() < end;)
        kit::SleepMs(static_cast<int>(std::min<int64_t>(50, end - kit::NowMs())));
}

constexpr int kSynCmdPoll = 1, kSynCmdNoData = 2, kSynCmdData = 4;

// The example's ports, by the route that listens or is connected to there.
constexpr int kExamplePorts[] = {47010, 47020, 47030, 47031, 47032, 47040, 47050, 47051, 47060, 47061, 47070};

struct Options {
    double seconds = 600;
    std::string report;
    double rate = 10;          // steady messages per second and route
    int chaosEveryMs = 2000;
    std::string comp, compkit, examples;
    bool keep = false;
};

// Counts of one route's steady traffic.
struct Tally {
    std::atomic<uint64_t> sent{0}, answered{0}, unanswered{0}, wrong{0}, reconnects{0};
};
// Counts of the chaos traffic of one route.
struct ChaosTally {
    std::atomic<uint64_t> resets{0}, stalls{0}, malformed{0}, closedByComp{0};
};

// What a route's steady traffic is, and which comp lines drop its messages.
struct RouteInfo {
    int route;
    const char* what;
    std::vector<std::pair<int, const char*>> dropLines;   // (route whose logs, text)
};

const std::vector<RouteInfo>& Routes() {
    static const std::vector<RouteInfo> routes = {
        {10, "TS 10 -> TC 20 -> echo server",
         {{10, "[127.0.0.1] is offline"}, {20, "iSockConnect error"}, {20, "time out and close"}, {20, "SysTcpRecvMsg error"},
          {20, "iSockSend error"}, {20, "short request dropped"}}},
        {32, "TS 32 -> PC 30 -> echo server",
         {{32, "[127.0.0.1] is offline"}, {30, "discard msg"}, {30, "SysPerClientReq error"}, {30, "iSockSend error"}}},
        {40, "PAS 40, echoed by the router",
         {{40, "didn't find the original connection"}, {40, "was replaced"}, {40, "WriteQueueNoWait error"}}},
        {60, "FWB 60 -> FWS 61, echoed by the router",
         {{61, "msg discard"}, {60, "iSockSend error"}, {61, "iSockSend error"}}},
        {50, "PCSYN 50 polled, echoed by the router", {{50, "messages are discarded"}}},
        {51, "PASSYN 51 client, echoed by the router",
         {{51, "didn't find the original connection"}, {51, "MsgWriteNoWait error"}}},
        {31, "PS 31 (a client's message ends the instance)", {{31, "]len=18"}}},
        {70, "station peer -> VANTREL 70, answered by the router (counted in the peer's log)",
         {{70, "discard msg!"}, {70, "messages from TranP dropped"}, {70, "not enough space "}}},
    };
    return routes;
}

class Soak {
public:
    explicit Soak(Options o) : opt_(std::move(o)) {}
    ~Soak() { TearDown(); }

    int Run();

private:
    // Set-up and tear-down.
    bool MakeRunDir(std::string* why);
    bool StartPlatform(std::string* why);
    pid_t StartPeer(const std::string& name, std::vector<std::string> args, std::string* why);
    void TearDown();
    bool WaitRoutesReady(std::string* why);

    // Steady traffic.
    void FramedClient(int route, const std::string& expectPrefix);
    void PersistentClient(int route);
    void PsClient();
    void PollServer();
    void PollClient();
    int Pace() const { return static_cast<int>(1000.0 / opt_.rate); }
    // New steady messages and chaos go on; false in the drain at the end.
    bool Sending() const { return !Ending() && !stopData_; }

    // Chaos.
    void Chaos();
    void RestartPeer(const char* which);
    void Reset(int route);
    void Stall(int route);
    void Malformed(int route, int variant);
    int ChaosSocket(int route);
    std::string NextChaosSource();

    // Samples and report.
    void Sampler();
    std::map<int, uint64_t> CountDrops(const RouteInfo& r, std::map<std::string, uint64_t>* byText) const;
    void CountStation();
    bool WriteReport(double ranSeconds, std::string* text);

    int Port(int examplePort) const { return ports_.at(examplePort); }

    Options opt_;
    std::string run_;
    std::map<int, int> ports_;
    std::vector<key_t> keys_;
    key_t keyBase_ = 0;
    bool up_ = false;
    pid_t supervisor_ = -1;
    std::map<std::string, pid_t> peers_;   // echo20, echo30, station
    std::mutex peersMu_;
    std::map<int, std::unique_ptr<std::mutex>> gates_;   // routes whose peer the chaos restarts
    std::map<int, Tally> tally_;
    std::map<int, ChaosTally> chaos_;
    std::map<int, std::atomic<uint64_t>> restarts_;   // peer restarts, by the route they serve
    std::atomic<bool> pollServerDown_{false};
    std::atomic<bool> stopData_{false};
    std::atomic<uint64_t> psInstanceRestarts_{0};
    std::atomic<int> sourceCounter_{0};

    // Samples: per comp instance ("MODE route/instance pid") the series.
    struct Series {
        std::string name;
        std::vector<double> rssKiB, fds;
        int64_t firstMs = 0, lastMs = 0;
    };
    std::mutex samplesMu_;
    std::map<pid_t, Series> series_;
    std::vector<double> ipcObjects_, ipcQueued_, runFifos_;
    int64_t startMs_ = 0;
};

// ---- set-up ----

bool Soak::MakeRunDir(std::string* why) {
    char tmpl[] = "/tmp/soak.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        *why = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    run_ = tmpl;
    for (const char* d : {"etc", "log", "fifo", "runs/bin", "runs/log"}) fs::create_directories(run_ + "/" + d);
    const std::vector<int> free = FreeLoopbackPorts(std::size(kExamplePorts));
    if (free.size() != std::size(kExamplePorts)) {
        *why = "no free loopback ports";
        return false;
    }
    for (size_t i = 0; i < free.size(); ++i) ports_[kExamplePorts[i]] = free[i];
    // Keys of our own, clear of the example's and of every other run.
    for (int attempt = 0; attempt < 64 && keyBase_ == 0; ++attempt) {
        const key_t base = static_cast<key_t>(0x534B0000u | (((static_cast<unsigned>(getpid()) + attempt * 131u) & 0xFFu) << 8));
        bool free = true;
        for (int off = 0; off < 256 && free; ++off)
            free = msgget(base + off, 0) < 0 && semget(base + off, 0, 0) < 0 && shmget(base + off, 0, 0) < 0;
        if (free) keyBase_ = base;
    }
    if (keyBase_ == 0) {
        *why = "no free System V keys";
        return false;
    }
    auto read = [&](const char* name) { return kit::ReadWholeFile(opt_.examples + "/" + name).value_or(""); };
    const std::string sys = MoveKeys(read("sys.cfg"), keyBase_);
    const std::string tables = MovePorts(read("tables.cfg"), ports_);
    const std::string kit = EnableStationRoute(MovePorts(read("compkit.cfg"), ports_));
    // Warnings and errors only, as a production platform runs: the drop lines
    // are error entries and written at every level.
    const std::string app = soak::SetLogLevel(read("app.cfg"), 3);
    if (sys.empty() || tables.empty() || kit.empty() || app.empty()) {
        *why = "cannot read the configuration in " + opt_.examples;
        return false;
    }
    keys_ = ConfigKeys(sys);
    return WriteTextFile(run_ + "/etc/sys.cfg", sys, why) && WriteTextFile(run_ + "/etc/tables.cfg", tables, why) &&
           WriteTextFile(run_ + "/etc/compkit.cfg", kit, why) && WriteTextFile(run_ + "/etc/app.cfg", app, why);
}

pid_t Soak::StartPeer(const std::string& name, std::vector<std::string> args, std::string* why) {
    kit::SpawnOptions p;
    p.path = opt_.compkit;
    p.argv = {"compkit"};
    p.argv.insert(p.argv.end(), args.begin(), args.end());
    p.outputPath = run_ + "/log/" + name + ".out";
    const pid_t pid = kit::Spawn(p, why);
    if (pid > 0) {
        std::lock_guard<std::mutex> l(peersMu_);
        peers_[name] = pid;
    }
    return pid;
}

// The peers and their command lines.
std::vector<std::string> PeerArgs(const std::string& name, const std::map<int, int>& ports,
                                  const std::string& run) {
    auto at = [&](int p) { return "127.0.0.1:" + std::to_string(ports.at(p)); };
    if (name == "echo20") return {"echo-server", at(47020), "--frame", "4,0,4,0", "--prefix", "echo: "};
    if (name == "echo30")
        return {"echo-server", at(47030), "--frame", "4,0,4,0", "--prefix", "pc-echo: ", "--heartbeat", "0602",
                "--beat-every", "10"};
    return {"station", at(47070), "--send", "soak", "--count", "1000000", "--interval", "500", "--log",
            run + "/log/station-" + std::to_string(kit::NowMs()) + ".log"};
}

bool Soak::StartPlatform(std::string* why) {
    setenv("RUNDIR", run_.c_str(), 1);
    setenv("HOME", run_.c_str(), 1);
    setenv("COMPKIT_COMP", opt_.comp.c_str(), 1);
    kit::SpawnOptions up;
    up.path = opt_.compkit;
    up.argv = {"compkit", "up", run_};
    up.outputPath = run_ + "/log/compkit-up.out";
    const pid_t pid = kit::Spawn(up, why);
    int status = 0;
    if (pid < 0 || !kit::WaitChild(pid, 30000, &status) || status != 0) {
        *why = "compkit up failed: " + Tail(up.outputPath);
        return false;
    }
    up_ = true;
    for (const char* name : {"echo20", "echo30", "station"})
        if (StartPeer(name, PeerArgs(name, ports_, run_), why) < 0) return false;
    kit::SpawnOptions sup;
    sup.path = opt_.compkit;
    sup.argv = {"compkit", "run", run_};
    sup.outputPath = run_ + "/log/supervisor.out";
    supervisor_ = kit::Spawn(sup, why);
    return supervisor_ > 0;
}

void Soak::TearDown() {
    if (supervisor_ > 0) {
        // SIGTERM: the supervisor asks every instance to quit and takes the platform down.
        kit::StopChild(supervisor_, 20000);
        supervisor_ = -1;
    }
    {
        std::lock_guard<std::mutex> l(peersMu_);
        for (auto& [name, pid] : peers_)
            if (pid > 0) kit::StopChild(pid, 3000);
        peers_.clear();
    }
    if (up_) {
        kit::SpawnOptions down;
        down.path = opt_.compkit;
        down.argv = {"compkit", "down", run_};
        down.outputPath = run_ + "/log/compkit-down.out";
        std::string why;
        const pid_t pid = kit::Spawn(down, &why);
        int status = 0;
        if (pid > 0) kit::WaitChild(pid, 30000, &status);
        up_ = false;
    }
    // Whatever still stands under our keys goes too.
    for (key_t k : keys_) {
        int id = msgget(k, 0);
        if (id >= 0) msgctl(id, IPC_RMID, nullptr);
        id = semget(k, 0, 0);
        if (id >= 0) semctl(id, 0, IPC_RMID);
        id = shmget(k, 0, 0);
        if (id >= 0) shmctl(id, IPC_RMID, nullptr);
    }
    if (!run_.empty() && !opt_.keep) {
        std::error_code ec;
        fs::remove_all(run_, ec);
    }
    run_.clear();
}

// Every server route takes a connection, and the relayed routes answer once
// (outside the counts), before the run begins.
bool Soak::WaitRoutesReady(std::string* why) {
    const int64_t deadline = kit::NowMs() + 60000;
    // One try: a connection, and with `exchange` a request and its answer.
    auto ready = [](int port, bool exchange) {
        std::string w;
        kit::UniqueFd fd(kit::ConnectTo("127.0.0.1", port, 1000, &w));
        if (!fd.valid() || !exchange) return fd.valid();
        const std::string req = FrameRequest("0000ready", 4);
        std::vector<char> ans;
        return send(fd.get(), req.data(), req.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(req.size()) &&
               kit::ReadFramed(fd.get(), kit::Framing{}, 6000, &ans, &w);
    };
    const std::pair<int, bool> checks[] = {{47040, false}, {47051, false}, {47031, false},
                                           {47010, true},  {47032, true},  {47060, true}};
    for (const auto& [examplePort, exchange] : checks) {
        while (!ready(Port(examplePort), exchange)) {
            if (Ending() || kit::NowMs() > deadline) {
                *why = "the route on port " + std::to_string(Port(examplePort)) + " did not " +
                       (exchange ? "answer" : "come up") + "; supervisor: " + Tail(run_ + "/log/supervisor.out");
                return false;
            }
            kit::SleepMs(300);
        }
    }
    return true;
}

// ---- steady traffic ----

// A short-connection client: connect, one request, its answer, close; one at
// a time. The answer must be expectPrefix + the request's body.
void Soak::FramedClient(int route, const std::string& expectPrefix) {
    Tally& t = tally_[route];
    const int port = Port(route == 10 ? 47010 : 47032);
    for (uint64_t seq = 1; Sending(); ++seq) {
        const int64_t next = kit::NowMs() + Pace();
        {
            std::lock_guard<std::mutex> gate(*gates_[route]);
            const std::string body = "0001T" + std::to_string(route) + "-" + std::to_string(seq);
            std::string why;
            kit::UniqueFd fd(kit::ConnectTo("127.0.0.1", port, 2000, &why));
            if (!fd.valid()) {
                ++t.reconnects;   // nothing sent
            } else {
                const std::string req = FrameRequest(body, 4);
                ++t.sent;
                std::vector<char> ans;
                // Longer than the router's relay time-out (5 s), so an answer
                // that comes is never missed.
                if (send(fd.get(), req.data(), req.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(req.size()) ||
                    !kit::ReadFramed(fd.get(), kit::Framing{}, 8000, &ans, &why)) {
                    ++t.unanswered;
                } else if (std::string(ans.begin() + 4, ans.end()) == expectPrefix + body) {
                    ++t.answered;
                } else {
                    ++t.wrong;
                }
            }
        }
        Nap(static_cast<int>(std::max<int64_t>(0, next - kit::NowMs())));
    }
}

// A long-lived client from 127.0.0.1 whose messages the router echoes;
// connects again when the connection is lost.
void Soak::PersistentClient(int route) {
    Tally& t = tally_[route];
    const int port = Port(route == 40 ? 47040 : 47060);
    kit::UniqueFd fd;
    for (uint64_t seq = 1; Sending(); ++seq) {
        const int64_t next = kit::NowMs() + Pace();
        std::string why;
        if (!fd.valid()) {
            fd.reset(kit::ConnectTo("127.0.0.1", port, 2000, &why));
            if (!fd.valid()) {
                Nap(200);
                continue;
            }
            ++t.reconnects;
        }
        const std::string body = "0001P" + std::to_string(route) + "-" + std::to_string(seq);
        const std::string req = FrameRequest(body, 4);
        ++t.sent;
        std::vector<char> ans;
        if (send(fd.get(), req.data(), req.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(req.size()) ||
            !kit::ReadFramed(fd.get(), kit::Framing{}, 8000, &ans, &why)) {
            ++t.unanswered;
            fd.reset();
        } else if (std::string(ans.begin(), ans.end()) == req) {
            ++t.answered;
        } else {
            ++t.wrong;
            fd.reset();
        }
        Nap(static_cast<int>(std::max<int64_t>(0, next - kit::NowMs())));
    }
}

// PS: a client connects, is accepted, and sends one message, which ends the
// instance that holds it; the supervisor is asked to start ended instances
// again. Every such message must show as the line the instance ends with.
void Soak::PsClient() {
    Tally& t = tally_[31];
    while (Sending()) {
        std::string why;
        kit::UniqueFd fd(kit::ConnectTo("127.0.0.1", Port(47031), 2000, &why));
        if (fd.valid()) {
            Nap(300);   // accepted by then (a second or so at worst; the message waits in the socket)
            const std::string req = FrameRequest("0001ps-message", 4);
            if (send(fd.get(), req.data(), req.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(req.size())) {
                ++t.sent;
                char b[64];
                pollfd p{fd.get(), POLLIN, 0};
                // The instance ends: the connection closes.
                if (poll(&p, 1, 5000) > 0 && recv(fd.get(), b, sizeof b, 0) <= 0) ++t.answered;
                else ++t.unanswered;
            }
        }
        fd.reset();
        Nap(500);
        if (supervisor_ > 0 && kill(supervisor_, SIGUSR1) == 0) ++psInstanceRestarts_;
        Nap(3000);
    }
}

// The server that polls route 50: one data frame per exchange, whose echo
// comes back in the answer to a later one. The chaos part takes its
// listener and connection away for a while (a restart of the peer).
void Soak::PollServer() {
    Tally& t = tally_[50];
    std::set<std::string> out;   // data sent, echo not yet seen
    uint64_t seq = 0;
    kit::UniqueFd lsn;
    while (!Ending()) {
        if (!lsn.valid()) {
            lsn = kit::ListenOn("127.0.0.1", Port(47050), 4);
            if (!lsn.valid()) {
                Nap(200);
                continue;
            }
        }
        pollfd p{lsn.get(), POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) continue;
        kit::UniqueFd conn(accept4(lsn.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!conn.valid()) continue;
        for (int serial = 0; !Ending(); serial = (serial + 1) & 0xFF) {
            const int64_t next = kit::NowMs() + Pace();
            {
                std::lock_guard<std::mutex> g(*gates_[50]);
                if (pollServerDown_ || (stopData_ && out.empty())) break;
                // In the drain at the end: polls only, for the echoes still out.
                const std::string data = stopData_ ? "" : "D50-" + std::to_string(++seq);
                const std::string frame =
                    data.empty() ? kit::SynBytes(kSynCmdPoll, serial) : kit::SynBytes(kSynCmdData, serial, data);
                if (send(conn.get(), frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size()))
                    break;
                // Sent: whether comp took it shows by its answer.
                if (!data.empty()) {
                    ++t.sent;
                    out.insert(data);
                }
                std::vector<char> ans;
                std::string why;
                if (!kit::ReadSynFrame(conn.get(), 5000, &ans, &why)) break;
                const kit::SynView v = kit::ParseSyn(ans);
                if (v.cmd == kSynCmdData) {
                    if (out.erase(v.data) == 1) ++t.answered;
                    else ++t.wrong;
                }
            }
            Nap(static_cast<int>(std::max<int64_t>(0, next - kit::NowMs())));
        }
        conn.reset();
        lsn.reset();
        if (stopData_ && out.empty()) break;
        while (pollServerDown_ && !Ending()) Nap(50);
    }
    // What is still out at the end.
    t.unanswered += out.size();
}

// A client of route 51 from 127.0.0.1: answers every poll or push, with a
// data frame once per pace; the echoes come back as tasks.
void Soak::PollClient() {
    Tally& t = tally_[51];
    std::set<std::string> out;
    uint64_t seq = 0;
    while (!Ending()) {
        std::string why;
        kit::UniqueFd fd(kit::ConnectTo("127.0.0.1", Port(47051), 2000, &why));
        if (!fd.valid()) {
            Nap(200);
            continue;
        }
        ++t.reconnects;
        int64_t nextData = kit::NowMs();
        while (!Ending()) {
            std::vector<char> msg;
            if (!kit::ReadSynFrame(fd.get(), 5000, &msg, &why)) break;
            const kit::SynView got = kit::ParseSyn(msg);
            if (got.cmd == kSynCmdData) {
                if (out.erase(got.data) == 1) ++t.answered;
                else ++t.wrong;
            }
            std::string reply = kit::SynBytes(kSynCmdNoData, got.serial);
            std::string data;
            if (Sending() && kit::NowMs() >= nextData) {
                data = "D51-" + std::to_string(++seq);
                reply = kit::SynBytes(kSynCmdData, got.serial, data);
                nextData = kit::NowMs() + Pace();
            }
            if (send(fd.get(), reply.data(), reply.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(reply.size())) {
                if (!data.empty()) --seq;
                break;
            }
            if (!data.empty()) {
                ++t.sent;
                out.insert(data);
            }
        }
    }
    // Echoes still due a moment after the end.
    t.unanswered += out.size();
}

// ---- chaos ----

std::string Soak::NextChaosSource() {
    // 127.9.x.y: never the steady clients' 127.0.0.1, and a fresh address for
    // each connection (PAS holds one connection per address).
    const int n = sourceCounter_++ % 60000;
    return "127.9." + std::to_string(1 + n / 250) + "." + std::to_string(1 + n % 250);
}

int Soak::ChaosSocket(int route) {
    static const std::map<int, int> examplePort = {{10, 47010}, {32, 47032}, {31, 47031},
                                                   {40, 47040}, {60, 47060}, {51, 47051}};
    std::string why;
    const int fd = ConnectFrom(NextChaosSource(), Port(examplePort.at(route)), &why);
    return fd;
}

void SendAll(int fd, const std::string& bytes) { (void)send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

void CloseWithReset(int fd) {
    linger l{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    close(fd);
}

// True when comp closes the connection within ms (reading what it sends).
bool ClosedWithin(int fd, int ms) {
    const int64_t end = kit::NowMs() + ms;
    char b[4096];
    while (kit::NowMs() < end) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(end - kit::NowMs())) <= 0) return false;
        const ssize_t n = recv(fd, b, sizeof b, 0);
        if (n <= 0) return true;
    }
    return false;
}

void Soak::Reset(int route) {
    const int fd = ChaosSocket(route);
    if (fd < 0) return;
    // Half a header, then an abortive close.
    SendAll(fd, route == 51 ? std::string("\xEB\x04", 2) : std::string("00"));
    kit::SleepMs(20);
    CloseWithReset(fd);
    ++chaos_[route].resets;
}

// A reader that stalls: a message announced and then trickled a byte at a
// time, without reading; the connection is reset after a few seconds.
void Soak::Stall(int route) {
    const int fd = ChaosSocket(route);
    if (fd < 0) return;
    ++chaos_[route].stalls;
    SendAll(fd, route == 51 ? std::string("\xEB\x04\x00\x00\x10", 5) : std::string("0016"));
    bool closed = false;
    for (int i = 0; i < 6 && !Ending() && !closed; ++i) {
        SendAll(fd, "x");
        closed = ClosedWithin(fd, 300);
    }
    if (closed) ++chaos_[route].closedByComp;
    CloseWithReset(fd);
}

// Malformed frames: a length that is not a number, a length beyond what a
// message may have followed by a close, or binary garbage.
void Soak::Malformed(int route, int variant) {
    const int fd = ChaosSocket(route);
    if (fd < 0) return;
    ++chaos_[route].malformed;
    std::string bytes;
    if (route == 51) {
        static const char* kSyn[] = {"\x7F\x04\x00\x00\x02hi\x03", "\xEB\x04\x00\xFF\xFF" "abc", "\xEB\x04\x00\x00\x02hiX"};
        static const size_t kSynLen[] = {8, 8, 8};
        bytes.assign(kSyn[variant % 3], kSynLen[variant % 3]);
    } else if (variant % 3 == 0) {
        bytes = "0x1Zhello";
    } else if (variant % 3 == 1) {
        bytes = "9999short";
    } else {
        for (int i = 0; i < 64; ++i) bytes.push_back(static_cast<char>((i * 73 + variant * 31) & 0xFF));
        bytes[0] = '\xFF';
    }
    SendAll(fd, bytes);
    if (ClosedWithin(fd, variant % 3 == 1 ? 200 : 1500)) ++chaos_[route].closedByComp;
    close(fd);
}

void Soak::RestartPeer(const char* which) {
    const std::string name = which;
    const int route = name == "echo20" ? 10 : name == "echo30" ? 32 : name == "poll50" ? 50 : 70;
    ++restarts_[route];
    // The steady client of the route is between two exchanges while the peer
    // goes: what it sends while the peer is away must be dropped with a line.
    std::unique_lock<std::mutex> gate;
    if (gates_.count(route)) gate = std::unique_lock<std::mutex>(*gates_[route]);
    if (name == "poll50") {
        pollServerDown_ = true;
    } else {
        pid_t pid = -1;
        {
            std::lock_guard<std::mutex> l(peersMu_);
            pid = peers_[name];
            peers_[name] = -1;
        }
        if (pid > 0) kit::StopChild(pid, 3000);
    }
    if (gate.owns_lock()) gate.unlock();
    Nap(1500);
    if (gates_.count(route)) gate = std::unique_lock<std::mutex>(*gates_[route]);
    if (name == "poll50") {
        pollServerDown_ = false;
    } else {
        std::string why;
        if (!Ending() && StartPeer(name, PeerArgs(name, ports_, run_), &why) > 0) {
            // Listening again before the route's traffic goes on.
            for (int i = 0; i < 50; ++i) {
                kit::UniqueFd fd(kit::ConnectTo("127.0.0.1", Port(name == "echo20" ? 47020 : name == "echo30" ? 47030 : 47070), 500, &why));
                if (fd.valid()) break;
                kit::SleepMs(20);
            }
        }
    }
}

void Soak::Chaos() {
    static const int kServerRoutes[] = {10, 32, 40, 60, 51, 31};
    static const char* kPeers[] = {"echo20", "echo30", "poll50", "station"};
    size_t restarts = 0;
    for (int step = 0; Sending(); ++step) {
        Nap(opt_.chaosEveryMs);
        if (!Sending()) break;
        const int route = kServerRoutes[step % std::size(kServerRoutes)];
        switch ((step / static_cast<int>(std::size(kServerRoutes))) % 4) {
            case 0: Reset(route); break;
            case 1: Stall(route); break;
            case 2: Malformed(route, step); break;
            default: RestartPeer(kPeers[restarts++ % std::size(kPeers)]); break;
        }
    }
}

// ---- samples ----

void Soak::Sampler() {
    while (!Ending()) {
        const int64_t now = kit::NowMs();
        std::map<pid_t, std::string> comps;
        if (DIR* d = opendir("/proc")) {
            while (dirent* e = readdir(d)) {
                const pid_t pid = static_cast<pid_t>(std::atoi(e->d_name));
                if (pid <= 0 || kit::ParentOf(pid) != supervisor_) continue;
                const std::string cmd = kit::ProcessCmdline(pid);
                std::istringstream w(cmd);
                std::string exe, mode, route, inst;
                if (!(w >> exe >> mode >> route >> inst) || exe != opt_.comp) continue;
                comps[pid] = mode + " " + route + "/" + inst;
            }
            closedir(d);
        }
        std::lock_guard<std::mutex> l(samplesMu_);
        for (auto& [pid, name] : comps) {
            const auto rss = ProcessRssKiB(pid);
            std::error_code ec;
            int fds = 0;
            for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
                 !ec && it != fs::directory_iterator(); it.increment(ec))
                ++fds;
            if (!rss || ec) continue;
            Series& s = series_[pid];
            if (s.name.empty()) {
                s.name = name;
                s.firstMs = now;
            }
            s.lastMs = now;
            s.rssKiB.push_back(static_cast<double>(*rss));
            s.fds.push_back(fds);
        }
        const IpcSample ipc = SampleIpc(keys_);
        ipcObjects_.push_back(ipc.objects());
        ipcQueued_.push_back(static_cast<double>(ipc.queuedMessages));
        int fifos = 0;
        std::error_code ec;
        for (auto it = fs::directory_iterator(run_ + "/fifo", ec); !ec && it != fs::directory_iterator();
             it.increment(ec))
            ++fifos;
        runFifos_.push_back(fifos);
        Nap(opt_.seconds >= 120 ? 5000 : 1000);
    }
}

// ---- counting and the report ----

// The station peer logs each transaction frame it sends and each it gets;
// the router answers every one of them with one of its own (02000FFF).
void Soak::CountStation() {
    Tally& t = tally_[70];
    std::error_code ec;
    for (auto it = fs::directory_iterator(run_ + "/log", ec); !ec && it != fs::directory_iterator(); it.increment(ec)) {
        const std::string file = it->path().filename().string();
        if (!file.starts_with("station-")) continue;
        const std::string text = kit::ReadWholeFile(it->path().string()).value_or("");
        t.sent += CountLines(text, "-> transaction data");
        t.answered += CountLines(text, "<- 02000FFF");
    }
    t.unanswered = t.sent > t.answered ? t.sent - t.answered : 0;
}

std::map<int, uint64_t> Soak::CountDrops(const RouteInfo& r, std::map<std::string, uint64_t>* byText) const {
    std::map<int, uint64_t> perRoute;
    std::error_code ec;
    for (auto it = fs::directory_iterator(run_ + "/log", ec); !ec && it != fs::directory_iterator(); it.increment(ec)) {
        const std::string file = it->path().filename().string();
        const int route = RouteOfLogName(file);
        if (route < 0) continue;
        std::string text;
        for (const auto& [logRoute, pattern] : r.dropLines) {
            if (logRoute != route) continue;
            if (text.empty()) text = kit::ReadWholeFile(it->path().string()).value_or("");
            const uint64_t n = CountLines(text, pattern);
            perRoute[route] += n;
            (*byText)[std::to_string(route) + ": \"" + pattern + "\""] += n;
        }
    }
    return perRoute;
}

std::string Fmt(const char* f, double a) {
    char b[64];
    std::snprintf(b, sizeof b, f, a);
    return b;
}

bool Soak::WriteReport(double ranSeconds, std::string* out) {
    bool ok = true;
    std::ostringstream s;
    s << "# Soak run\n\n"
      << "The example platform of examples/ (every route compkit runs, the station link included) under steady "
         "traffic on every route, while a chaos part restarts peers, resets connections, stalls readers and sends "
         "malformed frames. `make soak` runs it for ten minutes and writes this file; `scripts/soak.sh --seconds N "
         "--report FILE` runs it for any time; a 40-second version runs in `make test` (ctest `soak.short`). How it drives, counts and judges: "
         "[operations.md](operations.md#soak-run).\n\n"
      << "## Run\n\n"
      << "- length: " << Fmt("%.0f", ranSeconds) << " s of traffic, " << opt_.rate
      << " steady messages a second per route, a chaos action every " << opt_.chaosEveryMs << " ms\n"
      << "- load average at the end: " << LoadAverage() << "\n"
      << "- resource samples: " << ipcObjects_.size() << "\n\n"
      << "## Messages on the paths that must not lose them\n\n"
      << "Sent = answered + dropped with the line comp logs for the drop.\n\n"
      << "| route | path | sent | answered | unanswered | drop lines | wrong | reconnects | verdict |\n"
      << "|---|---|---|---|---|---|---|---|---|\n";
    std::ostringstream lines;
    CountStation();
    for (const RouteInfo& r : Routes()) {
        const Tally& t = tally_[r.route];
        std::map<std::string, uint64_t> byText;
        uint64_t drops = 0;
        for (auto& [route, n] : CountDrops(r, &byText)) drops += n;
        // PS: the message always ends the instance; the closed connection is
        // the "answer" and the line must be there for each one.
        const bool match = r.route == 31 ? (t.sent == drops && t.unanswered == 0)
                                         : (t.sent == t.answered + drops && t.unanswered == drops && t.wrong == 0);
        if (!match || t.sent == 0) ok = false;
        s << "| " << r.route << " | " << r.what << " | " << t.sent << " | " << t.answered << " | " << t.unanswered
          << " | " << drops << " | " << t.wrong << " | " << t.reconnects << " | "
          << (t.sent == 0 ? "NO TRAFFIC" : match ? "ok" : "MISMATCH") << " |\n";
        for (auto& [text, n] : byText)
            if (n > 0) lines << "- route " << r.route << ", log of route " << text << ": " << n << "\n";
    }
    s << "\nDrop lines found:\n\n" << (lines.str().empty() ? "- none\n" : lines.str());
    s << "\nPS instances started again on request (SIGUSR1 to the supervisor): " << psInstanceRestarts_ << "\n";
    // The station link: counted by its peer.
    s << "\n## Chaos traffic (not expected to be answered)\n\n"
      << "On the routes whose clients we are: connections reset (half a frame, then SO_LINGER 0), stalled "
         "readers (a message announced and trickled a byte at a time, never reading), malformed frames (a length "
         "that is no number, one beyond what may come followed by a close, binary garbage; for the polled route "
         "bad begin and end bytes and an impossible length).\n\n"
      << "| route | resets | stalled readers | malformed | closed by comp |\n|---|---|---|---|---|\n";
    for (auto& [route, c] : chaos_)
        s << "| " << route << " | " << c.resets << " | " << c.stalls << " | " << c.malformed << " | "
          << c.closedByComp << " |\n";
    s << "\nPeers restarted (killed by pid, or for the polled route's server its listener and connection "
         "taken away, for 1.5 s):";
    for (auto& [route, n] : restarts_) s << " route " << route << ": " << n << ";";
    s << "\n";

    s << "\n## Resources\n\n"
      << "Flat: after the first tenth, the mean of the last quarter of the samples is within 5 % (+ 1024 KiB "
         "of memory, + 4 descriptors) of the mean of the first quarter, and the series does not rise at every "
         "sample of its second half. Instances that lived less than half the run are listed apart.\n\n"
      << "| instance | pid | RSS first/last/max KiB | RSS verdict | fds first/last/max | fds verdict |\n"
      << "|---|---|---|---|---|---|\n";
    std::lock_guard<std::mutex> l(samplesMu_);
    int shortLived = 0;
    double shortMaxRss = 0;
    const int64_t span = kit::NowMs() - startMs_;
    for (auto& [pid, ser] : series_) {
        if (ser.lastMs - ser.firstMs < span / 2 || ser.rssKiB.size() < 4) {
            ++shortLived;
            for (double v : ser.rssKiB) shortMaxRss = std::max(shortMaxRss, v);
            continue;
        }
        const Flatness r = JudgeFlat(ser.rssKiB, 5, 1024);
        const Flatness f = JudgeFlat(ser.fds, 5, 4);
        if (!r.flat || !f.flat) ok = false;
        s << "| " << ser.name << " | " << pid << " | " << r.first << "/" << r.last << "/" << r.max << " | "
          << (r.flat ? "flat" : "GROWS: " + r.why) << " | " << f.first << "/" << f.last << "/" << f.max << " | "
          << (f.flat ? "flat" : "GROWS: " + f.why) << " |\n";
    }
    s << "\nShort-lived instances (PS instances ended by their clients' messages, and their successors): "
      << shortLived << ", largest RSS " << shortMaxRss << " KiB.\n\n";
    const Flatness o = JudgeFlat(ipcObjects_, 0, 0);
    const Flatness q = JudgeFlat(ipcQueued_, 0, 10);
    const Flatness ff = JudgeFlat(runFifos_, 0, 4);
    if (!o.flat || !q.flat || !ff.flat) ok = false;
    s << "| IPC of the run's keys | first | last | max | verdict |\n|---|---|---|---|---|\n"
      << "| objects (queues, semaphore sets, segments) | " << o.first << " | " << o.last << " | " << o.max << " | "
      << (o.flat ? "flat" : "GROWS: " + o.why) << " |\n"
      << "| messages waiting in the queues | " << q.first << " | " << q.last << " | " << q.max << " | "
      << (q.flat ? "flat" : "GROWS: " + q.why) << " |\n"
      << "| FIFOs in the run directory | " << ff.first << " | " << ff.last << " | " << ff.max << " | "
      << (ff.flat ? "flat" : "GROWS: " + ff.why) << " |\n";
    s << "\n**Verdict: " << (ok ? "PASS" : "FAIL") << "**\n";
    *out = s.str();
    return ok;
}

int Soak::Run() {
    if (geteuid() != 0 && std::atol(kit::ReadWholeFile("/proc/sys/kernel/msgmax").value_or("0").c_str()) < 65540) {
        std::printf("soak: skipped: kernel.msgmax is below 65540 and this is not root\n");
        return 77;
    }
    std::string why;
    if (!MakeRunDir(&why) || !StartPlatform(&why)) {
        std::fprintf(stderr, "soak: %s\n", why.c_str());
        return 1;
    }
    for (int r : {10, 32, 50}) gates_[r] = std::make_unique<std::mutex>();
    for (const RouteInfo& r : Routes()) tally_[r.route];
    for (int r : {10, 32, 31, 40, 60, 51}) chaos_[r];
    if (!WaitRoutesReady(&why)) {
        std::fprintf(stderr, "soak: %s\n", why.c_str());
        return 1;
    }
    std::printf("soak: platform up in %s; %.0f s of traffic\n", run_.c_str(), opt_.seconds);
    std::fflush(stdout);
    startMs_ = kit::NowMs();
    std::vector<std::thread> threads;
    threads.emplace_back([this] { FramedClient(10, "echo: "); });
    threads.emplace_back([this] { FramedClient(32, "pc-echo: "); });
    threads.emplace_back([this] { PersistentClient(40); });
    threads.emplace_back([this] { PersistentClient(60); });
    threads.emplace_back([this] { PsClient(); });
    threads.emplace_back([this] { PollServer(); });
    threads.emplace_back([this] { PollClient(); });
    threads.emplace_back([this] { Chaos(); });
    threads.emplace_back([this] { Sampler(); });
    while (!Ending() && kit::NowMs() - startMs_ < static_cast<int64_t>(opt_.seconds * 1000)) kit::SleepMs(200);
    // The drain: no new messages; the answers still out have time to come
    // (longer than the router's relay time-out of 5 s).
    stopData_ = true;
    for (int i = 0; i < 90 && !Ending(); ++i) kit::SleepMs(100);
    g_end = true;
    for (auto& t : threads) t.join();
    const double ran = static_cast<double>(kit::NowMs() - startMs_) / 1000.0;
    if (g_signal) {
        std::fprintf(stderr, "soak: stopped by a signal\n");
        return 1;
    }
    std::string report;
    const bool ok = WriteReport(ran, &report);
    std::fputs(report.c_str(), stdout);
    if (!opt_.report.empty()) {
        if (!WriteTextFile(opt_.report, report, &why)) std::fprintf(stderr, "soak: %s\n", why.c_str());
    }
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (OptionReader r(argc, argv); r.Next();) {
        std::optional<double> d;
        std::optional<std::string> v;
        if (r.Is("--seconds") && (d = r.Number(5, 86400))) o.seconds = *d;
        else if (r.Is("--rate") && (d = r.Number(0.5, 1000))) o.rate = *d;
        else if (r.Is("--chaos-every") && (d = r.Number(50, 60000))) o.chaosEveryMs = static_cast<int>(*d);
        else if (r.Is("--report") && (v = r.Value())) o.report = *v;
        else if (r.Is("--comp") && (v = r.Value())) o.comp = *v;
        else if (r.Is("--compkit") && (v = r.Value())) o.compkit = *v;
        else if (r.Is("--examples") && (v = r.Value())) o.examples = *v;
        else if (r.Is("--keep")) o.keep = true;
        else {
            std::fprintf(stderr,
                         "usage: soak [--seconds N] [--report FILE] [--rate PER_SECOND] [--chaos-every MS]\n"
                         "            [--comp PATH] [--compkit PATH] [--examples DIR] [--keep]\n");
            return 2;
        }
    }
    if (!ResolveCompPath("soak", &o.comp)) return 2;
    o.comp = fs::weakly_canonical(o.comp).string();
    if (o.compkit.empty()) o.compkit = fs::path(o.comp).parent_path().string() + "/tools/compkit";
#ifdef COMP_SOURCE_DIR
    if (o.examples.empty()) o.examples = COMP_SOURCE_DIR "/examples";
#endif
    InstallStopHandler(OnSignal);
    Soak soak(o);
    return soak.Run();
}
