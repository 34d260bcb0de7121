// Fixture of the frame tests, and route rows for them.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <utility>

#include "UnitFixture.h"
#include "comp/SysGlobals.h"
#include "ipc/SysIpcSeam.h"

class FrameTest : public comptest::UnitTest {
};

// A route row with the given fields set.
inline RouteRecord MakeRoute(std::initializer_list<std::pair<RouteColumn, const char*>> fields) {
    RouteRecord stRoute{};
    for (const auto& [col, text] : fields)
        std::snprintf(stRoute.caField[col], sizeof stRoute.caField[col], "%s", text);
    return stRoute;
}
