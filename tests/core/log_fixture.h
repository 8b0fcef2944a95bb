#pragma once
/// A fresh machine whose runtime log has not been set up yet.
#include <gtest/gtest.h>

#include <string>

#include "Logging.h"
#include "fake_dlog.h"
#include "fakes.h"

class RuntimeLog : public testing::Test {
protected:
    RuntimeLog() {
        Finalize();
        fakes::Reset();
    }
    ~RuntimeLog() override { Finalize(); }

    static void Configure(const std::string& content) {
        fakes::WriteDeviceFile("/usr/bin/gst_log.conf", content);
    }
    /// An image on which a failed assertion carries on.
    static void SurviveAssertions() { fakes::WriteDeviceFile("/etc/release", ""); }
};
