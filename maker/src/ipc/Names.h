#pragma once
/// Names and limits of the IPC. maker/dbus/org.zol.Daemon1.xml documents the same for callers.
#include <cstddef>

namespace zol::ipc {

constexpr const char* kBusName = "org.zol.Daemon1";
constexpr const char* kObjectPath = "/org/zol/Daemon1";
constexpr const char* kNativeInterface = "org.zol.Native1";
constexpr const char* kClientInterface = "org.zol.NotificationClient1";

constexpr const char* kErrorFailed = "org.zol.Error.Failed";
constexpr const char* kErrorTooLarge = "org.zol.Error.TooLarge";
constexpr const char* kErrorTooManySubscribers = "org.zol.Error.TooManySubscribers";

/// Longest request and longest reply, in bytes. A policy of 10,000 items takes about 2 MiB; without a limit
/// of its own the daemon would copy whatever the bus lets through.
constexpr std::size_t kMaxMessageBytes{16777216};  // 16 MiB

/// Bounds what callers that subscribe for ever can make the daemon keep and ask.
constexpr std::size_t kMaxSubscribers = 64;
constexpr std::size_t kMaxSubscribersPerConnection = 4;
constexpr std::size_t kMaxPathBytes = 255;

}  // namespace zol::ipc
