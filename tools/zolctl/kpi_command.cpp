#include <json/value.h>
#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "KPILogFramework.h"
#include "commands.h"
#include "output.h"
#include "text.h"

namespace zolctl {
namespace {

using tools::OneLine;
using tools::UtcTime;

void PrintText(const std::vector<KPILogFramework::TSKpiEvent>& events) {
    for (const auto& event : events) {
        std::cout << event.sequence << '\t' << UtcTime(event.timeSeconds) << '\t' << event.type << '\t'
                  << event.category << '\t' << event.eventId << '\t' << OneLine(event.description) << '\n';
    }
}

Json::Value ToJson(const std::vector<KPILogFramework::TSKpiEvent>& events) {
    Json::Value list(Json::arrayValue);
    for (const auto& event : events) {
        Json::Value one;
        one["sequence"] = Json::Int64(event.sequence);
        one["time"] = UtcTime(event.timeSeconds);
        one["type"] = event.type;
        one["category"] = event.category;
        one["event_id"] = event.eventId;
        one["description"] = event.description;
        list.append(one);
    }
    return list;
}

int List(bool json) {
    auto& logger = KPILogFramework::CLogger::GetInstance();
    std::vector<KPILogFramework::TSKpiEvent> events;
    if (!logger.ListEvents(events)) {
        std::cerr << "zolctl: the event log cannot be read\n";
        return EXIT_UNREACHABLE;
    }
    json ? PrintJson(ToJson(events)) : PrintText(events);
    if (const std::int64_t dropped = logger.DroppedEvents(); dropped > 0) {
        std::cerr << "zolctl: " << dropped << " older events were dropped\n";
    }
    return EXIT_OK;
}

}  // namespace

void AddKpiCommand(CLI::App& app, Action& action) {
    CLI::App* kpi = app.add_subcommand("kpi", "Events that the daemon reported");
    kpi->require_subcommand(1);
    CLI::App* list = kpi->add_subcommand("list", "Print the events sent, oldest first");
    auto json = std::make_shared<bool>(false);
    list->add_flag("--json", *json, "As a JSON array");
    list->callback([json, &action] { action = [json] { return List(*json); }; });
}

}  // namespace zolctl
