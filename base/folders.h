#pragma once
/// Folders that are made and entered step by step by descriptor, so that nobody can lead the way elsewhere.
#include <sys/types.h>

#include <string>
#include <system_error>
#include <vector>

#include "base/unique_fd.h"

namespace base {

/// Which folders of a path are made when they are missing (mode 0755, whatever the umask).
enum class Make { Nothing, Last, All };

struct OpenedFolder {
    /// The folder (O_PATH: for the ...at calls only); owns nothing when there is an error.
    UniqueFd fd;
    /// Its path without links.
    std::string path;
    std::error_code error;
    /// Why the way was refused, with the name that it is about: "\"zol\" is a link or not a folder". Empty
    /// for an error of the system.
    std::string refused;
};

/// Opens the folder `path`, which lies below the folder `root` ("/" or one that ends in "/") or is it.
///
/// A link on the way is followed when only root could have made it: it belongs to root and lies in a folder
/// that belongs to root and only root may write to. For another user that user counts as root does. Absolute
/// targets are below `root` (or begin with it); nothing leads out of `root`. Any other link is refused, and
/// so is a folder of a stranger (neither root nor this user) in a folder that everyone may write to: a
/// stranger may have put it there. "..", a relative path and one that does not begin with `root` are refused,
/// too.
[[nodiscard]] OpenedFolder OpenFolder(const std::string& root, const std::string& path, Make make);

/// Appends the names in a folder to `names`, without "." and "..". Any descriptor of the folder will do.
[[nodiscard]] std::error_code ListFolder(int folder, std::vector<std::string>& names);

/// Removes the folder `name` in the folder `parent` (or AT_FDCWD) with all it holds, at most 64 folders deep.
/// Links inside are removed, never followed; a link in its own place is refused.
[[nodiscard]] std::error_code RemoveTree(int parent, const char* name);

/// Makes new names in a folder, and moves within it, survive a power cut. File systems that cannot do it, and
/// therefore say EINVAL, count as done.
[[nodiscard]] std::error_code SyncFolder(const std::string& folder);
/// The same for the folder that `path` lies in.
[[nodiscard]] std::error_code SyncFolderOf(const std::string& path);

}  // namespace base
