#include <cstdio>
#include <exception>
#include <optional>
#include <string_view>

#include "InstanceLock.h"
#include "zol_daemon.h"

namespace {

constexpr int kExitCannotStart = 1;     // no memory for the first step
constexpr int kExitUsage = 2;           // arguments that the daemon does not know
constexpr int kExitAlreadyRunning = 3;  // another daemon runs on this device root
constexpr const char* kUsage =
    "Usage: zol_daemon [--help | --version]\n"
    "Without arguments: the policy daemon, in the foreground, until SIGTERM, SIGINT or SIGHUP.\n"
    "Exit status: 0 ended in order, 1 cannot start, 2 wrong usage,\n"
    "3 a daemon runs on this device already.\n";

/// The exit status.
int AnswerArguments(int count, const char* const* arguments) {
    const std::string_view only = count == 2 ? arguments[1] : "";
    if (only == "--help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (only == "--version") {
        std::puts("zol_daemon " ZOL_VERSION);
        return 0;
    }
    std::fputs(kUsage, stderr);
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        return AnswerArguments(argc, argv);
    }
    // Before anything is touched: a second daemon would take the first one's reports and double its events.
    try {
        if (const std::optional<pid_t> other = zol_daemon::FindOtherInstance()) {
            std::fprintf(stderr, "zol_daemon: process %d is the daemon of this device already\n",
                         static_cast<int>(*other));
            return kExitAlreadyRunning;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "zol_daemon: cannot start: %s\n", error.what());
        return kExitCannotStart;
    }
    return zol_daemon::main();
}
