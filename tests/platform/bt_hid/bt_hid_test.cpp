#include "bt_hid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "bt_hid/remote_monitor.h"
#include "fake_service.h"
#include "key_service.h"
#include "log_lines.h"
#include "private_bus.h"
#include "reports.h"
#include "vconf.h"
#include "waiting.h"

namespace {

using platform::BluetoothDevice;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kKey = "file/bluetooth/bt_last_connected_smart_rc";
constexpr const char* kA = "AA:AA:AA:AA:AA:AA";
constexpr const char* kB = "BB:BB:BB:BB:BB:BB";
constexpr const char* kC = "CC:CC:CC:CC:CC:CC";
constexpr std::uint16_t kRemoteAppearance = 0x0180;
constexpr std::uint16_t kKeyboardAppearance = 0x03C1;

std::string Published() {
    const base::MallocString id(vconf_get_str(kKey));
    return id != nullptr ? id.get() : "";
}

std::string PathOf(const std::string& address) {
    std::string path = "/org/bluez/hci0/dev_" + address;
    for (char& c : path) {
        c = c == ':' ? '_' : c;
    }
    return path;
}

/// BlueZ with devices that a test makes, connects and removes.
class FakeBlueZ {
public:
    void Add(const std::string& address, bool connected, std::uint16_t appearance = kRemoteAppearance) {
        const Device device = {connected, appearance, address};
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_devices[address] = device;
        }
        if (m_service != nullptr) {
            m_service->Emit("/", kObjectManager, "InterfacesAdded",
                            g_variant_new("(o@a{sa{sv}})", PathOf(address).c_str(), Interfaces(device)));
        }
    }
    void Connect(const std::string& address, bool connected = true) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_devices.at(address).connected = connected;
        }
        Change(address, "Connected", g_variant_new_boolean(connected ? TRUE : FALSE));
    }
    void Disconnect(const std::string& address) { Connect(address, false); }
    void Change(const std::string& address, const char* property, GVariant* value) {
        const base::GVariantPtr change(
            g_variant_ref_sink(g_variant_new_parsed("(%s, {%s: %v}, @as [])", kDevice, property, value)));
        if (m_service != nullptr) {
            m_service->Emit(PathOf(address).c_str(), "org.freedesktop.DBus.Properties", "PropertiesChanged",
                            change.get());
        }
    }
    /// While it is stopped.
    void LearnAddress(const std::string& address, const std::string& identity) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_devices.at(address).address = identity;
    }
    void Remove(const std::string& address) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_devices.erase(address);
        }
        m_service->Emit("/", kObjectManager, "InterfacesRemoved",
                        g_variant_new_parsed("(%o, [%s])", PathOf(address).c_str(), kDevice));
    }
    void Start() {
        m_service = std::make_unique<FakeService>(
            "org.bluez", "/",
            "<node><interface name='org.freedesktop.DBus.ObjectManager'><method name='GetManagedObjects'>"
            "<arg type='a{oa{sa{sv}}}' direction='out'/></method></interface></node>",
            [this](const std::string&, const std::string&, GVariant*, GDBusMethodInvocation* invocation) {
                if (m_refusals > 0) {
                    --m_refusals;
                    g_dbus_method_invocation_return_dbus_error(invocation, "org.bluez.Error.NotReady",
                                                               "busy");
                    return;
                }
                g_dbus_method_invocation_return_value(invocation, Objects());
            });
    }
    /// How often it does not list its devices before it does.
    void Refuse(int times) { m_refusals = times; }
    void Stop() { m_service.reset(); }

