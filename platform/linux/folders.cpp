#include "folders.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>

namespace platform {

bool MakeFolder(const std::string& path) {
    constexpr mode_t kMode = 0755;
    if (mkdir(path.c_str(), kMode) == 0) {
        return true;
    }
    // On a read-only or foreign parent the error may be another one though the folder is there.
    const int error = errno;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        errno = error;
        return false;
    }
    errno = ENOTDIR;
    return S_ISDIR(status.st_mode);
}

bool MakeParentFolders(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (!MakeFolder(path.substr(0, slash))) {
            return false;
        }
    }
    return true;
}

}  // namespace platform
