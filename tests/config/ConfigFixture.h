// Fixture of the configuration tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "UnitFixture.h"
#include "comp/SysGlobals.h"

inline ::testing::AssertionResult Contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "[" << text << "] lacks [" << part << "]";
}

class ConfigTest : public comptest::UnitTest {
protected:
    // g_caMsg from its "]pid[" on, or whole when it has none.
    static std::string Msg() {
        std::string s = g_caMsg;
        return s.find("]pid[") == std::string::npos ? s : s.substr(s.find("]pid["));
    }
};
