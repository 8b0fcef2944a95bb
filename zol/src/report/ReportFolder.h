#pragma once
/// The folder of one report.
#include <string>
#include <system_error>
#include <utility>

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

    /// Why there is no new header.json; neither is set when there is one.
    struct HeaderErrors {
        std::error_code open;   ///< it cannot be made, or what is in its place is no file
        std::error_code write;  ///< what was there before, nothing perhaps, is there still
    };
    /// Puts header.json with the identifiers in place, readable by everyone whatever the umask. Whoever reads
    /// it meanwhile sees the old one or the new one, whole: events of one second share a folder. Any thread.
    [[nodiscard]] HeaderErrors WriteHeader(const TCKpiManager& identifiers) const;

private:
    std::string m_path;
};

}  // namespace zol
