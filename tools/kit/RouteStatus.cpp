#include "kit/RouteStatus.h"

#include <dirent.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "ipc/SysIpc.h"
#include "kit/KitUtil.h"

namespace kit {

namespace {

std::string Field(const char* text, size_t cap) { return std::string(text, strnlen(text, cap)); }

std::string Plural(size_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

void ListConnections(std::ostringstream& out, const std::vector<const SeenConnection*>& conns) {
    for (size_t i = 0; i < conns.size() && i < kListedConnections; ++i) {
        char line[96];
        std::snprintf(line, sizeof line, "      %s:%d fd %d\n", conns[i]->ip.c_str(), conns[i]->port, conns[i]->fd);
        out << line;
    }
    if (conns.size() > kListedConnections) out << "      ... " << conns.size() - kListedConnections << " more\n";
}

}  // namespace

std::string FormatRoutes(const KitConfig* cfg, const std::vector<SeenInstance>& instances,
                         const std::vector<SeenConnection>& connections) {
    std::set<int> routes;
    if (cfg)
        for (const RouteCfg& r : cfg->routes) routes.insert(r.id);
    for (const SeenInstance& i : instances) routes.insert(i.route);
    for (const SeenConnection& c : connections) routes.insert(c.route);

    std::ostringstream out;
    out << "routes:\n";
    if (routes.empty()) out << "  none\n";
    for (int route : routes) {
        const RouteCfg* rc = cfg ? cfg->findRoute(route) : nullptr;
        out << "  route " << (route > 0 ? std::to_string(route) : "?");
        if (rc) {
            out << " " << rc->mode->name;
            if (rc->hasListen) out << " listen " << rc->listenIp << ":" << rc->listenPort;
        }
        out << "\n";
        std::map<pid_t, std::vector<const SeenConnection*>> byOwner;
        for (const SeenConnection& c : connections)
            if (c.route == route) byOwner[c.pid].push_back(&c);
        std::vector<const SeenInstance*> mine;
        for (const SeenInstance& i : instances)
            if (i.route == route) mine.push_back(&i);
        std::sort(mine.begin(), mine.end(), [](auto* a, auto* b) { return a->instance < b->instance; });
        if (mine.empty()) out << "    no instance\n";
        for (const SeenInstance* i : mine) {
            auto owned = byOwner.find(i->pid);
            const size_t n = owned == byOwner.end() ? 0 : owned->second.size();
            out << "    instance " << i->instance << " pid " << i->pid << (i->running ? " running" : " gone");
            if (!i->mode.empty() && !(rc && i->mode == rc->mode->name)) out << " (" << i->mode << ")";
            out << ", " << (n == 0 ? "no connections" : Plural(n, "connection")) << "\n";
            if (owned != byOwner.end()) {
                ListConnections(out, owned->second);
                byOwner.erase(owned);
            }
        }
        // Entries of processes that are not among the route's instances:
        // leftovers of ended processes, or of processes outside this RUNDIR.
        for (const auto& [pid, conns] : byOwner) {
            out << "    pid " << pid << " (no instance here" << (ProcessAlive(pid) ? "" : ", process gone")
                << "), " << Plural(conns.size(), "connection") << "\n";
            ListConnections(out, conns);
        }
    }
    return out.str();
}

std::vector<ConnNode> RegistrySnapshot(const ShmCfgEntry& segment) {
    std::vector<ConnNode> nodes;
    const int id = shmget(segment.iKey, 0, 0);
    if (id < 0) return nodes;
    char* base = pcShmAt(id);
    if (base == nullptr || base == reinterpret_cast<char*>(-1)) return nodes;
    ConnListHeader h;
    std::memcpy(&h, base + comp::kRegistryHeaderOff, sizeof h);
    int idx = h.iBusy;
    for (int n = 0; n < comp::kRegistryNodes && idx >= 0 && idx < comp::kRegistryNodes; ++n) {
        ConnNode node;
        std::memcpy(&node, base + comp::kRegistryNodesOff + static_cast<size_t>(idx) * sizeof(ConnNode), sizeof node);
        nodes.push_back(node);
        idx = node.iNext;
        if (idx == h.iBusy) break;
    }
    SysShmdt(base);
    return nodes;
}

std::vector<SeenConnection> ConnectionsOf(const std::vector<ConnNode>& nodes) {
    std::vector<SeenConnection> out;
    for (const ConnNode& n : nodes) {
        const std::string route = Field(n.caRouteId, sizeof n.caRouteId);
        if (Field(n.caType, sizeof n.caType) != "COM" || route.empty()) continue;
        SeenConnection c;
        c.route = std::atoi(route.c_str());
        c.ip = Field(n.caIp, sizeof n.caIp);
        c.port = n.iPort;
        c.pid = n.iPid;
        // The server modes register their descriptor as the virtual one and
        // 1 as the socket; the forwarding server registers both.
        c.fd = n.iVirtualFd >= 0 ? n.iVirtualFd : n.iSockFd;
        out.push_back(std::move(c));
    }
    return out;
}

std::vector<SeenInstance> InstancesUnder(const std::string& runDir) {
    std::vector<SeenInstance> out;
    DIR* d = opendir((runDir + "/fifo").c_str());
    if (d == nullptr) return out;
    while (dirent* e = readdir(d)) {
        SeenInstance i;
        char tail = 0;
        if (std::sscanf(e->d_name, "3_%d_%d%c", &i.pid, &i.instance, &tail) != 2) continue;
        i.running = ProcessAlive(i.pid);
        // comp MODE ROUTE INSTANCE ARG NAME
        std::vector<std::string> words;
        std::string why;
        if (i.running && SplitWords(ProcessCmdline(i.pid), &words, &why) && words.size() >= 4) {
            i.mode = words[1];
            i.route = std::atoi(words[2].c_str());
        }
        out.push_back(std::move(i));
    }
    closedir(d);
    return out;
}

std::string DescribeRoutes(const std::string& runDir, const std::vector<ConnNode>& registry) {
    KitConfig cfg;
    std::string why;
    const bool haveCfg = LoadKitConfig(runDir, &cfg, &why);
    return FormatRoutes(haveCfg ? &cfg : nullptr, InstancesUnder(runDir), ConnectionsOf(registry));
}

}  // namespace kit
