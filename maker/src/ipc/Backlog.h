#pragma once
/// Calls that have arrived and wait for the thread that serves them.
#include <cstddef>
#include <memory>

#include "Gio.h"

namespace zol::ipc {

/// GDBus reads from the bus on a thread of its own, as fast as callers send; what it has read waits in
/// memory. This refuses, while it is read, what is beyond the bounds of Gio.h: calls of one connection, and
/// the arguments of all callers together. So memory is bounded, and nobody waits behind more than that.
class Backlog {
public:
    Backlog();
    ~Backlog();
    Backlog(const Backlog&) = delete;
    Backlog& operator=(const Backlog&) = delete;

    /// Bounds the calls that come over this connection, until it is closed.
    void Guard(GDBusConnection* connection) const;

private:
    class Waiting;

    const std::shared_ptr<Waiting> m_waiting;
};

}  // namespace zol::ipc
