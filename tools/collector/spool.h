#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "copy.h"
#include "destination.h"
#include "outcome.h"
#include "report.h"
#include "report_root.h"
#include "spool_counts.h"

namespace collector {

/// How much a spool may hold, refused reports included.
struct Limits {
    std::uint64_t bytes = std::uint64_t{16} * 1024 * 1024;  ///< in blocks of the file system
    std::size_t reports = 1024;
};

enum class State {
    Waiting,  ///< for the upload, or for whoever takes reports out of the spool
    Refused   ///< by the server, for good: kept for a look
};

/// A report in the spool.
struct Entry {
    std::string name;  ///< of its folder: "<sequence number>-<id>"
    State state = State::Waiting;
    std::uint64_t bytes = 0;
    std::uint64_t bodyBytes = 0;  ///< of these: all but the header
    bool isWhole = true;          ///< false: only its header is left

    /// See reports::Identify.
    [[nodiscard]] std::string Id() const;
};

/// Where the collector keeps reports, in the order in which they were taken, and remembers which it has:
///
///     reports/<sequence number>-<id>/<name of the report>/...   waiting
///     refused/...                                               the same, refused by the server
///     taken/<name of a report>                                  its id and last change, while it lies there
///     counts.json
///
/// Each change is whole and on the disk, or did not happen, also after a power cut. One thread.
class Spool {
public:
    /// @param say told of what was dropped, one line each
    Spool(const Limits& limits, std::function<void(const std::string&)> say);

    /// Opens a folder, which is made when it is missing, and locks it.
    [[nodiscard]] reports::Outcome Open(const std::string& path);

    /// Copies a report, or its header alone when it does not fit at all; makes room first: the oldest bodies
    /// go, then the oldest reports. One that was taken before is not taken again; `isNew` is false then, and
    /// true when it lies in the spool from now on, also when the call fails behind that.
    [[nodiscard]] reports::Outcome Take(const reports::ReportRoot& root, const std::string& name,
                                        bool& isNew);
    /// Whether a report that lies in the report root was taken and has not changed since.
    [[nodiscard]] bool WasTaken(const reports::ReportRoot& root, const std::string& name) const;
    /// Forgets those that lie there no longer.
    void ForgetAllBut(const std::vector<std::string>& names);

    /// The waiting report that was taken first; null when none waits. One that somebody else has taken out is
    /// forgotten, and its folder removed when that was left.
    /// @param without names of entries to pass over
    [[nodiscard]] const Entry* First(const std::set<std::string>& without = {});
    /// The path of its folder, in which the report's own lies.
    [[nodiscard]] std::string PathOf(const Entry& entry) const;
    /// It is with the server. Nothing to do, here and below, for one that was dropped meanwhile.
    [[nodiscard]] reports::Outcome Remove(const Entry& entry);
    /// The server does not want it.
    [[nodiscard]] reports::Outcome Refuse(const Entry& entry);

    [[nodiscard]] const SpoolCounts& Counts() const { return m_counts; }

private:
    using Entries = std::map<std::uint64_t, Entry>;

    [[nodiscard]] reports::Outcome OpenFolders();
    [[nodiscard]] reports::Outcome Stage(int folder, const reports::Report& report, reports::What what) const;
    [[nodiscard]] reports::Outcome Store(int folder, const reports::Report& report, const std::string& id);
    [[nodiscard]] std::string MarkFileOf(const std::string& name) const;
    [[nodiscard]] reports::Outcome Remember(const reports::Report& report, const std::string& id) const;
    [[nodiscard]] bool IsTakenOut(const Entry& entry);
    [[nodiscard]] bool Has(const std::string& id) const;
    [[nodiscard]] reports::Outcome MakeRoom(std::uint64_t bytes);
    [[nodiscard]] reports::Outcome DropBody(Entry& entry);
    [[nodiscard]] reports::Outcome TakeBodyAway(Entry& entry);
    [[nodiscard]] reports::Outcome DropReport(Entries::iterator entry);
    [[nodiscard]] reports::Outcome RemoveFolder(const Entry& entry);
    [[nodiscard]] Entries::iterator Find(const Entry& entry);
    Entries::iterator Forget(Entries::iterator entry);
    void ForgetRemoved();
    void Count(std::int64_t SpoolCounts::*count);

    const Limits m_limits;
    const std::function<void(const std::string&)> m_say;
    std::string m_path;
    reports::Destination m_folder;
    Entries m_entries;  ///< by their sequence numbers
    std::uint64_t m_bytes = 0;
    SpoolCounts m_counts;
};

/// What lies in a spool, in the order in which it was taken; also of one that a collector works on. Of an
/// entry whose report cannot be read it has what could be.
[[nodiscard]] reports::Outcome ListSpool(const std::string& path, std::vector<Entry>& entries);

/// Opens and reads the report in the folder of an entry; Missing when there is none.
[[nodiscard]] reports::Outcome OpenEntry(const std::string& path, base::UniqueFd& folder,
                                         reports::Report& report);

/// Of an entry by the path, or the name, of its folder.
[[nodiscard]] std::string IdOf(const std::string& path);
[[nodiscard]] bool IsWhole(const std::string& path);

}  // namespace collector
