#pragma once
/// The entry point's work: builds the long-lived objects in their order, wires them to one another, runs the
/// main loop and takes everything down again. `Parts` names the concrete classes, so that a test can put
/// classes in their place that trace the order or fail.
#include <glib.h>
#include <malloc.h>
#include <sys/stat.h>

#include <optional>
#include <string>

#include <boost/thread/exceptions.hpp>

#include "Log.h"
#include "device_path.h"
#include "device_paths.h"

namespace zol_daemon {

/// Lines of the entry point carry this file's and main's name, whichever of its functions writes them.
#define DAEMON_LOG(priority, ...) \
    ::zol::WriteLog(::zol::priority, "zol_daemon", "zol_daemon", "main", __LINE__, __VA_ARGS__)

/// Bytes above which malloc gives an allocation a mapping of its own, so that it goes back to the system as
/// soon as it is freed.
constexpr int kMmapThreshold = 32768;

/// One arena: the daemon has many threads that allocate little, and memory is scarce.
template <class Parts>
void TuneAllocator() {
    if (Parts::SetMallocOption(M_ARENA_MAX, 1) == 1 &&
        Parts::SetMallocOption(M_MMAP_THRESHOLD, kMmapThreshold) == 1) {
        DAEMON_LOG(LOG_DEBUG, "Malloc options set correctly!");
    }
}

/// True when the marker of a debug image exists, whatever it is.
inline bool IsDebugImage() {
    struct stat unused {};
    return stat(DevicePath(ZOL_PATH_DEBUG_MARKER).c_str(), &unused) == 0;
}

/// The test recorder lives until the process ends: the key-combination service keeps calling it.
template <class Parts>
void StartTestRecording() {
    DAEMON_LOG(LOG_DEBUG, "Debug Image!");
    // Nobody reads it: without the attribute it is optimised away, and the recorder looks like a leak.
    [[gnu::used]] static typename Parts::TestRecording* recording = nullptr;
    recording = new typename Parts::TestRecording();
    recording->setKeyCombinationHandler();
}

/// Catches the signals that end the daemon, to the end of the process: none of them may end it with a status
/// of its own, not even while or after the teardown runs.
template <class Parts>
typename Parts::QuitSignals& CatchSignals(GMainLoop* loop) {
    [[gnu::used]] static typename Parts::QuitSignals* signals = nullptr;
    signals = new typename Parts::QuitSignals(loop);
    return *signals;
}

/// Lets a signal end the server's waits for clients as long as this lives.
template <class Parts>
class SignalledServer {
public:
    SignalledServer(typename Parts::QuitSignals& signals, typename Parts::Server& server)
        : m_signals(signals) {
        m_signals.SetServer(&server);
    }
    ~SignalledServer() { m_signals.SetServer(nullptr); }
    SignalledServer(const SignalledServer&) = delete;
    SignalledServer& operator=(const SignalledServer&) = delete;

private:
    typename Parts::QuitSignals& m_signals;
};

/// Builds everything, runs `loop` (null: reports that and goes on to the teardown), takes everything down.
/// What is thrown leaves with the objects built so far destroyed in reverse order.
template <class Parts>
void Serve(GMainLoop* loop) {
    // From here on a signal that ends the daemon waits for the main loop, and so for an orderly teardown.
    typename Parts::QuitSignals& signals = CatchSignals<Parts>(loop);
    Parts::EnableFileLog(true);

    constexpr bool kTestMode = false;
    std::optional<typename Parts::Server> server;
    server.emplace(kTestMode);
    DAEMON_LOG(LOG_DEBUG, "Dbus server created. Testmode: %d", kTestMode ? 1 : 0);

    std::optional<SignalledServer<Parts>> signalled;
    signalled.emplace(signals, *server);

    typename Parts::Clock clock;
    clock.LoadTimeShift();
    typename Parts::UsageLogger logger;
    std::optional<typename Parts::PolicyManager> manager;
    manager.emplace(clock, &*server, &logger);
    Parts::InitializeStorage(&*manager, &*server);
    std::optional<typename Parts::PowerHooks> power;
    power.emplace(&*manager);
    // Last of those that are always there, so that no call reaches a half-built system.
    typename Parts::Control control(*server, *manager);

    if (IsDebugImage()) {
        StartTestRecording<Parts>();
    }
    if (loop != nullptr) {
        Parts::RunMainLoop(loop);
    } else {
        DAEMON_LOG(LOG_ERROR, "failed to create g_main_loop");
    }

    power.reset();
    manager.reset();
    signalled.reset();
    server.reset();
}

/// The daemon's whole life. Always 0; nothing is thrown.
template <class Parts>
int main() {
    TuneAllocator<Parts>();
    // Kept to the end of the process: sources may still name the loop while the teardown runs.
    static GMainLoop* loop = nullptr;
    loop = Parts::NewMainLoop();
    DAEMON_LOG(LOG_DEBUG, "Create g_main_loop");
    DAEMON_LOG(LOG_INFO, "test mode is on");
    try {
        Serve<Parts>(loop);
    } catch (const boost::thread_interrupted&) {
        DAEMON_LOG(LOG_ERROR, "boost::thread_interrupted");
    } catch (...) {
        DAEMON_LOG(LOG_ERROR, "ZOL error");
    }
    return 0;
}

/// The real daemon.
int main();

}  // namespace zol_daemon
