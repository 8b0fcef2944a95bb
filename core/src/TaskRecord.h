#pragma once
/// What a task keeps to itself.
#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>

#include "Handler.h"
#include "List.h"
#include "Mutex.h"
#include "Task.h"
#include "base/handles.h"
#include "platform_clock.h"

/// One per handler and timer id.
struct CCTask::TSTimer {
    CCHandler* handler;
    std::uint64_t id;
    std::uint64_t interval;  // milliseconds
    std::uint64_t last;      // CCTime::Tick() when it was set or last fired
    bool queued;             // an event for it is queued and not yet handled
    std::uint32_t serial;    // travels with the event: a later timer may lie at the same address
};

struct CCTask::TSTask {
    /// Receives the task's control events.
    class CInternalHandler : public CCHandler {
    public:
        enum EEvent : std::uint32_t {
            EVENT_EXIT = 0,  // run the exit callbacks and end the loop
            EVENT_PING = 1   // answer a ping; the parameter is its pair of semaphores
        };

        bool Create(CCTask* task, TSTask* record);
        void Destroy() override;
        bool t_OnEvent(const CSEvent* event) override;

    private:
        CCTask* m_owner = nullptr;
        TSTask* m = nullptr;
    };

    static constexpr std::size_t kNameLength = 16;
    static constexpr std::uint64_t kNothingDue = std::numeric_limits<std::uint64_t>::max();

    ~TSTask();

    /// The first timer that matches, which it makes the list's current one. Null when there is none. Under
    /// the task's m_lock.
    template <class Matches>
    TSTimer* FindTimer(Matches matches);
    TSTimer* FindTimer(const CCHandler* owner, unsigned long id);

    // The task's m_lock guards list and records. timerMutex is held while timer events are posted, keeps a
    // timer from being killed meanwhile and must not be taken by those who set timers.
    CCList timers;
    std::uint32_t nextSerial = 0;
    CCMutex timerMutex;
    TFCallback before = nullptr;
    TFCallback after = nullptr;
    const void* data = nullptr;
    std::atomic<bool> exit{false};
    std::array<char, kNameLength + 1> name{};
    CInternalHandler handler;

    // Ends the pause of an idle loop: rung when an event is queued, a timer set or the loop told to end.
    std::unique_ptr<platform_alarm_t, base::FreeWith<platform_alarm_free>> alarm{platform_alarm_new()};
    // The loop is over: nobody gives a sender's semaphore any more. Guarded by the task's m_lock.
    bool ended = false;
    // Of the loop's current pass; the task's thread only.
    bool tookEvent = false;
    std::uint64_t nextDue = kNothingDue;  // milliseconds since 1970
};
