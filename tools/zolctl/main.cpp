#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>

#include "commands.h"
#include "text.h"

namespace {

int Run(int argc, char** argv) {
    CLI::App app{
        "Talks to the policy daemon: pushes policies, tells what runs, reads and watches keys, lists "
        "reported "
        "events, takes reports."};
    app.require_subcommand(1);
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return "zolctl: " + tools::OneLine(error.what()) + " (see zolctl --help)\n";
    });
    zolctl::Action action;
    zolctl::AddStatusCommand(app, action);
    zolctl::AddPolicyCommand(app, action);
    zolctl::AddVconfCommand(app, action);
    zolctl::AddKpiCommand(app, action);
    zolctl::AddReportCommand(app, action);
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
