#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "KPILogFramework.h"
#include "PolicyCheck.h"
#include "base/process.h"
#include "commands.h"
#include "device_path.h"
#include "device_paths.h"
#include "document.h"
#include "findings.h"
#include "hand_over.h"
#include "output.h"
#include "platform_clock.h"
#include "policy_daemon.h"
#include "text.h"
#include "vconf.h"

namespace zolctl {
namespace {

using tools::Printable;

/// Below that a policy of some size, or a report, does not fit any more.
constexpr std::uint64_t kFreeBytes = std::uint64_t{16} * 1024 * 1024;
constexpr unsigned kSystemctlMs = 5000;
/// A clock before this moment (2026-01-01) was not set since the machine started.
constexpr std::int64_t kEarliest = 1767225600;

/// Looks at one thing after another and tells of each in a line.
class Doctor {
public:
    explicit Doctor(bool isJson) : m_isJson(isJson) {}

    int Run() {
        LookAtDaemon();
        LookAtUnits();
        LookAtStore();
        LookAtPolicy();
        LookAtEvents();
        LookAtDisk("state", ZOL_PATH_STATE_DIR);
        LookAtDisk("reports", "/tmp");
        LookAtClock();
        if (m_isJson) {
            PrintJson(m_list);
        }
        return m_isSound ? EXIT_OK : EXIT_REFUSED;
    }

private:
    /// @param advice what to do; empty: nothing is wrong
    void Tell(const char* name, const std::string& text, const std::string& advice = "") {
        m_isSound = m_isSound && advice.empty();
        if (!m_isJson) {
            std::cout << (advice.empty() ? "ok" : "wrong") << '\t' << name << '\t' << Printable(text)
                      << (advice.empty() ? "" : "; " + advice) << '\n';
            return;
        }
        Json::Value one;
        one["name"] = name;
        one["ok"] = advice.empty();
        one["text"] = text;
        one["advice"] = advice;
        m_list.append(one);
    }

    void LookAtDaemon() {
        PolicyDaemon daemon;
        Json::Value state;
        if (daemon.Properties(state) != PolicyDaemon::EEnd::ANSWERED) {
            const bool isDenied = daemon.LastError().find("AccessDenied") != std::string::npos;
            Tell("daemon", daemon.LastError(),
                 isDenied ? "call as root or as a member of the group zol"
                          : "is the bus there, and does zol_daemon run? systemctl status dbus zol");
            return;
        }
        Tell("daemon", "answers, version " + state["Version"].asString());
        std::string missing;
        for (const Json::Value& service : state["MissingServices"]) {
            missing += (missing.empty() ? "" : ", ") + service.asString();
        }
        if (missing.empty()) {
            Tell("services", "all that it uses are there");
        } else {
            Tell("services", missing + " missing", "rules that need them wait until they are there");
        }
    }

    /// Only where there is such a service manager.
    void LookAtUnits() {
        if (access("/run/systemd/system", F_OK) != 0 || DevicePath("/") != "/") {
            return;
        }
        // Where one is missing something else serves; the collector runs only where somebody wants it.
        constexpr const char* kUnits[][2] = {
            {"zol.service", "cat"}, {"zol-vconf.socket", "cat"}, {"zol-collector.service", "is-enabled"}};
        for (const auto& [unit, verb] : kUnits) {
            if (!Systemctl(verb, unit)) {
                continue;
            }
            const bool isActive = Systemctl("is-active", unit);
            Tell(unit, isActive ? "is active" : "is not active",
                 isActive ? "" : std::string("systemctl enable --now ") + unit);
        }
    }

    static bool Systemctl(const char* verb, const char* unit) {
        base::Command command;
        command.words = {"systemctl", verb, unit};
        command.isQuiet = true;
        command.timeoutMs = kSystemctlMs;
        const base::ProcessEnd end = RunProcess(command);
        return !end.error && end.status == 0;
    }

    /// Starts none: that would belong to whoever looks.
    void LookAtStore() {
        std::string path;
        if (vconf_is_served() == 0) {
            Tell("keys", "no key store is served",
                 "systemctl enable --now zol-vconf.socket, or start the daemon, which serves one");
        } else if (reports::ReadPublished(path)) {
            Tell("keys", path.empty() ? "the key store answers, no report is published"
                                      : "the key store answers, published: " + path);
        } else {
            Tell("keys", reports::StoreError(errno),
                 "call as root or as a member of the group zol, or see the log");
        }
    }

    void LookAtPolicy() {
        const std::string file = DevicePath(ZOL_PATH_POLICY);
        if (access(file.c_str(), F_OK) != 0) {
            Tell("policy", "none is stored");
            return;
        }
        std::string text;
        if (const Unreadable why = ReadRegularDocument(file, text); !why.empty()) {
            Tell("policy", why, geteuid() != 0 ? "call as root" : "push it again");
            return;
        }
        const bool isSound = !HasErrors(zol::CheckPolicy(text));
        Tell("policy", isSound ? "the stored one is sound" : "the stored one has errors",
             isSound ? "" : "zolctl policy check " + file);
    }

    void LookAtEvents() {
        std::vector<KPILogFramework::TSKpiEvent> events;
        auto& logger = KPILogFramework::CLogger::GetInstance();
        if (!logger.ListEvents(events)) {
            Tell("events", "the event log cannot be read", geteuid() != 0 ? "call as root" : "see the log");
            return;
        }
        Tell("events", std::to_string(events.size()) + " in the log, " +
                           std::to_string(std::max<std::int64_t>(0, logger.DroppedEvents())) + " dropped");
    }

    void LookAtDisk(const char* name, const char* folder) {
        struct statvfs disk {};
        if (statvfs(DevicePath(folder).c_str(), &disk) != 0) {
            Tell(name, std::string(folder) + ": " + std::strerror(errno), "systemd-tmpfiles --create");
            return;
        }
        const std::uint64_t free = std::uint64_t{disk.f_bavail} * disk.f_frsize;
        constexpr std::uint64_t kMiB = std::uint64_t{1024} * 1024;
        Tell(name, std::string(folder) + " has " + std::to_string(free / kMiB) + " MiB free",
             free < kFreeBytes ? "make room, or policies and reports are lost" : "");
    }

    void LookAtClock() {
        platform_time_t now{};
        const bool isSet = platform_clock_realtime(&now) == 0 && now.seconds >= kEarliest;
        Tell("clock", "it is " + tools::UtcTime(now.seconds),
             isSet ? "" : "set it: policies expire and reports are named by it");
    }

    const bool m_isJson;
    bool m_isSound = true;
    Json::Value m_list = Json::Value(Json::arrayValue);
};

}  // namespace

void AddDoctorCommand(CLI::App& app, Action& action) {
    CLI::App* doctor = app.add_subcommand(
        "doctor",
        "Look whether all is as it should be; 0 it is, 1 something is wrong: what to do stands behind it");
    doctor->footer(
        "Lines: ok or wrong, what was looked at, what is the case, with tabs in between.\n"
        "Root sees everything.\n\nExample: sudo zolctl doctor");
    auto isJson = std::make_shared<bool>(false);
    doctor->add_flag("--json", *isJson, "As a JSON array");
    doctor->callback([=, &action] { action = [=] { return Doctor(*isJson).Run(); }; });
}

}  // namespace zolctl
