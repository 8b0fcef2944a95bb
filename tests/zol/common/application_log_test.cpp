#include <string>

#include "Log.h"
#include "device_test.h"
#include "dlog.h"

namespace {

constexpr const char* kLogModule = "ApplicationLog";

using ApplicationLog = DeviceTest;

TEST_F(ApplicationLog, ShowsSourceFunctionLineAndMessage) {
    zol::WriteLog(zol::LOG_INFO, kLogModule, "zol/src/ZOLX.cpp", "m_Do", 12, "%s %d", "message", 5);

    const fakes::LogLine line = fakes::dlog::Find("message");
    EXPECT_EQ(line.text, "ZOLX: m_Do(12) > message 5");
    EXPECT_EQ(line.tag, "ZOL");
    EXPECT_EQ(line.buffer, DLOG_BUFFER_SYSTEM);
    EXPECT_EQ(line.priority, DLOG_PRIORITY_INFO);
}

TEST_F(ApplicationLog, LeavesItToThePlatformToCutAMessage) {
    const std::string message(4095, 'x');
    zol::WriteLog(zol::LOG_ERROR, kLogModule, "f.cpp", "f", 1, "%s", message.c_str());

    // The platform log takes 4095 bytes of a line.
    EXPECT_EQ(fakes::dlog::Find("x").text, ("f: f(1) > " + message).substr(0, 4095));
}

}  // namespace
