// The routes part of `compkit status`: for every route, its instances (from
// their control FIFOs "3_<pid>_<instance>" and command lines) and the
// connections the registry names for each of them (client address, owner
// pid, descriptor).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/SysTypes.h"
#include "kit/KitConfig.h"

namespace kit {

struct SeenInstance {
    pid_t pid = 0;
    int instance = 0;
    int route = 0;           // from its command line; 0 when unknown
    std::string mode;        // likewise
    bool running = false;
};

struct SeenConnection {
    int route = 0;
    std::string ip;
    int port = 0;
    pid_t pid = 0;           // owner
    int fd = -1;             // the owner's descriptor
};

// Connections listed per owner before the rest is only counted.
inline constexpr size_t kListedConnections = 50;

// The text of the routes part: the routes of compkit.cfg (cfg may be null)
// and any other route an instance or a connection names, in route order.
std::string FormatRoutes(const KitConfig* cfg, const std::vector<SeenInstance>& instances,
                         const std::vector<SeenConnection>& connections);

// The busy nodes of the registry segment, newest first; a snapshot taken
// without the lock (the walk is bounded and checks every index).
std::vector<ConnNode> RegistrySnapshot(const ShmCfgEntry& segment);

// The connections among the nodes: entries of type "COM" with a route.
std::vector<SeenConnection> ConnectionsOf(const std::vector<ConnNode>& nodes);

// Instances waiting on control FIFOs under RUNDIR/fifo.
std::vector<SeenInstance> InstancesUnder(const std::string& runDir);

// The whole routes part for RUNDIR.
std::string DescribeRoutes(const std::string& runDir, const std::vector<ConnNode>& registry);

}  // namespace kit
