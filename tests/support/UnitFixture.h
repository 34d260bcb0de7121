// Base fixture of the in-process unit tests: a private run directory and IPC
// keys, the globals reset, the error and trace logs kept inside the run
// directory, and no IPC faults armed. With it, the small helpers the unit
// tests share.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <utility>

#include "TestEnv.h"
#include "base/SysGlobals.h"
#include "base/SysIpcSeam.h"

namespace comptest {

class UnitTest : public ::testing::Test {
protected:
    void SetUp() override {
        ResetGlobals();
        comp::seam::ClearIpcFaults();
        auto& log = g_stProcState.stLog;
        std::snprintf(log.caErrLogName, sizeof log.caErrLogName, "%s/log/err", run.path().c_str());
        std::snprintf(log.caTraceBase, sizeof log.caTraceBase, "%s/log/trace", run.path().c_str());
    }
    void TearDown() override {
        comp::seam::ClearIpcFaults();
        ResetGlobals();
    }

    // Everything written to the logs so far.
    std::string Logs() const {
        std::string all;
        for (const auto& e : std::filesystem::directory_iterator(run.file("log")))
            all += ReadFile(e.path().string());
        return all;
    }
    bool Logged(const std::string& text) const { return Logs().find(text) != std::string::npos; }
    // g_caMsg from its "]pid[" on, or whole when it has none.
    static std::string MsgTail() {
        std::string s = g_caMsg;
        return s.find("]pid[") == std::string::npos ? s : s.substr(s.find("]pid["));
    }

    TempRunDir run;
    IpcKeys keys;
};

inline ::testing::AssertionResult Contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "[" << text << "] lacks [" << part << "]";
}

// A route row with the given fields set.
inline RouteRecord MakeRoute(std::initializer_list<std::pair<RouteColumn, const char*>> fields) {
    RouteRecord stRoute{};
    for (const auto& [col, text] : fields)
        std::snprintf(stRoute.caField[col], sizeof stRoute.caField[col], "%s", text);
    return stRoute;
}

}  // namespace comptest
