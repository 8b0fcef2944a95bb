#include <algorithm>
#include <cstring>

#include "Logging.h"
#include "Record.h"
#include "TaskRecord.h"
#include "base/exception_wall.h"

namespace {

constexpr const char* kSource = "core/src/Task";
constexpr std::uint32_t kNoTimeout = 4294967295U;
constexpr std::uint64_t kMsPerSecond = 1000;
constexpr std::uint64_t kNsPerMs = 1000000;

}  // namespace

bool CCTask::Create(const char* name, unsigned long stackSize) {
    if (!AssertAtsc3(!FlagCreate(), "!m", kSource, 261) ||
        !AssertAtsc3(name != nullptr, "name != NULL", kSource, 262)) {
        return false;
    }
    std::shared_ptr<TSTask> record = MakeRecord<TSTask>();
    if (record == nullptr || record->alarm == nullptr) {
        return false;
    }
    std::copy_n(name, strnlen(name, TSTask::kNameLength), record->name.begin());
    {
        const std::lock_guard lock(m_lock);
        m = record;
    }
    if (m_Build(name, stackSize)) {
        return true;
    }
    const std::lock_guard lock(m_lock);
    m.reset();
    return false;
}

bool CCTask::m_Build(const char* name, unsigned long stackSize) {
    if (!_CHECK(CCFixedRingQueue::Create(sizeof(CSEvent), kQueueSlots, true, false),
                "CCFixedRingQueue::Create(sizeof(CSEvent), 256, true, false)", kSource, 268)) {
        return false;
    }
    if (_CHECK(m->handler.Create(this, m.get()), "m->handler.Create(this, m)", kSource, 269) &&
        _CHECK(m->timerMutex.Create(), "m->timerMutex.Create()", kSource, 292) &&
        _CHECK(CCThread::Create(name, stackSize), "CCThread::Create(name, stackSize)", kSource, 293)) {
        return true;
    }
    if (m->handler.FlagCreate()) {
        m->handler.Destroy();
    }
    CCFixedRingQueue::Destroy();
    return false;
}

void CCTask::Destroy() {
    const std::shared_ptr<TSTask> record = m_Record();
    if (!AssertAtsc3(record != nullptr, "m", kSource, 323)) {
        return;
    }
    CCThread::Destroy();
    // A task that destroys itself does not wait for its thread: the loop ends behind the current event.
    record->exit = true;
    record->handler.Destroy();
    const std::lock_guard lock(m_lock);
    CCFixedRingQueue::Destroy();
    m.reset();
}

std::shared_ptr<CCTask::TSTask> CCTask::m_Record() const {
    const std::lock_guard lock(m_lock);
    return m;
}

void CCTask::ThreadBody() {
    // Held to the end: where a task destroys itself, `m` goes before the loop does.
    const std::shared_ptr<TSTask> record = m;
    unsigned long self = SelfId();
    m_loopThread = self;
    t_Main();
    m_DropEvents(record.get());
    // Unless it stands for a new life already, which the handler that ended this one began.
    m_loopThread.compare_exchange_strong(self, 0);
}

void CCTask::t_Main() {
    const std::shared_ptr<TSTask> record = m;
    if (!t_OnStart()) {
        return;
    }
    while (!record->exit) {
        record->tookEvent = false;
        const auto wait = static_cast<std::uint32_t>(t_InsertTimerEvent());
        if (!t_ExecuteEvent(wait)) {
            break;
        }
        if (!record->tookEvent && !record->exit) {
            m_Pause(record.get());
        }
    }
    t_OnStop();
}

void CCTask::m_Pause(TSTask* record) {
    const platform_time_t due{static_cast<std::int64_t>(record->nextDue / kMsPerSecond),
                              static_cast<std::int64_t>(record->nextDue % kMsPerSecond * kNsPerMs)};
    platform_alarm_wait_until(record->alarm.get(), record->nextDue == TSTask::kNothingDue ? nullptr : &due);
}

bool CCTask::t_ExecuteEvent(unsigned long timeout) {
    const std::shared_ptr<TSTask> record = m;
    CSEvent event;
    // Beyond the range of an int Get takes the negative number for the same wait.
    if (!Get(&event, static_cast<int>(timeout))) {
        if (timeout == kNoTimeout) {
            t_OnIdle();
        }
        return true;
    }
    record->tookEvent = true;
    if (!event.receiver->FlagCreate()) {
        return true;
    }
    base::CatchAll(
        [&] {
            if (event.isTimer) {
                t_HandleTimerEvent(&event);
            } else {
                event.receiver->t_OnEvent(&event);
            }
        },
        [&](const char* why) { _PRINT(LOG_TYPE_E, "%s: handler failed: %s", record->name.data(), why); });
    if (event.sem != nullptr) {
        event.sem->Give();
    }
    return true;
}

bool CCTask::t_OnStart() {
    return true;
}
void CCTask::t_OnIdle() {}
void CCTask::t_OnStop() {}
bool CCTask::OnExit(const CSEvent* /*event*/) {
    return true;
}

unsigned long CCTask::Id() const {
    return AssertAtsc3(FlagCreate(), "m", kSource, 405) ? CCThread::Id() : 0;
}

const char* CCTask::Name() const {
    const std::shared_ptr<TSTask> record = m_Record();
    return AssertAtsc3(record != nullptr, "m", kSource, 397) ? record->name.data() : nullptr;
}
