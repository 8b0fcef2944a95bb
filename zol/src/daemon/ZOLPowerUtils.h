#pragma once
/// The way from the device's power notifications to the policy manager.
#include <glib.h>

#include <boost/thread/thread.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "base/glib_handles.h"
#include "base/handles.h"
#include "device_power.h"

namespace zol {

class TCPolicyManager;

/// Owns a thread with a GLib context and loop of its own, on which power notifications arrive whatever the
/// main loop is busy with:
///
///     power-off  TCPolicyManager::NotifyPowerOff, on the default main context
///     wake-up    TCScheduler::SetLastWakeUpTime, at once, so that the time in standby counts as time that
///                passed; then TCPolicyManager::PreparePowerOn(false), on the default main context
///
/// The device is held until NotifyPowerOff has returned, so that it does not go while clients still work.
///
/// NotifyPowerOff waits for its clients by serving the main context, so calls, keys and timers go on
/// meanwhile; a further power-off or wake-up is handled inside that wait. The server bounds how many waits
/// lie inside one another, so that a client that never answers does not take more stack with every standby.
/// The power thread never waits for it.
class ZOLPowerUtils {
public:
    /// Starts the thread. Returns before the notifications are subscribed.
    /// @param policyManager not owned; must outlive this object
    explicit ZOLPowerUtils(TCPolicyManager* policyManager);
    /// Ends the loop, at any moment after construction, and joins the thread. Notifications that still wait
    /// for the main context are dropped. On the thread that runs the default main context, or when none does;
    /// on the power thread it cannot join: that ends the program.
    ~ZOLPowerUtils();  // NOLINT(bugprone-exception-escape): a thread that joins itself is beyond help
    ZOLPowerUtils(const ZOLPowerUtils&) = delete;
    ZOLPowerUtils& operator=(const ZOLPowerUtils&) = delete;

    /// Platform callbacks, on the power thread. `data` is the object; null is a failed assertion. Always 0.
    static int PowerOffCallback(int reason, void* data);
    static int m_PreWakeUpCallback(int reason, void* data);

    /// Sources of the default main context. `data` is the object; null is a failed assertion. Always 0: each
    /// runs once.
    static gboolean m_MainContextPowerOff(void* data);
    static gboolean m_MainContextPreWakeUp(void* data);
    /// Ends the power thread's loop.
    static gboolean m_StopMainLoop(void* data);

    /// Hands power-off to the default main context and logs how long that took. On the thread that owns this
    /// context the work is done inside that time, from any other thread it is only queued. Calls from several
    /// threads follow one another.
    void m_PowerOffCallback();

private:
    using HoldPtr = std::unique_ptr<device_power_hold_t, base::FreeWith<device_power_release>>;

    HoldPtr m_TakeHold();
    void m_PowerOffThread();
    void m_QuitLoop();

    TCPolicyManager* const m_pPolicyManager;
    double m_powerOffDuration = 0;          ///< seconds of the last hand-over
    std::uint64_t m_powerOffStart = 0;      ///< steady nanoseconds, start of the last hand-over
    std::mutex m_powerOffMutex;             ///< held for the whole hand-over
    std::mutex m_holdMutex;                 ///< m_holds
    std::deque<HoldPtr> m_holds;            ///< of the hand-overs that the main context has not begun
    const base::GMainContextPtr m_context;  ///< the power thread's
    const base::GMainLoopPtr m_loop;        ///< on m_context
    boost::thread m_powerThread;
};

}  // namespace zol
