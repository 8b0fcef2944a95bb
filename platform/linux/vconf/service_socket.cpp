#include "vconf/service_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "base/process.h"
#include "device_path.h"
#include "device_paths.h"
#include "platform_clock.h"
#include "platform_log.h"
#include "platform_services/service_mark.h"
#include "vconf/store_paths.h"

namespace keystore {
namespace {

constexpr std::uint64_t kPauseNs = 1000000000;

/// The service's program: beside the one that runs here (a build), else where it is installed.
std::string ServiceProgram() {
    std::array<char, 4096> path;
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length > 0) {
        std::string program(path.data(), static_cast<std::size_t>(length));
        program.replace(program.rfind('/') + 1, std::string::npos, kServiceName);
        if (access(program.c_str(), X_OK) == 0) {
            return program;
        }
    }
    return std::string(ZOL_PROGRAM_DIR) + "/" + kServiceName;
}

bool Connect(base::UniqueFd* out) {
    const base::OpenedFolder run =
        base::OpenFolder(DevicePath("/"), DevicePath(ZOL_PATH_RUN_DIR), base::Make::Nothing);
    if (run.error) {
        errno = run.error.value();
        return false;
    }
    out->Reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const timeval patience{kPatienceMs / 1000, 0};
    for (const int direction : {SO_SNDTIMEO, SO_RCVTIMEO}) {
        if (setsockopt(out->Get(), SOL_SOCKET, direction, &patience, sizeof(patience)) != 0) {
            return false;
        }
    }
    const sockaddr_un address = AddressIn(run);
    return connect(out->Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

/// Nobody starts a service for a store of somebody else's.
bool IsOurs() {
    struct stat folder {};
    errno = 0;
    return stat(DevicePath(ZOL_PATH_VCONF_DIR).c_str(), &folder) == 0 ? folder.st_uid == geteuid()
                                                                      : errno == ENOENT;
}

/// What the kernel says of the sockets at a path.
struct Sockets {
    bool areHeard = false;      ///< one listens
    bool areConnected = false;  ///< a client's other end
};

Sockets SocketsAt(const std::string& path) {
    Sockets found;
    std::ifstream table("/proc/net/unix");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string skipped;
        std::string flags;
        std::string state;
        std::string name;
        words >> skipped >> skipped >> skipped >> flags >> skipped >> state >> skipped >> std::ws;
        std::getline(words, name);
        if (name == path) {
            found.areHeard = found.areHeard || flags == "00010000";  // SO_ACCEPTCON
            found.areConnected = found.areConnected || state == "03";
        }
    }
    return found;
}

/// True when one listens, whoever has started it; else `reason` says why not.
bool StartService(std::string* reason) {
    static std::mutex mutex;
    static std::uint64_t notBefore = 0;
    const std::lock_guard<std::mutex> lock(mutex);
    if (platform_clock_steady_ns() < notBefore) {
        return false;
    }
    base::Command command;
    command.words = {ServiceProgram(), kDetachOption};
    command.isQuiet = true;
    command.timeoutMs = kPatienceMs;
    const base::ProcessEnd end = base::RunProcess(command);
    // A caller that ignores SIGCHLD never learns how its children end.
    if (end.error ? end.error == std::errc::no_child_process : end.status == 0) {
        return true;
    }
    *reason = command.words[0] + (end.error ? ": " + end.error.message() : " refused");
    notBefore = platform_clock_steady_ns() + kPauseNs;
    return false;
}

}  // namespace

sockaddr_un AddressIn(const base::OpenedFolder& runFolder) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string path = runFolder.path + "/" + kSocketName;
    if (path.size() >= sizeof(address.sun_path)) {
        // Only then: a process that has changed its account may not look in there.
        path = "/proc/self/fd/" + std::to_string(runFolder.fd.Get()) + "/" + kSocketName;
    }
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

bool IsServed() {
    const base::OpenedFolder run =
        base::OpenFolder(DevicePath("/"), DevicePath(ZOL_PATH_RUN_DIR), base::Make::Nothing);
    const std::string path = run.error ? "" : AddressIn(run).sun_path;
    if (path.empty() || access(path.c_str(), R_OK | W_OK) != 0) {
        return false;
    }
    // Somebody else may hold the socket for a service that has yet to be started; a store of our own has none
    // but the service itself.
    const Sockets sockets = SocketsAt(path);
    return sockets.areConnected || (sockets.areHeard && IsOurs());
}

base::UniqueFd ConnectToService() {
    static std::atomic<bool> isFailing{false};
    // Never destroyed: other threads may ask until the process ends.
    static auto* const mark = new platform::ServiceMark("key store");
    base::UniqueFd fd;
    bool isConnected = Connect(&fd);
    std::string reason = std::strerror(errno);
    const int error = errno;
    if (!isConnected && (error == ENOENT || error == ECONNREFUSED) && IsOurs()) {
        isConnected = StartService(&reason) && Connect(&fd);
    }
    mark->Set(!isConnected);
    if (isConnected) {
        isFailing = false;
        return fd;
    }
    if (!isFailing.exchange(true)) {
        PLATFORM_LOG(ERROR, "key store: no service at %s/%s: %s", ZOL_PATH_RUN_DIR, kSocketName,
                     reason.c_str());
    }
    fd.Reset();
    errno = error;
    return fd;
}

}  // namespace keystore
