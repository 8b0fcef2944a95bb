#pragma once
/// Files that take another's place whole or not at all.
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

#include "base/handles.h"

namespace base {

/// Under which name a replacement is written.
enum class Beside {
    Known,  ///< "<path>.new": what a crash left there is gone with the next replacement; one writer at a time
    Unused  ///< one that nothing has, for folders where anything may lie
};

/// Writes another file beside a file and moves it over the file at the end, so that a power cut, a crash or a
/// full disk leaves the old content or the new one. A link in the file's place is replaced, not followed. For
/// a caller that wants to know of each step; the steps run in the order of their declaration, all but Open
/// need its success. What was not moved is removed.
class ReplacementFile {
public:
    /// @param path of the file to replace; it need not exist
    explicit ReplacementFile(std::string path, Beside name = Beside::Known);
    ~ReplacementFile();
    ReplacementFile(const ReplacementFile&) = delete;
    ReplacementFile& operator=(const ReplacementFile&) = delete;

    /// @param mode of the new file, less the umask
    [[nodiscard]] std::error_code Open(mode_t mode);
    /// In one go and unbuffered. @return bytes written; when they are fewer, errno says why
    [[nodiscard]] std::size_t Write(std::string_view content);
    /// Against the umask.
    [[nodiscard]] std::error_code SetMode(mode_t mode);
    /// Needs privilege.
    [[nodiscard]] std::error_code SetOwner(uid_t user, gid_t group);
    [[nodiscard]] std::error_code Sync();
    /// Reports a late write error.
    [[nodiscard]] std::error_code Close();
    /// Moves the new file over the old one and makes that durable. When only the latter fails the new content
    /// stands all the same.
    [[nodiscard]] std::error_code Replace();

    /// What comes after Open, at once. An error leaves the old file, unless only the last sync failed.
    [[nodiscard]] std::error_code PutInPlace(std::string_view content);

private:
    const std::string m_path;
    const Beside m_name;
    std::string m_temporary;
    FilePtr m_file;
    bool m_isLeftOver = false;  // the temporary file exists and is ours to remove
};

/// All steps of ReplacementFile at once. An error leaves the old file, unless only the last sync failed.
[[nodiscard]] std::error_code ReplaceFile(const std::string& path, std::string_view content, mode_t mode,
                                          Beside name = Beside::Known);

}  // namespace base
