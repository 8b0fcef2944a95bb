#include "QuitSignals.h"

#include <glib-unix.h>

#include <csignal>

#include "ExceptionWall.h"
#include "IDbus.h"

namespace zol_daemon {

QuitSignals& QuitSignals::Catch(GMainLoop* loop) {
    auto* signals = new QuitSignals(loop);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        g_unix_signal_add(number, m_OnSignal, signals);
    }
    return *signals;
}

gboolean QuitSignals::m_OnSignal(gpointer data) {
    const auto* self = static_cast<QuitSignals*>(data);
    if (self->m_loop != nullptr) {
        g_main_loop_quit(self->m_loop);
    }
    if (self->m_server != nullptr) {
        zol::CatchAll("zol_daemon", [self] { self->m_server->CancelNotifications(); });
    }
    return G_SOURCE_CONTINUE;
}

}  // namespace zol_daemon
