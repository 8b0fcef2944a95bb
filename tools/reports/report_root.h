#pragma once
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "outcome.h"

namespace reports {

/// The folder that the daemon makes its reports in, as somebody who trusts nobody but root enters it. On a
/// throw-away root the account of this process counts as root, too. One thread.
class ReportRoot {
public:
    /// Before everything else. Missing when no report was made since the device has started.
    [[nodiscard]] Outcome Open();

    /// The names of what may be reports, in any order: "<tgid>_<evid>".
    [[nodiscard]] Outcome List(std::vector<std::string>& names) const;

    /// Opens one by its name; refuses whatever is not a folder of root's that only root writes to.
    [[nodiscard]] Outcome OpenReport(const std::string& name, base::UniqueFd& folder) const;

    /// Whether nothing of this name is there any more: somebody else may take a report at any moment.
    [[nodiscard]] bool IsGone(const std::string& name) const;

    /// For the ...at calls.
    [[nodiscard]] int Fd() const { return m_fd.Get(); }

private:
    base::UniqueFd m_fd;
};

/// The device path of a report.
[[nodiscard]] std::string PathOf(const std::string& name);

/// The name of the report at a device path, which comes from anybody: Refused unless it is that of a report
/// right in the report root.
[[nodiscard]] Outcome NameOf(const std::string& path, std::string& name);

}  // namespace reports
