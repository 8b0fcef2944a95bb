#include "ZOLScheduler.h"

#include <boost/bind.hpp>
#include <boost/thread/lock_guard.hpp>
#include <exception>
#include <new>
#include <utility>

#include "Log.h"
#include "StoredNumber.h"
#include "ZOLShiftedClock.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCScheduler";

constexpr std::int64_t kStepSeconds = 5;        ///< one sleep of a pass
constexpr std::int64_t kPassSeconds = 30;       ///< sleeps of a whole pass
constexpr std::int64_t kToleranceSeconds = 10;  ///< what the clock may be off without having jumped
constexpr std::uint64_t kNsPerSecond = 1000000000;

using Lock = boost::lock_guard<boost::mutex>;

std::uint64_t Unsigned(std::int64_t value) {
    return static_cast<std::uint64_t>(value);
}

/// Differences of moments that may be anything wrap instead of being undefined.
std::int64_t WrappingDifference(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(Unsigned(a) - Unsigned(b));
}

std::uint64_t Magnitude(std::int64_t value) {
    return value < 0 ? 0 - Unsigned(value) : Unsigned(value);
}

}  // namespace

TCScheduler::TCScheduler(boost::function<void()> disableCallback, TCShiftedClock& clock)
    : m_disableCallback(std::move(disableCallback)), m_clock(clock), m_stopAlarm(platform_alarm_new()) {
    if (m_stopAlarm == nullptr) {
        throw std::bad_alloc();
    }
    m_isRunning = true;
    m_thread = boost::thread(boost::bind(&TCScheduler::m_Run, this));
    try {
        m_LoadStartTime();
        m_LoadFirstBootTime();
        SetFirstBootTime();
    } catch (...) {
        // No destructor runs for an object that was not completed, and the thread must not outlive it.
        m_Stop();
        throw;
    }
}

// NOLINTNEXTLINE(bugprone-exception-escape): a thread that joins itself is beyond help
TCScheduler::~TCScheduler() {
    // Joining must not be given up half-way because somebody interrupts the thread that destroys us.
    const boost::this_thread::disable_interruption uninterrupted;
    m_Stop();
}

void TCScheduler::m_Stop() {
    {
        const Lock lock(m_scheduleMutex);
        m_isRunning = false;
    }
    platform_alarm_ring(m_stopAlarm.get());
    m_thread.join();
}

void TCScheduler::SetSchedule(const std::map<EScheduleEventType, TSEventTime>& schedule, bool isNewPolicy) {
    const Lock lock(m_scheduleMutex);
    m_schedule.clear();
    if (isNewPolicy) {
        // Read before the shift is reset: the start of the policy is measured on the clock it arrived under.
        m_startTime = m_clock.GetCurrentTime();
        m_StoreStartTime();
        m_clock.ResetTimeShift();
        m_firstBootTime = 0;
        m_StoreFirstBootTime();
    }
    m_schedule = schedule;
}

void TCScheduler::SetFirstBootTime() {
    const Lock lock(m_scheduleMutex);
    if (m_firstBootTime != 0) {
        return;
    }
    ZOL_LOG(LOG_DEBUG, "Setting first boot time after new policy.");
    m_firstBootTime = m_clock.GetCurrentTime();
    m_StoreFirstBootTime();
}

void TCScheduler::SetLastWakeUpTime() {
    const Lock lock(m_wakeUpMutex);
    m_lastWakeUpTime = m_clock.GetCurrentTime();
}

std::int64_t TCScheduler::GetTimeElapsed() const {
    return WrappingDifference(m_clock.GetCurrentTime(), m_startTime);
}

std::optional<std::uint64_t> TCScheduler::GetTimeLeft() {
    const Lock lock(m_scheduleMutex);
    const auto event = m_schedule.find(SCHEDULE_EVENT_DISABLE);
    if (event == m_schedule.end()) {
        return std::nullopt;
    }
    // As m_IsPast has it.
    const std::uint64_t due = Unsigned(m_startTime) + Unsigned(event->second.offset);
    const std::uint64_t now = Unsigned(m_clock.GetCurrentTime());
    return due > now ? due - now : 0;
}

TCShiftedClock& TCScheduler::GetClock() const {
    return m_clock;
}

void TCScheduler::m_Run() {
    while (m_IsRunning()) {
        try {
            m_FireDueEvents();
            m_MonitorTime();
        } catch (const std::exception& error) {
            // The wall clock may be outside every calendar for a while, and the callback is not ours: neither
            // may end the daemon.
            ZOL_LOG(LOG_ERROR, "Scheduler pass failed: %s", error.what());
            if (m_IsRunning()) {
                m_SleepOneStep();
            }
        }
    }
}

bool TCScheduler::m_IsRunning() {
    const Lock lock(m_scheduleMutex);
    return m_isRunning;
}

