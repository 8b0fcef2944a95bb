#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "base/glib_handles.h"
#include "commands.h"
#include "hand_over.h"
#include "loop.h"
#include "output.h"
#include "policy_daemon.h"
#include "state.h"
#include "text.h"
#include "vconf.h"

namespace zolctl {
namespace {

using tools::Printable;

constexpr int kLookMs = 1000;  // also how long it may take: nothing interrupts it meanwhile

/// The path that waits for the collector; none when no key store is there to ask, which is not started for
/// it.
std::optional<std::string> Published() {
    std::string path;
    const bool isRead = vconf_is_served() != 0 && reports::ReadPublished(path);
    return isRead ? std::optional<std::string>(path) : std::nullopt;
}

Json::Value ToJson(const Json::Value& properties) {
    Json::Value status = PolicyOf(properties);
    status["version"] = properties["Version"];
    status["policy_version"] = properties["PolicyVersion"];
    status["paths_waiting"] = properties["PathsWaiting"];
    const std::optional<std::string> published = Published();
    status["published"] = published ? Json::Value(*published) : Json::Value();
    status["last_hit"] = Json::Value();
    if (const Json::Value& hit = properties["LastHit"]; hit[0].asInt64() != 0) {
        status["last_hit"]["time"] = tools::UtcTime(hit[0].asInt64());
        status["last_hit"]["rule"] = hit[1];
        status["last_hit"]["value"] = hit[2];
        status["last_hit"]["report"] = hit[3];
    }
    status["missing_services"] = properties["MissingServices"];
    return status;
}

void PrintText(std::ostream& out, const Json::Value& properties) {
    out << "daemon\t" << Printable(properties["Version"].asString()) << '\n';
    PrintPolicy(out, properties);
    const std::optional<std::string> published = Published();
    out << "reports\t"
        << (!published           ? "the key store is missing"
            : published->empty() ? "none published"
                                 : Printable(*published) + " published")
        << ", " << properties["PathsWaiting"].asString() << " in line\n";
    out << "hit\t";
    if (const Json::Value& hit = properties["LastHit"]; hit[0].asInt64() != 0) {
        out << tools::LocalTime(hit[0].asInt64()) << ' ' << Printable(hit[1].asString());
        if (!hit[2].asString().empty()) {
            out << " = " << Printable(hit[2].asString());
        }
        out << ", " << Printable(hit[3].asString()) << '\n';
    } else {
        out << "none since the daemon started\n";
    }
    out << "missing\t";
    std::string names;
    for (const Json::Value& service : properties["MissingServices"]) {
        names += (names.empty() ? "" : ", ") + Printable(service.asString());
    }
    out << (names.empty() ? "no service" : names) << '\n';
}

int Status(bool isJson) {
    PolicyDaemon daemon;
    Json::Value properties;
    if (const auto end = daemon.Properties(properties); end != PolicyDaemon::EEnd::ANSWERED) {
        return daemon.Fail(end);
    }
    if (isJson) {
        PrintJson(ToJson(properties));
    } else {
        PrintText(std::cout, properties);
    }
    return EXIT_OK;
}

/// Keeps the status on the screen; through a pipe, prints it when it has changed.
class Watcher {
public:
    Watcher() : m_isTerminal(isatty(STDOUT_FILENO) == 1) {}

    int Run() {
        Look();
        m_loop.Run();
        return EXIT_OK;
    }

private:
    void Look() {
        Json::Value properties;
        std::ostringstream text;
        if (m_daemon.Properties(properties, kLookMs) == PolicyDaemon::EEnd::ANSWERED) {
            PrintText(text, properties);
        } else {
            text << "daemon\tnot reachable\n";
        }
        if (text.str() != m_shown) {
            m_shown = text.str();
            std::cout << (m_isTerminal ? "\x1b[H\x1b[J" : "") << m_shown << (m_isTerminal ? "" : "\n")
                      << std::flush;
        }
        m_timer = base::StartTimer(nullptr, kLookMs, [this] { Look(); });
        if (!std::cout) {
            m_loop.Quit();
        }
    }

    const bool m_isTerminal;
    Loop m_loop;
    PolicyDaemon m_daemon;
    std::string m_shown;
    base::GSourcePtr m_timer;
};

}  // namespace

void AddStatusCommand(CLI::App& app, Action& action) {
    CLI::App* status = app.add_subcommand(
        "status", "Print what runs, until when, and what waits; 2 when the daemon is not reachable");
    status->footer(
        "Lines NAME<TAB>TEXT: daemon, running, stored, rules, reports, hit, missing.\n\n"
        "Example: zolctl status --watch");
    auto isJson = std::make_shared<bool>(false);
    auto isWatch = std::make_shared<bool>(false);
    CLI::Option* json = status->add_flag("--json", *isJson, "As JSON");
    status
        ->add_flag("--watch", *isWatch,
                   "Look each second until interrupted; through a pipe: print it at every change")
        ->excludes(json);
    status->callback([=, &action] { action = [=] { return *isWatch ? Watcher().Run() : Status(*isJson); }; });
}

}  // namespace zolctl
