#include "kit/KitConfig.h"

#include <array>
#include <set>
#include <string_view>
#include <utility>

#include "kit/KitUtil.h"

namespace kit {

namespace {

constexpr std::array<ModeInfo, 10> kModes = {{
    {"SysTCPTC", "TC", AnswerForm::kByRoute, false},
    {"SysTCPTS", "TS", AnswerForm::kTsPeerIpAt24, false},
    {"SysTCPPC", "PC", AnswerForm::kByRoute, false},
    {"SysTCPPS", "PS", AnswerForm::kByPid, true},
    {"SysTCPPAS", "PAS", AnswerForm::kByPid, true},
    {"SysTCPPCSYN", "PCSYN", AnswerForm::kByRoute, false},
    {"SysTCPPASSYN", "PASSYN", AnswerForm::kByPid, true},
    {"SysTCPFWB", "FWB", AnswerForm::kNone, true},
    {"SysTCPFWS", "FWS", AnswerForm::kByPid, true},
    {"SysTCPVANTREL", "VANTREL", AnswerForm::kByPid, false},
}};

// comp keeps two characters of the route id (a 3-byte buffer).
constexpr int kMaxRouteId = 99;

std::string At(const std::string& file, int line) { return file + ":" + std::to_string(line) + ": "; }

bool ParseRouteId(const std::string& text, int* id) {
    auto v = ParseLong(text);
    // Written without leading zeros: the router names route FIFOs from the number.
    if (!v || *v < 1 || *v > kMaxRouteId || text != std::to_string(*v)) return false;
    *id = static_cast<int>(*v);
    return true;
}

bool ParseRouteLine(const std::vector<std::string>& w, RouteCfg* r, std::string* why) {
    if (w.size() < 3) {
        *why = "a route line is: route ID MODE [echo | relay ID | station | drop] [listen IP:PORT]";
        return false;
    }
    if (!ParseRouteId(w[1], &r->id)) {
        *why = "route id '" + w[1] + "' is not 1..99 (comp keeps two characters of it)";
        return false;
    }
    r->idText = w[1];
    r->mode = FindMode(w[2]);
    if (r->mode == nullptr) {
        *why = "unknown mode '" + w[2] + "'";
        return false;
    }
    for (size_t i = 3; i < w.size(); ++i) {
        if (w[i] == "echo") {
            r->action = RouteCfg::Action::kEcho;
        } else if (w[i] == "station") {
            r->action = RouteCfg::Action::kStation;
        } else if (w[i] == "drop") {
            r->action = RouteCfg::Action::kDrop;
        } else if (w[i] == "relay" && i + 1 < w.size()) {
            if (!ParseRouteId(w[++i], &r->relayTo)) {
                *why = "relay target '" + w[i] + "' is not a route id";
                return false;
            }
            r->action = RouteCfg::Action::kRelay;
        } else if (w[i] == "listen" && i + 1 < w.size()) {
            if (!ParseIpPort(w[++i], &r->listenIp, &r->listenPort)) {
                *why = "listen address '" + w[i] + "' is not IP:PORT";
                return false;
            }
            r->hasListen = true;
        } else {
            *why = "unexpected word '" + w[i] + "'";
            return false;
        }
    }
    if (r->mode->sharedListener && !r->hasListen) {
        *why = std::string(r->mode->name) + " shares a listener that compkit opens: give 'listen IP:PORT'";
        return false;
    }
    if (!r->mode->sharedListener && r->hasListen) {
        *why = std::string(r->mode->name) + " does not take a listener from the supervisor";
        return false;
    }
    if (r->action == RouteCfg::Action::kStation && std::string_view(r->mode->name) != "SysTCPVANTREL") {
        *why = "only a SysTCPVANTREL route plays the station sequences";
        return false;
    }
    if (r->action == RouteCfg::Action::kEcho && r->mode->form == AnswerForm::kNone) {
        *why = std::string(r->mode->name) + " takes nothing from TranP; it cannot be echoed";
        return false;
    }
    return true;
}

// Checks that relays go from a server route to a route-addressed client route
// and that each client route serves at most one relay.
bool CheckRelays(const KitConfig& cfg, const std::string& file, std::string* why) {
    std::set<int> served;
    for (const RouteCfg& r : cfg.routes) {
        if (r.action != RouteCfg::Action::kRelay) continue;
        const RouteCfg* to = cfg.findRoute(r.relayTo);
        if (to == nullptr) {
            *why = At(file, r.line) + "relay target route " + std::to_string(r.relayTo) + " is not configured";
            return false;
        }
        if (r.mode->form != AnswerForm::kTsPeerIpAt24 && r.mode->form != AnswerForm::kByPid) {
            *why = At(file, r.line) + "only a server route's requests can be relayed";
            return false;
        }
        if (to->mode->form != AnswerForm::kByRoute) {
            *why = At(file, r.line) + "relay target route " + std::to_string(to->id) +
                   " must be a client route (TC, PC or PCSYN)";
            return false;
        }
        if (to->action != RouteCfg::Action::kDrop) {
            *why = At(file, to->line) + "route " + std::to_string(to->id) +
                   " serves a relay; its answers go back to the requests, so it takes no action of its own";
            return false;
        }
        if (!served.insert(to->id).second) {
            *why = At(file, r.line) + "route " + std::to_string(to->id) + " already serves another relay";
            return false;
        }
    }
    return true;
}

}  // namespace

const ModeInfo* FindMode(std::string_view name) {
    for (const ModeInfo& m : kModes)
        if (name == m.name) return &m;
    return nullptr;
}

const char* FormName(AnswerForm form) {
    switch (form) {
        case AnswerForm::kTsPeerIpAt24: return "pid (TS)";
        case AnswerForm::kByPid: return "pid";
        case AnswerForm::kByRoute: return "route";
        case AnswerForm::kNone: return "none";
    }
    return "?";
}

const RouteCfg* KitConfig::findRoute(int id) const {
    for (const RouteCfg& r : routes)
        if (r.id == id) return &r;
    return nullptr;
}

const RouteCfg* KitConfig::relaySourceOf(int clientRoute) const {
    for (const RouteCfg& r : routes)
        if (r.action == RouteCfg::Action::kRelay && r.relayTo == clientRoute) return &r;
    return nullptr;
}

bool ParseKitConfig(std::string_view text, const std::string& fileName, KitConfig* out, std::string* why) {
    KitConfig cfg;
    int lineNo = 0;
    size_t pos = 0;
    std::set<std::pair<int, int>> seenInstances;
    while (pos <= text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        ++lineNo;
        std::vector<std::string> w;
        std::string err;
        if (!SplitWords(line, &w, &err)) {
            *why = At(fileName, lineNo) + err;
            return false;
        }
        if (w.empty()) continue;
        if (w[0] == "comp" && w.size() == 2) {
            cfg.compPath = w[1];
        } else if (w[0] == "relay-timeout" && w.size() == 2) {
            auto v = ParseLong(w[1]);
            if (!v || *v < 1 || *v > 86400) {
                *why = At(fileName, lineNo) + "relay-timeout is a number of seconds, 1..86400";
                return false;
            }
            cfg.relayTimeoutSec = static_cast<int>(*v);
        } else if (w[0] == "route") {
            RouteCfg r;
            r.line = lineNo;
            if (!ParseRouteLine(w, &r, &err)) {
                *why = At(fileName, lineNo) + err;
                return false;
            }
            if (cfg.findRoute(r.id) != nullptr) {
                *why = At(fileName, lineNo) + "route " + std::to_string(r.id) + " is configured twice";
                return false;
            }
            cfg.routes.push_back(r);
        } else if (w[0] == "instance" && w.size() == 3) {
            InstanceCfg inst;
            inst.line = lineNo;
            auto n = ParseLong(w[2]);
            if (!ParseRouteId(w[1], &inst.route) || !n || *n < 0 || *n > 9999) {
                *why = At(fileName, lineNo) + "an instance line is: instance ROUTE NUMBER (number 0..9999)";
                return false;
            }
            inst.instance = static_cast<int>(*n);
            if (!seenInstances.insert({inst.route, inst.instance}).second) {
                *why = At(fileName, lineNo) + "instance " + w[2] + " of route " + w[1] + " is listed twice";
                return false;
            }
            cfg.instances.push_back(inst);
        } else {
            *why = At(fileName, lineNo) + "unknown line '" + w[0] +
                   "' (expected comp, relay-timeout, route or instance)";
            return false;
        }
    }
    for (const InstanceCfg& inst : cfg.instances) {
        if (cfg.findRoute(inst.route) == nullptr) {
            *why = At(fileName, inst.line) + "route " + std::to_string(inst.route) + " has no route line";
            return false;
        }
    }
    if (!CheckRelays(cfg, fileName, why)) return false;
    *out = std::move(cfg);
    return true;
}

bool LoadKitConfig(const std::string& runDir, KitConfig* out, std::string* why) {
    const std::string path = runDir + "/etc/compkit.cfg";
    auto text = ReadWholeFile(path);
    if (!text) {
        *why = path + ": cannot be read";
        return false;
    }
    return ParseKitConfig(*text, path, out, why);
}

}  // namespace kit
