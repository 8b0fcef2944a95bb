#pragma once
/// Where the device's absolute paths are on this machine.
#include <stddef.h>

#ifdef __cplusplus
#include <string>
extern "C" {
#endif

/// Maps an absolute path of the device ("/proc/...", "/tmp/zol/...") to the path that must be opened here.
/// On a device that is the path itself; on Linux $ZOL_ROOT, made canonical, is put in front when it is set. A
/// path that lies below that root already stays as it is. Where the kernel tells no ids of the device, the
/// paths of the id files go to those that the machine keeps of its own, in the state folder.
///
/// Only opening goes through this function: what is published or logged stays the device path. Any thread.
///
/// @return the length of the mapped path, or 0 when `size` is too small (then `out` is empty)
size_t device_path_map(const char* path, char* out, size_t size);

#ifdef __cplusplus
}

/// device_path_map for std::string; empty when the mapped path is longer than 4095 bytes.
inline std::string DevicePath(const std::string& path) {
    char mapped[4096];
    const size_t length = device_path_map(path.c_str(), mapped, sizeof(mapped));
    return std::string(mapped, length);
}
#endif
