#include "vconf/store_files.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/folders.h"
#include "device_path.h"
#include "platform_clock.h"

namespace keystore {
namespace {

constexpr const char* kGroup = "zol";
constexpr const char* kDatabaseName = "vconf.db";
constexpr const char* kLockName = "vconf.lock";
constexpr mode_t kFileMode = 0660;
// Files that a member of the group makes belong to the group.
constexpr mode_t kFolderMode = S_ISGID | 0770;
constexpr std::uint64_t kLockPauseUs = 5000;

gid_t GroupId() {
    std::array<char, 4096> buffer;
    group entry{};
    group* found = nullptr;
    getgrnam_r(kGroup, &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->gr_gid : static_cast<gid_t>(-1);
}

/// The group may be missing and this process may not be allowed to set it: the owner can work all the same.
/// By descriptor: members of the group may put something else under the name at any moment.
void GiveToGroup(const base::UniqueFd& fd) {
    const gid_t gid = GroupId();
    if (gid != static_cast<gid_t>(-1) && fchown(fd.Get(), static_cast<uid_t>(-1), gid) != 0) {
        errno = 0;
    }
}

bool IsRegular(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// Nothing when there is something else than a regular file, which could be waited for without end.
base::UniqueFd OpenRegular(const std::string& path, int access) {
    base::UniqueFd fd(open(path.c_str(), access | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    struct stat status {};
    if (fd && (fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        fd.Reset();
    }
    return fd;
}

/// Makes the file unless it is there; what is no regular file does not belong under the name and gives way.
/// O_EXCL, because closing a descriptor of a file that SQLite has open in this process would drop its locks.
bool MakeFile(const std::string& path) {
    constexpr int kAttempts = 2;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const base::UniqueFd fd(
            open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode));
        if (fd) {
            GiveToGroup(fd);
            return fchmod(fd.Get(), kFileMode) == 0;
        }
        if (errno != EEXIST) {
            return false;
        }
        if (IsRegular(path)) {
            return true;
        }
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            return false;
        }
    }
    return false;
}

}  // namespace

StoreFiles::StoreFiles(std::string folder)
    : m_folder(std::move(folder)),
      m_database(m_folder + "/" + kDatabaseName),
      m_newDatabase(m_database + ".new"),
      m_lock(m_folder + "/" + kLockName),
      m_doorbell(m_folder + "/vconf.doorbell") {}

bool StoreFiles::MakeFolder() const {
    const std::size_t slash = m_folder.rfind('/');
    const std::string root = DevicePath("/");
    const base::OpenedFolder parent = base::OpenFolder(root, m_folder.substr(0, slash), base::Make::All);
    if (parent.error) {
        errno = parent.error.value();
        return false;
    }
    const char* const name = m_folder.c_str() + slash + 1;
    if (mkdirat(parent.fd.Get(), name, kFolderMode & 0700) != 0) {
        errno = base::OpenFolder(root, m_folder, base::Make::Nothing).error.value();
        return errno == 0;
    }
    const base::UniqueFd fd(openat(parent.fd.Get(), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) {
        return false;
    }
    GiveToGroup(fd);
    // A confined service may not set the bit; the files made here are given to the group one by one as well.
    return fchmod(fd.Get(), kFolderMode) == 0 || fchmod(fd.Get(), kFolderMode & 0777) == 0;
}

std::optional<FileIdentity> StoreFiles::Current() const {
    struct stat status {};
    if (stat(m_database.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity{status.st_dev, status.st_ino, status.st_size == 0};
}

bool StoreFiles::HasLog() const {
    struct stat status {};
    return stat((m_database + "-wal").c_str(), &status) == 0 && status.st_size > 0;
}

bool StoreFiles::HasLock() const {
    return IsRegular(m_lock);
}

base::UniqueFd StoreFiles::Lock(int operation, int patienceMs) const {
    if (operation == LOCK_EX && !MakeFile(m_lock)) {
        return base::UniqueFd();
    }
    base::UniqueFd fd = OpenRegular(m_lock, O_RDONLY);
    if (!fd) {
        return fd;
    }
    const std::uint64_t end = platform_clock_steady_ns() + static_cast<std::uint64_t>(patienceMs) * 1000000U;
    while (flock(fd.Get(), operation | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || platform_clock_steady_ns() >= end) {
            return base::UniqueFd();
        }
        platform_sleep_us(kLockPauseUs);
    }
    return fd;
}

bool StoreFiles::BeginNew() const {
    for (const char* leftover : {"", "-wal", "-shm", "-journal"}) {
        if (unlink((m_newDatabase + leftover).c_str()) != 0 && errno != ENOENT) {
            return false;
        }
    }
    return MakeFile(m_newDatabase);
}

bool StoreFiles::CommitNew() const {
    const base::UniqueFd fd(open(m_newDatabase.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd || fsync(fd.Get()) != 0) {
        return false;
    }
    if (rename(m_newDatabase.c_str(), m_database.c_str()) != 0) {
        return false;
    }
    const std::error_code error = base::SyncFolder(m_folder);
    errno = error.value();
    return !error;
}

void StoreFiles::RingDoorbell() const {
    // Closing a file that was open for writing is an event of its own; nothing has to be written.
    // Making one rings it too.
    if (!OpenRegular(m_doorbell, O_WRONLY) && !IsRegular(m_doorbell)) {
        static_cast<void>(MakeFile(m_doorbell));  // without a bell the watchers' next look finds the change
    }
}

bool StoreFiles::IsNoise(const char* name) {
    const std::size_t length = std::strlen(name);
    return std::strcmp(name, kLockName) == 0 || (length > 4 && std::strcmp(name + length - 4, "-shm") == 0);
}

bool StoreFiles::IsWriteAheadLog(const char* name) {
    return std::strcmp(name, (std::string(kDatabaseName) + "-wal").c_str()) == 0;
}

}  // namespace keystore
