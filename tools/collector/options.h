#pragma once
#include <optional>
#include <string>
#include <variant>

#include "spool.h"

namespace collector {

/// What the command line and the configuration file say.
struct Options {
    std::string spool;  ///< a path of this machine
    Limits limits;
    unsigned settleSeconds = 0;  ///< how long the key stays empty before what lies there is looked at
    bool isStatus = false;       ///< print what is in the spool, and end
    bool isJson = false;
};

/// The options, or the exit status when there is nothing left to do; then all has been said.
[[nodiscard]] std::variant<Options, int> ReadOptions(int argc, const char* const* argv);

}  // namespace collector
