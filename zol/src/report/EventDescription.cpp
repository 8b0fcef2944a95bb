#include "EventDescription.h"

#include "ZOLKpiManager.h"

namespace zol {

EventDescription::EventDescription(const TCKpiManager& identifiers) {
    Add("tgid", identifiers.Get(KPI_TGID));
    Add("lcid", identifiers.Get(KPI_LCID));
    Add("evid", identifiers.Get(KPI_EVID));
}

void EventDescription::Add(const char* name, const std::string& value) {
    m_text.append(name).append("=").append(value).append(";");
}

}  // namespace zol
