#pragma once
/// Running a program without a shell.
#include <string>
#include <vector>

namespace platform {

/// Runs a program found in $PATH and waits for it. Its standard input and output are empty.
/// @param folder     its working folder
/// @param timeoutMs  it is killed when it takes longer
/// @return true when it ended with status 0; else `failure` says what happened
bool RunCommand(const std::vector<std::string>& command, const std::string& folder, unsigned timeoutMs,
                std::string& failure);

}  // namespace platform
