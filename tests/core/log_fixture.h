#pragma once
/// A fresh machine whose runtime log has not been set up yet.
#include <string>

#include "Logging.h"
#include "device_test.h"

class RuntimeLog : public DeviceTest {
protected:
    RuntimeLog() { Finalize(); }
    ~RuntimeLog() override { Finalize(); }

    static void Configure(const std::string& content) {
        fakes::WriteDeviceFile("/usr/bin/gst_log.conf", content);
    }
};
