#pragma once
/// The counting record that every behaviour monitor carries, and the rule it counts by.
#include <atomic>
#include <cstdint>

class TCNotifyManager;

/// What one event did to the count.
struct TSCounted {
    bool isNewPeriod = false;     ///< the period had run out; the event opened another
    std::int32_t repetition = 0;  ///< events of the period, this one included
    bool isHit = false;           ///< the repetition is reached: to be posted with NotifyZOL
};

/// One repetition rule with its running count. The platform callback that feeds it is its only writer; any
/// thread may read it, each value for itself.
///
/// A counting period opens with an event and lasts for the rule's duration, its last second included. It does
/// not slide: an event after its end opens a new one. Reaching the repetition makes a hit and closes it.
class TCMonitorInformation {
public:
    /// @param notify          receiver of the hits, not owned, must outlive this object; null: hits are lost
    /// @param durationMinutes length of the counting period, kept in seconds and clamped to 32 bits (68
    ///                        years); with a negative one a later event never falls into the period
    /// @param repetition      count that makes a hit; 1 and below make every event a hit
    /// @param method          selects the monitor's mode
    /// @param index           position of the rule among the policy's behaviour items, from 0
    TCMonitorInformation(TCNotifyManager* notify, int durationMinutes, int repetition, int method, int index);

    /// Whether a counting period is open.
    void SetFirstCalled(bool isOpen) { m_bFirstCalled = isOpen; }
    bool GetFirstCalled() const { return m_bFirstCalled; }

    /// Start of the counting period, seconds since 1970.
    void SetFirstCallTime(std::int64_t seconds) { m_firstCallTime = seconds; }
    std::int64_t GetFirstCallTime() const { return m_firstCallTime; }
    /// Last second of the counting period.
    std::int64_t GetExpiredTime() const { return m_firstCallTime + m_duration; }

    /// Length of the counting period, seconds.
    int GetDuration() const { return m_duration; }
    /// Position of the rule among the policy's behaviour items.
    int GetIndex() const { return m_monitorIndex; }
    int GetMethod() const { return m_method; }
    int GetPolicyRepetition() const { return m_policyRepetition; }
    /// Events counted in the current period.
    int GetCurrentRepetition() const { return m_currentRepetition; }
    void ResetRepetition() { m_currentRepetition = 0; }
    void AddRepetition() { ++m_currentRepetition; }

    /// The wall clock in seconds since 1970; -1 when it cannot be read.
    static std::int64_t GetCurrentTime();

    /// Counts one event at `now`, seconds since 1970. After a hit the count is 0 and the period closed,
    /// whatever becomes of the post. The caller logs what happened under its own name.
    [[nodiscard]] TSCounted CountEvent(std::int64_t now);

    /// Posts NOTIFY_ZOL_MONITOR with this rule's index. False when there is no notify manager or its queue is
    /// full; the hit is then lost.
    [[nodiscard]] bool NotifyZOL();

private:
    TCNotifyManager* m_pNotify;
    std::atomic<std::int64_t> m_firstCallTime{0};
    std::atomic<bool> m_bFirstCalled{false};
    std::int32_t m_duration;
    std::int32_t m_policyRepetition;
    std::atomic<std::int32_t> m_currentRepetition{0};
    std::int32_t m_monitorIndex;
    std::int32_t m_method;
};
