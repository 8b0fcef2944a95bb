#pragma once
/// Waits for the bus that end in time, also when the bus has stopped reading.
#include <gio/gio.h>

#include "base/glib_handles.h"

namespace base {

/// Waits until all that was sent is written, at most `milliseconds`.
void FlushWithin(GDBusConnection* connection, unsigned milliseconds);

/// Connects within `milliseconds`; a connection that does not let itself be given up takes as long again. The
/// connection's callbacks run on the thread-default main context of the caller, which is not iterated
/// meanwhile. Null with `error` set when it does not come about.
[[nodiscard]] GObjectPtr<GDBusConnection> ConnectWithin(GBusType bus, unsigned milliseconds,
                                                        GErrorPtr& error);

}  // namespace base
