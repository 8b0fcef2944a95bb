#include "zol_daemon.h"

#include "QuitSignals.h"
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
