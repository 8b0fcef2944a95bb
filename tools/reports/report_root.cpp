#include "report_root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "base/folders.h"
#include "base/system_error.h"
#include "device_path.h"
#include "device_paths.h"
#include "text.h"

namespace reports {
namespace {

/// "<tgid>_<evid>", of which the evid may be cut. Trace dumps, for example, lie in the same place.
bool IsReport(std::string_view name) {
    const std::size_t separator = name.rfind('_');
    if (separator == std::string_view::npos || separator == 0 || name.find('/') != std::string_view::npos) {
        return false;
    }
    const std::string_view evid = name.substr(separator + 1);
    return evid == "NULL" || evid.find_first_not_of("0123456789") == std::string_view::npos;
}

bool IsTrusted(const struct stat& status) {
    const bool isThrowAway = DevicePath("/") != "/";
    const bool isRoots = status.st_uid == 0 || (isThrowAway && status.st_uid == geteuid());
    return isRoots && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

Outcome Check(int folder, const std::string& path) {
    struct stat status {};
    if (fstat(folder, &status) != 0) {
        return {Problem::Unreadable, path, base::LastError()};
    }
    if (!IsTrusted(status)) {
        return {Problem::Refused, path + " does not belong to root alone"};
    }
    return {};
}

}  // namespace

Outcome ReportRoot::Open() {
    base::OpenedFolder root =
        base::OpenFolder(DevicePath("/"), DevicePath(ZOL_PATH_REPORT_ROOT), base::Make::Nothing);
    if (!root.refused.empty()) {
        return {Problem::Refused, std::string(ZOL_PATH_REPORT_ROOT) + ": " + root.refused};
    }
    if (root.error) {
        const bool isMissing = root.error == std::errc::no_such_file_or_directory;
        return {isMissing ? Problem::Missing : Problem::Unreadable, ZOL_PATH_REPORT_ROOT, root.error};
    }
    m_fd = std::move(root.fd);
    return Check(m_fd.Get(), ZOL_PATH_REPORT_ROOT);
}

Outcome ReportRoot::List(std::vector<std::string>& names) const {
    std::vector<std::string> all;
    if (const std::error_code error = base::ListFolder(m_fd.Get(), all)) {
        return {Problem::Unreadable, ZOL_PATH_REPORT_ROOT, error};
    }
    std::copy_if(all.begin(), all.end(), std::back_inserter(names), IsReport);
    return {};
}

Outcome ReportRoot::OpenReport(const std::string& name, base::UniqueFd& folder) const {
    const std::string path = tools::Printable(PathOf(name));
    folder.Reset(openat(m_fd.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder) {
        return Check(folder.Get(), path);
    }
    if (errno == ENOTDIR || errno == ELOOP) {
        return {Problem::Refused, path + " is a link or not a folder"};
    }
    const std::error_code error = base::LastError();
    return {errno == ENOENT ? Problem::Missing : Problem::Unreadable, path, error};
}

bool ReportRoot::IsGone(const std::string& name) const {
    return faccessat(m_fd.Get(), name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

std::string PathOf(const std::string& name) {
    return std::string(ZOL_PATH_REPORT_ROOT) + "/" + name;
}

Outcome NameOf(const std::string& path, std::string& name) {
    const std::string root = PathOf("");
    if (path.compare(0, root.size(), root) != 0 || !IsReport(std::string_view(path).substr(root.size()))) {
        return {Problem::Refused, "\"" + tools::Printable(path) + "\" is no report right in " +
                                      ZOL_PATH_REPORT_ROOT + ", nothing is taken from there"};
    }
    name = path.substr(root.size());
    return {};
}

}  // namespace reports
