#pragma once
#include <optional>
#include <string>
#include <variant>

#include "spool.h"

namespace collector {

/// Where reports are sent, and how. An empty text is an option that was not given.
struct UploadOptions {
    std::string url;  ///< empty: nowhere
    std::string authorities;
    std::string certificate;
    std::string key;
    std::string proxy;
    std::string timeoutSeconds;
};

/// What the command line and the configuration file say.
struct Options {
    std::string spool;  ///< a path of this machine
    Limits limits;
    unsigned settleSeconds = 0;  ///< how long the key stays empty before what lies there is looked at
    UploadOptions upload;
    bool isStatus = false;  ///< print what is in the spool, and end
    bool isJson = false;
};

/// The options, or the exit status when there is nothing left to do; then all has been said.
[[nodiscard]] std::variant<Options, int> ReadOptions(int argc, const char* const* argv);

}  // namespace collector
