#include <fcntl.h>
#include <glib.h>
#include <json/value.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/glib_handles.h"
#include "commands.h"
#include "destination.h"
#include "hand_over.h"
#include "output.h"
#include "progress.h"
#include "report.h"
#include "report_root.h"
#include "text.h"

namespace zolctl {
namespace {

using reports::Outcome;
using reports::Problem;
using reports::Report;
using reports::ReportRoot;
using reports::Taken;
using tools::OneLine;

constexpr unsigned kWaitSeconds = 2;
constexpr unsigned kMaxWaitSeconds = 3600;
constexpr unsigned kMsPerSecond = 1000;
constexpr std::int64_t kUsPerSecond = 1000000;

/// Says what came in the way; the exit status for it.
int Fail(const Outcome& outcome) {
    std::cerr << "zolctl: " << outcome.text << '\n';
    return outcome.problem == Problem::Missing || outcome.problem == Problem::Refused ? EXIT_REFUSED
                                                                                      : EXIT_UNREACHABLE;
}

Outcome Read(const ReportRoot& root, const std::string& name, Report& report) {
    base::UniqueFd folder;
    Outcome outcome = root.OpenReport(name, folder);
    return outcome ? outcome : Describe(folder.Get(), name, report);
}

/// All reports, oldest first.
Outcome ReadAll(std::vector<Report>& reports) {
    ReportRoot root;
    if (Outcome outcome = root.Open()) {
        return outcome.problem == Problem::Missing ? Outcome() : outcome;
    }
    std::vector<std::string> names;
    if (Outcome outcome = root.List(names)) {
        return outcome;
    }
    for (const std::string& name : names) {
        Report report;
        if (const Outcome outcome = Read(root, name, report); !outcome) {
            reports.push_back(std::move(report));
        } else if (!root.IsGone(name)) {
            std::cerr << "zolctl: " << outcome.text << '\n';
        }
    }
    std::sort(reports.begin(), reports.end(), [](const Report& one, const Report& other) {
        return std::make_pair(one.Time(), one.name) < std::make_pair(other.Time(), other.name);
    });
    return {};
}

Json::Value ToJson(const Report& report) {
    Json::Value one;
    one["path"] = reports::PathOf(report.name);
    one["time"] = tools::UtcTime(report.Time());
    one["bytes"] = Json::UInt64(report.bytes);
    one["header"] = Json::Value();
    if (report.header) {
        one["header"] = Json::Value(Json::objectValue);
        for (const auto& [member, text] : *report.header) {
            one["header"][member] = text;
        }
    }
    return one;
}

std::string Field(const Report& report, const std::string& member) {
    const std::string* text = report.Field(member);
    return text != nullptr ? OneLine(*text) : "-";
}

int List(bool json) {
    std::vector<Report> reports;
    if (const Outcome outcome = ReadAll(reports)) {
        return Fail(outcome);
    }
    std::string published;
    const bool isKnown = reports::ReadPublished(published);
    const int error = errno;
    Json::Value list(Json::arrayValue);
    for (const Report& report : reports) {
        const std::string path = reports::PathOf(report.name);
        const char* const state = !isKnown ? "unknown" : path == published ? "published" : "lying";
        if (json) {
            list.append(ToJson(report))["state"] = state;
        } else {
            std::cout << tools::UtcTime(report.Time()) << '\t' << Field(report, "id") << '\t'
                      << Field(report, "lcid") << '\t' << report.bytes << '\t' << state << '\t'
                      << OneLine(path) << '\n';
        }
    }
    if (json) {
        PrintJson(list);
    }
    return isKnown ? EXIT_OK : Fail({Problem::NoStore, reports::StoreError(error)});
}

int Show(const std::string& path, bool json) {
    ReportRoot root;
    Report report;
    std::string name;
    Outcome outcome =
        reports::NameOf(path.find('/') == std::string::npos ? reports::PathOf(path) : path, name);
    if (!outcome) {
        outcome = root.Open();
    }
    if (!outcome) {
        outcome = Read(root, name, report);
    }
    if (outcome) {
        return Fail(outcome);
    }
    if (json) {
        Json::Value shown = ToJson(report);
        shown["files"] = Json::Value(Json::arrayValue);
        for (const reports::File& file : report.files) {
            Json::Value& one = shown["files"].append(Json::Value());
            one["name"] = file.name;
            one["bytes"] = Json::UInt64(file.bytes);
        }
        PrintJson(shown);
        return EXIT_OK;
    }
    for (const auto& [member, text] : report.header.value_or(reports::Header())) {
        std::cout << OneLine(member) << '\t' << OneLine(text) << '\n';
    }
    for (const reports::File& file : report.files) {
        std::cout << "file\t" << file.bytes << '\t' << OneLine(file.name) << '\n';
    }
    return EXIT_OK;
}

/// Takes reports into a folder and tells which.
class Taker {
public:
    explicit Taker(bool json) : m_json(json) {}

