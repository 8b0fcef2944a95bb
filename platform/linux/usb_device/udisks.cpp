#include "usb_device/udisks.h"

#include <cstdint>
#include <map>
#include <tuple>
#include <utility>

#include "base/glib_handles.h"

namespace platform {

namespace {

constexpr const char* kDrive = "org.freedesktop.UDisks2.Drive";
constexpr const char* kBlock = "org.freedesktop.UDisks2.Block";
constexpr const char* kPartition = "org.freedesktop.UDisks2.Partition";
constexpr const char* kFilesystem = "org.freedesktop.UDisks2.Filesystem";

/// Position of a file system: when its drive was plugged in (microseconds since 1970), drive, partition,
/// object path. The paths only keep the order stable.
using Order = std::tuple<std::uint64_t, std::string, std::uint32_t, std::string>;

/// The properties of one interface of an object; null when the object has not got it.
base::GVariantPtr Properties(GVariant* interfaces, const char* interface) {
    return base::GVariantPtr(g_variant_lookup_value(interfaces, interface, G_VARIANT_TYPE_VARDICT));
}

base::GVariantPtr Interfaces(GVariant* objects, const char* path) {
    return base::GVariantPtr(g_variant_lookup_value(objects, path, G_VARIANT_TYPE("a{sa{sv}}")));
}

std::string Text(GVariant* properties, const char* name) {
    const char* text = "";
    g_variant_lookup(properties, name, "&s", &text);
    return text;
}

/// The first mount point; empty when there is none.
std::string MountPoint(GVariant* filesystem) {
    const base::GVariantPtr points(
        g_variant_lookup_value(filesystem, "MountPoints", G_VARIANT_TYPE_BYTESTRING_ARRAY));
    if (points == nullptr || g_variant_n_children(points.get()) == 0) {
        return {};
    }
    const base::GVariantPtr first(g_variant_get_child_value(points.get(), 0));
    return g_variant_get_bytestring(first.get());
}

/// The object path of the drive that a block device is on; that of an unlocked volume is behind its
/// encrypted one.
std::string DrivePath(GVariant* objects, GVariant* block) {
    const char* drive = "/";
    const char* backing = "/";
    g_variant_lookup(block, "Drive", "&o", &drive);
    g_variant_lookup(block, "CryptoBackingDevice", "&o", &backing);
    std::string path = drive;
    const base::GVariantPtr encrypted = Interfaces(objects, backing);
    if (path != "/" || encrypted == nullptr) {
        return path;
    }
    const base::GVariantPtr encryptedBlock = Properties(encrypted.get(), kBlock);
    if (encryptedBlock != nullptr) {
        g_variant_lookup(encryptedBlock.get(), "Drive", "&o", &drive);
    }
    return drive;
}

/// Microseconds since 1970 when the USB drive was plugged in; false when it is no USB drive.
bool TimePlugged(GVariant* objects, const std::string& drivePath, std::uint64_t& time) {
    const base::GVariantPtr interfaces = Interfaces(objects, drivePath.c_str());
    const base::GVariantPtr drive = interfaces != nullptr ? Properties(interfaces.get(), kDrive) : nullptr;
    if (drive == nullptr || Text(drive.get(), "ConnectionBus") != "usb") {
        return false;
    }
    guint64 detected = 0;
    g_variant_lookup(drive.get(), "TimeDetected", "t", &detected);
    time = detected;
    return true;
}

/// Adds the file system of an object, when it is mounted and on a USB drive.
void AddFilesystem(GVariant* objects, const char* path, GVariant* interfaces,
                   std::map<Order, std::string>& found) {
    const base::GVariantPtr block = Properties(interfaces, kBlock);
    const base::GVariantPtr filesystem = Properties(interfaces, kFilesystem);
    const std::string mountPoint = filesystem != nullptr ? MountPoint(filesystem.get()) : std::string();
    if (block == nullptr || mountPoint.empty()) {
        return;
    }
    const std::string drive = DrivePath(objects, block.get());
    std::uint64_t plugged = 0;
    if (!TimePlugged(objects, drive, plugged)) {
        return;
    }
    guint32 number = 0;
    if (const base::GVariantPtr partition = Properties(interfaces, kPartition); partition != nullptr) {
        g_variant_lookup(partition.get(), "Number", "u", &number);
    }
    found[{plugged, drive, number, path}] = mountPoint;
}

}  // namespace

std::vector<std::string> MountedUsbDrives(GVariant* objects) {
    std::map<Order, std::string> found;
    for (gsize i = 0; i < g_variant_n_children(objects); ++i) {
        const char* path = nullptr;
        GVariant* interfaces = nullptr;
        g_variant_get_child(objects, i, "{&o@a{sa{sv}}}", &path, &interfaces);
        const base::GVariantPtr owner(interfaces);
        AddFilesystem(objects, path, interfaces, found);
    }
    std::vector<std::string> mounts;
    std::string lastDrive;
    for (const auto& [order, mountPoint] : found) {
        const std::string& drive = std::get<1>(order);
        if (drive != lastDrive) {
            mounts.push_back(mountPoint);
            lastDrive = drive;
        }
    }
    return mounts;
}

}  // namespace platform
