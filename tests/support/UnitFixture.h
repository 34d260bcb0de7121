// Base fixture of the in-process unit tests: a private run directory and IPC
// keys, the globals reset, the error and trace logs kept inside the run
// directory, and no IPC faults armed.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "TestEnv.h"
#include "comp/SysGlobals.h"
#include "ipc/SysIpcSeam.h"

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

    TempRunDir run;
    IpcKeys keys;
};

}  // namespace comptest
