#include "InstanceLock.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "Log.h"
#include "TSFileSystem.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "device_paths.h"

namespace zol_daemon {
namespace {

constexpr const char* kLogModule = "zol_daemon";
constexpr mode_t kMode = 0600;

std::nullopt_t RunUnlocked(int error) {
    ZOL_LOG(LOG_ERROR, "Unable to lock %s: %s. A second daemon would not be noticed", ZOL_PATH_DAEMON_LOCK,
            std::strerror(error));
    return std::nullopt;
}

}  // namespace

std::optional<pid_t> FindOtherInstance() {
    // Whether it worked is seen when the file is opened.
    static_cast<void>(TSFileSystem::MakeDir(ZOL_PATH_RUN_DIR, true));
    base::UniqueFd file(
        open(DevicePath(ZOL_PATH_DAEMON_LOCK).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kMode));
    if (!file) {
        return RunUnlocked(errno);
    }
    struct flock wanted {};
    wanted.l_type = F_WRLCK;
    wanted.l_whence = SEEK_SET;
    while (fcntl(file.Get(), F_SETLK, &wanted) != 0) {
        if (errno != EACCES && errno != EAGAIN) {
            return RunUnlocked(errno);
        }
        struct flock holder = wanted;
        if (fcntl(file.Get(), F_GETLK, &holder) != 0) {
            return RunUnlocked(errno);
        }
        // No holder any longer: it ended between the two calls. Try again.
        if (holder.l_type != F_UNLCK) {
            return holder.l_pid;
        }
    }
    // Held for the life of the process: the lock goes with the descriptor.
    static_cast<void>(file.Release());
    return std::nullopt;
}

}  // namespace zol_daemon
