#pragma once
#include <optional>

namespace zol_daemon {

constexpr int kExitUsage = 2;           ///< arguments that the daemon does not know
constexpr int kExitAlreadyRunning = 3;  ///< another daemon runs on this device root

/// Answers the arguments: `--help` and `--version` on standard output, anything else with the usage on
/// standard error. @return the exit status; none when there are no arguments and the daemon is to run
[[nodiscard]] std::optional<int> AnswerArguments(int count, const char* const* arguments);

}  // namespace zol_daemon
