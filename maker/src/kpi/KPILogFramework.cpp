#include "KPILogFramework.h"

#include <cstdlib>

#include "EventStore.h"
#include "MakerLog.h"
#include "base/exception_wall.h"

namespace KPILogFramework {
namespace {

/// Of an exception: there may be no memory.
void Report(const char* why) {
    MAKER_ERROR("KPI log: %s", why);
}

}  // namespace

CLogger::CLogger() : m_store(std::make_unique<Store>()) {}
CLogger::~CLogger() = default;

CLogger& CLogger::GetInstance() {
    static auto* instance = new CLogger;
    return *instance;
}

int CLogger::AddEventLogSync(const std::string& type, const std::string& category, const std::string& eventId,
                             const std::string& description) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const bool isQueued = base::CatchAll(
        [&] {
            m_store->Enqueue(type, category, eventId, description);
            return true;
        },
        Report);
    const int result = isQueued ? m_store->StoreWaiting() : RESULT_WRITE_FAILED;
    if (m_store->Waiting() > 0) {
        static const int registered = std::atexit([] { GetInstance().StoreAtEnd(); });
        static_cast<void>(registered);  // without it the events wait for the next one only
    }
    return result;
}

void CLogger::StoreAtEnd() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_store->Waiting() > 0 && m_store->StoreWaiting() != RESULT_SUCCESS) {
        MAKER_ERROR("KPI log: %zu events that could not be stored are lost", m_store->Waiting());
    }
}

bool CLogger::ListEvents(std::vector<TSKpiEvent>& events, std::int64_t after) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return base::CatchAll([&] { return m_store->List(events, after); }, Report);
}

std::int64_t CLogger::DroppedEvents() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::int64_t dropped = -1;
    base::CatchAll([&] { dropped = m_store->Dropped(); }, Report);
    return dropped;
}

}  // namespace KPILogFramework