private:
    static constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
    static constexpr const char* kDevice = "org.bluez.Device1";
    struct Device {
        bool connected;
        std::uint16_t appearance;
        std::string address;  ///< the one it tells; its path keeps the first one
    };

    static GVariant* Interfaces(const Device& device) {
        return g_variant_new_parsed(
            "{'org.bluez.Device1': {'Address': <%s>, 'Alias': <'Remote'>, 'Appearance': <%q>,"
            " 'Connected': <%b>}}",
            device.address.c_str(), device.appearance, device.connected ? TRUE : FALSE);
    }
    GVariant* Objects() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        GVariantBuilder objects;
        g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
        for (const auto& [address, device] : m_devices) {
            g_variant_builder_add(&objects, "{o@a{sa{sv}}}", PathOf(address).c_str(), Interfaces(device));
        }
        return g_variant_new("(@a{oa{sa{sv}}})", g_variant_builder_end(&objects));
    }

    std::mutex m_mutex;
    std::map<std::string, Device> m_devices;
    std::atomic<int> m_refusals{0};
    std::unique_ptr<FakeService> m_service;
};

/// "+<address>" for a connect, "-<address>" for a disconnect, each with the id published at that moment.
void WriteDown(bool connected, bt_device_info_s* device, void* userData) {
    static_cast<Reports<std::string>*>(userData)->Add(
        (connected ? "+" : "-") + std::string(device->remote_address) + " published " + Published());
}

std::string Connected(const std::string& address) {
    return "+" + address + " published " + address;
}
std::string Disconnected(const std::string& address, const std::string& published) {
    return "-" + address + " published " + published;
}

class SmartRemote : public testing::Test {
protected:
    SmartRemote() { bus.Start(); }
    ~SmartRemote() override { bt_hid_unset_smart_rc_connection_cb(WriteDown, &reports); }

    /// Registers and waits until the devices are known: what connects from now on is an event.
    void Watch() {
        bluez.Start();
        ASSERT_EQ(bt_hid_set_smart_rc_connection_cb(WriteDown, &reports), 0);
        WaitUntilKnown();
    }
    /// As most tests begin: two remotes are known and not connected.
    void WatchRemotes() {
        bluez.Add(kA, false);
        bluez.Add(kB, false);
        Watch();
    }
    void StopBlueZ() {
        bluez.Stop();
        EXPECT_TRUE(log.WaitFor("BlueZ is missing"));
    }
    void WaitUntilKnown() { ASSERT_TRUE(log.WaitFor("watching the Bluetooth devices", ++m_looks)); }

    PlatformLog log;
    KeyService keys;
    PrivateBus bus;
    FakeBlueZ bluez;
    Reports<std::string> reports;

private:
    int m_looks = 0;
};

/// What BlueZ tells after two remotes are known, and what comes of it.
struct Story {
    const char* name;
    std::function<void(FakeBlueZ& bluez)> happens;
    std::vector<std::string> told;
};

class SmartRemoteStory : public SmartRemote, public testing::WithParamInterface<Story> {};

TEST_P(SmartRemoteStory, IsToldInOrderWithThePublishedId) {
    ASSERT_EQ(vconf_set_str(kKey, kB), 0);
    WatchRemotes();

    GetParam().happens(bluez);

    EXPECT_EQ(reports.WaitFor(GetParam().told.size()), GetParam().told);
}

