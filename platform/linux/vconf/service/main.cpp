/// zol_vconfd: the one process that opens the files of the key store.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>

#include "base/folders.h"
#include "device_path.h"
#include "device_paths.h"
#include "guarded.h"
#include "platform_clock.h"
#include "platform_log.h"
#include "supervisor.h"
#include "vconf/service/access.h"
#include "vconf/service/key_database.h"
#include "vconf/service/options.h"
#include "vconf/service/server.h"
#include "vconf/service_socket.h"
#include "vconf/store_paths.h"

namespace {

using base::UniqueFd;
using keystore::KeyDatabase;
using keystore::Options;

constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
constexpr std::uint64_t kLockPauseUs = 5000;
constexpr int kBacklog = 128;

/// Makes a folder of the store for this account alone, or finds it so. Its path without links; empty, with a
/// line, when there is none that can be used.
std::string OwnFolder(const std::string& devicePath) {
    const std::string path = DevicePath(devicePath);
    const std::size_t slash = path.rfind('/');
    const base::OpenedFolder parent =
        base::OpenFolder(DevicePath("/"), path.substr(0, slash), base::Make::All);
    struct stat above {};
    struct stat status {};
    UniqueFd folder;
    if (!parent.error) {
        const char* const name = path.c_str() + slash + 1;
        const bool made = mkdirat(parent.fd.Get(), name, 0700) == 0;
        folder.Reset(openat(parent.fd.Get(), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
        if (made && folder) {
            static_cast<void>(
                base::SyncFolder(parent.path));  // without it a power cut takes the keys away, too
        }
    }
    if (!folder || fstat(parent.fd.Get(), &above) != 0 || fstat(folder.Get(), &status) != 0) {
        PLATFORM_LOG(
            ERROR, "key store folder %s cannot be used: %s", devicePath.c_str(),
            parent.error ? (parent.refused + " " + parent.error.message()).c_str() : std::strerror(errno));
        return "";
    }
    const bool canBeMoved = (above.st_mode & kOthersWrite) != 0 && (above.st_mode & S_ISVTX) == 0;
    if (status.st_uid != geteuid() || (status.st_mode & kOthersWrite) != 0 || canBeMoved) {
        PLATFORM_LOG(
            ERROR,
            "key store folder %s is refused, other accounts can write to it or to the one above: remove it, "
            "or give both to account %u alone (chown, chmod go-w)",
            devicePath.c_str(), static_cast<unsigned>(geteuid()));
        return "";
    }
    return parent.path + path.substr(slash);
}

UniqueFd NewSocket() {
    return UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

/// True when another service listens already.
bool IsServed(const base::OpenedFolder& runFolder) {
    const UniqueFd probe = NewSocket();
    const sockaddr_un address = keystore::AddressIn(runFolder);
    return connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
           errno == EAGAIN;
}

/// Owns nothing when it could not listen.
UniqueFd Listen(const base::OpenedFolder& runFolder, std::optional<gid_t> group) {
    unlinkat(runFolder.fd.Get(), keystore::kSocketName, 0);
    UniqueFd listener = NewSocket();
    const sockaddr_un address = keystore::AddressIn(runFolder);
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return UniqueFd();
    }
    // Without the group, or the right to give it, the socket stays this account's.
    if (group &&
        fchownat(runFolder.fd.Get(), keystore::kSocketName, static_cast<uid_t>(-1), *group, 0) == 0 &&
        fchmodat(runFolder.fd.Get(), keystore::kSocketName, 0660, 0) != 0) {
        return UniqueFd();
    }
    return listen(listener.Get(), kBacklog) == 0 ? std::move(listener) : UniqueFd();
}

/// The lock that the one owner of the store's files holds for as long as it lives.
enum class Turn { Ours, Others, Failed };

Turn AwaitTurn(const UniqueFd& lock, const base::OpenedFolder& runFolder, bool isActivated) {
    const std::uint64_t end = platform_clock_steady_ns() + std::uint64_t{keystore::kPatienceMs} * 1000000U;
    while (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        // The one that holds it may be ending, or not listening yet.
        if (!isActivated && IsServed(runFolder)) {
            return Turn::Others;
        }
        if ((errno != EWOULDBLOCK && errno != EINTR && errno != ECONNREFUSED && errno != ENOENT) ||
            platform_clock_steady_ns() >= end) {
            PLATFORM_LOG(ERROR, "key store: its lock cannot be had: %s", std::strerror(errno));
            return Turn::Failed;
        }
        platform_sleep_us(kLockPauseUs);
    }
    return Turn::Ours;
}

/// The caller's process ends here.
bool GoOnInBackground(const UniqueFd& listener) {
    const pid_t child = fork();
    if (child != 0) {
        _exit(child > 0 ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    // Clients see the process that was the last to listen.
    return setsid() > 0 && listen(listener.Get(), kBacklog) == 0 && chdir("/") == 0 &&
           dup2(null, STDIN_FILENO) >= 0 && dup2(null, STDOUT_FILENO) >= 0 && dup2(null, STDERR_FILENO) >= 0;
}

void BeginCleanly(const Options& options) {
    umask(S_IRWXG | S_IRWXO);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (options.isDetached) {
        closefrom(STDERR_FILENO + 1);
    }
}

int Serve(const Options& options) {
    const bool isActivated = platform::TakeHandedSockets() == 1;
    UniqueFd listener(isActivated ? platform::kFirstHandedSocket : -1);
    const std::string durable = OwnFolder(ZOL_PATH_VCONF_DIR);
    const std::string memory = OwnFolder(ZOL_PATH_VCONF_MEMORY_DIR);
    if (durable.empty() || memory.empty()) {
        return EXIT_FAILURE;
    }
    const base::OpenedFolder run =
        base::OpenFolder(DevicePath("/"), DevicePath(ZOL_PATH_RUN_DIR), base::Make::Nothing);
    const UniqueFd lock(
        open((durable + "/service.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    const Turn turn = AwaitTurn(lock, run, isActivated);
    if (turn != Turn::Ours) {
        return turn == Turn::Others ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    const std::optional<gid_t> group = keystore::StoreGroup();
    if (!isActivated) {
        listener = Listen(run, group);
    }
    if (!listener || fcntl(listener.Get(), F_SETFL, O_NONBLOCK) != 0 ||
        (options.isDetached && !GoOnInBackground(listener))) {
        PLATFORM_LOG(ERROR, "key store: its service cannot listen: %s", std::strerror(errno));
        return EXIT_FAILURE;
    }
    KeyDatabase durableKeys(durable, DevicePath(ZOL_PATH_OLD_VCONF_DIR), KeyDatabase::Durability::PowerCut);
    KeyDatabase memoryKeys(memory, DevicePath(ZOL_PATH_OLD_VCONF_MEMORY_DIR),
                           KeyDatabase::Durability::Process);
    keystore::Server server(std::move(listener), &durableKeys, &memoryKeys, group);
    const bool isIdle = server.Run(options.idleMs);
    if (!isIdle) {
        PLATFORM_LOG(ERROR, "key store: its service cannot wait for clients: %s", std::strerror(errno));
    }
    if (!isActivated) {
        // Before the lock goes: whoever has it next makes a socket of its own.
        unlinkat(run.fd.Get(), keystore::kSocketName, 0);
    }
    return isIdle ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    int status = EXIT_FAILURE;
    const std::optional<Options> options = keystore::ReadOptions(argc, argv, &status);
    if (!options) {
        return status;
    }
    BeginCleanly(*options);
    platform::Guarded("key store service", [&] { status = Serve(*options); });
    return status;
}
