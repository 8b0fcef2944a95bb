/// In place of log_command.cpp where the log is a device's own and there is no reader of it here.
#include <CLI/CLI.hpp>
#include <iostream>

#include "commands.h"

namespace zolctl {

void AddLogCommand(CLI::App& app, Action& action) {
    CLI::App* log = app.add_subcommand("log", "On this device dlogutil shows the platform log; 2");
    log->footer("Example: zolctl log --help");
    log->allow_extras();
    log->callback([&action] {
        action = [] {
            std::cerr << "zolctl: the platform log is this device's own: dlogutil shows it\n";
            return EXIT_UNREACHABLE;
        };
    });
}

}  // namespace zolctl
