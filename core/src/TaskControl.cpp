#include <memory>
#include <new>

#include "Logging.h"
#include "OwnedSemaphore.h"
#include "TaskRecord.h"

namespace {

constexpr const char* kSource = "core/src/Task";
constexpr std::uint64_t kFullQueueRetryUs = 1000;

/// The semaphores of one ping: the task gives the first, the caller the second when it has stopped waiting.
struct PingPair {
    CCOwnedSemaphore answered;
    CCOwnedSemaphore left;
};

/// Answers a ping and releases it.
void AnswerPing(const CSEvent& event) {
    const std::unique_ptr<PingPair> pair(static_cast<PingPair*>(event.param.p));
    pair->answered.Give();
    pair->left.Take();
}

}  // namespace

bool CCTask::TSTask::CInternalHandler::Create(CCTask* task, TSTask* record) {
    const bool isFree = AssertAtsc3(m == nullptr, "!m", kSource, 85);
    if (isFree) {
        m_owner = task;
        m = record;
    }
    return isFree && CCHandler::Create(task);
}

void CCTask::TSTask::CInternalHandler::Destroy() {
    if (AssertAtsc3(m != nullptr, "m", kSource, 93)) {
        const std::lock_guard lock(m_owner->m_lock);
        m_task = nullptr;  // in one step with the rest: a ping queued behind it would never be answered
        m_owner->m_DropEvents(m);
        m = nullptr;
    }
}

bool CCTask::TSTask::CInternalHandler::t_OnEvent(const CSEvent* event) {
    switch (event->type) {
        case EVENT_EXIT:
            m_owner->m_HandleExit(event);
            return true;
        case EVENT_PING:
            AnswerPing(*event);
            return true;
        default:
            return false;
    }
}

void CCTask::m_DropEvents(TSTask* record) {
    const std::lock_guard lock(m_lock);
    record->ended = true;
    CSEvent event;
    // Where a task has destroyed itself the queue is gone already, or that of its next life.
    while (m.get() == record && Get(&event, 0)) {
        if (event.receiver == &record->handler && event.type == TSTask::CInternalHandler::EVENT_PING) {
            AnswerPing(event);
        }
        if (event.sem != nullptr) {
            event.sem->Give();
        }
    }
}

bool CCTask::ExitLoop() {
    const std::shared_ptr<TSTask> record = m_Record();
    if (!AssertAtsc3(record != nullptr, "m", kSource, 576)) {
        return true;
    }
    CSEvent event;
    event.receiver = &record->handler;
    event.type = TSTask::CInternalHandler::EVENT_EXIT;
    // A full queue empties as the loop goes on: were the event given up, Destroy would wait for ever.
    while (!Send(&event, true) && m_Loops(*record)) {
        platform_sleep_us(kFullQueueRetryUs);
    }
    return true;
}

bool CCTask::m_Loops(const TSTask& record) const {
    const std::lock_guard lock(m_lock);
    return m != nullptr && !record.ended;
}

void CCTask::m_HandleExit(const CSEvent* event) {
    const std::shared_ptr<TSTask> record = m;
    record->exit = true;  // first: what a callback or OnExit throws must not keep the loop going
    TFCallback before = nullptr;
    TFCallback after = nullptr;
    const void* data = nullptr;
    // Cannot fail: the task exists and the type is right.
    static_cast<void>(GetEventCallback(CALLBACK_EXIT, &before, &after, &data));
    if (before != nullptr && !before(event, data)) {
        _PRINT(LOG_TYPE_E, "Before callback for CALLBACK_EXIT failed");
    }
    if (!OnExit(event)) {
        _PRINT(LOG_TYPE_E, "CCTask::OnExit failed");
    }
    if (after != nullptr && !after(event, data)) {
        _PRINT(LOG_TYPE_E, "After callback for CALLBACK_EXIT failed");
    }
}

bool CCTask::Ping(CCTask* task, unsigned long ms) {
    return AssertAtsc3(task != nullptr, "task", kSource, 531) && task->Ping(ms);
}

bool CCTask::Ping(unsigned long ms) {
    const std::shared_ptr<TSTask> record = m_Record();
    if (!AssertAtsc3(record != nullptr, "m", kSource, 539)) {
        return false;
    }
    std::unique_ptr<PingPair> pair(new (std::nothrow) PingPair);
    if (pair == nullptr || !pair->answered.Create(0) || !pair->left.Create(0)) {
        return false;
    }
    CSEvent event;
    event.receiver = &record->handler;
    event.type = TSTask::CInternalHandler::EVENT_PING;
    event.param.p = pair.get();
    if (!Send(&event, false)) {
        return false;
    }
    // The task owns the pair now and releases it once it has got `left`.
    PingPair* const sent = pair.release();
    const bool answered = sent->answered.Try(ms);
    sent->left.Give();
    return answered;
}

bool CCTask::SetEventCallback(ECallbackType type, TFCallback before, TFCallback after, const void* data) {
    if (!AssertAtsc3(FlagCreate(), "m", kSource, 439) || type != CALLBACK_EXIT) {
        return false;
    }
    const std::lock_guard lock(m_lock);
    m->before = before;
    m->after = after;
    m->data = data;
    return true;
}

bool CCTask::GetEventCallback(ECallbackType type, TFCallback* before, TFCallback* after,
                              const void** data) const {
    if (!AssertAtsc3(FlagCreate(), "m", kSource, 484) || type != CALLBACK_EXIT) {
        return false;
    }
    const std::lock_guard lock(m_lock);
    if (before != nullptr) {
        *before = m->before;
    }
    if (after != nullptr) {
        *after = m->after;
    }
    if (data != nullptr) {
        *data = m->data;
    }
    return true;
}
