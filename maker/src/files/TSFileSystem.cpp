#include "TSFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "MakerLog.h"
#include "base/exception_wall.h"
#include "base/folders.h"
#include "base/system_error.h"
#include "device_path.h"

namespace {

/// Runs an operation on the mapped path that returns why it failed, which is logged.
template <class Operation>
bool Run(const char* what, const std::string& path, Operation operation) {
    const auto report = [&](const char* why) { MAKER_ERROR("%s %s: %s", what, path.c_str(), why); };
    return base::CatchAll(
        [&] {
            const std::error_code error = operation(DevicePath(path));
            if (error) {
                report(error.message().c_str());
            }
            return !error;
        },
        report);
}

constexpr mode_t kAnyType = 0;

bool HasType(const std::string& path, mode_t type) {
    bool hasType = false;
    static_cast<void>(
        Run("cannot look at", path, [&](const std::string& mapped) {  // logged; counts as absent
            struct stat status {};
            const bool exists = stat(mapped.c_str(), &status) == 0;
            hasType = exists && (type == kAnyType || (status.st_mode & S_IFMT) == type);
            return base::ErrorUnless(exists || errno == ENOENT || errno == ENOTDIR);
        }));
    return hasType;
}

}  // namespace

bool TSFileSystem::Exists(const std::string& path) {
    return HasType(path, kAnyType);
}

bool TSFileSystem::FolderExists(const std::string& path) {
    return HasType(path, S_IFDIR);
}

bool TSFileSystem::RemoveFile(const std::string& path) {
    return Run("cannot remove file", path,
               [](const std::string& mapped) { return base::ErrorUnless(unlink(mapped.c_str()) == 0); });
}

bool TSFileSystem::RemoveFolder(const std::string& path) {
    return Run("cannot remove folder", path, [](std::string mapped) {
        // A slash at the end would make the last name be followed when it is a link.
        mapped.erase(mapped.find_last_not_of('/') + 1);
        return base::RemoveTree(AT_FDCWD, mapped.c_str());
    });
}

bool TSFileSystem::MakeDir(const std::string& path, bool withParents) {
    return Run("cannot make folder", path, [&](const std::string& mapped) {
        const base::OpenedFolder folder =
            base::OpenFolder(DevicePath("/"), mapped, withParents ? base::Make::All : base::Make::Last);
        if (!folder.refused.empty()) {
            MAKER_ERROR("refusing folder %s: %s", path.c_str(), folder.refused.c_str());
        }
        return folder.error;
    });
}
