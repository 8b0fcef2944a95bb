#pragma once
/// What the IPC's two sides share about GDBus.
#include <gio/gio.h>

#include <memory>
#include <string>

#include "MakerLog.h"
#include "Names.h"
#include "base/callback_handle.h"
#include "base/exception_wall.h"
#include "base/glib_handles.h"

namespace zol::ipc {

using GNodeInfoPtr = std::unique_ptr<GDBusNodeInfo, base::FreeWith<g_dbus_node_info_unref>>;
using GConnectionPtr = base::GObjectPtr<GDBusConnection>;

/// Runs `body` for a C callback that no exception may reach; one becomes a line in the log.
template <class Body>
void AtBoundary(const char* what, Body&& body) noexcept {
    base::CatchAll(body, [what](const char* why) { MAKER_ERROR("IPC: %s failed: %s", what, why); });
}

/// The introspection data. Throws std::runtime_error when the embedded document is not valid.
[[nodiscard]] GNodeInfoPtr LoadIntrospection();

/// Answers a call with a D-Bus error. Bytes of `message` that are not UTF-8 are replaced.
void ReturnError(GDBusMethodInvocation* invocation, const char* name, const std::string& message);

}  // namespace zol::ipc