INSTANTIATE_TEST_SUITE_P(Stories, SmartRemoteStory,
                         testing::Values(Story{"ADisconnectLeavesTheIdOfTheRemoteThatConnectedLast",
                                               [](FakeBlueZ& bluez) {
                                                   bluez.Connect(kA);
                                                   bluez.Connect(kB);
                                                   bluez.Disconnect(kA);
                                               },
                                               {Connected(kA), Connected(kB), Disconnected(kA, kB)}},
                                         Story{"ADeviceThatIsRemovedWhileConnectedIsADisconnect",
                                               [](FakeBlueZ& bluez) {
                                                   bluez.Connect(kA);
                                                   bluez.Remove(kA);
                                                   bluez.Add(kA, true);
                                               },
                                               {Connected(kA), Disconnected(kA, kA), Connected(kA)}},
                                         Story{"OtherDevicesAreNotTold",
                                               [](FakeBlueZ& bluez) {
                                                   bluez.Add(kC, false, kKeyboardAppearance);
                                                   bluez.Connect(kC);
                                                   bluez.Remove(kC);
                                                   bluez.Connect(kA);
                                               },
                                               {Connected(kA)}},
                                         Story{"ADeviceThatTurnsOutToBeARemoteWhileConnectedConnectsThen",
                                               [](FakeBlueZ& bluez) {
                                                   bluez.Add(kC, true, kKeyboardAppearance);
                                                   bluez.Change(kC, "Appearance",
                                                                g_variant_new_uint16(kRemoteAppearance));
                                               },
                                               {Connected(kC)}},
                                         Story{"AValueThatIsKnownAlreadyIsNoEvent",
                                               [](FakeBlueZ& bluez) {
                                                   bluez.Connect(kA);
                                                   bluez.Connect(kA);
                                                   bluez.Disconnect(kA);
                                               },
                                               {Connected(kA), Disconnected(kA, kA)}},
                                         Story{"AnAddressThatChangesWhileConnectedIsPublishedAndIsNoEvent",
                                               [](FakeBlueZ& bluez) {
                                                   bluez.Connect(kA);
                                                   bluez.Change(kA, "Address", g_variant_new_string(kC));
                                                   bluez.Disconnect(kA);
                                               },
                                               {Connected(kA), Disconnected(kC, kC)}},
                                         Story{"AnAddressThatChangesLeavesTheIdOfTheRemoteThatConnectedLast",
                                               [](FakeBlueZ& bluez) {
                                                   bluez.Connect(kA);
                                                   bluez.Connect(kB);
                                                   bluez.Change(kA, "Address", g_variant_new_string(kC));
                                                   bluez.Disconnect(kA);
                                               },
                                               {Connected(kA), Connected(kB), Disconnected(kC, kB)}}),
                         [](const auto& row) { return row.param.name; });

TEST_F(SmartRemote, ARemoteThatIsConnectedAlreadyIsPublishedButIsNoEvent) {
    bluez.Add(kA, true);
    Watch();
    EXPECT_TRUE(Eventually([] { return Published() == kA; }));

    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Disconnected(kA, kA)));
}

TEST_F(SmartRemote, AmongSeveralConnectedRemotesThePublishedOneStays) {
    ASSERT_EQ(vconf_set_str(kKey, kB), 0);
    bluez.Add(kA, true);
    bluez.Add(kB, true);
    Watch();

    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Disconnected(kA, kB)));
}

TEST_F(SmartRemote, AStormOfConnectsArrivesWholeAndInOrder) {
    constexpr std::size_t kConnects = 1000;
    WatchRemotes();

    for (std::size_t i = 0; i < kConnects; ++i) {
        bluez.Connect(kA);
        bluez.Disconnect(kA);
    }

    const std::vector<std::string> all = reports.WaitFor(2 * kConnects);
    ASSERT_EQ(all.size(), 2 * kConnects);
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i].front(), i % 2 == 0 ? '+' : '-');
    }
}

TEST_F(SmartRemote, ARestartOfTheServiceIsNoEventWhileTheLinkStays) {
    WatchRemotes();
    bluez.Connect(kA);
    reports.WaitFor(1);

    StopBlueZ();
    bluez.Start();
    WaitUntilKnown();
    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(2), ElementsAre(Connected(kA), Disconnected(kA, kA)));
    EXPECT_EQ(log.Count("BlueZ is missing"), 1);
}

TEST_F(SmartRemote, WhatChangedWhileTheServiceWasAwayIsToldWhenItIsBack) {
    WatchRemotes();
    bluez.Connect(kA);
    reports.WaitFor(1);

    StopBlueZ();
    bluez.Disconnect(kA);
    bluez.Connect(kB);
    bluez.Start();

    EXPECT_THAT(reports.WaitFor(3), ElementsAre(Connected(kA), Disconnected(kA, kA), Connected(kB)));
}

TEST_F(SmartRemote, AnAddressThatChangedWhileTheServiceWasAwayIsPublishedAndIsNoEvent) {
    WatchRemotes();
    bluez.Connect(kA);
    reports.WaitFor(1);

    StopBlueZ();
    bluez.LearnAddress(kA, kB);
    bluez.Start();
    WaitUntilKnown();
    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(2), ElementsAre(Connected(kA), Disconnected(kB, kB)));
}

