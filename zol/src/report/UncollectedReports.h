#pragma once
/// The limit of the report folders that lie about.
#include <cstddef>
#include <cstdint>

namespace zol {

/// Removes the oldest report folders that neither are published nor wait for it: those that no collector was
/// told of, or that it took and left. One per notify task; used by its thread only.
class UncollectedReports {
public:
    /// What stays of them, the newest ones, and how much of the file system their folders and files take.
    static constexpr std::size_t MAX_FOLDERS = 512;
    static constexpr std::uint64_t MAX_BYTES = std::uint64_t{8} * 1024 * 1024;
    /// The folders are looked at on the first report and then on each of so many: that many more may lie
    /// there meanwhile.
    static constexpr unsigned REPORTS_PER_LOOK = 64;

    /// To be called after each report. What was removed is one line.
    void Bound();

private:
    unsigned m_reportsUntilLook = 1;
};

}  // namespace zol
