#include "Logging.h"
#include "OwnedSemaphore.h"
#include "TaskRecord.h"

namespace {

constexpr const char* kSource = "core/src/Task";

bool IsForHandler(const void* element, const void* handler) {
    return static_cast<const CSEvent*>(element)->receiver == handler;
}

}  // namespace

bool CCTask::Send(CSEvent* event, bool sync) {
    if (!AssertAtsc3(event != nullptr, "event != NULL", kSource, 364) ||
        !AssertAtsc3(event->receiver != nullptr, "event->receiver != NULL", kSource, 365)) {
        return false;
    }
    CCTask* task = event->receiver->m_task.load(std::memory_order_acquire);
    if (task == nullptr) {
        return false;
    }
    if (!sync) {
        return task->m_Post(*event, false);
    }
    if (task->m_loopThread == SelfId()) {
        event->receiver->t_OnEvent(event);
        return true;
    }
    CCOwnedSemaphore handled;
    if (!handled.Create(0)) {
        return false;
    }
    event->sem = &handled;
    const bool added = task->m_Post(*event, true);
    if (added) {
        handled.Take();
    }
    event->sem = nullptr;
    return added;
}

bool CCTask::m_Post(const CSEvent& event, bool sync) {
    const std::lock_guard lock(m_lock);
    if (m == nullptr || (sync && m->ended) || event.receiver->m_task != this || !Add(&event)) {
        return false;
    }
    platform_alarm_ring(m->alarm.get());
    return true;
}

void CCTask::m_Unbind(CCHandler* handler) {
    const std::lock_guard lock(m_lock);
    handler->m_task = nullptr;
    if (m != nullptr) {
        t_RemoveIf(&IsForHandler, handler);
    }
}
