#pragma once
/// Waits for the bus that end in time, also when the bus has stopped reading.
#include "Gio.h"

namespace zol::ipc {

/// Waits until all that was sent is written, at most `milliseconds`.
void FlushWithin(GDBusConnection* connection, unsigned milliseconds);

/// Connects within `milliseconds`; a connection that does not let itself be given up takes as long again. The
/// connection's callbacks run on the thread-default main context of the caller, which is not iterated
/// meanwhile. Null with `error` set when it does not come about.
[[nodiscard]] GConnectionPtr ConnectWithin(bool sessionBus, unsigned milliseconds, base::GErrorPtr& error);

}  // namespace zol::ipc
