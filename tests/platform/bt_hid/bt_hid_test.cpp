#include "bt_hid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/handles.h"
#include "bt_hid/bluetooth_device.h"
#include "fake_service.h"
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
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_devices[address] = {connected, appearance, address};
        }
        if (m_service != nullptr) {
            m_service->Emit("/", kObjectManager, "InterfacesAdded",
                            g_variant_new("(o@a{sa{sv}})", PathOf(address).c_str(),
                                          Interfaces({connected, appearance, address})));
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
        if (m_service == nullptr) {
            g_variant_unref(g_variant_ref_sink(value));
            return;
        }
        GVariantBuilder changed;
        g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&changed, "{sv}", property, value);
        m_service->Emit(PathOf(address).c_str(), "org.freedesktop.DBus.Properties", "PropertiesChanged",
                        g_variant_new("(sa{sv}as)", kDevice, &changed, nullptr));
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
        const char* interfaces[] = {kDevice, nullptr};
        m_service->Emit("/", kObjectManager, "InterfacesRemoved",
                        g_variant_new("(o^as)", PathOf(address).c_str(), interfaces));
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
        GVariantBuilder properties;
        g_variant_builder_init(&properties, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&properties, "{sv}", "Address", g_variant_new_string(device.address.c_str()));
        g_variant_builder_add(&properties, "{sv}", "Alias", g_variant_new_string("Remote"));
        g_variant_builder_add(&properties, "{sv}", "Appearance", g_variant_new_uint16(device.appearance));
        g_variant_builder_add(&properties, "{sv}", "Connected",
                              g_variant_new_boolean(device.connected ? TRUE : FALSE));
        GVariantBuilder interfaces;
        g_variant_builder_init(&interfaces, G_VARIANT_TYPE("a{sa{sv}}"));
        g_variant_builder_add(&interfaces, "{sa{sv}}", kDevice, &properties);
        return g_variant_builder_end(&interfaces);
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
    SmartRemote() {
        vconf_unset(kKey);
        bus.Start();
    }
    ~SmartRemote() override { bt_hid_unset_smart_rc_connection_cb(WriteDown, &reports); }

    /// Registers and waits until the devices are known: what connects from now on is an event.
    void Watch() {
        ASSERT_EQ(bt_hid_set_smart_rc_connection_cb(WriteDown, &reports), 0);
        WaitUntilKnown();
    }
    /// As most tests begin: a remote is known and not connected.
    void WatchRemoteA() {
        bluez.Add(kA, false);
        bluez.Start();
        Watch();
    }
    void WaitUntilKnown() { ASSERT_TRUE(log.WaitFor("watching the Bluetooth devices", ++m_looks)); }

    PlatformLog log;
    PrivateBus bus;
    FakeBlueZ bluez;
    Reports<std::string> reports;

private:
    int m_looks = 0;
};

TEST_F(SmartRemote, TheNewIdIsPublishedBeforeTheConnectIsTold) {
    ASSERT_EQ(vconf_set_str(kKey, kB), 0);
    WatchRemoteA();

    bluez.Connect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Connected(kA)));
}

TEST_F(SmartRemote, ADisconnectLeavesTheIdOfTheRemoteThatConnectedLast) {
    bluez.Add(kA, false);
    bluez.Add(kB, false);
    bluez.Start();
    Watch();

    bluez.Connect(kA);
    bluez.Connect(kB);
    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(3), ElementsAre(Connected(kA), Connected(kB), Disconnected(kA, kB)));
    EXPECT_EQ(Published(), kB);
}

TEST_F(SmartRemote, ARemoteThatIsConnectedAlreadyIsPublishedButIsNoEvent) {
    bluez.Add(kA, true);
    bluez.Start();
    Watch();
    EXPECT_TRUE(Eventually([] { return Published() == kA; }));

    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Disconnected(kA, kA)));
}

TEST_F(SmartRemote, AmongSeveralConnectedRemotesThePublishedOneStays) {
    ASSERT_EQ(vconf_set_str(kKey, kB), 0);
    bluez.Add(kA, true);
    bluez.Add(kB, true);
    bluez.Start();
    Watch();

    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Disconnected(kA, kB)));
}

TEST_F(SmartRemote, ADeviceThatIsRemovedWhileConnectedIsADisconnect) {
    WatchRemoteA();

    bluez.Connect(kA);
    bluez.Remove(kA);
    bluez.Add(kA, true);

    EXPECT_THAT(reports.WaitFor(3), ElementsAre(Connected(kA), Disconnected(kA, kA), Connected(kA)));
}

TEST_F(SmartRemote, OtherDevicesAreNotTold) {
    bluez.Add(kA, false);
    bluez.Add(kB, false, kKeyboardAppearance);
    bluez.Start();
    Watch();

    bluez.Connect(kB);
    bluez.Remove(kB);
    bluez.Connect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Connected(kA)));
}

TEST_F(SmartRemote, ADeviceThatTurnsOutToBeARemoteWhileConnectedConnectsThen) {
    bluez.Add(kA, true, kKeyboardAppearance);
    bluez.Start();
    Watch();

    bluez.Change(kA, "Appearance", g_variant_new_uint16(kRemoteAppearance));

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Connected(kA)));
}

