// Fixture of the frame tests: a private run directory whose log/ receives
// the error and trace logs, private IPC keys, and route rows.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <utility>

#include "TestEnv.h"
#include "comp/SysGlobals.h"
#include "ipc/SysIpcSeam.h"

class FrameTest : public ::testing::Test {
protected:
    void SetUp() override {
        comptest::ResetGlobals();
        comp::seam::ClearIpcFaults();
        auto& log = g_stProcState.stLog;
        std::snprintf(log.caErrLogName, sizeof log.caErrLogName, "%s/log/err", run.path().c_str());
        std::snprintf(log.caTraceBase, sizeof log.caTraceBase, "%s/log/trace", run.path().c_str());
    }
    void TearDown() override {
        comp::seam::ClearIpcFaults();
        comptest::ResetGlobals();
    }

    // Everything written to the logs so far.
    std::string Logs() const {
        std::string all;
        for (const auto& e : std::filesystem::directory_iterator(run.file("log")))
            all += comptest::ReadFile(e.path().string());
        return all;
    }

    comptest::TempRunDir run;
    comptest::IpcKeys keys;
};

// A route row with the given fields set.
inline RouteRecord MakeRoute(std::initializer_list<std::pair<RouteColumn, const char*>> fields) {
    RouteRecord stRoute{};
    for (const auto& [col, text] : fields)
        std::snprintf(stRoute.caField[col], sizeof stRoute.caField[col], "%s", text);
    return stRoute;
}
