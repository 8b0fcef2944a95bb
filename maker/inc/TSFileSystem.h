#pragma once
/// File operations on device paths. All of them map the path (device_path.h), work on any thread, throw
/// nothing and report failure as false with one line in the platform log.
#include <string>

struct TSFileSystem {
    /// True when the path exists, whatever it is (a link to nothing does not count).
    static bool Exists(const std::string& path);
    /// True when the path exists and is a folder (a link to one counts).
    static bool FolderExists(const std::string& path);
    static bool RemoveFile(const std::string& path);
    /// Removes a folder with all it holds, at most 64 folders deep. Links inside are removed, never followed;
    /// a link in the folder's own place is refused.
    static bool RemoveFolder(const std::string& path);

    /// Makes a folder (mode 0755). An existing one is fine. With `withParents` the missing parents too.
    /// Refuses, and logs why, when a part of the path below the root is a symbolic link, is "..", or lies in
    /// a folder that everyone may write to (such as "/tmp") and belongs to a user who is neither this
    /// process's nor root: a stranger could have put it there.
    static bool MakeDir(const std::string& path, bool withParents);

    /// Makes a rename or a new entry in the folder of `path` survive a power cut.
    static bool SyncFolderOf(const std::string& path);
};
