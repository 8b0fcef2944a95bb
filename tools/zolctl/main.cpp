#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "PolicyNames.h"
#include "commands.h"
#include "text.h"

namespace {

/// The command that was entered as far as it is known.
const CLI::App& Deepest(const CLI::App& app) {
    const std::vector<CLI::App*> entered = app.get_subcommands();
    return entered.empty() ? app : Deepest(*entered.back());
}

/// " (did you mean list?)" for a word that is like a command or an option that may stand there; else empty.
std::string Hint(const CLI::App& app) {
    const CLI::App& command = Deepest(app);
    const std::vector<std::string> left = app.remaining(true);
    const auto unknown =
        std::find_if(left.begin(), left.end(), [](const std::string& word) { return word != "--"; });
    if (unknown == left.end()) {
        return "";
    }
    std::vector<std::string> names;
    for (const CLI::App* each : command.get_subcommands({})) {
        names.push_back(each->get_name());
    }
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    const std::string_view nearest = zol::NearestOf({names.begin(), names.end()}, *unknown);
    return nearest.empty() ? "" : " (did you mean " + std::string(nearest) + "?)";
}

int Run(int argc, char** argv) {
    CLI::App app{
        "Talks to the policy daemon: pushes policies, tells what runs, reads and watches keys, lists "
        "reported events, takes reports, shows the log."};
    app.require_subcommand(1);
    app.footer(
        "Examples:\n"
        "  zolctl policy check policy.xml && zolctl policy push policy.xml\n"
        "  zolctl status\n"
        "  zolctl policy push --help");
    app.set_version_flag("--version", "zolctl " ZOL_VERSION, "Print the version and exit");
    app.failure_message([&app](const CLI::App* /*failed*/, const CLI::Error& error) {
        return "zolctl: " + tools::OneLine(error.what()) + Hint(app) + " (see zolctl --help)\n";
    });
    zolctl::Action action;
    zolctl::AddStatusCommand(app, action);
    zolctl::AddPolicyCommand(app, action);
    zolctl::AddVconfCommand(app, action);
    zolctl::AddKpiCommand(app, action);
    zolctl::AddReportCommand(app, action);
    zolctl::AddLogCommand(app, action);
    zolctl::AddDoctorCommand(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? zolctl::EXIT_OK : zolctl::EXIT_UNREACHABLE;
    }
    return action();
}

}  // namespace

int main(int argc, char** argv) {
    // Who reads the output may go at any time: that is a failed write like any other.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const int status = Run(argc, argv);
        if (!std::cout.flush()) {
            std::cerr << "zolctl: cannot write the output\n";
            return zolctl::EXIT_UNREACHABLE;
        }
        return status;
    } catch (const std::exception& error) {
        std::cerr << "zolctl: " << tools::OneLine(error.what()) << '\n';
        return zolctl::EXIT_UNREACHABLE;
    }
}
