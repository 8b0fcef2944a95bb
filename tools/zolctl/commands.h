#pragma once
/// The commands of zolctl. Each adds itself to the command line and stores, when it was chosen, what is to be
/// done; main runs that once parsing is over.
#include <functional>

namespace CLI {
class App;
}

namespace zolctl {

/// Exit statuses of every command.
enum EExit {
    EXIT_OK = 0,
    EXIT_REFUSED = 1,     ///< refused, found wrong, or what was asked for is not there
    EXIT_UNREACHABLE = 2  ///< daemon, store or file not readable, bad usage, or no way to write the output
};

/// The chosen command; returns an exit status.
using Action = std::function<int()>;

void AddPolicyCommand(CLI::App& app, Action& action);
/// Below "policy".
void AddCheckCommand(CLI::App& policy, Action& action);
void AddTestCommand(CLI::App& policy, Action& action);
/// Below "policy", too: "show" and "explain".
void AddShowCommands(CLI::App& policy, Action& action);
void AddStatusCommand(CLI::App& app, Action& action);
void AddDoctorCommand(CLI::App& app, Action& action);
void AddVconfCommand(CLI::App& app, Action& action);
void AddKpiCommand(CLI::App& app, Action& action);
void AddLogCommand(CLI::App& app, Action& action);
void AddReportCommand(CLI::App& app, Action& action);

}  // namespace zolctl