void TCScheduler::m_FireDueEvents() {
    const Lock lock(m_scheduleMutex);
    if (!m_TakeDueDisableEvents()) {
        return;
    }
    if (!m_disableCallback.empty()) {
        ZOL_LOG(LOG_ERROR, "Executing disable ZOL callback!");
        m_disableCallback();
        m_schedule.clear();
    }
    ZOL_LOG(LOG_DEBUG, "Disabled ZOL due to scheduled event!");
}

bool TCScheduler::m_TakeDueDisableEvents() {
    bool isDue = false;
    for (auto event = m_schedule.begin(); event != m_schedule.end();) {
        if (!m_IsPast(event->second)) {
            ++event;
            continue;
        }
        ZOL_LOG(LOG_DEBUG, "Found scheduled event! %d", static_cast<int>(event->first));
        if (event->first == SCHEDULE_EVENT_DISABLE) {
            event = m_schedule.erase(event);
            isDue = true;
        }
    }
    return isDue;
}

bool TCScheduler::m_IsPast(const TSEventTime& event) const {
    const std::int64_t now = m_clock.GetCurrentTime();
    std::int64_t base = 0;
    switch (event.base) {
        case TIME_BASE_START:
            base = m_startTime;
            break;
        case TIME_BASE_FIRST_BOOT:
            base = m_firstBootTime;
            break;
        default:
            return false;
    }
    return Unsigned(base) + Unsigned(event.offset) < Unsigned(now);
}

void TCScheduler::m_MonitorTime() {
    const std::int64_t before = m_clock.GetCurrentTime();
    const std::int64_t slept = m_SleepThroughPass();
    m_CorrectClock(before, m_clock.GetCurrentTime(), slept);

    const Lock lock(m_wakeUpMutex);
    m_lastWakeUpTime = 0;
}

std::int64_t TCScheduler::m_SleepThroughPass() {
    std::int64_t slept = 0;
    while (slept < kPassSeconds && m_IsRunning()) {
        if (m_SleepOneStep()) {
            slept += kStepSeconds;
        }
    }
    return slept;
}

bool TCScheduler::m_SleepOneStep() {
    boost::this_thread::interruption_point();
    return platform_alarm_wait(m_stopAlarm.get(), kStepSeconds * kNsPerSecond) == 0;
}

void TCScheduler::m_CorrectClock(std::int64_t before, std::int64_t after, std::int64_t slept) {
    const std::int64_t jump = WrappingDifference(before, after);
    if (Magnitude(jump) > Unsigned(slept + kToleranceSeconds)) {
        const Lock lock(m_wakeUpMutex);
        const bool wokeUpInside = m_lastWakeUpTime != 0 && Unsigned(before) <= Unsigned(m_lastWakeUpTime) &&
                                  Unsigned(m_lastWakeUpTime) <= Unsigned(after);
        if (!wokeUpInside) {
            m_clock.AccumulateTimeShift(jump);
        }
    } else if (jump == 0) {
        ZOL_LOG(LOG_DEBUG, "Time is not set");
        m_clock.AccumulateTimeShift(slept);
    }
}

void TCScheduler::m_LoadStartTime() {
    ZOL_LOG(LOG_DEBUG, "Loading start time from vconf");
    std::int64_t time = 0;
    const EStoredNumber result = ReadStoredNumber(KEY_START_TIME, time);
    if (result == EStoredNumber::LOADED) {
        m_startTime = time;
    } else if (result == EStoredNumber::STREAM_FAILED) {
        ZOL_LOG(LOG_ERROR, "Could not stream start time from string");
    } else if (result == EStoredNumber::CONVERT_FAILED) {
        ZOL_LOG(LOG_ERROR, "Could not convert start time");
    }
}

void TCScheduler::m_LoadFirstBootTime() {
    ZOL_LOG(LOG_DEBUG, "Loading first boot time from vconf");
    const Lock lock(m_scheduleMutex);
    const EStoredNumber result = ReadStoredNumber(KEY_FIRST_BOOT_TIME, m_firstBootTime);
    if (result == EStoredNumber::STREAM_FAILED) {
        ZOL_LOG(LOG_ERROR, "Could not stream first boot time from string");
    } else if (result == EStoredNumber::CONVERT_FAILED) {
        ZOL_LOG(LOG_ERROR, "Could not convert first boot time");
    }
}

void TCScheduler::m_StoreStartTime() const {
    ZOL_LOG(LOG_DEBUG, "Storing start time in vconf");
    WriteStoredNumber(KEY_START_TIME, m_startTime);
}

void TCScheduler::m_StoreFirstBootTime() const {
    ZOL_LOG(LOG_DEBUG, "Storing first boot time in vconf");
    WriteStoredNumber(KEY_FIRST_BOOT_TIME, m_firstBootTime);
}

}  // namespace zol
