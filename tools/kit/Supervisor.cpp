#include "kit/Supervisor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "base/SysGlobals.h"
#include "comp/SysComPub.h"
#include "comp/SysPlatMsg.h"
#include "ipc/SysConnReg.h"
#include "ipc/SysFIFO.h"
#include "kit/KitConfig.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"
#include "kit/Router.h"

namespace kit {

namespace {

constexpr int kLoopWaitMs = 50;
constexpr int kListenBacklog = 128;
constexpr int kRouterGraceMs = 2000;

std::atomic<bool> g_stop{false};
extern "C" void OnStopSignal(int) { g_stop = true; }
// SIGUSR1: the operator asks for the ended processes to be started again.
std::atomic<bool> g_startEnded{false};
extern "C" void OnStartEndedSignal(int) { g_startEnded = true; }

struct Child {
    bool isRouter = false;
    const RouteCfg* route = nullptr;
    int instance = 0;
    std::string name;
    pid_t pid = -1;
    int listener = -1;  // index into the listeners, -1 for none
};

struct Listener {
    const RouteCfg* route = nullptr;
    UniqueFd fd;
    unsigned next = 0;       // round-robin position among the route's instances
    pid_t pendingPid = -1;   // told to accept, no report yet
    int64_t pendingSinceMs = 0;
    bool orphanNoted = false;  // said that a client waits and no instance can take it
};

// A listening socket that the instances inherit: non-blocking, so that an
// instance that lost the race for a client gets EAGAIN instead of waiting.
int OpenListener(const std::string& ip, int port, std::string* why) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        *why = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, ip.c_str(), &sa.sin_addr);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(fd.get(), kListenBacklog) != 0) {
        *why = "listen on " + ip + ":" + std::to_string(port) + ": " + std::strerror(errno);
        return -1;
    }
    return fd.release();
}

bool FifoExists(const std::string& runDir, const std::string& name) {
    struct stat st {};
    return stat((runDir + "/fifo/" + name).c_str(), &st) == 0;
}

class Supervisor {
public:
    Supervisor(const SupervisorOptions& opt, KitConfig cfg) : opt_(opt), cfg_(std::move(cfg)) {}
    int run();

private:
    void say(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    bool openListeners();
    void start(Child& c);
    void reap(bool stopping);
    void startEnded();
    void readNotices();
    void serveListeners();
    void cleanAfter(const Child& c, pid_t pid);
    bool command(const Child& c, char cmd);
    Child* byPid(pid_t pid);
    int runningInstances() const;
    void shutdown();

    SupervisorOptions opt_;
    KitConfig cfg_;
    std::vector<Child> children_;
    std::vector<Listener> listeners_;
    std::unique_ptr<QueueMsg> buf_ = std::make_unique<QueueMsg>();
    int commonpQid_ = -1;
    std::map<pid_t, std::string> names_;  // every pid started, for notices that come late
};

void Supervisor::say(const char* fmt, ...) {
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    std::printf("%s run: %s\n", ClockText().c_str(), text);
}

bool Supervisor::openListeners() {
    for (const RouteCfg& r : cfg_.routes) {
        if (!r.hasListen) continue;
        std::string why;
        int fd = OpenListener(r.listenIp, r.listenPort, &why);
        if (fd < 0) {
            std::fprintf(stderr, "compkit run: route %d: %s\n", r.id, why.c_str());
            return false;
        }
        Listener l;
        l.route = &r;
        l.fd.reset(fd);
        listeners_.push_back(std::move(l));
        say("route %d: listening on %s:%d (descriptor %d, shared by its instances)", r.id, r.listenIp.c_str(),
            r.listenPort, fd);
    }
    return true;
}

void Supervisor::start(Child& c) {
    SpawnOptions plan;
    if (c.isRouter) {
        plan.path = opt_.compkitPath;
        plan.argv = {"compkit", "tranp", opt_.runDir};
    } else {
        const int listenFd = c.listener >= 0 ? listeners_[static_cast<size_t>(c.listener)].fd.get() : 0;
        plan.path = opt_.compPath;
        plan.argv = {opt_.compPath, c.route->mode->name, c.route->idText, std::to_string(c.instance),
                     std::to_string(listenFd), c.name};
        plan.inheritFd = c.listener >= 0 ? listenFd : -1;
    }
    std::string why;
    c.pid = Spawn(plan, &why);
    if (c.pid < 0) {
        say("%s: cannot start: %s", c.name.c_str(), why.c_str());
        return;
    }
    names_[c.pid] = c.name;
    if (c.isRouter)
        say("started the router, pid %d", c.pid);
    else
        say("started %s (%s route %s instance %d) pid %d", c.name.c_str(), c.route->mode->name,
            c.route->idText.c_str(), c.instance, c.pid);
}

Child* Supervisor::byPid(pid_t pid) {
    for (Child& c : children_)
        if (c.pid == pid) return &c;
    return nullptr;
}

int Supervisor::runningInstances() const {
    return static_cast<int>(std::count_if(children_.begin(), children_.end(),
                                          [](const Child& c) { return !c.isRouter && c.pid > 0; }));
}

// What an instance leaves behind when it ends: its FIFOs (the control FIFO
// always), its registry entries and the messages still queued for it.
void Supervisor::cleanAfter(const Child& c, pid_t pid) {
    if (c.isRouter) return;
    const std::string p = std::to_string(pid);
    const std::pair<int, std::string> fifos[] = {
        {comp::kFifoPidNotify, p}, {comp::kFifoControl, p + "_" + std::to_string(c.instance)},
        {comp::kFifoPeerRequest, p}};
    for (const auto& [kind, name] : fifos)
        if (FifoExists(opt_.runDir, std::to_string(kind) + "_" + name)) SysCleanIpcFileById(name.c_str(), kind);
    // The route FIFO of a route-addressed instance outlives it otherwise, and
    // the router would queue messages for a reader that is not there.
    const std::string routeFifo = c.route->idText + "_" + std::to_string(c.instance);
    if (c.route->mode->form == AnswerForm::kByRoute &&
        FifoExists(opt_.runDir, std::to_string(comp::kFifoRouteNotify) + "_" + routeFifo))
        SysCleanIpcFileById(routeFifo.c_str(), comp::kFifoRouteNotify);
    DeleteBusyByPid(pid);
    SysCleanQueue(pid);
    for (Listener& l : listeners_)
        if (l.pendingPid == pid) l.pendingPid = -1;
}

void Supervisor::reap(bool stopping) {
    int status = 0;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
        Child* c = byPid(pid);
        if (c == nullptr) continue;
        c->pid = -1;
        cleanAfter(*c, pid);
        say("%s pid %d %s%s", c->name.c_str(), pid, DescribeWaitStatus(status).c_str(),
            stopping ? "" : "; not restarted");
    }
}

