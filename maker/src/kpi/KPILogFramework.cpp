#include "KPILogFramework.h"

#include "MakerLog.h"
#include "Store.h"
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
    int result = RESULT_WRITE_FAILED;
    base::CatchAll([&] { result = m_store->Add(type, category, eventId, description); }, Report);
    return result;
}

bool CLogger::ListEvents(std::vector<TSKpiEvent>& events) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return base::CatchAll([&] { return m_store->List(events); }, Report);
}

std::int64_t CLogger::DroppedEvents() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::int64_t dropped = -1;
    base::CatchAll([&] { dropped = m_store->Dropped(); }, Report);
    return dropped;
}

}  // namespace KPILogFramework
