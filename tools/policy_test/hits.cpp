#include "hits.h"

#include <json/json.h>

#include <deque>
#include <mutex>
#include <utility>

#include "KPILogFramework.h"
#include "fakes.h"

namespace policytest {
namespace {

struct Recorded {
    std::mutex mutex;
    std::vector<Hit> hits;
};

/// Never destroyed: tasks may report until the process ends.
Recorded& The() {
    static auto* const recorded = new Recorded;
    return *recorded;
}

/// Events that a task has sent and whose hits it has not told yet: it does both on one thread, in one order.
std::deque<std::string>& EventsOfThisThread() {
    thread_local std::deque<std::string> events;
    return events;
}

std::map<std::string, std::string> ReadHeader(const std::string& report) {
    Json::Value header;
    std::string errors;
    const std::string text = fakes::ReadDeviceFile(report + "/header.json");
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::map<std::string, std::string> entries;
    if (!reader->parse(text.data(), text.data() + text.size(), &header, &errors) || !header.isObject()) {
        return entries;
    }
    for (const std::string& name : header.getMemberNames()) {
        entries[name] = header[name].asString();
    }
    return entries;
}

}  // namespace

void KeepHit(const zol::TSPolicyHit& hit) {
    Hit whole{hit, {}, ReadHeader(hit.report)};
    std::deque<std::string>& events = EventsOfThisThread();
    if (!events.empty()) {
        whole.kpi = std::move(events.front());
        events.pop_front();
    }
    const std::lock_guard<std::mutex> lock(The().mutex);
    The().hits.push_back(std::move(whole));
}

std::vector<Hit> TakeHits() {
    const std::lock_guard<std::mutex> lock(The().mutex);
    return std::exchange(The().hits, {});
}

}  // namespace policytest

/// The KPI event log of the maker, in the place of the library's: it stands for the service that events go
/// to.
namespace KPILogFramework {

class CLogger::Store {};

CLogger::CLogger() = default;
CLogger::~CLogger() = default;

CLogger& CLogger::GetInstance() {
    static auto* const logger = new CLogger;
    return *logger;
}

int CLogger::AddEventLogSync(const std::string& /*type*/, const std::string& /*category*/,
                             const std::string& /*eventId*/, const std::string& description) {
    policytest::EventsOfThisThread().push_back(description);
    return RESULT_SUCCESS;
}

}  // namespace KPILogFramework
