#include "usb_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "fake_service.h"
#include "log_lines.h"
#include "private_bus.h"
#include "usb_device/udisks.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// @param entries of the dictionary, each with a comma behind it
base::GVariantPtr Parse(const std::string& entries) {
    base::GErrorPtr error;
    const std::string objects = "{" + entries.substr(0, entries.rfind(',')) + "}";
    GVariant* parsed = g_variant_parse(G_VARIANT_TYPE("a{oa{sa{sv}}}"), objects.c_str(), nullptr, nullptr,
                                       base::OutError(error));
    EXPECT_NE(parsed, nullptr) << base::ErrorText(error.get());
    return base::GVariantPtr(parsed);
}

std::vector<std::string> Mounted(const std::string& objects) {
    return platform::MountedUsbDrives(Parse(objects).get());
}

std::string Drive(const std::string& name, int plugged, const std::string& bus = "usb") {
    return "'/drives/" + name + "': {'org.freedesktop.UDisks2.Drive': {'ConnectionBus': <'" + bus +
           "'>, 'TimeDetected': <uint64 " + std::to_string(plugged) + ">}},";
}

/// A file system on a drive; not mounted when `mountPoint` is empty, no partition when `number` is 0.
std::string FileSystem(const std::string& name, const std::string& drive, int number,
                       const std::string& mountPoint, const std::string& backing = "/") {
    const std::string points = mountPoint.empty() ? "@aay []" : "[b'" + mountPoint + "', b'/second']";
    const std::string partition = number == 0 ? ""
                                              : "'org.freedesktop.UDisks2.Partition': {'Number': <uint32 " +
                                                    std::to_string(number) + ">},";
    return "'/block/" + name + "': {" + partition +
           "'org.freedesktop.UDisks2.Block': {'Drive': <objectpath '" + drive +
           "'>, 'CryptoBackingDevice': <objectpath '" + backing +
           "'>}, 'org.freedesktop.UDisks2.Filesystem': {'MountPoints': <" + points + ">}},";
}

TEST(MountedUsbDrives, ComeInTheOrderInWhichTheyWerePluggedIn) {
    EXPECT_THAT(Mounted(Drive("A", 30) + Drive("B", 10) + Drive("C", 20) +
                        FileSystem("sda1", "/drives/A", 1, "/media/a") +
                        FileSystem("sdb1", "/drives/B", 1, "/media/b") +
                        FileSystem("sdc", "/drives/C", 0, "/media/c")),
                ElementsAre("/media/b", "/media/c", "/media/a"));
}

TEST(MountedUsbDrives, AreTakenByTheirFirstMountedPartition) {
    EXPECT_THAT(
        Mounted(Drive("A", 1) + FileSystem("sda10", "/drives/A", 10, "/media/ten") +
                FileSystem("sda2", "/drives/A", 2, "/media/two") + FileSystem("sda1", "/drives/A", 1, "")),
        ElementsAre("/media/two"));
}

TEST(MountedUsbDrives, OtherBusesAndUnmountedDrivesDoNotCount) {
    EXPECT_THAT(Mounted(Drive("A", 1, "") + Drive("B", 2, "sdio") + Drive("C", 3) +
                        FileSystem("sda1", "/drives/A", 1, "/boot") +
                        FileSystem("mmc1", "/drives/B", 1, "/media/card") +
                        FileSystem("sdc1", "/drives/C", 1, "") + FileSystem("loop0", "/", 0, "/media/loop")),
                IsEmpty());
}

TEST(MountedUsbDrives, AnUnlockedVolumeIsOnTheDriveOfItsEncryptedOne) {
    EXPECT_THAT(Mounted(Drive("A", 1) + FileSystem("sda1", "/drives/A", 1, "") +
                        FileSystem("dm_2d0", "/", 0, "/media/secret", "/block/sda1")),
                ElementsAre("/media/secret"));
}

TEST(MountedUsbDrives, ObjectsWithoutTheExpectedPropertiesAreLeftOut) {
    EXPECT_THAT(Mounted("'/drives/A': {'org.freedesktop.UDisks2.Drive': {'ConnectionBus': <uint32 7>}},"
                        "'/block/a': {'org.freedesktop.UDisks2.Filesystem': {'MountPoints': <[b'/a']>}},"
                        "'/block/b': {'org.freedesktop.UDisks2.Block': {'Drive': <'/drives/A'>},"
                        "             'org.freedesktop.UDisks2.Filesystem': {'MountPoints': <'/b'>}},"),
                IsEmpty());
}

