#pragma once
/// What the IPC's two sides share: names, limits and GDBus.
#include <gio/gio.h>

#include <cstddef>

#include "MakerLog.h"
#include "base/exception_wall.h"
#include "base/glib_handles.h"

namespace zol::ipc {

// maker/dbus/org.zol.Daemon1.xml documents these names and limits for callers.
constexpr const char* kBusName = "org.zol.Daemon1";
constexpr const char* kObjectPath = "/org/zol/Daemon1";
constexpr const char* kNativeInterface = "org.zol.Native1";
constexpr const char* kClientInterface = "org.zol.NotificationClient1";

constexpr const char* kErrorFailed = "org.zol.Error.Failed";
constexpr const char* kErrorTooLarge = "org.zol.Error.TooLarge";
constexpr const char* kErrorTooManyCalls = "org.zol.Error.TooManyCalls";
constexpr const char* kErrorTooManySubscribers = "org.zol.Error.TooManySubscribers";

/// Longest request and longest reply, in bytes. A policy of 10,000 items takes about 2 MiB; without a limit
/// of its own the daemon would copy whatever the bus lets through.
constexpr std::size_t kMaxMessageBytes{16777216};  // 16 MiB

/// Bounds what callers that subscribe for ever can make the daemon keep and ask.
constexpr std::size_t kMaxSubscribers = 64;
constexpr std::size_t kMaxSubscribersPerAccount = 16;  // the daemon's own account has all
constexpr std::size_t kMaxSubscribersPerConnection = 4;
constexpr std::size_t kMaxPathBytes = 255;

/// Bounds the calls that have arrived and are not served yet.
constexpr std::size_t kMaxWaitingPerConnection = 64;
constexpr std::size_t kMaxWaitingBytes = 4 * kMaxMessageBytes;  // of all callers' arguments together

using GConnectionPtr = base::GObjectPtr<GDBusConnection>;

/// Runs `body` for a C callback that no exception may reach; one becomes a line in the log.
template <class Body>
void AtBoundary(const char* what, Body&& body) noexcept {
    base::CatchAll(body, [what](const char* why) { MAKER_ERROR("IPC: %s failed: %s", what, why); });
}

}  // namespace zol::ipc
