#include "Handler.h"

#include "Logging.h"
#include "Task.h"

namespace {
constexpr const char* kSource = "core/src/Handler";
}  // namespace

CCHandler::~CCHandler() {
    AssertAtsc3(!FlagCreate(), "FlagCreate() == false", "core/inc/Handler", 37);
}

bool CCHandler::Create(const CCTask* task) {
    if (!AssertAtsc3(!FlagCreate(), "FlagCreate() == false", kSource, 26) ||
        !AssertAtsc3(task != nullptr, "task != NULL", kSource, 27)) {
        return false;
    }
    m_task.store(const_cast<CCTask*>(task), std::memory_order_release);
    return true;
}

void CCHandler::Destroy() {
    // Read once, here and below: another thread may unbind the handler behind the check.
    CCTask* const task = m_task.load(std::memory_order_acquire);
    if (AssertAtsc3(task != nullptr, "FlagCreate() == true", kSource, 52)) {
        task->m_Unbind(this);
    }
}

CCTask* CCHandler::Task() const {
    CCTask* const task = m_task.load(std::memory_order_acquire);
    AssertAtsc3(task != nullptr, "FlagCreate() == true", kSource, 70);
    return task;
}

bool CCHandler::SetTimer(unsigned long id, unsigned long ms) {
    CCTask* const task = m_task.load(std::memory_order_acquire);
    return AssertAtsc3(task != nullptr, "FlagCreate() == true", kSource, 78) &&
           task->t_SetTimer(this, id, ms);
}

bool CCHandler::KillTimer(unsigned long id) {
    CCTask* const task = m_task.load(std::memory_order_acquire);
    return AssertAtsc3(task != nullptr, "FlagCreate() == true", kSource, 86) && task->t_KillTimer(this, id);
}

void CCHandler::t_OnTimer(unsigned long /*id*/) {}
