#include "WorkerTask.h"

#include <array>
#include <cstdio>

#include "Handler.h"
#include "Logging.h"
#include "Task.h"

namespace {

/// Bytes of stack that every worker asks for.
constexpr unsigned long kStackSize = 8192;

}  // namespace

bool StartWorkerTask(CCTask& task, CCHandler& handler, const char* name, const char* source, int line) {
    std::array<char, 64> check{};
    std::snprintf(check.data(), check.size(), "CCTask::Create(\"%s\")", name);
    if (!_CHECK(task.Create(name, kStackSize), check.data(), source, line)) {
        return false;
    }
    if (!_CHECK(handler.Create(&task), "CCHandler::Create(this)", source, line + 1)) {
        task.ExitLoop();
        task.CCTask::Destroy();
        return false;
    }
    return true;
}

// Qualified, because a worker's own Destroy may mean something else.
void EndWorkerTask(CCTask& task, CCHandler& handler) {
    if (!task.FlagCreate()) {
        return;
    }
    handler.CCHandler::Destroy();
    task.ExitLoop();
    task.CCTask::Destroy();
}