    Outcome Open(const std::string& folder) { return m_destination.Open(folder); }

    Outcome TakePublished(const std::string& path) {
        return reports::TakePublished(
            path, [this](const ReportRoot& root, const std::string& name) { return Take(root, name); });
    }
    Outcome Take(const ReportRoot& root, const std::string& name) {
        Taken taken;
        Outcome outcome = m_destination.Take(root, name, taken);
        if (!outcome) {
            m_names.insert(name);
            Tell(name, taken);
        }
        return outcome;
    }
    /// A report that was copied still lies where the daemon made it.
    bool HasTaken(const std::string& name) const { return m_names.count(name) > 0; }
    /// What was taken, as JSON.
    const Json::Value& List() const { return m_list; }
    std::size_t Count() const { return m_names.size(); }
    /// How far it is; cleared when a report is told of.
    tools::ProgressLine& Progress() { return m_progress; }

private:
    void Tell(const std::string& name, const Taken& taken) {
        m_progress.Clear();
        if (!m_json) {
            std::cout << OneLine(taken.path) << (taken.isNew ? "" : "\tknown") << '\n';
            return;
        }
        Json::Value one;
        one["path"] = reports::PathOf(name);
        one["taken"] = taken.path;
        one["new"] = taken.isNew;
        one["moved"] = taken.isMoved;
        m_list.append(one);
    }

    const bool m_json;
    reports::Destination m_destination;
    std::set<std::string> m_names;
    Json::Value m_list = Json::Value(Json::arrayValue);
    tools::ProgressLine m_progress;
};

int TakeOne(const std::string& folder, bool json) {
    Taker taker(json);
    std::string path;
    if (!reports::ReadPublished(path)) {
        return Fail({Problem::NoStore, reports::StoreError(errno)});
    }
    if (path.empty()) {
        return Fail({Problem::Missing, "no report is published"});
    }
    Outcome outcome = taker.Open(folder);
    if (!outcome) {
        outcome = taker.TakePublished(path);
    }
    if (json && !taker.List().empty()) {
        PrintJson(taker.List()[0]);
    }
    return outcome ? Fail(outcome) : EXIT_OK;
}

/// Waits until the key may have been set to a path.
class NextPath {
public:
    explicit NextPath(unsigned seconds) : m_seconds(seconds) {}

