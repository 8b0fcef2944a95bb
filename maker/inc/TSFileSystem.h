#pragma once
/// File operations on device paths. All of them map the path (device_path.h), work on any thread, throw
/// nothing and report failure as false with a line in the platform log.
#include <string>

struct TSFileSystem {
    /// True when the path exists, whatever it is (a link to nothing does not count).
    [[nodiscard]] static bool Exists(const std::string& path);
    /// True when the path exists and is a folder (a link to one counts).
    [[nodiscard]] static bool FolderExists(const std::string& path);
    [[nodiscard]] static bool RemoveFile(const std::string& path);
    /// Removes a folder with all it holds, at most 64 folders deep. Links inside are removed, never followed;
    /// a link in the folder's own place is refused.
    [[nodiscard]] static bool RemoveFolder(const std::string& path);

    /// Makes a folder (mode 0755). An existing one is fine. With `withParents` the missing parents too.
    /// Links on the way are followed where only root could have made them; any other link, "..", and a folder
    /// that a stranger could have put there (one of a user who is neither root nor this process's in a folder
    /// where everyone may write, such as "/tmp") are refused, and the log says why.
    [[nodiscard]] static bool MakeDir(const std::string& path, bool withParents);
};
