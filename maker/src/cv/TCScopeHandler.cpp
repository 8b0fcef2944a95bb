#include "cv/TCScopeHandler.h"

#include <mutex>
#include <utility>
#include <vector>

#include "MakerLog.h"
#include "TSFileSystem.h"
#include "TrapFile.h"
#include "base/exception_wall.h"
#include "device_paths.h"

namespace cv {

using Conditions = std::vector<TSTrapCondition>;

namespace {

std::mutex g_conditionsMutex;  // guards TheConditions()

std::shared_ptr<const Conditions>& TheConditions() {
    // Never freed: traced code may run while the process's statics go.
    static auto* conditions = new std::shared_ptr<const Conditions>(std::make_shared<Conditions>());
    return *conditions;
}

}  // namespace

std::atomic<TCScopeHandler::EState> TCScopeHandler::s_state{EState::UNKNOWN};

TCScopeHandler::TCScopeHandler() noexcept {
    Reload();
}

TCScopeHandler& TCScopeHandler::Instance() {
    static TCScopeHandler instance;
    return instance;
}

bool TCScopeHandler::Resolve() noexcept {
    Instance();
    return s_state.load(std::memory_order_relaxed) == EState::ACTIVE;
}

void TCScopeHandler::SetActive(bool active) noexcept {
    s_state.store(active ? EState::ACTIVE : EState::INACTIVE, std::memory_order_relaxed);
}

int TCScopeHandler::Reload() noexcept {
    int count = -1;
    const auto load = [&count] {
        auto loaded = std::make_shared<Conditions>();
        const int read = LoadTraps(*loaded);
        std::shared_ptr<const Conditions> conditions = std::move(loaded);
        // The old conditions are freed behind the lock.
        const std::lock_guard<std::mutex> lock(g_conditionsMutex);
        TheConditions().swap(conditions);
        count = read;
    };
    base::CatchAll(load, [](const char* why) { MAKER_ERROR("no trap conditions: %s", why); });
    SetActive(count > 0 || TSFileSystem::Exists(ZOL_PATH_DEBUG_MARKER));
    return count;
}

std::shared_ptr<const TSTrapCondition> TCScopeHandler::ConditionsOf(
    const TSSourceLocation& location) const noexcept {
    std::shared_ptr<const Conditions> conditions;
    {
        const std::lock_guard<std::mutex> lock(g_conditionsMutex);
        conditions = TheConditions();
    }
    for (const TSTrapCondition& condition : *conditions) {
        if (condition.Matches(location)) {
            return {conditions, &condition};
        }
    }
    return nullptr;
}

}  // namespace cv
