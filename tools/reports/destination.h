#pragma once
#include <string>

#include "base/unique_fd.h"
#include "outcome.h"
#include "report.h"
#include "report_root.h"

namespace reports {

/// A report as it lies in a destination.
struct Taken {
    std::string path;
    bool isNew = true;     ///< false: it was there already
    bool isMoved = false;  ///< false: it still lies in the report root, too
};

/// A folder that reports are taken into, by one process at a time. Each is there whole, under its name, or
/// not at all, also after a power cut.
class Destination {
public:
    Destination() = default;
    ~Destination();
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    /// Opens and locks a folder that exists, and removes what was not finished there. Busy when another
    /// process takes reports into it.
    [[nodiscard]] Outcome Open(const std::string& path);

    /// Moves a report here when it can be moved and nothing more is to come into it, else copies it. The same
    /// report again is left as it is; another one of the same name gets a part of its id behind that.
    [[nodiscard]] Outcome Take(const ReportRoot& root, const std::string& name, Taken& taken);

    /// For the ...at calls.
    [[nodiscard]] int Fd() const { return m_fd.Get(); }
    /// Where copies are made before they are moved into their place, on the same file system.
    [[nodiscard]] int StagingFd() const { return m_staging.Get(); }

private:
    [[nodiscard]] Outcome FindPlace(const Report& report, const std::string& id, std::string& place,
                                    bool& isThere) const;
    [[nodiscard]] bool IsThere(const std::string& place, const Report& report, const std::string& id) const;
    [[nodiscard]] Outcome Copy(int folder, const Report& report, const std::string& place) const;

    std::string m_path;
    base::UniqueFd m_fd;
    base::UniqueFd m_staging;
};

}  // namespace reports
