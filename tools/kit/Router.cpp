#include "kit/Router.h"

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "kit/KitIpc.h"
#include "kit/KitUtil.h"
#include "kit/StationFrames.h"

namespace kit {

namespace p = comp::plat;

namespace {

template <typename T>
T Get(const char* text, int off) {
    T v{};
    std::memcpy(&v, text + off, sizeof v);
    return v;
}

template <typename T>
void Put(char* text, int off, T v) {
    std::memcpy(text + off, &v, sizeof v);
}

// A fixed text field, up to its first NUL.
std::string Field(const char* text, int off, int width) {
    return std::string(text + off, strnlen(text + off, static_cast<size_t>(width)));
}

constexpr int kIpWidth = 16;
constexpr int kPreviewChars = 60;

}  // namespace

bool DecodeHeader(const char* text, int len, PlatHeader* h) {
    if (len < p::kHeaderLen) return false;
    h->totalLen = Get<uint16_t>(text, p::kTotalLen);
    h->kind = Get<uint16_t>(text, p::kKind);
    h->pid = Get<int32_t>(text, p::kPid);
    h->pid2 = Get<int32_t>(text, p::kPid2);
    h->route = Get<uint16_t>(text, p::kRoute);
    h->route2 = Get<uint16_t>(text, p::kRoute2);
    h->sock = Get<int32_t>(text, p::kSock);
    h->sock2 = Get<int32_t>(text, p::kSock2);
    h->port = Get<int32_t>(text, p::kPort);
    h->ip = Field(text, p::kIp, kIpWidth);
    h->ip2 = Field(text, p::kIp2, kIpWidth);
    h->flag = text[p::kFlag];
    return true;
}

std::string Printable(const char* data, int len, int maxChars) {
    std::string out;
    for (int i = 0; i < len; ++i) {
        if (static_cast<int>(out.size()) >= maxChars) {
            out += "...";
            break;
        }
        unsigned char c = static_cast<unsigned char>(data[i]);
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out.push_back(static_cast<char>(c));
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

std::string DescribeMessage(const char* text, int len) {
    PlatHeader h;
    if (!DecodeHeader(text, len, &h)) return "short message of " + std::to_string(len) + " bytes";
    char line[512];
    const char* body = text + p::kHeaderLen;
    const int bodyLen = len - p::kHeaderLen;
    if (h.kind == p::kKindNotice && bodyLen >= 4 && std::memcmp(body, "N00", 3) == 0) {
        std::string code(body, 4);
        std::string ip = bodyLen >= p::kNoteIp + kIpWidth ? Field(body, p::kNoteIp, kIpWidth) : "";
        int n = std::snprintf(line, sizeof line, "%s pid %d route %u fd %d ip %s port %d", code.c_str(), h.pid,
                              h.route, h.sock, ip.c_str(), h.port);
        if (code == "N001" && bodyLen >= p::kNoteBodyLen && n > 0)
            std::snprintf(line + n, sizeof line - static_cast<size_t>(n), " [%s] [%s] [%s]",
                          Field(body, p::kNoteText1, 16).c_str(), Field(body, p::kNoteText2, 12).c_str(),
                          Field(body, p::kNoteText3, 15).c_str());
        return line;
    }
    // The station link's N004 (a sequence command) and N005 (a frame the
    // peer acknowledged) travel as network messages of the route.
    if (h.kind == p::kKindNet && bodyLen == 8 && std::memcmp(body, "N004", 4) == 0) {
        std::snprintf(line, sizeof line, "N004 pid %d route %u peer %s:%d command 0x%08X", h.pid, h.route,
                      h.ip.c_str(), h.port, Get<uint32_t>(body, 4));
        return line;
    }
    if (h.kind == p::kKindNet && bodyLen >= 4 && std::memcmp(body, "N005", 4) == 0) {
        std::snprintf(line, sizeof line, "N005 pid %d route %u fd %d peer %s:%d value %s", h.pid, h.route, h.sock,
                      h.ip.c_str(), h.port, Printable(body + 4, bodyLen - 4, kPreviewChars).c_str());
        return line;
    }
    if (h.kind == p::kKindCommonp) {
        std::snprintf(line, sizeof line, "Commonp notice pid %d code %u", h.pid,
                      len >= p::kHeaderLen + 2 ? Get<uint16_t>(body, 0) : 0u);
        return line;
    }
    std::snprintf(line, sizeof line, "%s pid %d route %u fd %d peer %s:%d len %u body \"%s\"",
                  h.kind == p::kKindNet ? "data" : ("kind " + std::to_string(h.kind)).c_str(), h.pid, h.route,
                  h.sock, h.ip.c_str(), h.port, h.totalLen,
                  Printable(body, std::max(bodyLen, 0), kPreviewChars).c_str());
    return line;
}

bool BuildAnswer(AnswerForm form, const char* requestHeader, const char* body, int bodyLen, std::vector<char>* out) {
    if (bodyLen < 0 || p::kHeaderLen + bodyLen > comp::kQueueTextLen) return false;
    out->assign(requestHeader, requestHeader + p::kHeaderLen);
    out->insert(out->end(), body, body + bodyLen);
    char* h = out->data();
    // A total of 65,536 does not fit the 16-bit field; comp reads the length
    // from the queue, so the field keeps its low bits as comp's own builder does.
    Put<uint16_t>(h, p::kTotalLen, static_cast<uint16_t>(p::kHeaderLen + bodyLen));
    if (form == AnswerForm::kTsPeerIpAt24) {
        char ip[kIpWidth];
        std::memcpy(ip, requestHeader + p::kIp, kIpWidth);
        std::memcpy(h + p::kPort, ip, kIpWidth);
    }
    return true;
}

bool Deliver(int qid, const Delivery& d, std::string* why) {
    int fd = iConnectFIFO(d.fifoName.c_str(), d.fifoKind);
    if (fd < 0) {
        *why = "FIFO " + d.fifoText() + " is missing";
        return false;
    }
    UniqueFd fifo(fd);
    auto buf = std::make_unique<QueueMsg>();
    buf->lMsgType = d.type;
    const int len = static_cast<int>(std::min<size_t>(d.text.size(), sizeof buf->caText));
    std::memcpy(buf->caText, d.text.data(), static_cast<size_t>(len));
    if (MsgWriteNoWait(qid, buf.get(), len) != 0) {
        *why = "queue 8 refused the message: " + std::string(std::strerror(errno));
        return false;
    }
    if (iWriteFIFO(fifo.get()) != 0) {
        *why = "queued, but ringing FIFO " + d.fifoText() + " failed";
        return false;
    }
    return true;
}

std::vector<int> RouteInstances(const std::string& runDir, int route) {
    std::vector<int> out;
    DIR* d = opendir((runDir + "/fifo").c_str());
    if (d == nullptr) return out;
    const std::string prefix = std::to_string(comp::kFifoRouteNotify) + "_" + std::to_string(route) + "_";
    while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n.compare(0, prefix.size(), prefix) != 0) continue;
        if (auto v = ParseLong(std::string_view(n).substr(prefix.size())); v && *v >= 0)
            out.push_back(static_cast<int>(*v));
    }
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

int ReadQueue(int qid, long type, QueueMsg* buf, int timeoutMs) {
    const int64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        buf->lMsgType = type;
        int n = MsgReadNoWait(qid, buf);
        if (n > 0) return n;
        if (n < 0) return -1;
        if (NowMs() >= deadline) return 0;
        SleepMs(1);
    }
}

const RelayBook::Entry* RelayBook::startNext(int clientRoute, int64_t nowMs) {
    Route& r = routes_[clientRoute];
    if (r.flight || r.waiting.empty()) return nullptr;
    r.flight = std::move(r.waiting.front());
    r.waiting.pop_front();
    r.flight->sinceMs = nowMs;
    return &*r.flight;
}

bool RelayBook::finish(int clientRoute, Entry* out) {
    auto it = routes_.find(clientRoute);
    if (it == routes_.end() || !it->second.flight) return false;
    *out = std::move(*it->second.flight);
    it->second.flight.reset();
    return true;
}

bool RelayBook::inFlight(int clientRoute) const {
    auto it = routes_.find(clientRoute);
    return it != routes_.end() && it->second.flight.has_value();
}

size_t RelayBook::waiting(int clientRoute) const {
    auto it = routes_.find(clientRoute);
    return it == routes_.end() ? 0 : it->second.waiting.size();
}

int RelayBook::expire(int64_t nowMs, int64_t maxAgeMs, std::vector<std::pair<int, Entry>>* givenUp) {
    int forgotten = 0;
    for (auto& [route, r] : routes_) {
        if (r.flight && nowMs - r.flight->sinceMs > maxAgeMs) {
            givenUp->emplace_back(route, std::move(*r.flight));
            r.flight.reset();
        }
        while (!r.waiting.empty() && nowMs - r.waiting.front().sinceMs > maxAgeMs) {
            r.waiting.pop_front();
            ++forgotten;
        }
    }
    return forgotten;
}

Router::Router(std::string runDir, KitConfig cfg, int toTranpQid, int fromTranpQid)
    : runDir_(std::move(runDir)), cfg_(std::move(cfg)), toTranp_(toTranpQid), fromTranp_(fromTranpQid) {}

void Router::handle(const char* text, int len, std::vector<std::string>* trace) {
    trace->push_back("<- " + DescribeMessage(text, len));
    PlatHeader h;
    if (!DecodeHeader(text, len, &h) || h.kind != p::kKindNet) return;
    const RouteCfg* r = cfg_.findRoute(h.route);
    if (cfg_.relaySourceOf(h.route) != nullptr) {
        relayAnswer(*cfg_.relaySourceOf(h.route), h.route, text, len, trace);
    } else if (r == nullptr) {
        trace->push_back("   route " + std::to_string(h.route) + " is not in compkit.cfg; dropped");
    } else if (r->action == RouteCfg::Action::kEcho) {
        echo(*r, h, text, len, trace);
    } else if (r->action == RouteCfg::Action::kRelay) {
        relayRequest(*r, text, len, trace);
    } else if (r->action == RouteCfg::Action::kStation) {
        station(h, text, len, trace);
    } else {
        trace->push_back("   route " + std::to_string(h.route) + " drops its messages");
    }
}

void Router::echo(const RouteCfg& r, const PlatHeader& h, const char* text, int len,
                  std::vector<std::string>* trace) {
    Delivery d;
    if (!BuildAnswer(r.mode->form, text, text + p::kHeaderLen, len - p::kHeaderLen, &d.text)) {
        trace->push_back("   too long to answer; dropped");
        return;
    }
    if (r.mode->form == AnswerForm::kByRoute) {
        int inst = 0;
        if (!pickInstance(r.id, &inst)) {
            trace->push_back("   no instance of route " + std::to_string(r.id) + " waits (no FIFO 2_" +
                             std::to_string(r.id) + "_*); dropped");
            return;
        }
        d.type = r.id;
        d.fifoKind = comp::kFifoRouteNotify;
        d.fifoName = std::to_string(r.id) + "_" + std::to_string(inst);
    } else {
        d.type = h.pid;
        d.fifoKind = comp::kFifoPidNotify;
        d.fifoName = std::to_string(h.pid);
    }
    send(d, "echo", trace);
}

void Router::relayRequest(const RouteCfg& r, const char* text, int len, std::vector<std::string>* trace) {
    const std::string to = std::to_string(r.relayTo);
    if (RouteInstances(runDir_, r.relayTo).empty()) {
        trace->push_back("   no instance of route " + to + " waits (no FIFO 2_" + to + "_*); request dropped");
        return;
    }
    book_.queue(r.relayTo, RelayBook::Entry{std::vector<char>(text, text + len), r.mode->form, NowMs()});
    if (book_.inFlight(r.relayTo))
        trace->push_back("   waits: route " + to + " answers one request at a time (" +
                         std::to_string(book_.waiting(r.relayTo)) + " waiting)");
    sendNextRelay(r.relayTo, trace);
}

void Router::sendNextRelay(int clientRoute, std::vector<std::string>* trace) {
    const std::string to = std::to_string(clientRoute);
    while (const RelayBook::Entry* e = book_.startNext(clientRoute, NowMs())) {
        PlatHeader asker;
        DecodeHeader(e->text.data(), static_cast<int>(e->text.size()), &asker);
        Delivery d;
        d.type = clientRoute;
        d.text = e->text;
        d.fifoKind = comp::kFifoRouteNotify;
        int inst = 0;
        std::string why = "no instance waits (no FIFO 2_" + to + "_*)";
        if (pickInstance(clientRoute, &inst)) {
            d.fifoName = to + "_" + std::to_string(inst);
            if (Deliver(fromTranp_, d, &why)) {
                trace->push_back("-> queue 8 type " + to + ", rang " + d.fifoText() + " (relay of route " +
                                 std::to_string(asker.route) + " fd " + std::to_string(asker.sock) + ", " +
                                 std::to_string(book_.waiting(clientRoute)) + " waiting)");
                return;
            }
        }
        trace->push_back("   relay to route " + to + " failed: " + why + "; request dropped");
        RelayBook::Entry dropped;
        book_.finish(clientRoute, &dropped);
    }
}

void Router::relayAnswer(const RouteCfg& from, int clientRoute, const char* text, int len,
                         std::vector<std::string>* trace) {
    RelayBook::Entry e;
    if (!book_.finish(clientRoute, &e)) {
        trace->push_back("   answer of route " + std::to_string(clientRoute) +
                         " matches no request in flight; dropped");
        return;
    }
    Delivery d;
    if (BuildAnswer(e.form, e.text.data(), text + p::kHeaderLen, len - p::kHeaderLen, &d.text)) {
        PlatHeader asker;
        DecodeHeader(e.text.data(), p::kHeaderLen, &asker);
        d.type = asker.pid;
        d.fifoKind = comp::kFifoPidNotify;
        d.fifoName = std::to_string(asker.pid);
        send(d, "answer to route " + std::to_string(from.id) + " fd " + std::to_string(asker.sock), trace);
    } else {
        trace->push_back("   answer too long; dropped");
    }
    sendNextRelay(clientRoute, trace);
}

void Router::station(const PlatHeader& h, const char* text, int len, std::vector<std::string>* trace) {
    std::string what;
    auto frame = station::TranpReply(reinterpret_cast<const unsigned char*>(text + p::kHeaderLen),
                                     len - p::kHeaderLen, &what);
    if (!frame) return;
    Delivery d;
    d.type = h.pid;
    d.fifoKind = comp::kFifoPidNotify;
    d.fifoName = std::to_string(h.pid);
    if (!BuildAnswer(AnswerForm::kByPid, text, reinterpret_cast<const char*>(frame->data()),
                     static_cast<int>(frame->size()), &d.text))
        return;
    send(d, "station " + what, trace);
}

bool Router::pickInstance(int route, int* instance) {
    std::vector<int> all = RouteInstances(runDir_, route);
    if (all.empty()) return false;
    unsigned& next = nextInstance_[route];
    *instance = all[next % all.size()];
    ++next;
    return true;
}

void Router::send(const Delivery& d, const std::string& what, std::vector<std::string>* trace) {
    std::string why;
    if (Deliver(fromTranp_, d, &why))
        trace->push_back("-> queue 8 type " + std::to_string(d.type) + ", rang " + d.fifoText() + " (" + what + ")");
    else
        trace->push_back("   " + what + " not delivered: " + why);
}

void Router::expire(int64_t nowMs, std::vector<std::string>* trace) {
    const std::string limit = std::to_string(cfg_.relayTimeoutSec) + " s";
    std::vector<std::pair<int, RelayBook::Entry>> givenUp;
    const int forgotten = book_.expire(nowMs, static_cast<int64_t>(cfg_.relayTimeoutSec) * 1000, &givenUp);
    for (const auto& [route, e] : givenUp) {
        PlatHeader asker;
        DecodeHeader(e.text.data(), static_cast<int>(e.text.size()), &asker);
        trace->push_back("   route " + std::to_string(route) + " did not answer within " + limit +
                         "; gave up the request of route " + std::to_string(asker.route) + " fd " +
                         std::to_string(asker.sock));
    }
    if (forgotten > 0)
        trace->push_back("   forgot " + std::to_string(forgotten) + " relayed request(s) that waited longer than " +
                         limit + " to be sent");
    for (const RouteCfg& r : cfg_.routes)
        if (r.action == RouteCfg::Action::kRelay) sendNextRelay(r.relayTo, trace);
}

namespace {
std::atomic<bool> g_routerStop{false};
extern "C" void OnRouterSignal(int) { g_routerStop = true; }
}  // namespace

int RunRouter(const std::string& runDir) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    DirectLogs(runDir, "tranp");
    RunDirScope scope(runDir);
    Resources res;
    KitConfig cfg;
    std::string why;
    if (!ReadResources(runDir, &res, &why) || !LoadKitConfig(runDir, &cfg, &why)) {
        std::fprintf(stderr, "compkit tranp: %s\n", why.c_str());
        return 1;
    }
    const int q7 = QueueIdByIndex(res, comp::kQueueToTranp);
    const int q8 = QueueIdByIndex(res, comp::kQueueFromTranp);
    if (q7 < 0 || q8 < 0) {
        std::fprintf(stderr, "compkit tranp: queues 7 and 8 do not exist; run compkit up %s first\n", runDir.c_str());
        return 1;
    }
    struct sigaction sa {};
    sa.sa_handler = OnRouterSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    Router router(runDir, cfg, q7, q8);
    std::printf("%s tranp: routing queue 7 to queue 8 for %zu routes\n", ClockText().c_str(), cfg.routes.size());
    auto buf = std::make_unique<QueueMsg>();
    int64_t lastExpire = NowMs();
    std::vector<std::string> trace;
    while (!g_routerStop) {
        int n = ReadQueue(q7, 0, buf.get(), 200);
        if (n < 0) {
            std::printf("%s tranp: queue 7 cannot be read any more; stopping\n", ClockText().c_str());
            return 1;
        }
        trace.clear();
        if (n > 0) router.handle(buf->caText, n, &trace);
        if (NowMs() - lastExpire >= 1000) {
            router.expire(NowMs(), &trace);
            lastExpire = NowMs();
        }
        for (const std::string& l : trace) std::printf("%s tranp: %s\n", ClockText().c_str(), l.c_str());
    }
    std::printf("%s tranp: stopped\n", ClockText().c_str());
    return 0;
}

}  // namespace kit
