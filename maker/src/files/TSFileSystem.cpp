#include "TSFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <string_view>
#include <vector>

#include "FileDescriptor.h"
#include "MakerLog.h"
#include "device_path.h"

namespace {

using maker::FileDescriptor;

constexpr mode_t kFolderMode = 0755;
constexpr int kMaxDepth = 64;  // nested folders that RemoveFolder takes: one descriptor and one listing each
constexpr const char* kInvalidPath = "the path is relative, too long or holds \"..\"";

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};
using FolderPtr = std::unique_ptr<DIR, CloseFolder>;

bool Fail(const char* what, const std::string& path, int error) {
    MAKER_ERROR("%s %s: errno %d", what, path.c_str(), error);
    return false;
}

bool Refuse(const std::string& path, const char* part, const char* why) {
    MAKER_ERROR("refusing folder %s: \"%s\" %s", path.c_str(), part, why);
    return false;
}

/// Runs an operation on the mapped path; nothing that it throws (there may be no memory) gets out.
template <class Operation>
bool Guarded(const char* what, const std::string& path, Operation operation) {
    try {
        return operation();
    } catch (const std::exception& error) {
        MAKER_ERROR("%s %s: %s", what, path.c_str(), error.what());
        return false;
    }
}

constexpr mode_t kAnyType = 0;

bool HasType(const std::string& path, mode_t type) {
    return Guarded("cannot look at", path, [&] {
        struct stat status {};
        if (stat(DevicePath(path).c_str(), &status) == 0) {
            return type == kAnyType || (status.st_mode & S_IFMT) == type;
        }
        return errno == ENOENT || errno == ENOTDIR ? false : Fail("cannot look at", path, errno);
    });
}

/// The names in an absolute path. False when it is relative or leaves the way with "..".
bool Split(const std::string& path, std::vector<std::string>& names) {
    if (path.empty() || path.front() != '/') {
        return false;
    }
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string_view name = std::string_view(path).substr(begin, end - begin);
        if (name == "..") {
            return false;
        }
        if (!name.empty() && name != ".") {
            names.emplace_back(name);
        }
        begin = end + 1;
    }
    return true;
}

bool WorldWritable(int folder) {
    struct stat status {};
    return fstat(folder, &status) != 0 || (status.st_mode & S_IWOTH) != 0;
}

/// The process's umask is not to hide reports from their collector. File systems without modes of their own
/// refuse the change, and need none.
void OpenForReaders(int folder) {
    struct stat status {};
    if (fstat(folder, &status) == 0 && (status.st_mode & kFolderMode) != kFolderMode) {
        fchmod(folder, kFolderMode);
    }
}

bool OwnedByStranger(int folder) {
    struct stat status {};
    return fstat(folder, &status) != 0 || (status.st_uid != geteuid() && status.st_uid != 0);
}

/// Steps from `parent` into `name`, making it when `make`. Every check is on the descriptor that is used
/// afterwards, so nothing can be exchanged in between.
bool Enter(FileDescriptor& parent, const std::string& name, bool make, const std::string& path) {
    const bool made = make && mkdirat(parent.Get(), name.c_str(), kFolderMode) == 0;
    if (make && !made && errno != EEXIST) {
        return Fail("cannot make folder", path, errno);
    }
    const int access = made ? O_RDONLY : O_PATH;  // a folder may be passable without being readable
    FileDescriptor child(openat(parent.Get(), name.c_str(), access | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!child) {
        return errno == ENOTDIR || errno == ELOOP ? Refuse(path, name.c_str(), "is a link or not a folder")
                                                  : Fail("cannot make folder", path, errno);
    }
    if (made) {
        // A USB stick's file system may give it to the stick's owner.
        OpenForReaders(child.Get());
    } else if (WorldWritable(parent.Get()) && OwnedByStranger(child.Get())) {
        return Refuse(path, name.c_str(), "belongs to another user");
    }
    parent = std::move(child);
    return true;
}

bool Make(const std::string& path, bool withParents) {
    std::vector<std::string> names;
    const std::string root = DevicePath("/");
    const std::string mapped = DevicePath(path);
    // A path that lies below the root already is mapped to itself: what is walked is what the mapping gives.
    if (path.empty() || path.front() != '/' || root.empty() || mapped.size() < root.size() ||
        !Split("/" + mapped.substr(root.size()), names)) {
        return Refuse(path, "", kInvalidPath);
    }
    FileDescriptor folder(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        return Fail("cannot make folder", path, errno);
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (!Enter(folder, names[i], withParents || i + 1 == names.size(), path)) {
            return false;
        }
    }
    return true;
}

bool List(int folder, std::vector<std::string>& names) {
    const int copy = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const FolderPtr listing(copy >= 0 ? fdopendir(copy) : nullptr);
    if (listing == nullptr) {
        return false;
    }
    errno = 0;
    while (const dirent* entry = readdir(listing.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    return errno == 0;
}

bool RemoveTree(int parent, const char* name, int depth);

bool RemoveEntry(int folder, const char* name, int depth) {
    if (unlinkat(folder, name, 0) == 0) {
        return true;
    }
    return (errno == EISDIR || errno == EPERM) && RemoveTree(folder, name, depth + 1);
}

bool RemoveTree(int parent, const char* name, int depth) {
    if (depth > kMaxDepth) {
        errno = ELOOP;
        return false;
    }
    const FileDescriptor folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    std::vector<std::string> names;
    if (!folder || !List(folder.Get(), names)) {
        return false;
    }
    for (const std::string& entry : names) {
        if (!RemoveEntry(folder.Get(), entry.c_str(), depth)) {
            return false;
        }
    }
    return unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

/// Without slashes at the end, which would make the last name be followed when it is a link.
std::string MappedWithoutSlash(const std::string& path) {
    std::string mapped = DevicePath(path);
    while (mapped.size() > 1 && mapped.back() == '/') {
        mapped.pop_back();
    }
    return mapped;
}

}  // namespace

bool TSFileSystem::Exists(const std::string& path) {
    return HasType(path, kAnyType);
}

bool TSFileSystem::FolderExists(const std::string& path) {
    return HasType(path, S_IFDIR);
}

bool TSFileSystem::RemoveFile(const std::string& path) {
    constexpr const char* kWhat = "cannot remove file";
    return Guarded(kWhat, path,
                   [&] { return unlink(DevicePath(path).c_str()) == 0 || Fail(kWhat, path, errno); });
}

bool TSFileSystem::RemoveFolder(const std::string& path) {
    constexpr const char* kWhat = "cannot remove folder";
    return Guarded(kWhat, path, [&] {
        const std::string mapped = MappedWithoutSlash(path);
        return RemoveTree(AT_FDCWD, mapped.c_str(), 0) || Fail(kWhat, path, errno);
    });
}

bool TSFileSystem::MakeDir(const std::string& path, bool withParents) {
    return Guarded("cannot make folder", path, [&] { return Make(path, withParents); });
}

bool TSFileSystem::SyncFolderOf(const std::string& path) {
    constexpr const char* kWhat = "cannot sync the folder of";
    return Guarded(kWhat, path, [&] {
        const std::string mapped = MappedWithoutSlash(path);
        const std::string parent = mapped.substr(0, mapped.find_last_of('/') + 1);
        const FileDescriptor folder(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return (folder && fsync(folder.Get()) == 0) || Fail(kWhat, path, errno);
    });
}