// On the operator's request only: every process that has ended, once more.
void Supervisor::startEnded() {
    const auto ended = std::count_if(children_.begin(), children_.end(), [](const Child& c) { return c.pid < 0; });
    say("asked to start the %d ended process%s again", static_cast<int>(ended), ended == 1 ? "" : "es");
    for (Child& c : children_)
        if (c.pid < 0) start(c);
}

void Supervisor::readNotices() {
    while (ReadQueue(commonpQid_, 0, buf_.get(), 0) > 0) {
        int32_t pid = 0;
        std::memcpy(&pid, buf_->caText + comp::plat::kPid, sizeof pid);
        auto known = names_.find(pid);
        const std::string who = (known != names_.end() ? known->second + " " : std::string()) + "pid " +
                                std::to_string(pid);
        switch (buf_->lMsgType) {
            case comp::kCommonpLogon: say("logon: %s", who.c_str()); break;
            case comp::kCommonpLogoff: say("logoff: %s", who.c_str()); break;
            case comp::kCommonpAccepted:
                say("accept reported by %s", who.c_str());
                for (Listener& l : listeners_)
                    if (l.pendingPid == pid) l.pendingPid = -1;
                break;
            default: say("notice of type %ld from %s", buf_->lMsgType, who.c_str()); break;
        }
    }
}

bool Supervisor::command(const Child& c, char cmd) {
    const std::string name = std::to_string(c.pid) + "_" + std::to_string(c.instance);
    if (!FifoExists(opt_.runDir, std::to_string(comp::kFifoControl) + "_" + name)) return false;
    int fd = iConnectFIFO(name.c_str(), comp::kFifoControl);
    if (fd < 0) return false;
    const bool ok = iWriteStr2FIFO(fd, &cmd) == 0;
    iCloseFIFO(fd);
    return ok;
}

void Supervisor::serveListeners() {
    std::vector<pollfd> fds;
    std::vector<size_t> which;
    const int64_t now = NowMs();
    for (size_t i = 0; i < listeners_.size(); ++i) {
        Listener& l = listeners_[i];
        if (l.pendingPid > 0 && now - l.pendingSinceMs >= opt_.acceptWaitMs) {
            say("pid %d did not report an accept within %d ms; passing on", l.pendingPid, opt_.acceptWaitMs);
            l.pendingPid = -1;
        }
        if (l.pendingPid > 0) continue;
        fds.push_back(pollfd{l.fd.get(), POLLIN, 0});
        which.push_back(i);
    }
    if (fds.empty()) {
        SleepMs(kLoopWaitMs);
        return;
    }
    if (poll(fds.data(), fds.size(), kLoopWaitMs) <= 0) return;
    for (size_t k = 0; k < fds.size(); ++k) {
        if (!(fds[k].revents & POLLIN)) continue;
        Listener& l = listeners_[which[k]];
        std::vector<Child*> mine;
        for (Child& c : children_)
            if (!c.isRouter && c.route == l.route && c.pid > 0) mine.push_back(&c);
        for (size_t tried = 0; tried < mine.size(); ++tried) {
            Child* c = mine[(l.next + tried) % mine.size()];
            if (!command(*c, '0')) continue;
            l.next = static_cast<unsigned>((l.next + tried + 1) % mine.size());
            l.pendingPid = c->pid;
            l.pendingSinceMs = NowMs();
            l.orphanNoted = false;
            say("client waiting on route %d: told %s to accept", l.route->id, c->name.c_str());
            break;
        }
        if (l.pendingPid >= 0) continue;
        // No instance has its control FIFO (yet, or any more): the client
        // waits in the listen queue.
        if (!l.orphanNoted && mine.empty())
            say("client waiting on route %d: no instance of the route runs to accept it", l.route->id);
        l.orphanNoted = l.orphanNoted || mine.empty();
        SleepMs(kLoopWaitMs);
    }
}

