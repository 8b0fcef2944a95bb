#pragma once
#include <cstdint>
#include <string>
#include <system_error>

namespace collector {

/// What happened to reports since the spool was made.
struct SpoolCounts {
    std::int64_t taken = 0;
    std::int64_t uploaded = 0;
    std::int64_t refused = 0;         ///< by the server, for good
    std::int64_t droppedBodies = 0;   ///< all but the header of a report, for want of room
    std::int64_t droppedReports = 0;  ///< reports with their headers, for want of room

    /// Of a file that is missing or damaged: all are 0.
    [[nodiscard]] static SpoolCounts Load(const std::string& file);
    [[nodiscard]] std::error_code Save(const std::string& file) const;
};

/// Calls function(name, count) for each count, in the order of the members.
template <typename Counts, typename Function>
void ForEach(Counts& counts, Function function) {
    function("taken", counts.taken);
    function("uploaded", counts.uploaded);
    function("refused", counts.refused);
    function("dropped_bodies", counts.droppedBodies);
    function("dropped_reports", counts.droppedReports);
}

}  // namespace collector
