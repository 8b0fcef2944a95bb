#include "UncollectedReports.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "HandOverQueue.h"
#include "Log.h"
#include "base/folders.h"
#include "base/unique_fd.h"
#include "device_path.h"
#include "device_paths.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::UncollectedReports";

constexpr std::uint64_t kBlockBytes = 512;  // of st_blocks, on every file system
constexpr std::uint64_t kKiB = 1024;

struct Folder {
    std::string name;
    std::pair<std::int64_t, std::int64_t> time;  // of the last change in it: seconds, nanoseconds
    std::uint64_t bytes;                         // with the files right in it
};

/// "<tgid>_<evid>", of which the evid may be cut. Other things in the report root are none of these.
bool IsReport(std::string_view name) {
    const std::size_t separator = name.rfind('_');
    if (separator == std::string_view::npos) {
        return false;
    }
    const std::string_view evid = name.substr(separator + 1);
    return evid == "NULL" || evid.find_first_not_of("0123456789") == std::string_view::npos;
}

std::uint64_t BytesOf(const struct stat& status) {
    return static_cast<std::uint64_t>(status.st_blocks) * kBlockBytes;
}

/// Null for what is no folder, or gone meanwhile.
std::optional<Folder> Measure(int root, const std::string& name) {
    const base::UniqueFd fd(openat(root, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!fd || fstat(fd.Get(), &status) != 0) {
        return std::nullopt;
    }
    Folder folder{name, {status.st_mtim.tv_sec, status.st_mtim.tv_nsec}, BytesOf(status)};
    std::vector<std::string> files;
    // What cannot be listed counts as far as it was.
    static_cast<void>(base::ListFolder(fd.Get(), files));
    for (const std::string& file : files) {
        if (fstatat(fd.Get(), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            folder.bytes += BytesOf(status);
        }
    }
    return folder;
}

/// The names in the report root that are published or wait for it.
std::set<std::string> NamesOf(const std::vector<std::string>& paths) {
    const std::string root = std::string(ZOL_PATH_REPORT_ROOT) + "/";
    std::set<std::string> names;
    for (const std::string& path : paths) {
        if (path.compare(0, root.size(), root) == 0) {
            names.insert(path.substr(root.size(), path.find('/', root.size()) - root.size()));
        }
    }
    return names;
}

/// The folders beyond the limits, the newest of them first.
std::vector<Folder> FindExcess(int root) {
    std::vector<std::string> names;
    // Listed first: what is listed and not awaited then is given up, or just being made and so the newest.
    const std::error_code error = base::ListFolder(root, names);
    const std::optional<std::vector<std::string>> awaited = HandOverQueue::Awaited();
    if (error || !awaited) {
        return {};
    }
    const std::set<std::string> kept = NamesOf(*awaited);
    std::vector<Folder> folders;
    for (const std::string& name : names) {
        if (IsReport(name) && kept.count(name) == 0) {
            if (std::optional<Folder> folder = Measure(root, name)) {
                folders.push_back(std::move(*folder));
            }
        }
    }
    std::sort(folders.begin(), folders.end(),
              [](const Folder& one, const Folder& other) { return one.time > other.time; });
    std::uint64_t bytes = 0;
    auto excess = folders.begin();
    for (std::size_t count = 0; excess != folders.end() && count < UncollectedReports::MAX_FOLDERS; ++count) {
        bytes += excess->bytes;
        if (bytes > UncollectedReports::MAX_BYTES) {
            break;
        }
        ++excess;
    }
    folders.erase(folders.begin(), excess);
    return folders;
}

void RemoveExcess() {
    const base::OpenedFolder root =
        base::OpenFolder(DevicePath("/"), DevicePath(ZOL_PATH_REPORT_ROOT), base::Make::Nothing);
    if (root.error) {
        return;  // there is none, or it was refused, and that logged, when a report was to be made
    }
    std::size_t removed = 0;
    std::uint64_t bytes = 0;
    std::error_code failure;
    for (const Folder& folder : FindExcess(root.fd.Get())) {
        if (const std::error_code error = base::RemoveTree(root.fd.Get(), folder.name.c_str())) {
            failure = error;
        } else {
            ++removed;
            bytes += folder.bytes;
        }
    }
    if (removed > 0 || failure) {
        ZOL_LOG(LOG_ERROR, "%zu report folders that nobody collected are removed, %llu KiB%s%s", removed,
                static_cast<unsigned long long>(bytes / kKiB), failure ? ", and others cannot be: " : "",
                failure ? failure.message().c_str() : "");
    }
}

}  // namespace

void UncollectedReports::Bound() {
    if (--m_reportsUntilLook == 0) {
        m_reportsUntilLook = REPORTS_PER_LOOK;
        RemoveExcess();
    }
}

}  // namespace zol
