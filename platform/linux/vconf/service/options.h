#pragma once
#include <optional>

namespace keystore {

struct Options {
    bool isDetached = false;
    int idleMs = 10000;
};

/// What the command line asks for. Empty when the process is to end with `status`: after --help, which is
/// printed, or wrong arguments, of which one line on the standard error says what is wrong with them.
[[nodiscard]] std::optional<Options> ReadOptions(int argc, char** argv, int* status);

}  // namespace keystore
