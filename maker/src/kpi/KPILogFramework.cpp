#include "KPILogFramework.h"

#include <exception>

#include "MakerLog.h"
#include "Store.h"

namespace KPILogFramework {
namespace {

/// Runs an operation on the store; an exception (there may be no memory) becomes `failed`.
template <class Result, class Operation>
Result Guarded(Result failed, Operation operation) {
    try {
        return operation();
    } catch (const std::exception& error) {
        MAKER_ERROR("KPI log: %s", error.what());
        return failed;
    }
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
    return Guarded(+RESULT_WRITE_FAILED, [&] { return m_store->Add(type, category, eventId, description); });
}

bool CLogger::ListEvents(std::vector<TSKpiEvent>& events) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return Guarded(false, [&] { return m_store->List(events); });
}

std::int64_t CLogger::DroppedEvents() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return Guarded(std::int64_t{-1}, [&] { return m_store->Dropped(); });
}

}  // namespace KPILogFramework
