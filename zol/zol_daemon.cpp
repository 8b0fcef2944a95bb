#include "zol_daemon.h"

#include <glib-unix.h>

#include <array>
#include <csignal>

#include "TCDbusServer.h"
#include "TCDebug.h"
#include "ZOLCVLogger.h"
#include "ZOLControlNative.h"
#include "ZOLInformationStorage.h"
#include "ZOLPolicyManager.h"
#include "ZOLPowerUtils.h"
#include "ZOLShiftedClock.h"
#include "ZOLTestRecording.h"

namespace zol_daemon {
namespace {

/// Catches the signals that end the daemon, on the default main context, for as long as it lives.
class QuitSignals {
public:
    /// @param loop null when there is none: signals are then caught and have no effect
    QuitSignals(GMainLoop* loop, zol::IDbusServer& server)
        : m_loop(loop),
          m_server(server),
          m_sources{g_unix_signal_add(SIGTERM, OnSignal, this), g_unix_signal_add(SIGINT, OnSignal, this)} {}
    ~QuitSignals() {
        for (const guint source : m_sources) {
            g_source_remove(source);
        }
    }
    QuitSignals(const QuitSignals&) = delete;
    QuitSignals& operator=(const QuitSignals&) = delete;

private:
    /// Ends a wait for clients too, or one that never answers would hold up the teardown.
    static gboolean OnSignal(gpointer data) {
        auto* self = static_cast<QuitSignals*>(data);
        self->m_server.CancelNotifications();
        if (self->m_loop != nullptr) {
            g_main_loop_quit(self->m_loop);
        }
        return G_SOURCE_CONTINUE;
    }

    GMainLoop* m_loop;
    zol::IDbusServer& m_server;
    std::array<guint, 2> m_sources;
};

/// The classes of the product.
struct RealParts {
    using Server = zol::TCDbusServer;
    using QuitSignals = zol_daemon::QuitSignals;
    using Clock = zol::TCShiftedClock;
    using UsageLogger = zol::TCCVLogger;
    using PolicyManager = zol::TCPolicyManager;
    using PowerHooks = zol::ZOLPowerUtils;
    using Control = zol::TCControlNative;
    using TestRecording = TCTestRecording;

    static int SetMallocOption(int option, int value) { return mallopt(option, value); }
    static GMainLoop* NewMainLoop() { return g_main_loop_new(nullptr, FALSE); }
    static void EnableFileLog(bool on) { TCDebug::EnableFileLog(on); }
    static void InitializeStorage(PolicyManager* manager, Server* server) {
        zol::TCInformationStorage::Instance()->Initialize(manager, server);
    }
    static void RunMainLoop(GMainLoop* loop) { g_main_loop_run(loop); }
};

}  // namespace

int main() {
    return main<RealParts>();
}

}  // namespace zol_daemon
