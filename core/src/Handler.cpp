#include "CCHandler.h"

#include "CCTask.h"
#include "Logging.h"

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
    if (AssertAtsc3(FlagCreate(), "FlagCreate() == true", kSource, 52)) {
        m_task.load()->m_Unbind(this);
    }
}

CCTask* CCHandler::Task() const {
    AssertAtsc3(FlagCreate(), "FlagCreate() == true", kSource, 70);
    return m_task.load(std::memory_order_acquire);
}

bool CCHandler::SetTimer(unsigned long id, unsigned long ms) {
    return AssertAtsc3(FlagCreate(), "FlagCreate() == true", kSource, 78) &&
           m_task.load()->t_SetTimer(this, id, ms);
}

bool CCHandler::KillTimer(unsigned long id) {
    return AssertAtsc3(FlagCreate(), "FlagCreate() == true", kSource, 86) &&
           m_task.load()->t_KillTimer(this, id);
}

void CCHandler::t_OnTimer(unsigned long /*id*/) {}
