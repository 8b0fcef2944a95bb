#pragma once
/// What the application needs of the IPC server.
#include <functional>
#include <vector>

namespace zol {

/// Handles one call: request bytes in, reply bytes out (empty on entry). True when handled; false refuses the
/// call and drops the reply. Runs on the server's dispatch thread. May throw: the caller then gets a D-Bus
/// error and the server lives on.
using NativeCallHandler =
    std::function<bool(const std::vector<unsigned char>& in, std::vector<unsigned char>& out)>;

/// The server as the receiver of calls.
class IDbus {
public:
    virtual ~IDbus() = default;
    /// Registers the handler of a function code; an earlier one is replaced. Any thread.
    virtual void RegisterNativeCall(int functionCode, NativeCallHandler handler) = 0;
};

/// The server as the sender of notifications.
class IDbusServer {
public:
    virtual ~IDbusServer() = default;

    /// Sends `code` to every subscribed client and waits until each has answered, has died or `timeoutMs` is
    /// over; -1 waits without limit. A client that died, or answered with an error, counts as no reply.
    /// On the dispatch thread the wait goes on serving the main context, so calls, timers and signals are
    /// handled meanwhile; on any other thread it blocks. CancelNotifications ends it early. Reentrant on the
    /// dispatch thread up to 8 nested waits; a deeper call sends without waiting and returns 0.
    /// @return how many clients replied.
    virtual int SendNotification(int code, int timeoutMs) = 0;

    /// Ends every wait of SendNotification, now and from now on; clients that have not answered count as no
    /// reply. Any thread. Used at shutdown, so that a client that never answers cannot hold it up.
    virtual void CancelNotifications() = 0;
};

}  // namespace zol