TEST_F(SmartRemote, AServiceThatComesLateIsOneLogLineAndThenWorks) {
    ASSERT_EQ(bt_hid_set_smart_rc_connection_cb(WriteDown, &reports), 0);
    EXPECT_TRUE(log.WaitFor("BlueZ is missing: no remote control connections until it appears"));

    bluez.Add(kA, false);
    bluez.Start();
    WaitUntilKnown();
    bluez.Connect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Connected(kA)));
    EXPECT_EQ(log.Count("BlueZ is missing"), 1);
}

TEST_F(SmartRemote, AServiceThatDoesNotListItsDevicesIsAskedAgain) {
    bluez.Add(kA, false);
    bluez.Refuse(2);
    Watch();

    bluez.Connect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Connected(kA)));
    EXPECT_EQ(log.Count("BlueZ does not list its devices"), 1);
}

TEST_F(SmartRemote, TheLatestCallbackHasTheSlot) {
    Reports<std::string> others;
    WatchRemotes();
    ASSERT_EQ(bt_hid_set_smart_rc_connection_cb(WriteDown, &others), 0);

    EXPECT_EQ(bt_hid_unset_smart_rc_connection_cb(WriteDown, &reports), -1);
    bluez.Connect(kA);

    EXPECT_THAT(others.WaitFor(1), ElementsAre(Connected(kA)));
    EXPECT_THAT(reports.Now(), IsEmpty());
    EXPECT_EQ(bt_hid_unset_smart_rc_connection_cb(WriteDown, &others), 0);
    EXPECT_EQ(bt_hid_unset_smart_rc_connection_cb(WriteDown, &others), -1);
}

TEST_F(SmartRemote, WithdrawingDuringAStormEndsIt) {
    WatchRemotes();
    for (int i = 0; i < 100; ++i) {
        bluez.Connect(kA);
        bluez.Disconnect(kA);
    }
    reports.WaitFor(1);

    EXPECT_EQ(bt_hid_unset_smart_rc_connection_cb(WriteDown, &reports), 0);
    const std::size_t told = reports.Now().size();
    bluez.Connect(kA);
    // Whoever hears of a later change proves that the earlier one has been passed over.
    Reports<std::string> later;
    ASSERT_EQ(bt_hid_set_smart_rc_connection_cb(WriteDown, &later), 0);
    WaitUntilKnown();
    bluez.Disconnect(kA);
    EXPECT_THAT(later.WaitFor(1), ElementsAre(Disconnected(kA, kA)));

    EXPECT_EQ(reports.Now().size(), told);
    EXPECT_EQ(bt_hid_unset_smart_rc_connection_cb(WriteDown, &later), 0);
    EXPECT_EQ(bt_hid_set_smart_rc_connection_cb(nullptr, nullptr), -1);
}

TEST(RemoteControl, IconClassOrAppearanceSayWhatItIs) {
    struct Row {
        const char* icon;
        std::uint32_t deviceClass;
        std::uint16_t appearance;
        bool isRemoteControl;
    };
    for (const Row& row : {Row{"input-remote", 0, 0, true}, Row{"remote-control", 0, 0, true},
                           Row{"", 0x00050C, 0, true},  // peripheral, remote control
                           Row{"", 0x00254C, 0, true},  // and keyboard, and a service bit
                           Row{"", 0, 0x0180, true},    // generic remote control
                           Row{"", 0, 0x01BF, true},    // last of the category
                           Row{"", 0, 0, false}, Row{"input-keyboard", 0x000540, 0x03C1, false},
                           Row{"", 0x00020C, 0, false},  // a smart phone: same minor bits, other major class
                           Row{"", 0x000508, 0, false},  // gamepad
                           Row{"", 0, 0x017F, false}, Row{"", 0, 0x01C0, false}}) {
        BluetoothDevice device;
        device.icon = row.icon;
        device.deviceClass = row.deviceClass;
        device.appearance = row.appearance;
        EXPECT_EQ(device.IsRemoteControl(), row.isRemoteControl)
            << row.icon << " " << row.deviceClass << " " << row.appearance;
    }
}

}  // namespace
