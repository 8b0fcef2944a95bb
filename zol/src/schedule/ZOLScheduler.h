#pragma once
/// Policy expiry: a table of events due some time after the policy's start, and the thread that fires them
/// and keeps policy time steady.
#include <atomic>
#include <boost/function.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include "base/handles.h"
#include "platform_clock.h"

namespace zol {

class TCShiftedClock;

enum EScheduleEventType {
    SCHEDULE_EVENT_DISABLE = 0  ///< the policy has expired: run the disable callback
};

/// What an event's offset counts from. An event with any other value is never due.
enum ETimeBase : int {
    TIME_BASE_START = 0,      ///< when the current policy was set
    TIME_BASE_FIRST_BOOT = 1  ///< first start of the daemon after that; 1970 while there was none
};

struct TSEventTime {
    ETimeBase base = TIME_BASE_START;
    std::int64_t offset = 0;  ///< seconds after the base at which the event is due
};

/// Owns its thread. About every 30 seconds the thread fires what is due and then watches the wall clock for
/// one pass: a jump is taken out of policy time, a clock that stands still is helped on. Public operations
/// may be called from any thread; SetSchedule and SetFirstBootTime wait while the disable callback runs.
class TCScheduler {
public:
    /// vconf string keys, decimal policy-time seconds.
    static constexpr const char* KEY_START_TIME = "db/private/zol/policy_time";
    static constexpr const char* KEY_FIRST_BOOT_TIME = "db/private/zol/policy_first_boot_time";

    /// Starts the thread and loads the stored moments. When there was no start of the daemon since the policy
    /// was set, this one becomes it and is stored.
    /// @param disableCallback run on the scheduler's thread when SCHEDULE_EVENT_DISABLE is due, with the
    ///                        schedule locked: it must not call back into the scheduler or destroy it. May be
    ///                        empty. An exception out of it is logged and the thread goes on.
    /// @param clock           not owned; must outlive the scheduler
    TCScheduler(boost::function<void()> disableCallback, TCShiftedClock& clock);
    /// Ends the thread, without waiting for its sleep to be over, and joins it. On the scheduler's own thread
    /// it cannot: that ends the program.
    ~TCScheduler();  // NOLINT(bugprone-exception-escape): a thread that joins itself is beyond help
    TCScheduler(const TCScheduler&) = delete;
    TCScheduler& operator=(const TCScheduler&) = delete;

    /// Replaces the table. Only SCHEDULE_EVENT_DISABLE may be a key: the thread stays at a due entry with any
    /// other one.
    /// @param isNewPolicy the policy starts now: stores the start time, resets and stores the clock's shift
    ///                    and forgets the first boot. False for a policy that is only loaded again.
    void SetSchedule(const std::map<EScheduleEventType, TSEventTime>& schedule, bool isNewPolicy);
    /// Makes now the first boot and stores it, unless there was one.
    void SetFirstBootTime();
    /// Tells that the device woke up now. A jump of the clock in the pass around this moment is then time
    /// spent in standby, which counts as passed. Has to be told before that pass ends: it neither writes a
    /// key nor waits for the schedule, so it can run right where the platform tells of the wake-up. Throws
    /// what the clock throws.
    void SetLastWakeUpTime();
    /// Seconds of policy time until SCHEDULE_EVENT_DISABLE is due, 0 when it is late; null when it was fired
    /// or there is none. Waits while the disable callback runs.
    std::optional<std::uint64_t> GetTimeLeft();
    /// Seconds of policy time since the current policy was set.
    std::int64_t GetTimeElapsed() const;
    TCShiftedClock& GetClock() const;

private:
    void m_Run();
    bool m_IsRunning();
    void m_Stop();
    void m_FireDueEvents();
    bool m_TakeDueDisableEvents();
    bool m_IsPast(const TSEventTime& event) const;
    void m_MonitorTime();
    std::int64_t m_SleepThroughPass();
    bool m_SleepOneStep();
    void m_CorrectClock(std::int64_t before, std::int64_t after, std::int64_t slept);
    void m_LoadStartTime();
    void m_LoadFirstBootTime();
    void m_StoreStartTime() const;
    void m_StoreFirstBootTime() const;

    boost::function<void()> m_disableCallback;
    TCShiftedClock& m_clock;
    std::unique_ptr<platform_alarm_t, base::FreeWith<platform_alarm_free>>
        m_stopAlarm;               ///< rung by the destructor to end a sleep
    boost::mutex m_scheduleMutex;  ///< m_schedule, m_isRunning, m_firstBootTime and writes of m_startTime
    boost::mutex m_wakeUpMutex;    ///< m_lastWakeUpTime; never held together with m_scheduleMutex
    std::map<EScheduleEventType, TSEventTime> m_schedule;
    bool m_isRunning = false;
    std::atomic<std::int64_t> m_startTime{0};  ///< policy-time seconds; GetTimeElapsed reads it unlocked
    std::int64_t m_firstBootTime = 0;          ///< policy-time seconds, 0: not yet
    std::int64_t m_lastWakeUpTime = 0;         ///< policy-time seconds, 0: none since the last pass
    boost::thread m_thread;
};

}  // namespace zol
