#pragma once
/// A machine whose failed assertions report and return.
#include <gtest/gtest.h>

#include <string>

#include "fake_dlog.h"
#include "fakes.h"

class ContainerFixture : public testing::Test {
protected:
    ContainerFixture() {
        fakes::Reset();
        // With this file in place a failed assertion does not crash the process.
        fakes::WriteDeviceFile("/etc/release", "");
    }

    /// How often an assertion has been reported, e.g. "index >= 0 [core/src/List:72]".
    static int Assertions(const std::string& text) { return fakes::dlog::Count("ASSERT: " + text); }
    static int Assertions() { return fakes::dlog::Count("ASSERT: "); }
};
