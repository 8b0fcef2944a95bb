#include "supervisor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <optional>

#include "base/unique_fd.h"

namespace platform {

namespace {

constexpr int kMostSockets = 1024;

/// Of a variable; none when it is missing or no number.
std::optional<std::uint64_t> Number(const char* variable) {
    const char* const value = std::getenv(variable);
    const std::string_view text = value != nullptr ? value : "";
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    return isNumber ? std::optional(number) : std::nullopt;
}

bool IsThisProcess(std::uint64_t process) {
    return process == static_cast<std::uint64_t>(getpid());
}

}  // namespace

void TellSupervisor(std::string_view message) {
    const char* const value = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = value != nullptr ? value : "";
    sockaddr_un address{};
    if (path.empty() || (path[0] != '/' && path[0] != '@') || path.size() >= sizeof(address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (path[0] == '@') {
        address.sun_path[0] = '\0';  // a name in no folder
    }
    const base::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    static_cast<void>(sendto(socket.Get(), message.data(), message.size(), MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address), length));
}

std::uint64_t WatchdogIntervalUs() {
    const bool isForAnother =
        std::getenv("WATCHDOG_PID") != nullptr && !IsThisProcess(Number("WATCHDOG_PID").value_or(0));
    return isForAnother ? 0 : Number("WATCHDOG_USEC").value_or(0);
}

int TakeHandedSockets() {
    const bool isHanded = IsThisProcess(Number("LISTEN_PID").value_or(0));
    const int count =
        isHanded ? static_cast<int>(std::min<std::uint64_t>(Number("LISTEN_FDS").value_or(0), kMostSockets))
                 : 0;
    for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
        unsetenv(variable);
    }
    for (int fd = kFirstHandedSocket; fd < kFirstHandedSocket + count; ++fd) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    return count;
}

}  // namespace platform
