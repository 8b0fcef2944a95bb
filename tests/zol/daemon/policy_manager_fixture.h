#pragma once
/// A policy manager on a machine of its own.
#include <memory>
#include <string>

#include "PolicyFlag.h"
#include "ZOLInformationStorage.h"
#include "ZOLPolicyManager.h"
#include "ZOLShiftedClock.h"
#include "device_paths.h"
#include "device_test.h"
#include "fake_vconf.h"
#include "mock_dbus_server.h"
#include "retry_timer.h"

constexpr const char* kRunningKey = zol::kMonitoringRuns.key;
constexpr const char* kPowerOnKey = zol::kPowerOnPrepared.key;

/// One item that holds when `key` is 1.
inline std::string ItemFor(const std::string& key) {
    return "<zols key=\"" + key + "\" condition=\"IS\" type=\"INT\" intvalue=\"1\"/>";
}

inline std::string Document(const std::string& items, int count = 1) {
    return "<zolitem numofzol=\"" + std::to_string(count) + "\">" + items + "</zolitem>";
}

inline std::string PolicyFor(const std::string& key) {
    return Document("<zol_expired_time time=\"1000\"/>" + ItemFor(key));
}

class PolicyManagerTest : public DeviceTest {
protected:
    PolicyManagerTest() {
        Storage().SetZOLMonitorInformation(0, std::vector<zol::ZOLVconfMonitor>());
        Storage().SetZOLMonitorInformation(0, std::vector<zol::ZOLPolicyMonitor>());
    }

    static zol::TCInformationStorage& Storage() { return *zol::TCInformationStorage::Instance(); }
    static zol::TSCurrentZOLPolicyInformation Applied() {
        zol::TSCurrentZOLPolicyInformation information;
        Storage().GetZOLPolicyInformation(information);
        return information;
    }

    static void StorePolicy(const std::string& xml) { fakes::WriteDeviceFile(ZOL_PATH_POLICY, xml); }
    static std::string StoredPolicy() { return fakes::ReadDeviceFile(ZOL_PATH_POLICY); }
    static bool IsRunning() { return fakes::vconf::GetInt(kRunningKey, 0) == 1; }
    static bool IsPowerOnPrepared() { return fakes::vconf::GetInt(kPowerOnKey, 0) == 1; }

    /// Starts the daemon's policy side, ending the one that ran before.
    zol::TCPolicyManager& Start() {
        m_manager.reset();
        m_manager = std::make_unique<zol::TCPolicyManager>(m_clock, &m_server, nullptr);
        return *m_manager;
    }
    zol::TCPolicyManager& StartWith(const std::string& xml) {
        StorePolicy(xml);
        return Start();
    }
    void Stop() { m_manager.reset(); }

    testing::StrictMock<MockDbusServer> m_server;
    zol::TCShiftedClock m_clock;
    std::unique_ptr<zol::TCPolicyManager> m_manager;
};
