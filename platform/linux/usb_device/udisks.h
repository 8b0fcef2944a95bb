#pragma once
/// Mounted USB drives in what UDisks2 lists.
#include <glib.h>

#include <string>
#include <vector>

namespace platform {

/// Where the first file system of each mounted USB drive is mounted, in the order in which the drives were
/// plugged in. The first file system is the mounted one with the lowest partition number.
/// @param objects reply of GetManagedObjects, a{oa{sa{sv}}}
std::vector<std::string> MountedUsbDrives(GVariant* objects);

}  // namespace platform
