#include "zol_daemon.h"

#include <glib.h>
#include <malloc.h>

#include <boost/thread/exceptions.hpp>

#include "LifeSigns.h"
#include "Log.h"
#include "PolicyService.h"
#include "QuitSignals.h"
#include "TCDbusServer.h"
#include "TCDebug.h"
#include "TSFileSystem.h"
#include "ZOLCVLogger.h"
#include "ZOLControlNative.h"
#include "ZOLInformationStorage.h"
#include "ZOLPolicyManager.h"
#include "ZOLPowerUtils.h"
#include "ZOLShiftedClock.h"
#include "ZOLTestRecording.h"
#include "device_paths.h"
#include "service_watchdog.h"

namespace zol_daemon {
namespace {

constexpr const char* kLogModule = "zol_daemon";

/// Bytes above which malloc gives an allocation a mapping of its own, so that it goes back to the system as
/// soon as it is freed.
constexpr int kMmapThreshold = 32768;
constexpr bool kTestMode = false;

/// The recorder lives until the process ends: the key-combination service keeps calling it.
void StartTestRecording() {
    // Nobody reads it: without the attribute it is optimised away, and the recorder looks like a leak.
    [[gnu::used]] static TCTestRecording* recording = nullptr;
    recording = new TCTestRecording();
    recording->setKeyCombinationHandler();
}

}  // namespace

int main() {
    // One arena: the daemon has many threads that allocate little, and memory is scarce.
    if (mallopt(M_ARENA_MAX, 1) == 1 && mallopt(M_MMAP_THRESHOLD, kMmapThreshold) == 1) {
        ZOL_LOG(LOG_DEBUG, "Malloc options set correctly!");
    }
    // Never unreferenced: sources may still name it while the teardown runs.
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    ZOL_LOG(LOG_DEBUG, "Create g_main_loop");
    ZOL_LOG(LOG_INFO, "test mode is on");
    try {
        QuitSignals& signals = QuitSignals::Catch(loop);
        TCDebug::EnableFileLog(true);
        zol::TCDbusServer server(kTestMode);
        ZOL_LOG(LOG_DEBUG, "Dbus server created. Testmode: %d", kTestMode ? 1 : 0);
        const base::Subscription waits = signals.EndWaitsOf(server);
        zol::TCShiftedClock clock;
        clock.LoadTimeShift();
        zol::TCCVLogger logger;
        zol::TCPolicyManager manager(clock, &server, &logger);
        zol::TCInformationStorage::Instance()->Initialize(&manager, &server);
        const zol::ZOLPowerUtils power(&manager);
        // Last of those that are always there, so that no call reaches a half-built system.
        const zol::TCControlNative control(server, manager);
        zol::PolicyService service(server, manager);
        if (TSFileSystem::Exists(ZOL_PATH_DEBUG_MARKER)) {
            ZOL_LOG(LOG_DEBUG, "Debug Image!");
            StartTestRecording();
        }
        const base::Subscription lifeSigns = GiveLifeSigns();
        if (loop != nullptr) {
            service_watchdog_ready();
            g_main_loop_run(loop);
        } else {
            ZOL_LOG(LOG_ERROR, "failed to create g_main_loop");
        }
    } catch (const boost::thread_interrupted&) {
        ZOL_LOG(LOG_ERROR, "boost::thread_interrupted");
    } catch (...) {
        ZOL_LOG(LOG_ERROR, "ZOL error");
    }
    return 0;
}

}  // namespace zol_daemon
