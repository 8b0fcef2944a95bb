#pragma once
/// What the IPC's two sides share about GDBus.
#include <gio/gio.h>

#include "MakerLog.h"
#include "Names.h"
#include "base/exception_wall.h"
#include "base/glib_handles.h"

namespace zol::ipc {

using GConnectionPtr = base::GObjectPtr<GDBusConnection>;

/// Runs `body` for a C callback that no exception may reach; one becomes a line in the log.
template <class Body>
void AtBoundary(const char* what, Body&& body) noexcept {
    base::CatchAll(body, [what](const char* why) { MAKER_ERROR("IPC: %s failed: %s", what, why); });
}

}  // namespace zol::ipc
