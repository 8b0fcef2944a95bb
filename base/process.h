#pragma once
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace base {

/// A program to run. Without a shell, unless that is the program.
struct Command {
    std::vector<std::string> words;     ///< the program, found in $PATH, and its arguments
    std::string folder;                 ///< where it runs; empty: where the caller does
    int inherited = -1;                 ///< a descriptor that it has under the same number, -1 for none
    bool isQuiet = false;               ///< reads nothing and writes nothing to the standard output
    std::optional<unsigned> timeoutMs;  ///< it is killed after that time; none: it may take for ever
};

/// How a program ended.
struct ProcessEnd {
    /// It could not be started or waited for, or its time was over (timed_out).
    std::error_code error;
    /// As of waitpid, when there is no error.
    int status = -1;
};

/// Runs a program and waits for its end. Any thread. The child has the caller's environment and signal mask;
/// no descriptor but the standard ones and `inherited`, as far as all others are close-on-exec.
[[nodiscard]] ProcessEnd RunProcess(const Command& command);

}  // namespace base
