#pragma once
/// How a signal ends the daemon.
#include <glib.h>

#include "base/subscription.h"

namespace zol {
class IDbusServer;
}

namespace zol_daemon {

/// Catches SIGTERM, SIGINT and SIGHUP on the default main context, to the end of the process: none of them
/// may end it with a status of its own, not even while or after the teardown runs. Main thread.
class QuitSignals {
public:
    /// @param loop what a signal quits; null when there is none: signals are then caught and have no effect.
    ///             Never unreferenced
    /// @return lives for ever
    static QuitSignals& Catch(GMainLoop* loop);

    QuitSignals(const QuitSignals&) = delete;
    QuitSignals& operator=(const QuitSignals&) = delete;

    /// While the result lives a signal ends the server's waits for clients, too: a client that never answers
    /// would hold up the teardown. The server must outlive the result. One at a time.
    [[nodiscard]] base::Subscription EndWaitsOf(zol::IDbusServer& server) {
        m_server = &server;
        return base::Subscription([this] { m_server = nullptr; });
    }

private:
    explicit QuitSignals(GMainLoop* loop) : m_loop(loop) {}
    static gboolean m_OnSignal(gpointer data);

    GMainLoop* const m_loop;
    zol::IDbusServer* m_server = nullptr;
};

}  // namespace zol_daemon
