// The stand-in router (TranP): reads what the comps put on queue 7, writes
// one readable line per message, and answers on queue 8 with a ring of the
// right FIFO, per route as compkit.cfg says (echo, relay or drop).
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/SysTypes.h"
#include "kit/KitConfig.h"

namespace kit {

// A PlatMsg header, decoded (host byte order).
struct PlatHeader {
    uint16_t totalLen = 0;
    uint16_t kind = 0;
    int32_t pid = 0, pid2 = 0;
    uint16_t route = 0, route2 = 0;
    int32_t sock = 0, sock2 = 0, port = 0;
    std::string ip, ip2;
    char flag = 0;
};

// False when fewer than 64 bytes are given.
bool DecodeHeader(const char* text, int len, PlatHeader* out);

// One readable line for a message read from queue 7: a data message, one of
// the notifications N001..N005, or a Commonp notice.
std::string DescribeMessage(const char* text, int len);

// Printable text of some bytes (non-printable bytes as \xHH), cut at maxChars.
std::string Printable(const char* data, int len, int maxChars);

// A message for queue 8 and the FIFO to ring for it.
struct Delivery {
    long type = 0;
    std::vector<char> text;
    int fifoKind = 0;       // comp::kFifoPidNotify or comp::kFifoRouteNotify
    std::string fifoName;   // "<pid>" or "<route>_<instance>"
    std::string fifoText() const { return std::to_string(fifoKind) + "_" + fifoName; }
};

// The answer text a comp of the given form reads: the header of the request
// it answers (with the total length set, and for TS the peer IP text moved to
// offset 24, where TS looks for it), then the body. False when it would not
// fit one queue message.
bool BuildAnswer(AnswerForm form, const char* requestHeader, const char* body, int bodyLen,
                 std::vector<char>* out);

// Queues the delivery on qid without waiting, then rings its FIFO (one byte
// "0"). The FIFO is looked up first, so nothing is queued for a reader that
// is gone. False with the reason.
bool Deliver(int qid, const Delivery& d, std::string* why);

// Instance numbers of a route that wait on a FIFO "2_<route>_<n>", ascending.
std::vector<int> RouteInstances(const std::string& runDir, int route);

// Reads one message of `type` (0: any) from queue qid, waiting up to
// timeoutMs. The text length (> 0), 0 when none came, -1 when the queue
// cannot be read.
int ReadQueue(int qid, long type, QueueMsg* buf, int timeoutMs);

// Relayed requests, per client route. A client route's answer carries
// nothing that names the request it answers (TC builds a fresh header), so
// the router does not guess: one request at a time is in flight per client
// route, and the next is sent when its answer has come or it was given up.
class RelayBook {
public:
    struct Entry {
        std::vector<char> text;    // the request as the asking route sent it (header and body)
        AnswerForm form;           // form of the route that asked
        int64_t sinceMs;           // when it came; once in flight, when it was sent
    };
    void queue(int clientRoute, Entry e) { routes_[clientRoute].waiting.push_back(std::move(e)); }
    // Puts the oldest waiting request in flight (stamped nowMs) when none is;
    // null when one is in flight already or none waits.
    const Entry* startNext(int clientRoute, int64_t nowMs);
    // Takes the request in flight: its answer came, or it could not be sent.
    bool finish(int clientRoute, Entry* out);
    bool inFlight(int clientRoute) const;
    size_t waiting(int clientRoute) const;

    // Gives up requests in flight for longer than maxAgeMs (into *givenUp,
    // with their client route) and forgets waiting ones older than that;
    // returns how many were forgotten.
    int expire(int64_t nowMs, int64_t maxAgeMs, std::vector<std::pair<int, Entry>>* givenUp);

private:
    struct Route {
        std::optional<Entry> flight;
        std::deque<Entry> waiting;
    };
    std::map<int, Route> routes_;
};

class Router {
public:
    Router(std::string runDir, KitConfig cfg, int toTranpQid, int fromTranpQid);

    // Routes one message read from queue 7; appends trace lines.
    void handle(const char* text, int len, std::vector<std::string>* trace);
    // Gives up relayed requests past the relay time-out and sends the next
    // ones; appends trace lines.
    void expire(int64_t nowMs, std::vector<std::string>* trace);
    const RelayBook& book() const { return book_; }

private:
    void echo(const RouteCfg& r, const PlatHeader& h, const char* text, int len, std::vector<std::string>* trace);
    void relayRequest(const RouteCfg& r, const char* text, int len, std::vector<std::string>* trace);
    // TranP's part in the station link's sequences (see StationFrames.h).
    void station(const PlatHeader& h, const char* text, int len, std::vector<std::string>* trace);
    void relayAnswer(const RouteCfg& from, int clientRoute, const char* text, int len,
                     std::vector<std::string>* trace);
    // Sends the client route's next waiting request when none is in flight.
    void sendNextRelay(int clientRoute, std::vector<std::string>* trace);
    // Picks the next instance of a route, round robin; false when none waits.
    bool pickInstance(int route, int* instance);
    void send(const Delivery& d, const std::string& what, std::vector<std::string>* trace);

    std::string runDir_;
    KitConfig cfg_;
    int toTranp_, fromTranp_;
    RelayBook book_;
    std::map<int, unsigned> nextInstance_;
};

// `compkit tranp RUNDIR`: routes until SIGINT or SIGTERM; the exit status.
int RunRouter(const std::string& runDir);

}  // namespace kit
