#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/unique_fd.h"

namespace base {

/// A log file that several processes append to and that any of them rotates when it has grown too large:
/// "main.log" becomes "main.1.log", that one "main.2.log", and the oldest goes. It comes back by itself after
/// the file was deleted, could not be opened, or became something else than a regular file. Never follows a
/// link in the file's place, never waits for a pipe's reader. Not thread-safe. A line allocates nothing,
/// unless the file has to be opened or rotated.
///
/// What others do to the file is looked at with a line that is kLookNs or more after the last look: lines in
/// between still go to a file that was deleted or renamed, and what other processes write in between may take
/// the file beyond its limit.
class RotatingFile {
public:
    struct Place {
        std::string root;  ///< folder that the path is opened below, as OpenFolder (folders.h) does
        std::string path;  ///< ends in ".log"; missing folders are made
    };
    enum class Numbers { BeforeEnding, AtEnd };
    struct Limits {
        std::int64_t maxBytes;  ///< a file that would grow beyond is rotated first; a longer line has its own
        int oldFiles;           ///< rotated ones that are kept
        Numbers numbers = Numbers::BeforeEnding;  ///< "main.1.log", or AtEnd: "main.log.1"
    };
    /// Told of the first failure of a row: what failed, and why.
    using Report = std::function<void(const char* what, const std::error_code& error)>;
    /// A clock that never jumps, in nanoseconds.
    using Clock = std::uint64_t (*)();

    static constexpr std::uint64_t kLookNs = 1000000;

    /// Nothing is opened before the first line.
    RotatingFile(Place place, Limits limits, Clock clock, Report report);

    /// Appends whole lines with one write, so that lines of several processes do not mix. Lines that cannot
    /// be written are lost. A file that cannot be opened is tried again after a second.
    void Write(std::string_view lines);

private:
    bool IsReady(std::int64_t more);
    bool Fits(std::int64_t more) const;
    bool IsCurrent();
    bool Open();
    std::error_code OpenNow();
    bool Rotate();
    std::error_code MoveAll();
    void Fail(const char* what, const std::error_code& error);
    bool FailToOpen(const char* what, const std::error_code& error);

    const Place m_place;
    const Limits m_limits;
    const Clock m_clock;
    const Report m_report;
    std::vector<std::string> m_names;  // by age, the first one is the file itself
    std::string m_openPath;            // of the file, without links
    UniqueFd m_folder;
    UniqueFd m_file;
    std::int64_t m_size = 0;          // of the file when it was last looked at, and what was written since
    std::uint64_t m_nextLook = 0;     // nanoseconds
    std::uint64_t m_nextAttempt = 0;  // nanoseconds before which nothing is opened: it has just failed
    bool m_isReported = false;
};

}  // namespace base
