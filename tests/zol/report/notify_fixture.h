#pragma once
/// A notify manager on a device with identifiers, for the tests of its reports, texts and paths.
#include <memory>
#include <string>
#include <vector>

#include "Event.h"
#include "ZOLInformationStorage.h"
#include "ZOLNotifyManager.h"
#include "device_test.h"
#include "fake_vconf.h"

constexpr const char* kKey = "db/zol/send_zol_files_path";
constexpr const char* kFolder = "/tmp/zol/tg-1_1700000000";
constexpr const char* kIdentifiers = "{tgid=tg-1;lcid=lc-1;evid=1700000000;";
constexpr const char* kTail =
    "chip_id=;sn=;series=;platform=;test_step=;micomtv=;micomjp=;is_shop_mode=;checksum=;is_sw_modify=;"
    "serdes_err_accum=;serdes_err_delta=;serdes_reset_accum=;serdes_reset_delta=;wifi_no_detect_accum=;"
    "wifi_no_detect_delta=;wifi_detach_accum=;wifi_detach_delta=;bt_type=;bt_name=;bt_rssi=;"
    "bt_no_detect_accum=;bt_detach_accum=}";

/// The task with its description builders in reach.
class NotifyUnderTest : public TCNotifyManager {
public:
    NotifyUnderTest() = default;
    ~NotifyUnderTest() override {
        if (CCTask::FlagCreate()) {
            Destroy();
        }
    }
    NotifyUnderTest(const NotifyUnderTest&) = delete;
    NotifyUnderTest& operator=(const NotifyUnderTest&) = delete;

    using TCNotifyManager::m_GetKpiDescription;
    void LoseKpiManager() { m_pKpiManager.reset(); }
};

inline zol::ZOLVconfMonitor Key(const std::string& key) {
    zol::ZOLVconfMonitor item;
    item.key = key;
    return item;
}

class NotifyFixture : public DeviceTest {
protected:
    NotifyFixture() {
        fakes::vconf::SetString("db/comss/hwduid", "HW-1");
        fakes::WriteDeviceFile("/proc/global_uniqueID", "tg-1");
        fakes::WriteDeviceFile("/proc/life_cycleID", "lc-1");
        SetMonitors({});
        m_notify = std::make_unique<NotifyUnderTest>();
    }

    static void SetMonitors(const std::vector<zol::ZOLPolicyMonitor>& monitors) {
        zol::TCInformationStorage::Instance()->SetZOLMonitorInformation(
            static_cast<unsigned>(monitors.size()), monitors);
    }

    CSEvent Event(std::uint32_t type, long index = 0) {
        CSEvent event;
        event.receiver = m_notify.get();
        event.type = type;
        event.param.l[0] = index;
        return event;
    }
    bool Post(bool sync) {
        CSEvent event = Event(NOTIFY_ZOL_VCONF);
        return CCTask::Send(&event, sync);
    }
    /// What the task does with an event, on this thread.
    void Handle(std::uint32_t type, long index = 0) {
        const CSEvent event = Event(type, index);
        EXPECT_TRUE(m_notify->t_OnEvent(&event));
    }
    void HandleHit(const std::string& key, int value, const std::string& text = "null") {
        m_notify->AddNotify(Key(key), value, text);
        Handle(NOTIFY_ZOL_VCONF);
    }

    static std::string Header() { return fakes::ReadDeviceFile(std::string(kFolder) + "/header.json"); }
    static std::string PublishedPath() { return fakes::vconf::GetString(kKey); }
    static void CollectorEmptiesTheKey() { fakes::vconf::SetString(kKey, ""); }

    std::unique_ptr<NotifyUnderTest> m_notify;
};

/// A collector that takes every path as soon as it is told of it.
class Collector {
public:
    Collector() { vconf_notify_key_changed(kKey, Take, this); }
    ~Collector() { vconf_withdraw_key_changed(kKey, Take, this); }
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    std::vector<std::string> m_taken;

private:
    static void Take(keynode_t* /*node*/, void* self) {
        const std::string path = fakes::vconf::GetString(kKey);
        if (!path.empty()) {
            static_cast<Collector*>(self)->m_taken.push_back(path);
            vconf_set_str(kKey, "");
        }
    }
};
