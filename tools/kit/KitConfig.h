// compkit.cfg: which transport mode serves each route, what the stand-in
// router does with the route's messages, and which instances the supervisor
// starts.
//
//   comp PATH                          comp binary (else $COMPKIT_COMP, else next to compkit)
//   relay-timeout SECONDS              how long a relayed request may wait to be sent, then for its
//                                      answer (default 60)
//   route ID MODE [ACTION] [listen IP:PORT]
//        ACTION: echo | relay ID | station | drop (default drop)
//   instance ROUTE NUMBER
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kit {

// How a mode reads the messages that TranP queues for it, so the router can
// build an answer in the form the mode expects.
enum class AnswerForm {
    kTsPeerIpAt24,  // typed with the pid, descriptor at 16, peer IP text at 24; ring "1_<pid>"
    kByPid,         // typed with the pid, descriptor at 16, port 24, IP 28; ring "1_<pid>"
    kByRoute,       // typed with the route number; ring "2_<route>_<instance>"
    kNone,          // the mode takes nothing from TranP
};

struct ModeInfo {
    const char* name;       // function name, argv[1] of comp
    const char* shortName;  // used in process names
    AnswerForm form;
    bool sharedListener;    // the supervisor owns the listener and hands it over
};

// The mode of this name, or null.
const ModeInfo* FindMode(std::string_view name);
const char* FormName(AnswerForm form);

struct RouteCfg {
    enum class Action { kDrop, kEcho, kRelay, kStation };
    int id = 0;
    std::string idText;       // as comp receives it on its command line
    const ModeInfo* mode = nullptr;
    Action action = Action::kDrop;
    int relayTo = 0;          // client route that serves a relayed request
    bool hasListen = false;
    std::string listenIp;
    int listenPort = 0;
    int line = 0;
};

struct InstanceCfg {
    int route = 0;
    int instance = 0;
    int line = 0;
};

struct KitConfig {
    std::string compPath;
    int relayTimeoutSec = 60;
    std::vector<RouteCfg> routes;
    std::vector<InstanceCfg> instances;

    const RouteCfg* findRoute(int id) const;
    // The server route whose requests route `clientRoute` serves, or null.
    const RouteCfg* relaySourceOf(int clientRoute) const;
};

// Parses the text of compkit.cfg; false with "<file>:<line>: reason".
bool ParseKitConfig(std::string_view text, const std::string& fileName, KitConfig* out, std::string* why);

// Reads RUNDIR/etc/compkit.cfg.
bool LoadKitConfig(const std::string& runDir, KitConfig* out, std::string* why);

}  // namespace kit
