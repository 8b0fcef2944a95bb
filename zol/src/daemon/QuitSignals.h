#pragma once
/// How a signal ends the daemon.
#include <glib-unix.h>

#include <array>
#include <csignal>

#include "CallbackException.h"
#include "IDbus.h"

namespace zol_daemon {

/// Catches the signals that end the daemon, on the default main context, for as long as it lives. Main
/// thread.
class QuitSignals {
public:
    /// @param loop what a signal quits; null when there is none: signals are then caught and have no effect
    explicit QuitSignals(GMainLoop* loop)
        : m_loop(loop),
          m_sources{g_unix_signal_add(SIGTERM, OnSignal, this), g_unix_signal_add(SIGINT, OnSignal, this)} {}
    ~QuitSignals() {
        for (const guint source : m_sources) {
            g_source_remove(source);
        }
    }
    QuitSignals(const QuitSignals&) = delete;
    QuitSignals& operator=(const QuitSignals&) = delete;

    /// Has a signal end the server's waits for clients, too: a client that never answers would hold up the
    /// teardown. To be taken back with null before the server goes.
    void SetServer(zol::IDbusServer* server) { m_server = server; }

private:
    static gboolean OnSignal(gpointer data) {
        auto* self = static_cast<QuitSignals*>(data);
        if (self->m_loop != nullptr) {
            g_main_loop_quit(self->m_loop);
        }
        self->EndWaits();
        return G_SOURCE_CONTINUE;
    }

    void EndWaits() const noexcept {
        try {
            if (m_server != nullptr) {
                m_server->CancelNotifications();
            }
        } catch (...) {
            zol::LogCallbackException("zol_daemon");
        }
    }

    GMainLoop* m_loop;
    zol::IDbusServer* m_server = nullptr;
    std::array<guint, 2> m_sources;
};

}  // namespace zol_daemon
