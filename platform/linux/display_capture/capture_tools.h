#pragma once
/// The programs that capture the screen, and the steps they are run in.
#include <string>
#include <vector>

#include "display_capture.h"

namespace platform {

/// One program to run: its name and arguments, as they are, without a shell.
using Command = std::vector<std::string>;

/// One way to capture: the commands in order. The last one writes the finished picture.
struct CaptureWay {
    std::string tool;  ///< what log lines call it
    std::vector<Command> commands;
};

/// The ways that this machine offers now (display in the environment, programs in $PATH), best first.
/// @param raw     name of a file for the unscaled picture, in the working folder of the commands
/// @param picture name of the file that the last command writes, in the same folder
std::vector<CaptureWay> CaptureWays(const dc_capture_request& request, const std::string& raw,
                                    const std::string& picture);

/// Captures into the file of a valid request.
/// @param toolTimeoutMs what each program may take; then it is killed and the next way is tried
bool Capture(const dc_capture_request& request, unsigned toolTimeoutMs);

/// Whether a display is in the environment.
bool HasDisplay();

}  // namespace platform
