#include "base/folders.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "base/handles.h"
#include "base/system_error.h"

namespace base {
namespace {

constexpr mode_t kFolderMode = 0755;
constexpr int kMaxLinks = 8;
constexpr int kMaxDepth = 64;  // nested folders that RemoveTree takes: one descriptor and one listing each

using Names = std::vector<std::string>;

/// Root, and whoever this process works for.
bool IsTrusted(uid_t user) {
    return user == 0 || user == geteuid();
}

/// Nobody but those who are trusted can have put anything into this folder.
bool IsProtected(const struct stat& folder) {
    return IsTrusted(folder.st_uid) && (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

enum class Back { Allowed, Refused };

/// Appends the names between the slashes; ".." takes the last one off again. False when that is refused.
bool Append(std::string_view path, Back back, Names& names) {
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string_view name = path.substr(begin, end - begin);
        if (name == "..") {
            if (back == Back::Refused) {
                return false;
            }
            if (!names.empty()) {
                names.pop_back();
            }
        } else if (!name.empty() && name != ".") {
            names.emplace_back(name);
        }
        begin = end + 1;
    }
    return true;
}

/// The process's umask is not to hide reports from their collector. File systems without modes of their own
/// refuse the change, and need none.
void OpenForReaders(int folder) {
    struct stat status {};
    if (fstat(folder, &status) == 0 && (status.st_mode & kFolderMode) != kFolderMode) {
        static_cast<void>(fchmod(folder, kFolderMode));
    }
}

std::optional<std::string> TargetOf(int link) {
    std::array<char, 1024> target;
    const ssize_t length = readlinkat(link, "", target.data(), target.size());
    if (length <= 0 || static_cast<std::size_t>(length) == target.size()) {
        return std::nullopt;
    }
    return std::string(target.data(), static_cast<std::size_t>(length));
}

/// One way from the root to a folder.
class Walk {
public:
    Walk(const std::string& root, Names names, Make make)
        : m_root(root), m_names(std::move(names)), m_make(make) {}

    OpenedFolder Run() {
        while (m_step == Step::Again) {
            m_result.fd.Reset(open(m_root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            m_step = m_result.fd ? Step::Entered : Fail(errno);
            for (std::size_t i = 0; i < m_names.size() && m_step == Step::Entered; ++i) {
                m_step = Enter(i);
            }
        }
        if (m_step == Step::Failed) {
            m_result.fd.Reset();
            return std::move(m_result);
        }
        m_result.path = m_root;
        for (const std::string& name : m_names) {
            m_result.path += (m_result.path.back() == '/' ? "" : "/") + name;
        }
        return std::move(m_result);
    }

private:
    enum class Step { Entered, Again, Failed };

    Step Fail(int error) {
        m_result.error = {error, std::generic_category()};
        return Step::Failed;
    }
    Step Refuse(int error, const std::string& name, const char* why) {
        m_result.refused = "\"" + name + "\" " + why;
        return Fail(error);
    }

    /// Every check is on the descriptor that is used afterwards: nothing can be exchanged in between.
    Step Enter(std::size_t index) {
        const std::string& name = m_names[index];
        const int parent = m_result.fd.Get();
        const bool make = m_make == Make::All || (m_make == Make::Last && index + 1 == m_names.size());
        const bool made = make && mkdirat(parent, name.c_str(), kFolderMode) == 0;
        if (make && !made && errno != EEXIST) {
            return Fail(errno);
        }
        // A folder may be passable without being readable.
        const int access = made ? O_RDONLY | O_DIRECTORY : O_PATH;
        UniqueFd child(openat(parent, name.c_str(), access | O_NOFOLLOW | O_CLOEXEC));
        struct stat folder {};
        struct stat status {};
        if (!child || fstat(parent, &folder) != 0 || fstat(child.Get(), &status) != 0) {
            return Fail(errno);
        }
        if (S_ISLNK(status.st_mode) && IsTrusted(status.st_uid) && IsProtected(folder)) {
            return Follow(index, child.Get());
        }
        if (!S_ISDIR(status.st_mode)) {
            return Refuse(ENOTDIR, name, "is a link or not a folder");
        }
        if (made) {
            // A USB stick's file system may give it to the stick's owner.
            OpenForReaders(child.Get());
        } else if ((folder.st_mode & S_IWOTH) != 0 && !IsTrusted(status.st_uid)) {
            return Refuse(EPERM, name, "belongs to another user");
        }
        m_result.fd = std::move(child);
        return Step::Entered;
    }

    /// Begins anew on the way that the link stands for. The names before it are no links any more.
    Step Follow(std::size_t index, int link) {
        std::optional<std::string> target = TargetOf(link);
        if (!target || ++m_links > kMaxLinks) {
            return Refuse(ELOOP, m_names[index], "leads nowhere");
        }
        const auto linkName = m_names.begin() + static_cast<std::ptrdiff_t>(index);
        Names names;
        if (target->front() != '/') {
            names.assign(m_names.begin(), linkName);
        } else if (target->compare(0, m_root.size(), m_root) == 0) {
            target->erase(0, m_root.size());
        }
        Append(*target, Back::Allowed, names);
        names.insert(names.end(), linkName + 1, m_names.end());
        m_names = std::move(names);
        return Step::Again;
    }

    const std::string& m_root;
    Names m_names;
    const Make m_make;
    int m_links = 0;
    Step m_step = Step::Again;
    OpenedFolder m_result;
};

std::error_code RemoveTreeAt(int parent, const char* name, int depth);

std::error_code RemoveEntry(int folder, const char* name, int depth) {
    if (unlinkat(folder, name, 0) == 0) {
        return {};
    }
    return errno == EISDIR || errno == EPERM ? RemoveTreeAt(folder, name, depth + 1) : LastError();
}

std::error_code RemoveTreeAt(int parent, const char* name, int depth) {
    if (depth > kMaxDepth) {
        return std::make_error_code(std::errc::too_many_symbolic_link_levels);
    }
    const UniqueFd folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) {
        return LastError();
    }
    std::vector<std::string> names;
    std::error_code error = ListFolder(folder.Get(), names);
    for (auto entry = names.begin(); !error && entry != names.end(); ++entry) {
        error = RemoveEntry(folder.Get(), entry->c_str(), depth);
    }
    return error ? error : ErrorUnless(unlinkat(parent, name, AT_REMOVEDIR) == 0);
}

}  // namespace

OpenedFolder OpenFolder(const std::string& root, const std::string& path, Make make) {
    Names names;
    const bool isBelow = !root.empty() && root.front() == '/' && path.compare(0, root.size(), root) == 0;
    if (!isBelow || !Append(std::string_view(path).substr(root.size()), Back::Refused, names)) {
        OpenedFolder invalid;
        invalid.error = std::make_error_code(std::errc::invalid_argument);
        invalid.refused = "the path is relative, too long or holds \"..\"";
        return invalid;
    }
    return Walk(root, std::move(names), make).Run();
}

std::error_code ListFolder(int folder, std::vector<std::string>& names) {
    UniqueFd copy(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const FolderPtr listing(copy ? fdopendir(copy.Get()) : nullptr);
    if (listing == nullptr) {
        return LastError();
    }
    static_cast<void>(copy.Release());  // the listing closes it
    errno = 0;
    while (const dirent* entry = readdir(listing.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    return ErrorUnless(errno == 0);
}

std::error_code RemoveTree(int parent, const char* name) {
    return RemoveTreeAt(parent, name, 0);
}

std::error_code SyncFolder(const std::string& folder) {
    const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return ErrorUnless(fd && (fsync(fd.Get()) == 0 || errno == EINVAL));
}

std::error_code SyncFolderOf(const std::string& path) {
    const std::size_t last = path.find_last_not_of('/');
    const std::size_t slash = path.rfind('/', last);
    return SyncFolder(slash == std::string::npos ? "." : path.substr(0, slash + 1));
}

}  // namespace base
