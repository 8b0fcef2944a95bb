#include "CommandLine.h"

#include <cstdio>
#include <string_view>

namespace zol_daemon {
namespace {

constexpr const char* kUsage =
    "Usage: zol_daemon [--help | --version]\n"
    "Without arguments: the policy daemon, in the foreground, until SIGTERM, SIGINT or SIGHUP.\n"
    "Exit status: 0 ended in order, 2 wrong usage, 3 a daemon runs on this device already.\n";

}  // namespace

std::optional<int> AnswerArguments(int count, const char* const* arguments) {
    if (count <= 1) {
        return std::nullopt;
    }
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

}  // namespace zol_daemon