void Supervisor::shutdown() {
    say("stopping: asking %d instances to quit", runningInstances());
    for (Child& c : children_)
        if (!c.isRouter && c.pid > 0 && !command(c, 'x')) kill(c.pid, SIGTERM);
    const int64_t deadline = NowMs() + opt_.quitGraceMs;
    while (runningInstances() > 0 && NowMs() < deadline) {
        reap(true);
        readNotices();
        SleepMs(20);
    }
    for (Child& c : children_)
        if (!c.isRouter && c.pid > 0) {
            say("%s pid %d did not quit; killing it", c.name.c_str(), c.pid);
            kill(c.pid, SIGKILL);
            int status = 0;
            WaitChild(c.pid, 5000, &status);
            cleanAfter(c, c.pid);
            c.pid = -1;
        }
    readNotices();
    for (Child& c : children_)
        if (c.isRouter && c.pid > 0) {
            StopChild(c.pid, kRouterGraceMs);
            say("router pid %d stopped", c.pid);
            c.pid = -1;
        }
    listeners_.clear();
    if (opt_.takeDown) {
        std::vector<std::string> notes;
        std::string why;
        bool ok = PlatformDown(opt_.runDir, &notes, &why);
        for (const std::string& n : notes) say("%s", n.c_str());
        if (!ok) say("down failed: %s", why.c_str());
    }
}

int Supervisor::run() {
    if (access(opt_.compPath.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "compkit run: comp binary %s is not executable (set COMPKIT_COMP or 'comp PATH')\n",
                     opt_.compPath.c_str());
        return 1;
    }
    if (SysComInit() != 0 || g_stMsgQCntl[comp::kQueueCommonp].iId <= 0) {
        std::fprintf(stderr, "compkit run: the platform of %s is not up; run compkit up %s first\n",
                     opt_.runDir.c_str(), opt_.runDir.c_str());
        return 1;
    }
    commonpQid_ = g_stMsgQCntl[comp::kQueueCommonp].iId;
    if (!openListeners()) return 1;

    children_.reserve(cfg_.instances.size() + 1);
    Child router;
    router.isRouter = true;
    router.name = "router";
    children_.push_back(router);
    for (const InstanceCfg& i : cfg_.instances) {
        Child c;
        c.route = cfg_.findRoute(i.route);
        c.instance = i.instance;
        c.name = std::string(c.route->mode->shortName) + c.route->idText + "_" + std::to_string(i.instance);
        for (size_t k = 0; k < listeners_.size(); ++k)
            if (listeners_[k].route == c.route) c.listener = static_cast<int>(k);
        children_.push_back(c);
    }
    for (Child& c : children_) start(c);

    while (!g_stop) {
        reap(false);
        if (g_startEnded.exchange(false)) startEnded();
        readNotices();
        serveListeners();
    }
    shutdown();
    return 0;
}

}  // namespace

std::string ResolveCompPath(const std::string& fromConfig) {
    if (const char* env = std::getenv("COMPKIT_COMP"); env != nullptr && *env != '\0') return env;
    if (!fromConfig.empty()) return fromConfig;
    std::string self = SelfExe();
    size_t slash = self.rfind('/');
    if (slash == std::string::npos) return "comp";
    return self.substr(0, slash) + "/../comp";
}

int RunSupervisor(const SupervisorOptions& optIn) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    SupervisorOptions opt = optIn;
    KitConfig cfg;
    std::string why;
    if (!LoadKitConfig(opt.runDir, &cfg, &why)) {
        std::fprintf(stderr, "compkit run: %s\n", why.c_str());
        return 1;
    }
    if (opt.compPath.empty()) opt.compPath = ResolveCompPath(cfg.compPath);
    if (opt.compkitPath.empty()) opt.compkitPath = SelfExe();
    // The instances and the router find the platform through $RUNDIR.
    setenv("RUNDIR", opt.runDir.c_str(), 1);
    DirectLogs(opt.runDir, "compkit");
    g_stop = false;
    struct sigaction sa {};
    sa.sa_handler = OnStopSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    g_startEnded = false;
    sa.sa_handler = OnStartEndedSignal;
    sigaction(SIGUSR1, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    Supervisor sup(opt, std::move(cfg));
    return sup.run();
}

}  // namespace kit
