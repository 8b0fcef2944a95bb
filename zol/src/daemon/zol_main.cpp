#include <cstdio>
#include <optional>

#include "CommandLine.h"
#include "InstanceLock.h"
#include "zol_daemon.h"

int main(int argc, char** argv) {
    if (const std::optional<int> status = zol_daemon::AnswerArguments(argc, argv)) {
        return *status;
    }
    // Before anything is touched: a second daemon would take the first one's reports and double its events.
    if (const std::optional<pid_t> other = zol_daemon::FindOtherInstance()) {
        std::fprintf(stderr, "zol_daemon: process %d is the daemon of this device already\n",
                     static_cast<int>(*other));
        return zol_daemon::kExitAlreadyRunning;
    }
    return zol_daemon::main();
}
