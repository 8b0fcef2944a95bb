#include "ZOLPowerUtils.h"

#include <utility>

#include "ExceptionWall.h"
#include "Log.h"
#include "TCDebug.h"
#include "ZOLPolicyManager.h"
#include "device_power.h"
#include "platform_clock.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "ZOLPowerUtils";
constexpr const char* kSource = "zol/src/ZOLPowerUtils";
constexpr double kNsPerSecond = 1000000000;

using Lock = std::lock_guard<std::mutex>;

/// The object behind a callback's user data; null, and reported, when there is none.
ZOLPowerUtils* Validated(void* data, unsigned line) {
    if (data == nullptr) {
        TCDebug::Assert(kSource, line);
    }
    return static_cast<ZOLPowerUtils*>(data);
}

gboolean QuitLoopOfThisContext(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;  // a subscription may serve the context before the loop runs
}

void LogUnlessSubscribed(int result, const char* what) {
    if (result < 0) {
        ZOL_LOG(LOG_ERROR, "Unable to subscribe to %s notifications: %d", what, result);
    }
}

}  // namespace

ZOLPowerUtils::ZOLPowerUtils(TCPolicyManager* policyManager)
    : m_pPolicyManager(policyManager),
      m_context(g_main_context_new()),
      m_loop(g_main_loop_new(m_context.get(), FALSE)) {
    m_powerThread = boost::thread([this] { m_PowerOffThread(); });
}

// NOLINTNEXTLINE(bugprone-exception-escape): a thread that joins itself is beyond help
ZOLPowerUtils::~ZOLPowerUtils() {
    g_timeout_add(0, m_StopMainLoop, this);
    // The default context is not served any more when the daemon ends, so the stop must not depend on it.
    m_QuitLoop();
    {
        const boost::this_thread::disable_interruption uninterrupted;
        m_powerThread.join();
    }
    // Nobody adds a source any more; those still waiting must not find a dead object.
    while (g_source_remove_by_user_data(this) != FALSE) {
    }
}

void ZOLPowerUtils::m_PowerOffThread() {
    g_main_context_push_thread_default(m_context.get());
    LogUnlessSubscribed(device_power_subscribe_poweroff(PowerOffCallback, this), "power-off");
    LogUnlessSubscribed(device_power_subscribe_wakeup(m_PreWakeUpCallback, this), "wake-up");
    g_main_loop_run(m_loop.get());
    device_power_unsubscribe_wakeup(m_PreWakeUpCallback);
    device_power_unsubscribe_poweroff(PowerOffCallback);
    g_main_context_pop_thread_default(m_context.get());
}

void ZOLPowerUtils::m_QuitLoop() {
    // A loop that is only about to run would forget a quit; a source of its context waits for it.
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_HIGH);
    g_source_set_callback(source, QuitLoopOfThisContext, m_loop.get(), nullptr);
    g_source_attach(source, m_context.get());
    g_source_unref(source);
}

int ZOLPowerUtils::PowerOffCallback(int /*reason*/, void* data) {
    if (ZOLPowerUtils* self = Validated(data, __LINE__)) {
        CatchAll(kLogModule, [self] { self->m_PowerOffCallback(); });
    }
    return 0;
}

int ZOLPowerUtils::m_PreWakeUpCallback(int /*reason*/, void* data) {
    if (const ZOLPowerUtils* self = Validated(data, __LINE__)) {
        // At once: the scheduler's pass may end before the main context gets to the rest.
        CatchAll(kLogModule, [self] { self->m_pPolicyManager->GetScheduler().SetLastWakeUpTime(); });
        g_main_context_invoke(nullptr, m_MainContextPreWakeUp, data);
    }
    return 0;
}

gboolean ZOLPowerUtils::m_MainContextPowerOff(void* data) {
    if (ZOLPowerUtils* self = Validated(data, __LINE__)) {
        const HoldPtr hold = self->m_TakeHold();
        CatchAll(kLogModule, [self] { self->m_pPolicyManager->NotifyPowerOff(); });
    }
    return G_SOURCE_REMOVE;
}

gboolean ZOLPowerUtils::m_MainContextPreWakeUp(void* data) {
    if (const ZOLPowerUtils* self = Validated(data, __LINE__)) {
        CatchAll(kLogModule, [self] { self->m_pPolicyManager->PreparePowerOn(false); });
    }
    return G_SOURCE_REMOVE;
}

gboolean ZOLPowerUtils::m_StopMainLoop(void* data) {
    if (ZOLPowerUtils* self = Validated(data, __LINE__)) {
        self->m_QuitLoop();
    }
    return G_SOURCE_REMOVE;
}

ZOLPowerUtils::HoldPtr ZOLPowerUtils::m_TakeHold() {
    const Lock lock(m_holdMutex);
    if (m_holds.empty()) {
        return nullptr;
    }
    HoldPtr hold = std::move(m_holds.front());
    m_holds.pop_front();
    return hold;
}

void ZOLPowerUtils::m_PowerOffCallback() {
    ZOL_LOG(LOG_ERROR, "Starting power off callback!");
    const Lock lock(m_powerOffMutex);
    {
        const Lock holdLock(m_holdMutex);
        m_holds.emplace_back(device_power_hold());
    }
    m_powerOffStart = platform_clock_steady_ns();
    g_main_context_invoke(nullptr, m_MainContextPowerOff, this);
    m_powerOffDuration = static_cast<double>(platform_clock_steady_ns() - m_powerOffStart) / kNsPerSecond;
    ZOL_LOG(LOG_ERROR, "Power off callback successfuly executed! Time taken: %f seconds", m_powerOffDuration);
}

}  // namespace zol
