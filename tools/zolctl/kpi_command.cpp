#include <glib.h>
#include <json/value.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KPILogFramework.h"
#include "base/glib_handles.h"
#include "commands.h"
#include "event_items.h"
#include "loop.h"
#include "moment.h"
#include "output.h"
#include "text.h"

namespace zolctl {
namespace {

using KPILogFramework::TSKpiEvent;
using tools::Printable;
using tools::UtcTime;

constexpr unsigned kLookMs = 1000;
constexpr std::size_t kMostEvents = KPILogFramework::CLogger::MAX_EVENTS;

struct KpiOptions {
    bool isJson = false;
    bool isFollow = false;
    std::size_t most = 0;  ///< 0: all
    std::string since;
};

void PrintText(const std::vector<TSKpiEvent>& events) {
    for (const TSKpiEvent& event : events) {
        std::cout << event.sequence << '\t' << UtcTime(event.timeSeconds) << '\t' << event.type << '\t'
                  << event.category << '\t' << event.eventId << '\t' << Printable(event.description) << '\n';
    }
}

Json::Value ToJson(const std::vector<TSKpiEvent>& events) {
    Json::Value list(Json::arrayValue);
    for (const TSKpiEvent& event : events) {
        Json::Value one;
        one["sequence"] = Json::Int64(event.sequence);
        one["time"] = UtcTime(event.timeSeconds);
        one["type"] = event.type;
        one["category"] = event.category;
        one["event_id"] = event.eventId;
        one["description"] = event.description;
        one["items"] = Json::Value(Json::objectValue);
        for (const auto& [name, value] : reports::ItemsOf(event.description)) {
            one["items"][name] = value;
        }
        list.append(one);
    }
    return list;
}

/// Those after a sequence number. False when the log cannot be read.
bool Read(std::vector<TSKpiEvent>& events, std::int64_t after) {
    const bool isRead = KPILogFramework::CLogger::GetInstance().ListEvents(events, after);
    if (!isRead) {
        std::cerr << "zolctl: the event log cannot be read\n";
    }
    return isRead;
}

/// Of the events that were read last, or of those before when there are none.
std::int64_t NewestOf(const std::vector<TSKpiEvent>& events, std::int64_t before) {
    return events.empty() ? before : events.back().sequence;
}

/// Leaves those of a moment and later.
void Keep(std::vector<TSKpiEvent>& events, std::int64_t since) {
    events.erase(std::remove_if(events.begin(), events.end(),
                                [=](const TSKpiEvent& event) { return event.timeSeconds < since; }),
                 events.end());
}

/// Prints what comes until interrupted, or until the output cannot be written or the log not be read.
int Follow(std::int64_t last, std::int64_t since) {
    Loop loop;
    base::GSourcePtr timer;
    int status = EXIT_OK;
    const std::function<void()> look = [&] {
        std::vector<TSKpiEvent> events;
        status = Read(events, last) ? EXIT_OK : EXIT_UNREACHABLE;
        last = NewestOf(events, last);
        Keep(events, since);
        PrintText(events);
        std::cout.flush();
        if (status != EXIT_OK || !std::cout) {
            loop.Quit();
        }
        timer = base::StartTimer(nullptr, kLookMs, look);
    };
    look();
    loop.Run();
    return status;
}

int List(const KpiOptions& options) {
    const std::optional<std::int64_t> since = SinceOf(options.since);
    std::vector<TSKpiEvent> events;
    if (!since || !Read(events, 0)) {
        return EXIT_UNREACHABLE;
    }
    const std::int64_t last = NewestOf(events, 0);
    Keep(events, *since);
    if (options.most != 0 && events.size() > options.most) {
        events.erase(events.begin(), events.end() - static_cast<std::ptrdiff_t>(options.most));
    }
    options.isJson ? PrintJson(ToJson(events)) : PrintText(events);
    if (const std::int64_t dropped = KPILogFramework::CLogger::GetInstance().DroppedEvents(); dropped > 0) {
        std::cerr << "zolctl: " << dropped << " older events were dropped\n";
    }
    return options.isFollow ? Follow(last, *since) : EXIT_OK;
}

}  // namespace

void AddKpiCommand(CLI::App& app, Action& action) {
    CLI::App* kpi = app.add_subcommand("kpi", "Events that the daemon reported");
    kpi->require_subcommand(1);
    kpi->footer("Example: zolctl kpi list -n 10");
    CLI::App* list = kpi->add_subcommand("list", "Print the events sent, oldest first");
    list->footer(
        "Lines: SEQUENCE, TIME, TYPE, CATEGORY, ID, DESCRIPTION with tabs in between.\n\n"
        "Example: zolctl kpi list --since 2h --follow");
    auto options = std::make_shared<KpiOptions>();
    CLI::Option* json =
        list->add_flag("--json", options->isJson, "As a JSON array, the description's items parsed");
    list->add_option("-n", options->most, "The newest so many only")
        ->check(CLI::Range(std::size_t{1}, kMostEvents));
    list->add_option("--since", options->since, "Of this time and later: " + std::string(kMomentForms));
    list->add_flag("-f,--follow", options->isFollow, "Go on with what comes until interrupted")
        ->excludes(json);
    list->callback([options, &action] { action = [options] { return List(*options); }; });
}

}  // namespace zolctl
