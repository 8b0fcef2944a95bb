#include <algorithm>
#include <new>

#include "AutoLock.h"
#include "Logging.h"
#include "TaskRecord.h"
#include "Time.h"

namespace {

constexpr const char* kSource = "core/src/Task";

// The largest 32-bit wait, compared with moments since 1970: on a clock that is set every moment lies behind
// it, and the queue is looked at without waiting: it is m_Pause that waits.
constexpr std::uint64_t kLongestWait = 4294967295U;

struct TimerEvents {
    const CCHandler* handler;
    const void* timer;
};

bool IsEventOfTimer(const void* element, const void* context) {
    const auto* event = static_cast<const CSEvent*>(element);
    const auto* wanted = static_cast<const TimerEvents*>(context);
    return event->isTimer && event->receiver == wanted->handler && event->param.p == wanted->timer;
}

}  // namespace

template <class Matches>
CCTask::TSTimer* CCTask::TSTask::FindTimer(Matches matches) {
    for (bool more = timers.SetPosition(IPosition::POS_HEAD, 0); more;
         more = timers.SetPosition(IPosition::POS_CURRENT, 1)) {
        auto* timer = static_cast<TSTimer*>(timers.Data());
        if (AssertAtsc3(timer != nullptr, "obj", kSource, 639) && matches(*timer)) {
            return timer;
        }
    }
    return nullptr;
}

CCTask::TSTimer* CCTask::TSTask::FindTimer(const CCHandler* owner, unsigned long id) {
    return FindTimer([=](const TSTimer& timer) { return timer.id == id && timer.handler == owner; });
}

CCTask::TSTask::~TSTask() {
    while (timers.SetPosition(IPosition::POS_HEAD, 0)) {
        delete static_cast<TSTimer*>(timers.Data());
        static_cast<void>(timers.Remove());  // the current element
    }
    if (timerMutex.FlagCreate()) {
        timerMutex.Destroy();
    }
}

std::uint64_t CCTask::t_InsertTimerEvent() {
    const std::shared_ptr<TSTask> record = m;
    const std::uint64_t now = CCTime::Tick();
    record->nextDue = TSTask::kNothingDue;
    {
        const CCAutoLock lock(&record->timerMutex);
        std::unique_lock list(m_lock);
        long index = 0;
        for (bool more = record->timers.SetPosition(IPosition::POS_HEAD, 0); more;
             more = record->timers.SetPosition(IPosition::POS_HEAD, ++index)) {
            auto* timer = static_cast<TSTimer*>(record->timers.Data());
            std::uint64_t due = timer->last + timer->interval;
            if (now >= due) {
                const bool post = !timer->queued;
                timer->queued = true;
                timer->last = now;
                due = now + timer->interval;
                if (post) {
                    // Whoever posts it may set a timer, here or on another thread.
                    CCHandler* handler = timer->handler;
                    list.unlock();
                    t_SendTimerEvent(handler, timer);
                    list.lock();
                }
            }
            record->nextDue = std::min(record->nextDue, due);
        }
    }
    const std::uint64_t next = std::min(kLongestWait, record->nextDue);
    const std::uint64_t later = CCTime::Tick();
    return next > later ? next - later : 0;
}

void CCTask::t_SendTimerEvent(CCHandler* handler, void* timer) {
    CSEvent event;
    event.receiver = handler;
    event.isTimer = true;
    event.param.l[1] = static_cast<long>(static_cast<const TSTimer*>(timer)->serial);
    event.param.p = timer;
    static_cast<void>(Send(&event, false));  // a full queue loses the event
}

void CCTask::t_HandleTimerEvent(const CSEvent* event) {
    unsigned long id = 0;
    {
        const std::lock_guard list(m_lock);
        TSTimer* timer = m->FindTimer([event](const TSTimer& queued) {
            return &queued == event->param.p &&
                   queued.serial == static_cast<std::uint32_t>(event->param.l[1]);
        });
        if (timer == nullptr) {
            return;  // killed by another thread after its event was taken from the queue
        }
        timer->queued = false;
        id = static_cast<unsigned long>(timer->id);
    }
    event->receiver->t_OnTimer(id);
}

bool CCTask::t_SetTimer(CCHandler* handler, unsigned long id, unsigned long ms) {
    const std::shared_ptr<TSTask> record = m_Record();
    if (!AssertAtsc3(record != nullptr, "m", kSource, 589) ||
        !AssertAtsc3(handler != nullptr, "handler", kSource, 590) ||
        !AssertAtsc3(ms > 0, "ms > 0", kSource, 591)) {
        return false;
    }
    {
        const std::lock_guard list(m_lock);
        if (TSTimer* timer = record->FindTimer(handler, id)) {
            timer->interval = ms;
            timer->last = CCTime::Tick();
        } else {
            timer = new (std::nothrow) TSTimer{handler, id, ms, CCTime::Tick(), false, record->nextSerial++};
            // False for an empty list, whose first element needs no place.
            static_cast<void>(record->timers.SetPosition(IPosition::POS_TAIL, 0));
            if (timer == nullptr || !record->timers.Add(timer, CCList::ADD_AFTER)) {
                delete timer;
                return false;
            }
        }
    }
    platform_alarm_ring(record->alarm.get());
    return true;
}

bool CCTask::t_KillTimer(CCHandler* handler, unsigned long id) {
    const std::shared_ptr<TSTask> record = m_Record();
    if (!AssertAtsc3(record != nullptr, "m", kSource, 631) ||
        !AssertAtsc3(handler != nullptr, "handler", kSource, 632)) {
        return false;
    }
    const CCAutoLock lock(&record->timerMutex);
    const std::lock_guard list(m_lock);
    TSTimer* timer = record->FindTimer(handler, id);
    if (timer == nullptr) {
        return false;
    }
    const TimerEvents queued{handler, timer};
    if (m == record) {
        t_RemoveIf(&IsEventOfTimer, &queued);
    }
    static_cast<void>(record->timers.Remove());  // FindTimer has made it the current one
    delete timer;
    return true;
}
