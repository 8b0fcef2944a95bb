#include "vconf/service/options.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "vconf/store_paths.h"

namespace keystore {
namespace {

constexpr int kExitUsage = 2;
constexpr int kLongestIdleMs = 24 * 60 * 60 * 1000;
constexpr const char* kUsage =
    "Usage: zol_vconfd [--detach] [--idle-ms N] | --help\n"
    "The key store's service. Serves until it is ended, or until nobody has been connected for a while.\n"
    "  --detach     returns when it listens, and goes on in the background\n"
    "  --idle-ms N  that while, in milliseconds from 1 to 86400000; 10000 without it\n"
    "Exit status: 0 ended in order, or another one serves already; 1 it cannot serve, the log says why; "
    "2 wrong usage.\n";

/// Whether the whole of `text` is a number that may be waited for.
bool ReadIdleTime(std::string_view text, int* out) {
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, *out);
    return error == std::errc() && stopped == end && *out >= 1 && *out <= kLongestIdleMs;
}

}  // namespace

std::optional<Options> ReadOptions(int argc, char** argv, int* status) {
    Options options;
    const char* wrong = nullptr;
    int at = 1;
    for (; at < argc; ++at) {
        const std::string_view word = argv[at];
        if (word == "--help") {
            std::fputs(kUsage, stdout);
            *status = EXIT_SUCCESS;
            return std::nullopt;
        }
        if (word == kDetachOption) {
            options.isDetached = true;
        } else if (word != "--idle-ms") {
            wrong = "unknown argument";
            break;
        } else if (at + 1 == argc) {
            wrong = "a number is missing after";
            break;
        } else if (!ReadIdleTime(argv[++at], &options.idleMs)) {
            wrong = "--idle-ms takes a number from 1 to 86400000, not";
            break;
        }
    }
    if (wrong == nullptr) {
        return options;
    }
    std::fprintf(stderr, "zol_vconfd: %s '%s' (see --help)\n", wrong, argv[at]);
    *status = kExitUsage;
    return std::nullopt;
}

}  // namespace keystore