    /// False with errno when the key cannot be watched.
    [[nodiscard]] bool Watch() {
        m_watch = reports::WatchKey(
            [](keynode_t* /*node*/, void* loop) { g_main_loop_quit(static_cast<GMainLoop*>(loop)); },
            m_loop.get());
        return static_cast<bool>(m_watch);
    }
    /// The path; empty when none came in time. False with errno when the key cannot be read.
    [[nodiscard]] bool Await(std::string& path) {
        const std::int64_t end = g_get_monotonic_time() + std::int64_t{m_seconds} * kUsPerSecond;
        while (reports::ReadPublished(path)) {
            if (!path.empty() || g_get_monotonic_time() >= end) {
                return true;
            }
            const base::GSourcePtr timer = base::StartTimer(nullptr, m_seconds * kMsPerSecond,
                                                            [this] { g_main_loop_quit(m_loop.get()); });
            g_main_loop_run(m_loop.get());
        }
        return false;
    }

private:
    const unsigned m_seconds;
    const base::GMainLoopPtr m_loop{g_main_loop_new(nullptr, FALSE)};
    base::Subscription m_watch;  // last, and so withdrawn before the loop goes
};

/// Reports that nobody was told of, or will be any more: nothing is in line when the key stays empty.
int TakeLying(Taker& taker) {
    ReportRoot root;
    std::vector<std::string> names;
    Outcome outcome = root.Open();
    if (outcome.problem == Problem::Missing) {
        return EXIT_OK;
    }
    if (!outcome) {
        outcome = root.List(names);
    }
    int status = outcome ? Fail(outcome) : EXIT_OK;
    names.erase(std::remove_if(names.begin(), names.end(),
                               [&](const std::string& name) { return taker.HasTaken(name); }),
                names.end());
    std::size_t looked = 0;
    for (const std::string& name : names) {
        taker.Progress().Show(tools::Bar(looked++, names.size()) + " reports that lie there");
        Report report;
        outcome = Read(root, name, report);
        if (!outcome && report.header && reports::IsSettled(report)) {
            outcome = taker.Take(root, name);
        }
        taker.Progress().Clear();
        if (outcome && !root.IsGone(name)) {
            status = std::max(status, Fail(outcome));
        }
    }
    return status;
}

/// As NextPath has it, and says so meanwhile.
bool Await(NextPath& next, std::string& path, Taker& taker) {
    taker.Progress().Show(std::to_string(taker.Count()) + " taken, waiting for the next to be published");
    const bool isKept = next.Await(path);
    const int error = errno;
    taker.Progress().Clear();
    errno = error;
    return isKept;
}

int CollectAll(Taker& taker, unsigned waitSeconds) {
    NextPath next(waitSeconds);
    std::string path;
    bool isKept = next.Watch();
    int status = EXIT_OK;
    while (isKept && (isKept = Await(next, path, taker)) && !path.empty()) {
        const Outcome outcome = taker.TakePublished(path);
        if (outcome) {
            status = std::max(status, Fail(outcome));
        }
        if (status == EXIT_UNREACHABLE) {
            return status;  // the key still holds that path
        }
    }
    if (!isKept) {
        return Fail({Problem::NoStore, reports::StoreError(errno)});
    }
    return std::max(status, TakeLying(taker));
}

int Collect(const std::string& folder, unsigned waitSeconds, bool json) {
    Taker taker(json);
    const Outcome outcome = taker.Open(folder);
    const int status = outcome ? Fail(outcome) : CollectAll(taker, waitSeconds);
    if (json) {
        PrintJson(taker.List());
    }
    return status;
}

/// What was asked for, kept until the command runs.
struct Arguments {
    std::string path = ".";
    bool json = false;
    unsigned waitSeconds = kWaitSeconds;
};

using Body = int (*)(const Arguments& arguments);

/// What --help says of a command.
struct Help {
    const char* text;
    const char* example;
};

std::shared_ptr<Arguments> AddCommand(CLI::App& parent, Action& action, const std::string& name,
                                      const Help& help, Body body) {
    auto arguments = std::make_shared<Arguments>();
    CLI::App* command = parent.add_subcommand(name, help.text);
    command->footer(std::string("Example: ") + help.example);
    command->add_flag("--json", arguments->json, "As JSON");
    command->callback([=, &action] { action = [=] { return body(*arguments); }; });
    return arguments;
}

}  // namespace

void AddReportCommand(CLI::App& app, Action& action) {
    CLI::App* report = app.add_subcommand("report", "Reports that the daemon made, and collecting them");
    report->require_subcommand(1);
    report->footer(
        "Statuses: 0 done; 1 there is no such report, or it is refused; 2 the key store, a report or DIR "
        "cannot be used.\n"
        "Examples:\n"
        "  zolctl report list\n"
        "  zolctl report take /var/tmp            # the published one; then the daemon publishes the next\n"
        "  zolctl report collect /var/tmp --json  # all that wait, and those that nobody was told of");
    AddCommand(*report, action, "list",
               {"Print time, id, life cycle, bytes, state and path, oldest first", "zolctl report list"},
               [](const Arguments& given) { return List(given.json); });
    auto shown = AddCommand(*report, action, "show",
                            {"Print the header and the files of one report",
                             "zolctl report show \"$(zolctl vconf get db/zol/send_zol_files_path)\""},
                            [](const Arguments& given) { return Show(given.path, given.json); });
    report->get_subcommand("show")->add_option("PATH", shown->path, "Its path or its name")->required();
    auto taken = AddCommand(*report, action, "take",
                            {"Take the published report and empty the key", "zolctl report take /var/tmp"},
                            [](const Arguments& given) { return TakeOne(given.path, given.json); });
    report->get_subcommand("take")->add_option("DIR", taken->path, "Where to; without: the current folder");
    auto all =
        AddCommand(*report, action, "collect",
                   {"Take all reports: published, in line, and those left lying",
                    "zolctl report collect /var/tmp --wait 5"},
                   [](const Arguments& given) { return Collect(given.path, given.waitSeconds, given.json); });
    CLI::App* collect = report->get_subcommand("collect");
    collect->add_option("DIR", all->path, "Where to")->required();
    collect->add_option("--wait", all->waitSeconds, "Seconds for the daemon to publish the next")
        ->check(CLI::Range(kMaxWaitSeconds))
        ->capture_default_str();
}

}  // namespace zolctl