TEST_F(SmartRemote, AValueThatIsKnownAlreadyIsNoEvent) {
    WatchRemoteA();

    bluez.Connect(kA);
    bluez.Connect(kA);
    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(2), ElementsAre(Connected(kA), Disconnected(kA, kA)));
}

TEST_F(SmartRemote, AnAddressThatChangesWhileConnectedIsPublishedAndIsNoEvent) {
    WatchRemoteA();
    bluez.Connect(kA);
    bluez.Change(kA, "Address", g_variant_new_string(kB));

    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(2), ElementsAre(Connected(kA), Disconnected(kB, kB)));
}

TEST_F(SmartRemote, AnAddressThatChangesLeavesTheIdOfTheRemoteThatConnectedLast) {
    constexpr const char* kIdentityOfA = "CC:CC:CC:CC:CC:CC";
    bluez.Add(kA, false);
    bluez.Add(kB, false);
    bluez.Start();
    Watch();
    bluez.Connect(kA);
    bluez.Connect(kB);

    bluez.Change(kA, "Address", g_variant_new_string(kIdentityOfA));
    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(3),
                ElementsAre(Connected(kA), Connected(kB), Disconnected(kIdentityOfA, kB)));
}

TEST_F(SmartRemote, AStormOfConnectsArrivesWholeAndInOrder) {
    constexpr std::size_t kConnects = 1000;
    WatchRemoteA();

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
    WatchRemoteA();
    bluez.Connect(kA);
    reports.WaitFor(1);

    bluez.Stop();
    EXPECT_TRUE(log.WaitFor("BlueZ is missing"));
    bluez.Start();
    WaitUntilKnown();
    bluez.Disconnect(kA);

    EXPECT_THAT(reports.WaitFor(2), ElementsAre(Connected(kA), Disconnected(kA, kA)));
    EXPECT_EQ(log.Count("BlueZ is missing"), 1);
}

TEST_F(SmartRemote, WhatChangedWhileTheServiceWasAwayIsToldWhenItIsBack) {
    bluez.Add(kA, false);
    bluez.Add(kB, false);
    bluez.Start();
    Watch();
    bluez.Connect(kA);
    reports.WaitFor(1);

    bluez.Stop();
    EXPECT_TRUE(log.WaitFor("BlueZ is missing"));
    bluez.Disconnect(kA);
    bluez.Connect(kB);
    bluez.Start();

    EXPECT_THAT(reports.WaitFor(3), ElementsAre(Connected(kA), Disconnected(kA, kA), Connected(kB)));
}

TEST_F(SmartRemote, AnAddressThatChangedWhileTheServiceWasAwayIsPublishedAndIsNoEvent) {
    WatchRemoteA();
    bluez.Connect(kA);
    reports.WaitFor(1);

    bluez.Stop();
    EXPECT_TRUE(log.WaitFor("BlueZ is missing"));
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
    bluez.Start();
    Watch();

    bluez.Connect(kA);

    EXPECT_THAT(reports.WaitFor(1), ElementsAre(Connected(kA)));
    EXPECT_EQ(log.Count("BlueZ does not list its devices"), 1);
}

TEST_F(SmartRemote, TheLatestCallbackHasTheSlot) {
    Reports<std::string> others;
    WatchRemoteA();
    ASSERT_EQ(bt_hid_set_smart_rc_connection_cb(WriteDown, &others), 0);

    EXPECT_EQ(bt_hid_unset_smart_rc_connection_cb(WriteDown, &reports), -1);
    bluez.Connect(kA);

    EXPECT_THAT(others.WaitFor(1), ElementsAre(Connected(kA)));
    EXPECT_THAT(reports.Now(), IsEmpty());
    EXPECT_EQ(bt_hid_unset_smart_rc_connection_cb(WriteDown, &others), 0);
    EXPECT_EQ(bt_hid_unset_smart_rc_connection_cb(WriteDown, &others), -1);
}

TEST_F(SmartRemote, WithdrawingDuringAStormEndsIt) {
    WatchRemoteA();
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
    const auto with = [](const char* icon, std::uint32_t deviceClass, std::uint16_t appearance) {
        BluetoothDevice device;
        device.icon = icon;
        device.deviceClass = deviceClass;
        device.appearance = appearance;
        return device.IsRemoteControl();
    };
    EXPECT_TRUE(with("input-remote", 0, 0));
    EXPECT_TRUE(with("remote-control", 0, 0));
    EXPECT_TRUE(with("", 0x00050C, 0));  // peripheral, remote control
    EXPECT_TRUE(with("", 0x00254C, 0));  // and keyboard, and a service bit
    EXPECT_TRUE(with("", 0, 0x0180));    // generic remote control
    EXPECT_TRUE(with("", 0, 0x01BF));    // last of the category
    EXPECT_FALSE(with("", 0, 0));
    EXPECT_FALSE(with("input-keyboard", 0x000540, 0x03C1));
    EXPECT_FALSE(with("", 0x00020C, 0));  // a smart phone: same minor bits, other major class
    EXPECT_FALSE(with("", 0x000508, 0));  // gamepad
    EXPECT_FALSE(with("", 0, 0x017F));
    EXPECT_FALSE(with("", 0, 0x01C0));
}

}  // namespace
