#pragma once
/// The KPI events that a test has sent.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KPILogFramework.h"

inline std::vector<std::string> SentKpiDescriptions() {
    std::vector<KPILogFramework::TSKpiEvent> events;
    EXPECT_TRUE(KPILogFramework::CLogger::GetInstance().ListEvents(events));
    std::vector<std::string> descriptions;
    descriptions.reserve(events.size());
    for (const KPILogFramework::TSKpiEvent& event : events) {
        descriptions.push_back(event.description);
    }
    return descriptions;
}