class UsbStick : public testing::Test {
protected:
    UsbStick() {
        bus.Start();
        Succeed();
    }
    ~UsbStick() override { usb_device_fini(); }

    void StartUDisks(const std::string& objects) {
        m_objects = objects;
        m_service = std::make_unique<FakeService>(
            "org.freedesktop.UDisks2", "/org/freedesktop/UDisks2",
            "<node><interface name='org.freedesktop.DBus.ObjectManager'><method name='GetManagedObjects'>"
            "<arg type='a{oa{sa{sv}}}' direction='out'/></method></interface></node>",
            [this](const std::string&, const std::string&, GVariant*, GDBusMethodInvocation* invocation) {
                g_dbus_method_invocation_return_value(
                    invocation, g_variant_new("(@a{oa{sa{sv}}})", Parse(m_objects).get()));
            });
    }
    /// Every fault is told again after it, whatever an earlier test has left behind.
    void Succeed() {
        StartUDisks("");
        EXPECT_EQ(usb_device_init(), 0);
        EXPECT_EQ(First(), nullptr);
        usb_device_fini();
        m_service.reset();
    }
    static std::string Root() { return std::filesystem::canonical(std::getenv("ZOL_ROOT")).string(); }
    /// The first device of the list; null when there is none.
    static usb_device_t* First() {
        usb_device_list_t* list = nullptr;
        EXPECT_EQ(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0);
        return usb_device_list_get_first(list);
    }

    PlatformLog log;
    PrivateBus bus;

private:
    std::string m_objects;
    std::unique_ptr<FakeService> m_service;
};

TEST_F(UsbStick, ItsMountPathIsAPathOfTheDeviceAndMustFit) {
    StartUDisks(Drive("A", 1) + FileSystem("sda1", "/drives/A", 1, Root() + "/media/stick"));
    ASSERT_EQ(usb_device_init(), 0);
    usb_device_t* const stick = First();

    std::array<char, sizeof("/media/stick")> path{};
    EXPECT_EQ(usb_device_get_mountpath(stick, path.data(), path.size() - 1), -1);
    EXPECT_EQ(usb_device_get_mountpath(stick, path.data(), path.size()), 0);
    EXPECT_STREQ(path.data(), "/media/stick");
    EXPECT_EQ(usb_device_get_mountpath(nullptr, path.data(), path.size()), -1);
}

TEST_F(UsbStick, AStickOutsideTheDeviceRootIsNotReached) {
    StartUDisks(Drive("A", 1) + FileSystem("sda1", "/drives/A", 1, "/media/real"));
    ASSERT_EQ(usb_device_init(), 0);

    EXPECT_EQ(First(), nullptr);
}

TEST_F(UsbStick, WithoutTheServiceTheListFailsAndSaysSoOnce) {
    ASSERT_EQ(usb_device_init(), 0);
    usb_device_list_t* list = nullptr;

    EXPECT_LT(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0);
    EXPECT_LT(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0);

    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(log.Count("UDisks2 unavailable"), 1);
    StartUDisks(Drive("A", 1));
    EXPECT_EQ(First(), nullptr);
}

TEST_F(UsbStick, WithoutABusNothingBeginsAndOneWithoutTheServiceIsAnotherFault) {
    bus.Stop();
    usb_device_list_t* list = nullptr;
    EXPECT_LT(usb_device_init(), 0);
    EXPECT_LT(usb_device_init(), 0);
    EXPECT_LT(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0);
    EXPECT_EQ(log.Count("no system bus for UDisks2"), 1);

    bus.Start();
    EXPECT_EQ(usb_device_init(), 0);
    EXPECT_LT(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0);
    EXPECT_EQ(log.Count("UDisks2 unavailable"), 1);
}

TEST_F(UsbStick, AFaultThatReturnsAfterASuccessIsToldAgain) {
    for (int episode = 0; episode < 2; ++episode) {
        bus.Stop();
        EXPECT_LT(usb_device_init(), 0);
        bus.Start();
        Succeed();
    }

    EXPECT_EQ(log.Count("no system bus for UDisks2"), 2);
}

TEST_F(UsbStick, OnlyMassStorageIsListed) {
    StartUDisks("");
    ASSERT_EQ(usb_device_init(), 0);
    usb_device_list_t* list = nullptr;

    EXPECT_LT(usb_device_get_device_list(2, &list), 0);
    EXPECT_LT(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, nullptr), 0);
    EXPECT_EQ(usb_device_list_get_first(nullptr), nullptr);
}

}  // namespace
