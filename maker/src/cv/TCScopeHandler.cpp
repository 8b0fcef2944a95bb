#include "cv/TCScopeHandler.h"

#include <exception>
#include <mutex>
#include <utility>

#include "BoundedRing.h"
#include "MakerLog.h"
#include "TSFileSystem.h"
#include "TrapFile.h"
#include "cv/TCTrapPattern.h"
#include "device_paths.h"

namespace cv {

using Conditions = std::vector<TSTrapCondition>;

class TCScopeHandler::Impl {
public:
    Impl() : events(MAX_EVENTS) {}

    BoundedRing<TSEvent> events;
    std::mutex mutex;  // guards the conditions
    std::shared_ptr<const Conditions> conditions = std::make_shared<Conditions>();
};

std::atomic<TCScopeHandler::EState> TCScopeHandler::s_state{EState::UNKNOWN};

TCScopeHandler::TCScopeHandler() : m_impl(std::make_unique<Impl>()) {
    Reload();
}
TCScopeHandler::~TCScopeHandler() = default;

TCScopeHandler& TCScopeHandler::Instance() {
    static auto* instance = new TCScopeHandler;
    return *instance;
}

bool TCScopeHandler::Resolve() noexcept {
    try {
        Instance();
    } catch (const std::exception& error) {
        s_state.store(EState::INACTIVE, std::memory_order_relaxed);
        MAKER_ERROR("no tracing: %s", error.what());
    }
    return s_state.load(std::memory_order_relaxed) == EState::ACTIVE;
}

bool TCScopeHandler::SetActive(bool active) noexcept {
    try {
        if (active) {
            // Whatever recording needs later is made now, so that traced code meets no failure.
            TCTrapPattern::Instance();
            m_impl->events.Allocate();
        }
    } catch (const std::exception& error) {
        MAKER_ERROR("no tracing: %s", error.what());
        s_state.store(EState::INACTIVE, std::memory_order_relaxed);
        return false;
    }
    s_state.store(active ? EState::ACTIVE : EState::INACTIVE, std::memory_order_relaxed);
    return true;
}

int TCScopeHandler::Reload() noexcept {
    int count = -1;
    try {
        auto loaded = std::make_shared<Conditions>();
        count = LoadTraps(*loaded);
        std::shared_ptr<const Conditions> conditions = std::move(loaded);
        // The old conditions are freed behind the lock.
        const std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->conditions.swap(conditions);
    } catch (const std::exception& error) {
        MAKER_ERROR("no trap conditions: %s", error.what());
        count = -1;
    }
    SetActive(count > 0 || TSFileSystem::Exists(ZOL_PATH_DEBUG_MARKER));
    return count;
}

std::shared_ptr<const TSTrapCondition> TCScopeHandler::ConditionsOf(
    const TSSourceLocation& location) const noexcept {
    std::shared_ptr<const Conditions> conditions;
    {
        const std::lock_guard<std::mutex> lock(m_impl->mutex);
        conditions = m_impl->conditions;
    }
    for (const TSTrapCondition& condition : *conditions) {
        if (condition.Matches(location)) {
            return {conditions, &condition};
        }
    }
    return nullptr;
}

void TCScopeHandler::Record(const TSEvent& event) noexcept {
    m_impl->events.Push(event);
}

std::vector<TSEvent> TCScopeHandler::Events(std::uint64_t* end) const {
    return m_impl->events.Items(end);
}

void TCScopeHandler::DiscardBefore(std::uint64_t end) noexcept {
    m_impl->events.DiscardBefore(end);
}

void TCScopeHandler::Clear() noexcept {
    m_impl->events.Clear();
}

std::uint64_t TCScopeHandler::Overwritten() const noexcept {
    return m_impl->events.Lost();
}

}  // namespace cv
