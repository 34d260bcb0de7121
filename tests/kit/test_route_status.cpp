// The routes part of `compkit status`: instances and connections grouped
// under their routes, leftovers of other processes named as such.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "kit/RouteStatus.h"

namespace {

kit::KitConfig Cfg(const char* text) {
    kit::KitConfig cfg;
    std::string why;
    EXPECT_TRUE(kit::ParseKitConfig(text, "compkit.cfg", &cfg, &why)) << why;
    return cfg;
}

TEST(RouteStatus, connections_are_listed_under_the_instance_that_owns_them) {
    const kit::KitConfig cfg = Cfg("route 40 SysTCPPAS echo listen 127.0.0.1:47040\nroute 10 SysTCPTS\n");
    const pid_t self = getpid();
    std::vector<kit::SeenInstance> inst{{self, 2, 40, "SysTCPPAS", true}, {101, 1, 40, "SysTCPPAS", false}};
    std::vector<kit::SeenConnection> conns{{40, "127.0.0.2", 5000, self, 7},
                                           {40, "127.0.0.3", 5001, self, 8},
                                           {40, "127.0.0.9", 5002, 999999, 9}};
    const std::string text = kit::FormatRoutes(&cfg, inst, conns);
    EXPECT_EQ(text,
              "routes:\n"
              "  route 10 SysTCPTS\n"
              "    no instance\n"
              "  route 40 SysTCPPAS listen 127.0.0.1:47040\n"
              "    instance 1 pid 101 gone, no connections\n"
              "    instance 2 pid " + std::to_string(self) + " running, 2 connections\n"
              "      127.0.0.2:5000 fd 7\n"
              "      127.0.0.3:5001 fd 8\n"
              "    pid 999999 (no instance here, process gone), 1 connection\n"
              "      127.0.0.9:5002 fd 9\n");
}

TEST(RouteStatus, long_lists_are_cut_and_unknown_routes_still_shown) {
    std::vector<kit::SeenConnection> conns;
    for (size_t i = 0; i < kit::kListedConnections + 3; ++i)
        conns.push_back({41, "10.0.0." + std::to_string(i), 1, getpid(), static_cast<int>(i)});
    const std::string text = kit::FormatRoutes(nullptr, {{getpid(), 1, 41, "SysTCPPAS", true}}, conns);
    EXPECT_NE(text.find("  route 41\n    instance 1 pid " + std::to_string(getpid()) + " running (SysTCPPAS), 53 connections\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("      ... 3 more\n"), std::string::npos) << text;
    EXPECT_EQ(kit::FormatRoutes(nullptr, {}, {}), "routes:\n  none\n");
}

TEST(RouteStatus, only_connection_entries_of_a_route_count) {
    ConnNode com{}, kv{}, other{};
    std::strcpy(com.caType, "COM");
    std::strcpy(com.caRouteId, "40");
    std::strcpy(com.caIp, "127.0.0.2");
    com.iPort = 5000;
    com.iPid = 77;
    com.iVirtualFd = 9;
    com.iSockFd = 1;
    std::strcpy(kv.caType, "COM");   // a key-value entry: no route
    std::strcpy(kv.caKey, "k");
    other = com;
    std::strcpy(other.caType, "FWX");
    std::vector<kit::SeenConnection> got = kit::ConnectionsOf({com, kv, other});
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].route, 40);
    EXPECT_EQ(got[0].ip, "127.0.0.2");
    EXPECT_EQ(got[0].pid, 77);
    EXPECT_EQ(got[0].fd, 9);
}

}  // namespace
