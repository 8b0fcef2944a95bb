#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "commands.h"

namespace {

int Run(int argc, char** argv) {
    CLI::App app{
        "Talks to the policy daemon: pushes policies, reads and watches keys, lists reported events."};
    app.require_subcommand(1);
    zolctl::Action action;
    zolctl::AddPolicyCommand(app, action);
    zolctl::AddVconfCommand(app, action);
    zolctl::AddKpiCommand(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? zolctl::EXIT_OK : zolctl::EXIT_UNREACHABLE;
    }
    return action();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "zolctl: " << error.what() << '\n';
        return zolctl::EXIT_UNREACHABLE;
    }
}
