#pragma once
/// The folder of one report.
#include <string>
#include <system_error>

#include "base/handles.h"

class TCKpiManager;

namespace zol {

/// "/tmp/zol/<tgid>_<evid>" with a header.json. All paths are device paths and cut at 127 bytes.
class ReportFolder {
public:
    ReportFolder(const std::string& tgid, const std::string& evid);
    explicit ReportFolder(std::string path) : m_path(std::move(path)) {}

    const std::string& Path() const { return m_path; }

    /// Makes the folder and its parents; an existing one is fine. False, and logged by the file system, when
    /// it cannot or a stranger could have put it there.
    [[nodiscard]] bool Make() const;

    /// header.json, made when it is missing, readable by everyone whatever the umask. Null when it cannot be
    /// opened or is a link.
    [[nodiscard]] base::FilePtr OpenHeader() const;
    /// Writes the identifiers into the open file and closes it. Whoever reads it meanwhile sees no change
    /// where the content stays the same: events of one second share a folder.
    [[nodiscard]] static std::error_code WriteHeader(base::FilePtr file, const TCKpiManager& identifiers);

private:
    std::string m_path;
};

}  // namespace zol
